// ltr-server command parsing.
#include "srv_cmd.h"

#include <stdlib.h>

#include <sstream>

#include "mac_text.h"

namespace lsrv {

const char *const command_help =
    "commands (one per line; a line starting with '#' is a comment):\n"
    "  list                              connected access points\n"
    "  start  TARGET [ITEM...]           tracking request, opcode 1\n"
    "  stop   TARGET [ITEM...]           opcode 2\n"
    "  modify TARGET [ITEM...]           opcode 3 (also: modif)\n"
    "  query  TARGET [ITEM...]           opcode 4\n"
    "  send   TARGET OPCODE [ITEM...]    any opcode 0-65535\n"
    "  raw    TARGET HEX                 a whole message, as hex bytes\n"
    "  wait SECONDS | sleep SECONDS      keep serving for a while\n"
    "  wait-ap COUNT [TIMEOUT]           until COUNT APs said hello (default 10 s)\n"
    "  wait-reply [TIMEOUT]              until every request is answered (default 5 s)\n"
    "  help | quit\n"
    "TARGET: all, #N (the AP's number in 'list'), an instance name or an AP MAC\n"
    "ITEM (each one TLV, sent in the order given):\n"
    "  interval=SECONDS (0-65535)  threshold=DB (0-255)  valid=SECONDS (0-65535)\n"
    "  mac=all | mac=MAC[,MAC...] (up to 254)  oui=OUI[,OUI...] (up to 255)\n"
    "  tlv=TYPE:HEX (any TLV; TYPE 0-65535, value in hex)\n"
    "MAC: aa:bb:cc:dd:ee:ff, aa-bb-cc-dd-ee-ff or aabb.ccdd.eeff; OUI: aa:bb:cc\n";

namespace {

bool parse_uint(const std::string &s, unsigned long max, unsigned long &v)
{
    if (s.empty() || s.size() > 10)
        return false;
    v = 0;
    for (char c : s) {
        if (c < '0' || c > '9')
            return false;
        v = v * 10 + unsigned(c - '0');
    }
    return v <= max;
}

bool parse_seconds(const std::string &s, double &v)
{
    if (s.empty())
        return false;
    char *end = nullptr;
    v = strtod(s.c_str(), &end);
    return end && *end == '\0' && v >= 0 && v <= 86400;
}

std::vector<std::string> split(const std::string &s, char sep)
{
    std::vector<std::string> out;
    if (s.empty())
        return out;
    size_t start = 0;
    for (;;) {
        size_t p = s.find(sep, start);
        out.push_back(s.substr(start, p - start));
        if (p == std::string::npos)
            return out;
        start = p + 1;
    }
}

// What a MAC or OUI list says about its bad entries.
struct addr_list_text {
    const char *bad;      // then the entry in quotes and the wanted form
    const char *want;
    const char *group;    // after the entry
    const char *too_many; // then the count
};
constexpr addr_list_text mac_list_text = {
    "bad MAC address", "aa:bb:cc:dd:ee:ff", " is a group (multicast or broadcast) address, not a station",
    "a MAC list holds at most 254 addresses, got "};
constexpr addr_list_text oui_list_text = {
    "bad OUI", "aa:bb:cc", " has the group bit set: only multicast addresses are in it",
    "an OUI list holds at most 255 OUIs, got "};

// A comma-separated list of individual (not group) addresses, at most max of them.
template <size_t N>
bool parse_addr_list(const std::string &val, bool (*parse)(const std::string &, std::array<uint8_t, N> &),
                     const addr_list_text &t, size_t max, std::vector<std::array<uint8_t, N>> &out,
                     std::string &err)
{
    for (const std::string &e : split(val, ',')) {
        std::array<uint8_t, N> a;
        if (!parse(e, a)) {
            err = std::string(t.bad) + " \"" + e + "\" (want " + t.want + ")";
            return false;
        }
        if (ltr_mac_is_group(a.data())) {
            err = e + t.group;
            return false;
        }
        out.push_back(a);
    }
    if (out.size() > max) {
        err = t.too_many + std::to_string(out.size());
        return false;
    }
    return true;
}

bool parse_item(const std::string &item, bytes &tlv, std::string &err)
{
    size_t eq = item.find('=');
    if (eq == std::string::npos) {
        err = "expected KEY=VALUE, got \"" + item + "\"";
        return false;
    }
    std::string key = item.substr(0, eq), val = item.substr(eq + 1);
    unsigned long n;
    if (key == "interval" || key == "valid") {
        if (!parse_uint(val, 65535, n)) {
            err = key + " must be a number of seconds from 0 to 65535, got \"" + val + "\"";
            return false;
        }
        tlv = tlv_u16(key == "interval" ? TLV_REPORT_INTERVAL : TLV_RSSI_VALID_PERIOD, uint16_t(n));
        return true;
    }
    if (key == "threshold") {
        if (!parse_uint(val, 255, n)) {
            err = "threshold must be a number of dB from 0 to 255, got \"" + val + "\"";
            return false;
        }
        tlv = tlv_u8(TLV_RSSI_THRESHOLD, uint8_t(n));
        return true;
    }
    if (key == "mac") {
        if (val == "all") {
            tlv = tlv_mac_all();
            return true;
        }
        std::vector<mac_addr> macs;
        if (!parse_addr_list(val, parse_mac, mac_list_text, MAC_LIST_MAX, macs, err))
            return false;
        tlv = tlv_mac_list(macs);
        return true;
    }
    if (key == "oui") {
        std::vector<oui_addr> ouis;
        if (!parse_addr_list(val, parse_oui, oui_list_text, OUI_LIST_MAX, ouis, err))
            return false;
        tlv = tlv_oui_list(ouis);
        return true;
    }
    if (key == "tlv") {
        size_t colon = val.find(':');
        bytes value;
        if (colon == std::string::npos || !parse_uint(val.substr(0, colon), 65535, n) ||
            !parse_hex(val.substr(colon + 1), value)) {
            err = "tlv wants TYPE:HEX (TYPE 0-65535, an even number of hex digits), got \"" +
                  val + "\"";
            return false;
        }
        if (value.size() > 60000) {
            err = "tlv value too long";
            return false;
        }
        tlv = tlv_raw(uint16_t(n), value);
        return true;
    }
    err = "unknown item \"" + key + "\" (interval, threshold, valid, mac, oui, tlv)";
    return false;
}

// Whether the verb has from lo to hi arguments; err says so when not.
bool arg_count(const std::vector<std::string> &w, size_t lo, size_t hi, std::string &err)
{
    if (w.size() - 1 >= lo && w.size() - 1 <= hi)
        return true;
    err = w[0] + ": wrong number of arguments (try help)";
    return false;
}

// wait / sleep, wait-ap, wait-reply.
bool parse_wait(const std::vector<std::string> &w, command &c, std::string &err)
{
    const std::string &verb = w[0];
    if (verb == "wait" || verb == "sleep") {
        if (!arg_count(w, 1, 1, err))
            return false;
        if (!parse_seconds(w[1], c.seconds)) {
            err = verb + ": seconds must be a number from 0 to 86400, got \"" + w[1] + "\"";
            return false;
        }
        c.kind = CMD_WAIT;
    } else if (verb == "wait-ap") {
        unsigned long n;
        if (!arg_count(w, 1, 2, err))
            return false;
        if (!parse_uint(w[1], 100000, n) || n == 0) {
            err = "wait-ap: count must be a number from 1, got \"" + w[1] + "\"";
            return false;
        }
        c.count = unsigned(n);
        c.seconds = 10;
        if (w.size() == 3 && !parse_seconds(w[2], c.seconds)) {
            err = "wait-ap: timeout must be a number of seconds from 0 to 86400";
            return false;
        }
        c.kind = CMD_WAIT_AP;
    } else {
        if (!arg_count(w, 0, 1, err))
            return false;
        c.seconds = 5;
        if (w.size() == 2 && !parse_seconds(w[1], c.seconds)) {
            err = "wait-reply: timeout must be a number of seconds from 0 to 86400";
            return false;
        }
        c.kind = CMD_WAIT_REPLY;
    }
    return true;
}

// A request to access points: start, stop, modify, query, or send with an opcode.
bool parse_request(const std::vector<std::string> &w, command &c, std::string &err)
{
    const std::string &verb = w[0];
    size_t first_item = 2;
    if (verb == "start")
        c.op = OP_START;
    else if (verb == "stop")
        c.op = OP_STOP;
    else if (verb == "modify" || verb == "modif")
        c.op = OP_MODIF;
    else if (verb == "query")
        c.op = OP_QUERY;
    else if (verb == "send") {
        unsigned long n;
        if (w.size() < 3) {
            err = "send: wants TARGET OPCODE [ITEM...]";
            return false;
        }
        if (!parse_uint(w[2], 65535, n)) {
            err = "send: opcode must be a number from 0 to 65535, got \"" + w[2] + "\"";
            return false;
        }
        c.op = uint16_t(n);
        first_item = 3;
    } else {
        err = "unknown command \"" + verb + "\" (try help)";
        return false;
    }
    if (w.size() < 2) {
        err = verb + ": wants a TARGET (all, #N, a name or a MAC)";
        return false;
    }
    c.target = w[1];
    size_t total = 0;
    for (size_t i = first_item; i < w.size(); ++i) {
        bytes tlv;
        if (!parse_item(w[i], tlv, err)) {
            err = verb + ": " + err;
            return false;
        }
        total += tlv.size();
        c.tlvs.push_back(std::move(tlv));
    }
    if (total + REQ_HEAD > 65535 || c.tlvs.size() > 65535) {
        err = verb + ": the message would exceed 65535 bytes";
        return false;
    }
    c.kind = CMD_REQUEST;
    return true;
}

} // namespace

bool parse_command(const std::string &line, command &out, std::string &err)
{
    size_t first = line.find_first_not_of(" \t\r");
    std::istringstream in(first != std::string::npos && line[first] == '#' ? std::string() : line);
    std::vector<std::string> w;
    for (std::string s; in >> s;)
        w.push_back(s);
    command c;
    if (w.empty()) {
        out = c;
        return true;
    }
    const std::string &verb = w[0];
    if (verb == "help") {
        c.kind = CMD_HELP;
    } else if (verb == "list") {
        c.kind = CMD_LIST;
    } else if (verb == "quit" || verb == "exit") {
        c.kind = CMD_QUIT;
    } else if (verb == "wait" || verb == "sleep" || verb == "wait-ap" || verb == "wait-reply") {
        if (!parse_wait(w, c, err))
            return false;
    } else if (verb == "raw") {
        if (!arg_count(w, 2, 2, err))
            return false;
        if (!parse_hex(w[2], c.raw) || c.raw.empty() || c.raw.size() >= FRAME_MAX) {
            err = "raw: the message must be 1 to 65535 bytes of hex digits";
            return false;
        }
        c.target = w[1];
        c.kind = CMD_RAW;
    } else if (!parse_request(w, c, err)) {
        return false;
    }
    out = std::move(c);
    return true;
}

} // namespace lsrv
