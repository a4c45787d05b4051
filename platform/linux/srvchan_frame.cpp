// Server channel framing: building frames and the HELLO payload, cutting frames
// out of a receive buffer, parsing the server address.
#include <string.h>

#include "srvchan.h"

void srv_frame_put(std::string &out, uint8_t type, const void *payload, size_t len)
{
    uint32_t n = static_cast<uint32_t>(len + 1);
    char head[SRV_FRAME_HEAD] = {static_cast<char>(n >> 24), static_cast<char>(n >> 16),
                                 static_cast<char>(n >> 8), static_cast<char>(n),
                                 static_cast<char>(type)};
    out.append(head, sizeof head);
    if (len)
        out.append(static_cast<const char *>(payload), len);
}

srv_frame_status srv_frame_take(std::span<const uint8_t> buf, srv_frame_view &out)
{
    if (buf.size() < 4)
        return SRV_FRAME_NEED_MORE;
    uint32_t n = uint32_t(buf[0]) << 24 | uint32_t(buf[1]) << 16 | uint32_t(buf[2]) << 8 | buf[3];
    out.length = n;
    // Judge the length before waiting for its bytes: a huge claim is refused at once.
    if (n > SRV_FRAME_MAX)
        return SRV_FRAME_TOO_LONG;
    if (n == 0)
        return SRV_FRAME_EMPTY;
    if (buf.size() - 4 < n)
        return SRV_FRAME_NEED_MORE;
    out.type = buf[4];
    out.payload = buf.subspan(SRV_FRAME_HEAD, n - 1);
    out.used = 4 + size_t(n);
    return SRV_FRAME_OK;
}

std::string srv_hello_payload(const uint8_t mac[6], uint32_t ip, const std::string &name)
{
    std::string p(SRV_HELLO_FIXED, '\0');
    memcpy(p.data(), mac, 6);
    memcpy(p.data() + 6, &ip, 4); // already network order
    p += name;
    return p;
}

bool srv_split_address(const std::string &addr, std::string &host, std::string &port)
{
    size_t colon;
    if (!addr.empty() && addr[0] == '[') {
        size_t close = addr.find(']');
        if (close == std::string::npos || close + 1 >= addr.size() || addr[close + 1] != ':')
            return false;
        host = addr.substr(1, close - 1);
        colon = close + 1;
    } else {
        colon = addr.rfind(':');
        if (colon == std::string::npos)
            return false;
        host = addr.substr(0, colon);
        if (host.find(':') != std::string::npos)
            return false; // bare IPv6 needs brackets
    }
    port = addr.substr(colon + 1);
    if (host.empty() || port.empty() || port.size() > 5)
        return false;
    unsigned long v = 0;
    for (char c : port) {
        if (c < '0' || c > '9')
            return false;
        v = v * 10 + unsigned(c - '0');
    }
    return v >= 1 && v <= 65535;
}
