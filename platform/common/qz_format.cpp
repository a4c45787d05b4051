// The platform's text formatter, shared by logging, debug, CLI output and qz_snprintf.
#include "qz_format.h"

#include <stdint.h>
#include <stdio.h>
#include <string.h>

namespace {

struct out_buf {
    char *buf;
    size_t size;
    size_t len = 0;

    void put(const char *s, size_t n)
    {
        if (len + 1 < size) {
            size_t room = size - 1 - len;
            memcpy(buf + len, s, n < room ? n : room);
        }
        len += n;
    }
};

void put_padded(out_buf &o, const char *s, int width, bool left)
{
    size_t n = strlen(s);
    size_t pad = width > 0 && (size_t)width > n ? (size_t)width - n : 0;
    static const char spaces[] = "                                ";
    auto put_spaces = [&](size_t k) {
        while (k) {
            size_t c = k < sizeof(spaces) - 1 ? k : sizeof(spaces) - 1;
            o.put(spaces, c);
            k -= c;
        }
    };
    if (!left)
        put_spaces(pad);
    o.put(s, n);
    if (left)
        put_spaces(pad);
}

} // namespace

int qz_vformat(char *buf, size_t size, const char *fmt, va_list ap_in)
{
    out_buf o{buf, size};
    va_list ap;
    va_copy(ap, ap_in);
    const char *p = fmt;
    while (*p) {
        if (*p != '%') {
            const char *q = strchr(p, '%');
            size_t n = q ? (size_t)(q - p) : strlen(p);
            o.put(p, n);
            p += n;
            continue;
        }
        // One conversion: %[flags][width][.precision][length]conv
        const char *start = p++;
        bool left = false;
        while (*p && strchr("-+ #0", *p))
            left |= *p++ == '-';
        int width = -1;
        bool star_width = false, star_prec = false;
        if (*p == '*') {
            star_width = true;
            width = va_arg(ap, int);
            if (width < 0) {
                left = true;
                width = -width;
            }
            p++;
        } else {
            while (*p >= '0' && *p <= '9')
                width = (width < 0 ? 0 : width * 10) + (*p++ - '0');
        }
        int prec = -1;
        if (*p == '.') {
            p++;
            prec = 0;
            if (*p == '*') {
                star_prec = true;
                prec = va_arg(ap, int);
                p++;
            } else {
                while (*p >= '0' && *p <= '9')
                    prec = prec * 10 + (*p++ - '0');
            }
        }
        const char *len_start = p;
        while (*p && strchr("hlLqjzt", *p))
            p++;
        std::string length(len_start, p);
        char conv = *p;
        if (!conv)
            break;
        p++;

        char tmp[64];
        if (conv == '%') {
            o.put("%", 1);
            continue;
        }
        if (conv == 'm') {
            const uint8_t *m = va_arg(ap, const uint8_t *);
            if (m)
                snprintf(tmp, sizeof(tmp), "%02x%02x.%02x%02x.%02x%02x", m[0], m[1], m[2], m[3],
                         m[4], m[5]);
            else
                snprintf(tmp, sizeof(tmp), "(null)");
            put_padded(o, tmp, width, left);
            continue;
        }
        if (conv == 'i') {
            uint32_t ip = va_arg(ap, uint32_t);
            const uint8_t *b = (const uint8_t *)&ip;
            snprintf(tmp, sizeof(tmp), "%u.%u.%u.%u", b[0], b[1], b[2], b[3]);
            put_padded(o, tmp, width, left);
            continue;
        }

        // A standard conversion: rebuild it without '*' and let snprintf do it.
        std::string spec(start, len_start);
        if (star_width || star_prec) {
            spec = "%";
            for (const char *f = start + 1; *f && strchr("-+ #0", *f); f++)
                spec += *f;
            if (width >= 0)
                spec += std::to_string(width);
            if (prec >= 0)
                spec += "." + std::to_string(prec);
        }
        spec += length;
        spec += conv;
        std::string piece;
        auto emit = [&](auto value) {
            int n = snprintf(nullptr, 0, spec.c_str(), value);
            if (n < 0)
                return;
            piece.resize((size_t)n + 1);
            snprintf(piece.data(), piece.size(), spec.c_str(), value);
            o.put(piece.data(), (size_t)n);
        };
        switch (conv) {
        case 'd':
        case 'u':
        case 'x':
        case 'X':
        case 'o':
        case 'c':
            if (length == "ll" || length == "q" || length == "j")
                emit(va_arg(ap, long long));
            else if (length == "l" || length == "z" || length == "t")
                emit(va_arg(ap, long));
            else
                emit(va_arg(ap, int));
            break;
        case 'e':
        case 'E':
        case 'f':
        case 'F':
        case 'g':
        case 'G':
        case 'a':
        case 'A':
            if (length == "L")
                emit(va_arg(ap, long double));
            else
                emit(va_arg(ap, double));
            break;
        case 's': {
            const char *s = va_arg(ap, const char *);
            emit(s ? s : "(null)");
            break;
        }
        case 'p':
            emit(va_arg(ap, void *));
            break;
        default: // unknown conversion: print it as written
            o.put(start, (size_t)(p - start));
            break;
        }
    }
    va_end(ap);
    if (size)
        buf[o.len < size ? o.len : size - 1] = '\0';
    return (int)o.len;
}

std::string qz_vformat_str(const char *fmt, va_list ap)
{
    char small[256];
    va_list ap2;
    va_copy(ap2, ap);
    int n = qz_vformat(small, sizeof(small), fmt, ap);
    if (n < (int)sizeof(small)) {
        va_end(ap2);
        return std::string(small, n > 0 ? (size_t)n : 0);
    }
    std::string s((size_t)n + 1, '\0');
    qz_vformat(s.data(), s.size(), fmt, ap2);
    va_end(ap2);
    s.resize((size_t)n);
    return s;
}

std::string qz_format_str(const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    std::string s = qz_vformat_str(fmt, ap);
    va_end(ap);
    return s;
}
