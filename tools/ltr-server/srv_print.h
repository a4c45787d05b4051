// ltr-server output: every received message, sent request and connection change
// as readable text or as one JSON object per line.
#pragma once
#include <string>

#include "srv_wire.h"

namespace lsrv {

struct ap_ident {
    unsigned id = 0;       // number shown by list, from 1
    std::string peer;      // remote address:port
    bool hello = false;    // HELLO received
    std::string name;
    mac_addr mac{};
    uint32_t ip = 0;       // network order
    std::string cert;      // subject CN of the AP's TLS client certificate, if any
};

std::string json_escape(const std::string &s);

// Text lines end with '\n'; JSON is one object and a '\n'.
std::string show_message(const ap_ident &ap, std::span<const uint8_t> msg, const decoded &d, bool json);
std::string show_sent(const ap_ident &ap, uint16_t op, uint32_t msg_id, size_t size, bool json);
std::string show_conn(const ap_ident &ap, const char *event, const std::string &why, bool json);
std::string show_list_row(const ap_ident &ap, bool json);

} // namespace lsrv
