// Fixture of the cycle, relay and owner tests: a started manager on two fake radios,
// with a recording engine in place of the real outgoing buffer.
#pragma once
#include <string>
#include <vector>

#include "ltr_alloc.h"
#include "ltr_engine.h"
#include "ltr_rssi.h"
#include "ltr_test.h"
#include "qz_format.h"

namespace rssi_test {

using strs = std::vector<std::string>;
inline const fake::mac_t my_mac{0x00, 0x11, 0x22, 0x33, 0x44, 0x55}, peer_mac{0x00, 0x66, 0x77, 0x88, 0x99, 0xaa};
inline const uint32_t my_ip = ltr_ip(10, 0, 0, 1), peer_ip = ltr_ip(10, 0, 0, 2);
constexpr int if0 = 5, if1 = 6;
inline fake::mac_t sta_mac(uint8_t n) { return {0x02, 0, 0, 0, 0, n}; }

// What the engine was asked to do; TLVs as text ("sta <mac>", "rd <ap> <freq> <rssi>").
struct engine_log {
    strs ops, tlvs;
};
inline engine_log eng;
inline const ltr_engine_ops_t recording_engine = {
    [](ltr_mgt *) { return 0; }, [](ltr_mgt *) { return 0; }, [](ltr_mgt *, ltr_srv_msg *, int) { return -1; },
    [](ltr_mgt *, ltr_srv_msg *) { return -1; },
    [](ltr_mgt *) { eng.ops.push_back("flush"); return 0; },
    [](ltr_mgt *) { eng.ops.push_back("reset"); return 0; },
    [](ltr_mgt *, int32_t n, const void *tlv, int32_t size) {
        const uint8_t *t = (const uint8_t *)tlv;
        EXPECT_EQ(n, 1);
        eng.tlvs.push_back(t[1] == LTR_TLV_MAC_LIST && size == 11 ? qz_format_str("sta %m", t + 5)
                           : t[1] == LTR_TLV_RSSI_DATA && size == 13
                               ? qz_format_str("rd %m %d %d", t + 4, t[10] << 8 | t[11], (int8_t)t[12])
                               : "bad tlv");
        return 0;
    },
    [](ltr_mgt *) { eng.ops.push_back("finish"); return 0; },
};

class RssiTest : public LtrTest {
  protected:
    ltr_cfg cfg{1, 1, 1, LTR_DEF_SUPPRESS, LTR_DEF_HOLD_TIME, LTR_DEF_RSSI_THRESHOLD, LTR_DEF_RPT_INTERVAL,
                LTR_DEF_VALID_PERIOD};

    void SetUp() override
    {
        LtrTest::SetUp();
        eng = engine_log{};
        fake::set_radios({{"wifi0", if0}, {"wifi1", if1}});
        ltr_sta_tbl_init(&mgt.sta_tbl, LTR_STA_MAX);
        mgt.cfg = &cfg;
        memcpy(mgt.my_mac, my_mac.data(), 6);
        mgt.my_ip = my_ip;
        mgt.rssi_fetch_timer = qz_pmpt_timer_create(ltr_rssi_cycle, &mgt);
        mgt.owner_flush_timer = qz_pmpt_timer_create(ltr_owner_check_timeout, &mgt);
        mgt.engine = &recording_engine;
        ltr_debug_flags = LTR_DBG_ALL;
    }

    // What the driver reports on a radio from now on.
    static void hear(int ifindex, std::vector<lta_rpt_entry> recs) { fake::radio_state(ifindex).rpt = recs; }
    static lta_rpt_entry rec(uint8_t n, int8_t rssi, uint16_t freq = 2437, uint8_t active = 1)
    {
        lta_rpt_entry r{{0x02, 0, 0, 0, 0, n}, active, rssi, freq};
        return r;
    }
    static void cycle()
    {
        eng.tlvs.clear();
        eng.ops.clear();
        fake::fire(mgt.rssi_fetch_timer);
    }
    static ltr_sta *sta(uint8_t n) { return ltr_sta_find(&mgt.sta_tbl, sta_mac(n).data()); }
    static ltr_rssi_entry *entry(uint8_t n, const fake::mac_t &ap = my_mac)
    {
        return sta(n) ? ltr_rssi_find(sta(n), ap.data()) : nullptr;
    }
    static void own(uint8_t n, uint32_t owner = my_ip) { sta(n)->ni_owner_ip = owner; }
    // A relay from the peer as it travels (big-endian type, len and frequency).
    static fake::bytes relay_msg(uint8_t n, const fake::mac_t &ap, int8_t rssi, uint16_t freq, uint8_t active = 1,
                                 uint8_t type = 0, uint8_t len = 16)
    {
        fake::bytes m{0, 0, 0, type, 10, 0, 0, 2, 0, len, 0, 0, 0x02, 0, 0, 0, 0, n};
        m.insert(m.end(), ap.begin(), ap.end());
        m.insert(m.end(), {active, (uint8_t)rssi, (uint8_t)(freq >> 8), (uint8_t)freq});
        return m;
    }
    static int recv(fake::bytes m, int length = -1)
    {
        return ltr_lta_msg_recv(nullptr, length < 0 ? (int)m.size() : length, m.data());
    }
};

} // namespace rssi_test
