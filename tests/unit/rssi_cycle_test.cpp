// The RSSI cycle over several rounds: collection, due rules, ageing and the lock.
#include "rssi_fixture.h"

using namespace rssi_test;

namespace {

const std::string me = "0011.2233.4455";
class RssiCycle : public RssiTest {};

TEST_F(RssiCycle, NewStationIsQueriedAndConsumedUntilItsOwnerIsKnown)
{
    hear(if0, {rec(1, -50)});
    cycle();
    ASSERT_EQ(fake::events_sent().size(), 1u);
    EXPECT_EQ(fake::events_sent()[0].data, (fake::bytes{0x2e, 0x01, 1, 0, 2, 0, 0, 0, 0, 1}));
    EXPECT_TRUE(fake::dbg_has("new station 0200.0000.0001 found.\n"));
    EXPECT_EQ(eng.ops, (strs{"reset", "finish", "flush"}));
    EXPECT_TRUE(eng.tlvs.empty());
    EXPECT_EQ(sta(1)->need_report, 0u); // consumed without sending
    EXPECT_EQ(fake::timer_state(mgt.rssi_fetch_timer).period, 60u);

    own(1);
    hear(if0, {rec(1, -52, 5180)});
    cycle(); // suppress 0: every owned station is due in every cycle
    EXPECT_EQ(eng.tlvs, (strs{"sta 0200.0000.0001", "rd " + me + " 5180 -52"}));
    EXPECT_EQ(fake::events_sent().size(), 1u);

    fake::clear_calls();
    cfg.enabled = 0; // stopped, or no engine: nothing at all, and no re-arm
    cycle();
    cfg.enabled = 1, mgt.engine = nullptr;
    cycle();
    EXPECT_TRUE(fake::calls().empty());
}

TEST_F(RssiCycle, DueRulesSuppressionValidPeriodThresholdAndInactive)
{
    auto first = [&](int8_t rssi) { // creates the station, consumed at once
        hear(if0, {rec(1, rssi)});
        cycle();
        own(1);
        return rec(1, rssi);
    };
    auto due = [&](uint16_t suppress, uint16_t valid, std::vector<lta_rpt_entry> plan) {
        cfg.suppress = suppress, cfg.valid_period = valid;
        std::string out;
        for (auto &r : plan) {
            hear(if0, {r});
            cycle();
            out += eng.tlvs.empty() ? '.' : 'R';
        }
        ltr_sta_tbl_flush(&mgt.sta_tbl);
        return out;
    };
    auto steady = [&](int n) { return std::vector<lta_rpt_entry>(n, first(-50)); };
    EXPECT_EQ(due(2, 60000, steady(4)), "..R.");
    EXPECT_EQ(due(1000, 120, steady(4)), ".R.R");
    EXPECT_EQ(due(1000, 180, steady(4)), "..R.");
    EXPECT_EQ(due(0, 60, steady(3)), "RRR");
    first(-50); // threshold 3: a change of 3 is not due, 4 is; an inactive record always is
    EXPECT_EQ(due(1000, 60000, {rec(1, -53), rec(1, -57), rec(1, -57, 2437, 0), rec(1, -57)}), ".RR.");
    first(-100); // the difference wraps in 8 bits: 128 apart reads as -128, no change
    EXPECT_EQ(due(1000, 60000, {rec(1, 28)}), ".");
    first(-100);
    EXPECT_EQ(due(1000, 60000, {rec(1, 29)}), "R");
}

TEST_F(RssiCycle, OwnedReadingsAreActiveAndOnTheBandOfTheirAssociation)
{
    hear(if0, {rec(1, -50)});
    cycle();
    own(1);
    fake::radio_state(if1).assoc[sta_mac(1)] = 2437; // the first radio does not know it
    auto stored = [&](uint16_t freq, uint8_t active) {
        hear(if0, {rec(1, -50, freq, active)});
        cycle();
        const ltr_rssi_data &d = entry(1)->rssi_data;
        return std::to_string(d.chan_freq) + (d.active ? " active" : " inactive");
    };
    EXPECT_EQ(stored(5180, 0), "2437 active");
    EXPECT_EQ(eng.tlvs, (strs{"sta 0200.0000.0001", "rd " + me + " 2437 -50"}));
    EXPECT_EQ(stored(2412, 1), "2412 active"); // same band: as heard
    fake::radio_state(if1).assoc[sta_mac(1)] = 5180;
    EXPECT_EQ(stored(4000, 1), "5180 active"); // 4000 is the lower band
    EXPECT_EQ(stored(4001, 1), "4001 active");

    own(1, peer_ip); // a station owned elsewhere keeps what the driver said
    EXPECT_EQ(stored(2412, 0), "2412 inactive");
}

TEST_F(RssiCycle, ReadingsAgeByIntervalAndHoldTime)
{
    auto survives = [&](uint16_t interval, bool relayed) { // cycles without a fresh value
        cfg.rpt_interval = interval;
        hear(if0, {rec(1, -50)});
        cycle();
        if (relayed) {
            recv(relay_msg(1, peer_mac, -60, 2437));
            ltr_rssi_del(entry(1));
        }
        hear(if0, {});
        int n = 0;
        for (cycle(); sta(1) && n < 100; cycle())
            n++;
        return n;
    };
    EXPECT_EQ(survives(10, false), 5);
    EXPECT_EQ(survives(60, false), 0);
    EXPECT_EQ(survives(0, false), 0);
    EXPECT_EQ(survives(61, false), 0);
    EXPECT_EQ(survives(60, true), 1);
    cfg.hold_time = 3;
    EXPECT_EQ(survives(60, true), 4);

    cfg.rpt_interval = 10; // a shorter life applies at once: min(4, 2) - 1
    hear(if0, {rec(1, -50)});
    cycle();
    hear(if0, {});
    cycle();
    cfg.rpt_interval = 30;
    cycle();
    EXPECT_EQ(entry(1)->life_start, 2);
    EXPECT_EQ(entry(1)->life_cnt, 1);

    // A longer life does not revive a reading that has run out: min(0, 6) - 1.
    ltr_sta_tbl_flush(&mgt.sta_tbl);
    cfg.rpt_interval = 60;
    hear(if0, {rec(1, -50)});
    cycle();
    hear(if0, {});
    cfg.rpt_interval = 10;
    cycle();
    EXPECT_EQ(sta(1), nullptr);
}

// The cycle reaches this AP's own reading without walking the reporters: the link must
// follow the reading through ageing, new reporters and a new MAC of this AP.
TEST_F(RssiCycle, OwnReadingIsFoundAfterItAgedOutAndAfterANewMac)
{
    const fake::mac_t other{0x00, 0x66, 0x77, 0x88, 0x99, 0xbb};
    cfg.hold_time = 5;
    auto readings = [&] {
        std::string out;
        for (ltr_rssi_entry *e = sta(1)->rssi_list; e; e = e->link.next)
            out += qz_format_str("%m %d|", e->rssi_data.ap_mac, e->rssi_data.rssi);
        return out;
    };
    hear(if0, {rec(1, -50)});
    cycle();
    own(1);
    recv(relay_msg(1, peer_mac, -60, 2437));
    hear(if0, {});
    cycle(); // interval 60: the own reading lives one cycle, the relayed one stays
    ASSERT_EQ(entry(1), nullptr);
    recv(relay_msg(1, other, -70, 5180)); // may take the freed reading's memory
    hear(if0, {rec(1, -55)});
    cycle();
    EXPECT_EQ(eng.tlvs, (strs{"sta 0200.0000.0001", "rd " + me + " 2437 -55", "rd 0066.7788.99bb 5180 -70",
                              "rd 0066.7788.99aa 2437 -60"}));
    EXPECT_EQ(readings(), me + " -55|0066.7788.99bb -70|0066.7788.99aa -60|");

    memcpy(mgt.my_mac, other.data(), 6); // now the other reporter's reading is this AP's
    hear(if0, {rec(1, -45)});
    cycle();
    EXPECT_EQ(readings(), "0066.7788.99bb -45|0066.7788.99aa -60|"); // the old own one aged out
    memcpy(mgt.my_mac, my_mac.data(), 6);
    hear(if0, {rec(1, -41)});
    cycle();
    EXPECT_EQ(readings(), me + " -41|0066.7788.99bb -45|0066.7788.99aa -60|");
    EXPECT_EQ(sta(1)->rssi_cnt, 3);
}

TEST_F(RssiCycle, EntryPointsHoldTheLockAcrossPlatformCalls)
{
    int seen = 0, unlocked = 0;
    for (auto fn : {"qz_dcd_get_lta_rpt_tbl", "qz_dcd_get_radio_one_sta", "qz_event_send", "qz_hc3u_send",
                    "qz_pmpt_timer_start"})
        fake::on_call(fn, [&] {
            seen++;
            if (pthread_mutex_trylock(&mgt.lock) == 0)
                unlocked++, pthread_mutex_unlock(&mgt.lock);
        });
    hear(if0, {rec(1, -50), rec(2, -50)});
    cycle();
    own(1), own(2, peer_ip);
    cycle();
    fake::fire(mgt.owner_flush_timer);
    own(1, 0);
    uint8_t r[12] = {1, 0, 2, 0, 0, 0, 0, 1};
    memcpy(r + 8, &peer_ip, 4);
    ltr_handle_owner_reply((const ltr_owner_reply_evt *)r);
    EXPECT_GE(seen, 10);
    EXPECT_EQ(unlocked, 0);
    EXPECT_EQ(pthread_mutex_trylock(&mgt.lock), 0);
}

} // namespace
