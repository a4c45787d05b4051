// Helpers of the engine tests: server messages built byte by byte, replies taken
// apart, and a fixture with a registered engine.
#pragma once
#include <memory>
#include <utility>
#include <vector>

#include "ltr_engine.h"
#include "ltr_test.h"

namespace eng {

using fake::bytes;

inline void put16(bytes &b, uint16_t v)
{
    b.push_back((uint8_t)(v >> 8));
    b.push_back((uint8_t)v);
}
inline void put32(bytes &b, uint32_t v)
{
    put16(b, (uint16_t)(v >> 16));
    put16(b, (uint16_t)v);
}
inline uint16_t get16(const bytes &b, size_t at) { return (uint16_t)(b.at(at) << 8 | b.at(at + 1)); }
inline uint32_t get32(const bytes &b, size_t at) { return (uint32_t)get16(b, at) << 16 | get16(b, at + 2); }

// One TLV; len < 0: the true length.
inline bytes tlv(uint16_t type, const bytes &value, int len = -1)
{
    bytes b;
    put16(b, type);
    put16(b, (uint16_t)(len < 0 ? 4 + (int)value.size() : len));
    b.insert(b.end(), value.begin(), value.end());
    return b;
}
inline bytes u16v(uint16_t v)
{
    bytes b;
    put16(b, v);
    return b;
}
inline bytes mac_list(const std::vector<fake::mac_t> &macs)
{
    bytes v{(uint8_t)macs.size()};
    for (auto &m : macs)
        v.insert(v.end(), m.begin(), m.end());
    return tlv(LTR_TLV_MAC_LIST, v);
}
inline bytes oui_list(const std::vector<std::array<uint8_t, 3>> &ouis)
{
    bytes v{(uint8_t)ouis.size()};
    for (auto &o : ouis)
        v.insert(v.end(), o.begin(), o.end());
    return tlv(LTR_TLV_OUI_LIST, v);
}
inline bytes mac_all() { return tlv(LTR_TLV_MAC_LIST, {LTR_MAC_LIST_ALL}); }

constexpr uint8_t msg_id[4] = {0xde, 0xad, 0xbe, 0xef};

// A received message; len and tlv_num < 0: the true values.
inline bytes msg(uint16_t opcode, const std::vector<bytes> &tlvs, int len = -1, int tlv_num = -1,
                 uint16_t msg_type = LTR_MSG_TYPE, uint32_t datalen = 100)
{
    bytes t;
    for (auto &x : tlvs)
        t.insert(t.end(), x.begin(), x.end());
    bytes b;
    put16(b, msg_type);
    b.insert(b.end(), msg_id, msg_id + 4);
    b.push_back(0x5a);
    put32(b, datalen);
    put16(b, opcode);
    put16(b, (uint16_t)(len < 0 ? 6 + (int)t.size() : len));
    put16(b, (uint16_t)(tlv_num < 0 ? (int)tlvs.size() : tlv_num));
    b.insert(b.end(), t.begin(), t.end());
    return b;
}

// A delivery in a heap block of exactly its size, so that the sanitizer catches a
// read past the end.
struct delivery {
    std::unique_ptr<uint8_t[]> p;
    int len;
    explicit delivery(const bytes &b, size_t n) : p(new uint8_t[n ? n : 1]), len((int)n)
    {
        memcpy(p.get(), b.data(), n);
    }
    explicit delivery(const bytes &b) : delivery(b, b.size()) {}
    ltr_srv_msg *in() { return (ltr_srv_msg *)p.get(); }
};

// A message as sent to the server.
struct reply {
    uint16_t msg_type, opcode, len, tlv_num;
    bytes id;
    uint32_t datalen;
    std::vector<std::pair<uint16_t, bytes>> tlvs; // type, value
    size_t size;
};
inline reply parse(const bytes &b)
{
    reply r{};
    r.size = b.size();
    r.msg_type = get16(b, 0);
    r.id.assign(b.begin() + 2, b.begin() + 6);
    r.datalen = get32(b, 6);
    r.opcode = get16(b, 10);
    r.len = get16(b, 12);
    r.tlv_num = get16(b, 14);
    for (size_t at = 16; at < b.size();) {
        uint16_t len = get16(b, at + 2);
        r.tlvs.push_back({get16(b, at), bytes(b.begin() + at + 4, b.begin() + at + len)});
        at += len;
    }
    return r;
}
inline bytes id_bytes() { return bytes(msg_id, msg_id + 4); }

// Sent messages, taken apart.
inline std::vector<reply> sent()
{
    std::vector<reply> out;
    for (auto &s : fake::capwap_sent())
        out.push_back(parse(s.data));
    return out;
}

// The engine registered as tracking start leaves it.
class EngineTest : public LtrTest {
  protected:
    ltr_cfg cfg{};
    void SetUp() override
    {
        LtrTest::SetUp();
        cfg.enabled = 1;
        cfg.lmatch = 1;
        cfg.rssi_threshold = 3;
        cfg.rpt_interval = 60;
        cfg.valid_period = 60;
        mgt.cfg = &cfg;
        ASSERT_EQ(ltr_engine_ops.init(&mgt), 0);
        mgt.engine = &ltr_engine_ops;
    }
    // Validation then dispatch, as the server-message event runs them.
    int handle(const bytes &b)
    {
        delivery d(b);
        int r = ltr_engine_ops.validate(&mgt, d.in(), d.len);
        return r == 0 ? ltr_engine_ops.dispatch(&mgt, d.in()) : r;
    }
};

} // namespace eng
