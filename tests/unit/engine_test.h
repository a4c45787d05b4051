// Helpers of the engine tests: server messages built byte by byte, deliveries of an
// exact size, and replies taken apart.
#pragma once
#include <memory>
#include <utility>
#include <vector>

#include "ltr_engine.h"
#include "ltr_test.h"

namespace eng {

using fake::bytes;
using tlvs_t = std::vector<std::pair<uint16_t, bytes>>; // type, value

inline bytes u16v(uint16_t v) { return {(uint8_t)(v >> 8), (uint8_t)v}; }
inline uint16_t get16(const bytes &b, size_t at) { return (uint16_t)(b.at(at) << 8 | b.at(at + 1)); }
inline void append(bytes &b, const bytes &more) { b.insert(b.end(), more.begin(), more.end()); }

// One TLV; len < 0: its true length.
inline bytes tlv(uint16_t type, const bytes &value, int len = -1)
{
    bytes b = u16v(type);
    append(b, u16v((uint16_t)(len < 0 ? 4 + (int)value.size() : len)));
    append(b, value);
    return b;
}
// A list value: the count, then the entries (6-byte MACs or 3-byte OUIs).
template <size_t N> bytes list_value(const std::vector<std::array<uint8_t, N>> &v)
{
    bytes b{(uint8_t)v.size()};
    for (auto &e : v)
        b.insert(b.end(), e.begin(), e.end());
    return b;
}
inline bytes mac_list(const std::vector<fake::mac_t> &v) { return tlv(LTR_TLV_MAC_LIST, list_value(v)); }
inline bytes oui_list(const std::vector<std::array<uint8_t, 3>> &v) { return tlv(LTR_TLV_OUI_LIST, list_value(v)); }
inline bytes mac_all() { return tlv(LTR_TLV_MAC_LIST, {LTR_MAC_LIST_ALL}); }

const bytes msg_id = {0xde, 0xad, 0xbe, 0xef};
const fake::mac_t sta1{0x00, 0x11, 0x22, 0x33, 0x44, 0x55}, sta2{0x00, 0x11, 0x22, 0x33, 0x44, 0x66},
    sta3{0x00, 0x11, 0x22, 0x33, 0x44, 0x77};

// Unknown TLVs whose len is below 4, so that their head overlaps the head of the TLV
// after them; each must be followed by the TLV named:
// - len 2 (type 9): its len is the next TLV's type, so a threshold, tlv(2, {v});
// - len 1 (type 12): tlv(0xc00, bytes(252)), an unknown TLV of len 256;
// - len 3 (type 11): tlv(0x309, bytes(4)), an unknown TLV of len 8.
const bytes overlap_len2 = {0x00, 0x09};
const bytes overlap_len1 = {0x00};
const bytes overlap_len3 = {0x00, 0x0b, 0x00};

// A received message; len and tlv_num < 0: their true values.
inline bytes msg(uint16_t opcode, const std::vector<bytes> &tlvs, int len = -1, int tlv_num = -1,
                 uint16_t msg_type = LTR_MSG_TYPE, uint32_t datalen = 100)
{
    bytes t;
    for (auto &x : tlvs)
        append(t, x);
    bytes b = u16v(msg_type);
    append(b, msg_id);
    b.push_back(0x5a);
    for (uint16_t v : {(uint16_t)(datalen >> 16), (uint16_t)datalen, opcode,
                       (uint16_t)(len < 0 ? 6 + (int)t.size() : len), (uint16_t)(tlv_num < 0 ? tlvs.size() : tlv_num)})
        append(b, u16v(v));
    append(b, t);
    return b;
}

// The first n bytes of a message in a heap block of exactly that size, so that the
// sanitizer catches any read past the delivery.
struct delivery {
    std::unique_ptr<uint8_t[]> p;
    int len;
    delivery(const bytes &b, size_t n) : p(new uint8_t[n ? n : 1]), len((int)n) { memcpy(p.get(), b.data(), n); }
    explicit delivery(const bytes &b) : delivery(b, b.size()) {}
};

// A message as sent to the server (event 165).
struct reply {
    uint16_t opcode, tlv_num;
    bytes id;
    tlvs_t tlvs;
    size_t size;
};
inline reply parse(const bytes &b)
{
    reply r{get16(b, 10), get16(b, 14), bytes(b.begin() + 2, b.begin() + 6), {}, b.size()};
    EXPECT_EQ(get16(b, 0), LTR_MSG_TYPE);
    EXPECT_EQ(b.size(), get16(b, 12) + 10u);
    EXPECT_EQ(get16(b, 8), get16(b, 12)); // datalen = len
    for (size_t at = 16; at + 4 <= b.size(); at += get16(b, at + 2))
        r.tlvs.push_back({get16(b, at), bytes(b.begin() + at + 4, b.begin() + at + get16(b, at + 2))});
    return r;
}
inline reply only_reply()
{
    auto &s = fake::capwap_sent();
    EXPECT_EQ(s.size(), 1u);
    EXPECT_TRUE(s.empty() || s[0].id == LTR_EVT_SRV_MSG_OUT);
    return s.empty() ? reply{} : parse(s[0].data);
}
inline void expect_plain_ack(uint8_t code)
{
    reply r = only_reply();
    EXPECT_EQ(r.opcode, LTR_OP_ACK);
    EXPECT_EQ(r.id, msg_id);
    EXPECT_EQ(r.size, (size_t)LTR_ACK_MSG_LEN);
    EXPECT_EQ(r.tlvs, (tlvs_t{{LTR_TLV_ACK_CODE, {code}}}));
}

inline std::vector<std::string> dbg_lines()
{
    std::vector<std::string> out;
    for (auto &d : fake::dbgs())
        out.push_back(d.text);
    return out;
}

} // namespace eng
