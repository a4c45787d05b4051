// MAC text on the C library's converters: the forms we accept are brought to the
// colon form that ether_aton_r reads, with every digit checked first (it would take
// one-digit bytes and ignore what follows the last).
#include "mac_text.h"

#include <ctype.h>
#include <netinet/ether.h>

namespace {

// The colon form of n bytes of s in any accepted separator style, or "" when s is none.
std::string colon_form(std::string_view s, size_t n)
{
    std::string digits;
    if (s.size() == n * 3 - 1 && (s[2] == ':' || s[2] == '-')) {
        for (size_t i = 0; i < s.size(); i++)
            if (i % 3 == 2 ? s[i] != s[2] : !isxdigit((unsigned char)s[i]))
                return "";
            else if (i % 3 != 2)
                digits += s[i];
    } else {
        // Dotted: groups of four digits, the last of an OUI holds two.
        size_t want = n * 2 + (n * 2 - 1) / 4;
        if (s.size() != want)
            return "";
        for (size_t i = 0; i < s.size(); i++)
            if (i % 5 == 4 ? s[i] != '.' : !isxdigit((unsigned char)s[i]))
                return "";
            else if (i % 5 != 4)
                digits += s[i];
    }
    std::string out;
    for (size_t i = 0; i < n; i++)
        out += (i ? ":" : "") + digits.substr(i * 2, 2);
    return out;
}

bool parse(std::string_view s, uint8_t *out, size_t n)
{
    std::string c = colon_form(s, n);
    if (c.empty())
        return false;
    for (size_t i = n; i < 6; i++)
        c += ":00";
    ether_addr a;
    if (!ether_aton_r(c.c_str(), &a))
        return false;
    for (size_t i = 0; i < n; i++)
        out[i] = a.ether_addr_octet[i];
    return true;
}

// ether_ntoa_r writes bytes without leading zeros: pad each to two digits.
std::string text(const uint8_t *b, size_t n)
{
    ether_addr a{};
    for (size_t i = 0; i < n; i++)
        a.ether_addr_octet[i] = b[i];
    char buf[18];
    std::string_view t = ether_ntoa_r(&a, buf);
    std::string out;
    for (size_t i = 0; i < n; i++) {
        size_t end = t.find(':');
        std::string_view part = t.substr(0, end);
        out += (i ? ":" : "") + std::string(2 - part.size(), '0') + std::string(part);
        t = end == std::string_view::npos ? "" : t.substr(end + 1);
    }
    for (char &c : out)
        c = (char)tolower((unsigned char)c);
    return out;
}

} // namespace

bool ltr_mac_parse(std::string_view s, uint8_t mac[6]) { return parse(s, mac, 6); }
bool ltr_oui_parse(std::string_view s, uint8_t oui[3]) { return parse(s, oui, 3); }
std::string ltr_mac_text(const uint8_t *mac) { return text(mac, 6); }
std::string ltr_oui_text(const uint8_t *oui) { return text(oui, 3); }
