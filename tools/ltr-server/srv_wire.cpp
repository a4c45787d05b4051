// ltr-server wire format: frames, request encoding, reply and report decoding,
// and the text forms of addresses.
#include "srv_wire.h"

#include <arpa/inet.h>
#include <stdio.h>
#include <string.h>

#include "mac_text.h"

namespace lsrv {

namespace {

void put16(bytes &b, uint16_t v)
{
    b.push_back(uint8_t(v >> 8));
    b.push_back(uint8_t(v));
}
void put32(bytes &b, uint32_t v)
{
    put16(b, uint16_t(v >> 16));
    put16(b, uint16_t(v));
}
uint16_t get16(const uint8_t *p) { return uint16_t(p[0] << 8 | p[1]); }
uint32_t get32(const uint8_t *p) { return uint32_t(get16(p)) << 16 | get16(p + 2); }

bytes tlv_head(uint16_t type, size_t len)
{
    bytes b;
    b.reserve(len);
    put16(b, type);
    put16(b, uint16_t(len));
    return b;
}

int hex_digit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// Parses n bytes written as two hex digits each, separated by sep (0: none).
bool parse_octets(const std::string &s, uint8_t *out, size_t n, char sep)
{
    size_t want = n * 2 + (sep ? n - 1 : 0);
    if (s.size() != want)
        return false;
    size_t pos = 0;
    for (size_t i = 0; i < n; ++i) {
        if (i && sep && s[pos++] != sep)
            return false;
        int hi = hex_digit(s[pos]), lo = hex_digit(s[pos + 1]);
        if (hi < 0 || lo < 0)
            return false;
        out[i] = uint8_t(hi << 4 | lo);
        pos += 2;
    }
    return true;
}

// The exact length the catalogue demands of a TLV, or 0 for an unknown type.
size_t catalogue_len(uint16_t type, std::span<const uint8_t> value)
{
    switch (type) {
    case TLV_REPORT_INTERVAL:
    case TLV_RSSI_VALID_PERIOD:
        return 6;
    case TLV_RSSI_THRESHOLD:
    case TLV_ACK_CODE:
        return 5;
    case TLV_RSSI_DATA:
        return 13;
    case TLV_MAC_LIST:
        if (value.empty())
            return 5;
        return value[0] == MAC_LIST_ALL ? 5 : 5 + 6 * size_t(value[0]);
    case TLV_OUI_LIST:
        return value.empty() ? 5 : 5 + 3 * size_t(value[0]);
    default:
        return 0;
    }
}

void interpret(decoded &d)
{
    station *cur = nullptr;
    for (const tlv_item &t : d.tlvs) {
        const uint8_t *v = t.value.data();
        if (d.op == OP_ACK) {
            if (t.type == TLV_ACK_CODE)
                d.ack_code = v[0];
            else if (t.type == TLV_MAC_LIST && v[0] != MAC_LIST_ALL)
                for (size_t i = 0; i < v[0]; ++i)
                    d.refused_macs.push_back({v[1 + 6 * i], v[2 + 6 * i], v[3 + 6 * i],
                                              v[4 + 6 * i], v[5 + 6 * i], v[6 + 6 * i]});
            else if (t.type == TLV_OUI_LIST)
                for (size_t i = 0; i < v[0]; ++i)
                    d.refused_ouis.push_back({v[1 + 3 * i], v[2 + 3 * i], v[3 + 3 * i]});
            else
                d.notes.push_back(std::string("unexpected ") + tlv_name(t.type) + " TLV in an ack");
        } else if (d.op == OP_RSSI_REPORT) {
            if (t.type == TLV_MAC_LIST) {
                if (v[0] != 1)
                    d.notes.push_back("report MAC list with count " + std::to_string(v[0]) +
                                      " (expected 1)");
                if (v[0] == MAC_LIST_ALL || v[0] == 0) {
                    cur = nullptr;
                    continue;
                }
                d.stations.push_back({});
                cur = &d.stations.back();
                memcpy(cur->mac.data(), v + 1, 6);
            } else if (t.type == TLV_RSSI_DATA) {
                if (!cur) {
                    d.notes.push_back("RSSI data before any station");
                    continue;
                }
                rssi_reading r;
                memcpy(r.ap.data(), v, 6);
                r.freq = get16(v + 6);
                r.rssi = int8_t(v[8]);
                cur->readings.push_back(r);
            } else {
                d.notes.push_back(std::string("unexpected ") + tlv_name(t.type) + " TLV in a report");
            }
        }
    }
    if (d.op == OP_ACK && d.ack_code < 0)
        d.notes.push_back("ack without an ack code");
}

} // namespace

void frame_put(bytes &out, uint8_t type, std::span<const uint8_t> payload)
{
    put32(out, uint32_t(payload.size() + 1));
    out.push_back(type);
    out.insert(out.end(), payload.begin(), payload.end());
}

frame_rc frame_take(std::span<const uint8_t> buf, frame &f)
{
    if (buf.size() < 4)
        return FRAME_MORE;
    f.length = get32(buf.data());
    if (f.length > FRAME_MAX)
        return FRAME_TOO_LONG;
    if (f.length == 0)
        return FRAME_EMPTY;
    if (buf.size() - 4 < f.length)
        return FRAME_MORE;
    f.type = buf[4];
    f.payload = buf.subspan(5, f.length - 1);
    f.used = 4 + size_t(f.length);
    return FRAME_OK;
}

bool hello_parse(std::span<const uint8_t> p, hello &h)
{
    if (p.size() < 10)
        return false;
    memcpy(h.mac.data(), p.data(), 6);
    memcpy(&h.ip, p.data() + 6, 4);
    h.name.assign(reinterpret_cast<const char *>(p.data() + 10), p.size() - 10);
    return true;
}

const char *opcode_name(uint16_t op)
{
    static const char *const names[] = {"", "start", "stop", "modif", "query", "rssi report", "ack"};
    return op < std::size(names) ? names[op] : "";
}

const char *ack_code_name(int code)
{
    switch (code) {
    case 0: return "ok";
    case 1: return "no_buffer";
    case 2: return "unknown_opcode";
    case 4: return "partial";
    case 5: return "bad_msg";
    default: return "unknown";
    }
}

const char *tlv_name(uint16_t type)
{
    static const char *const names[] = {"unknown",   "report_interval", "rssi_threshold",
                                        "rssi_valid_period", "mac_list", "oui_list",
                                        "rssi_data", "ack_code"};
    return type < std::size(names) ? names[type] : "unknown";
}

bytes tlv_u16(uint16_t type, uint16_t v)
{
    bytes b = tlv_head(type, 6);
    put16(b, v);
    return b;
}

bytes tlv_u8(uint16_t type, uint8_t v)
{
    bytes b = tlv_head(type, 5);
    b.push_back(v);
    return b;
}

// A count byte, then the addresses (MACs or OUIs) back to back.
template <size_t N> bytes tlv_addr_list(uint16_t type, std::span<const std::array<uint8_t, N>> list)
{
    bytes b = tlv_head(type, 5 + N * list.size());
    b.push_back(uint8_t(list.size()));
    for (const auto &a : list)
        b.insert(b.end(), a.begin(), a.end());
    return b;
}

bytes tlv_mac_list(std::span<const mac_addr> macs) { return tlv_addr_list(TLV_MAC_LIST, macs); }

bytes tlv_mac_all()
{
    bytes b = tlv_head(TLV_MAC_LIST, 5);
    b.push_back(MAC_LIST_ALL);
    return b;
}

bytes tlv_oui_list(std::span<const oui_addr> ouis) { return tlv_addr_list(TLV_OUI_LIST, ouis); }

bytes tlv_raw(uint16_t type, std::span<const uint8_t> value)
{
    bytes b = tlv_head(type, TLV_HEAD + value.size());
    b.insert(b.end(), value.begin(), value.end());
    return b;
}

bytes encode_request(uint16_t op, uint32_t msg_id, std::span<const bytes> tlvs)
{
    size_t body = 0;
    for (const bytes &t : tlvs)
        body += t.size();
    uint16_t len = uint16_t(6 + body);
    bytes b;
    b.reserve(REQ_HEAD + body);
    put16(b, 2);      // msg_type
    put32(b, msg_id);
    b.push_back(0);   // unused byte
    put32(b, len);    // datalen
    put16(b, op);
    put16(b, len);
    put16(b, uint16_t(tlvs.size()));
    for (const bytes &t : tlvs)
        b.insert(b.end(), t.begin(), t.end());
    return b;
}

decoded decode_reply(std::span<const uint8_t> msg)
{
    decoded d;
    if (msg.size() < REPLY_HEAD) {
        d.error = "short message: " + std::to_string(msg.size()) + " bytes, the header needs 16";
        return d;
    }
    const uint8_t *p = msg.data();
    d.msg_type = get16(p);
    d.msg_id = get32(p + 2);
    d.datalen = get32(p + 6);
    d.op = get16(p + 10);
    d.len = get16(p + 12);
    d.tlv_num = get16(p + 14);
    if (d.msg_type != 2)
        d.notes.push_back("msg_type " + std::to_string(d.msg_type) + " (expected 2)");
    if (d.datalen != d.len)
        d.notes.push_back("datalen " + std::to_string(d.datalen) + " differs from len " +
                          std::to_string(d.len));
    if (d.op != OP_RSSI_REPORT && d.op != OP_ACK)
        d.notes.push_back("opcode " + std::to_string(d.op) + " is not one an AP sends");
    if (d.len < 6) {
        d.error = "len " + std::to_string(d.len) + " below 6";
        return d;
    }
    size_t claimed = size_t(d.len) + 10;
    if (claimed > msg.size()) {
        d.error = "len " + std::to_string(d.len) + " claims " + std::to_string(claimed) +
                  " bytes, only " + std::to_string(msg.size()) + " delivered";
        return d;
    }
    if (claimed < msg.size())
        d.notes.push_back(std::to_string(msg.size() - claimed) + " bytes after the message");

    std::span<const uint8_t> area = msg.subspan(REPLY_HEAD, d.len - 6);
    size_t off = 0;
    while (off < area.size()) {
        if (d.tlvs.size() == d.tlv_num) {
            d.error = std::to_string(area.size() - off) + " bytes left after " +
                      std::to_string(d.tlv_num) + " TLVs";
            return d;
        }
        if (area.size() - off < TLV_HEAD) {
            d.error = "TLV head cut off at offset " + std::to_string(REPLY_HEAD + off);
            return d;
        }
        tlv_item t;
        t.type = get16(area.data() + off);
        t.len = get16(area.data() + off + 2);
        if (t.len < TLV_HEAD || t.len > area.size() - off) {
            d.error = "TLV type " + std::to_string(t.type) + " at offset " +
                      std::to_string(REPLY_HEAD + off) + " has len " + std::to_string(t.len) +
                      ", " + std::to_string(area.size() - off) + " bytes remain";
            return d;
        }
        t.value = area.subspan(off + TLV_HEAD, t.len - TLV_HEAD);
        size_t want = catalogue_len(t.type, t.value);
        if (want == 0)
            d.notes.push_back("unknown TLV type " + std::to_string(t.type));
        else if (want != t.len) {
            d.error = std::string(tlv_name(t.type)) + " TLV has len " + std::to_string(t.len) +
                      ", expected " + std::to_string(want);
            return d;
        }
        d.tlvs.push_back(t);
        off += t.len;
    }
    if (d.tlvs.size() != d.tlv_num) {
        d.error = "tlv_num " + std::to_string(d.tlv_num) + " but " + std::to_string(d.tlvs.size()) +
                  " TLVs present";
        return d;
    }
    interpret(d);
    return d;
}

std::string mac_str(const uint8_t *m) { return ltr_mac_text(m); }
std::string oui_str(const uint8_t *o) { return ltr_oui_text(o); }

std::string ip_str(uint32_t net_order)
{
    char b[INET_ADDRSTRLEN];
    in_addr a{net_order};
    return inet_ntop(AF_INET, &a, b, sizeof b) ? b : "?";
}

bool parse_mac(const std::string &s, mac_addr &out) { return ltr_mac_parse(s, out.data()); }
bool parse_oui(const std::string &s, oui_addr &out) { return ltr_oui_parse(s, out.data()); }

bool parse_hex(const std::string &s, bytes &out)
{
    if (s.size() % 2)
        return false;
    out.resize(s.size() / 2);
    return s.empty() || parse_octets(s, out.data(), out.size(), 0);
}

std::string hex_str(std::span<const uint8_t> b)
{
    static const char digits[] = "0123456789abcdef";
    std::string s;
    s.reserve(b.size() * 2);
    for (uint8_t v : b) {
        s.push_back(digits[v >> 4]);
        s.push_back(digits[v & 15]);
    }
    return s;
}

} // namespace lsrv
