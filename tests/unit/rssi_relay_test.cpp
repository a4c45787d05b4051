// AP-to-AP exchange: validation of relayed readings and how they are stored, and
// station-owner replies with the hand-over of the newest reading.
#include "rssi_fixture.h"

using namespace rssi_test;

namespace {

class RssiRelay : public RssiTest {
  protected:
    void SetUp() override
    {
        RssiTest::SetUp();
        hear(if0, {rec(1, -50)});
        cycle(); // station 1 is known here
    }
};

TEST_F(RssiRelay, ReceiverDropsMalformedMessages)
{
    auto m = relay_msg(1, peer_mac, -60, 2437);
    struct {
        fake::bytes msg;
        int length;
        strs lines;
    } cases[] = {
        {m, 11, {"malformed lta message: length too short.\n"}},
        {m, 27, {"malformed lta message: payload size unmatch.\n"}},
        {m, 29, {"malformed lta message: payload size unmatch.\n"}},
        {relay_msg(1, peer_mac, -60, 2437, 1, 0, 0), 12,
         {"rssi relay size (0) check failed, expect 16.\n", "can't handle lta exchanged message: type 0, payload len 0.\n"}},
        {relay_msg(1, peer_mac, -60, 2437, 1, 1), 28, {"can't handle lta exchanged message: type 1, payload len 16.\n"}},
    };
    for (auto &c : cases) {
        fake::clear_text();
        c.msg.resize(40, 0xee); // bytes beyond the delivered length must not count
        EXPECT_EQ(recv(c.msg, c.length), 0);
        strs got;
        for (auto &l : fake::dbgs())
            got.push_back(l.text);
        EXPECT_EQ(got, c.lines) << c.length;
        EXPECT_EQ(entry(1, peer_mac), nullptr);
    }
    cfg.enabled = 0; // dropped silently while stopped
    fake::clear_text();
    recv(m);
    EXPECT_TRUE(fake::dbgs().empty());
    EXPECT_EQ(entry(1, peer_mac), nullptr);
}

TEST_F(RssiRelay, RelayedReadingIsStoredOnlyForKnownStations)
{
    recv(relay_msg(2, peer_mac, -60, 2437)); // unknown here: no station is made
    EXPECT_EQ(sta(2), nullptr);
    recv(relay_msg(1, peer_mac, -60, 5180, 0)); // inactive from a new reporter
    EXPECT_EQ(entry(1, peer_mac), nullptr);

    cfg.hold_time = 2;
    recv(relay_msg(1, peer_mac, -60, 5180));
    ltr_rssi_entry *e = entry(1, peer_mac);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->ni_local, 0u);
    EXPECT_EQ(e->rssi_data.chan_freq, 5180);
    EXPECT_EQ(e->last_pwr_rpt, -60);
    EXPECT_EQ(e->life_start, 3);
    EXPECT_EQ(sta(1)->need_report, 1u); // a new reporter is always due
    EXPECT_TRUE(fake::dbg_has("get relayed rssi of 0200.0000.0001 from 10.0.0.2 (0066.7788.99aa).\n"));

    sta(1)->need_report = 0;
    e->life_cnt = 0;
    recv(relay_msg(1, peer_mac, -63, 5180, 0)); // exactly the threshold; inactive alone is not due
    EXPECT_EQ(sta(1)->rssi_cnt, 2);             // the same reporter updates its one entry
    EXPECT_EQ(e->life_cnt, 3);
    EXPECT_EQ(e->rssi_data.rssi, -63);
    EXPECT_EQ(sta(1)->need_report, 0u);
    recv(relay_msg(1, peer_mac, -64, 5180));
    EXPECT_EQ(sta(1)->need_report, 1u);

    ltr_alloc_fail_at = 1;
    recv(relay_msg(1, {0, 0, 0, 0, 0, 0x0b}, -60, 5180));
    EXPECT_TRUE(fake::dbg_has("add rssi (sta 0200.0000.0001, ap 0000.0000.000b) failed.\n"));
}

TEST_F(RssiRelay, AForeignOwnerGetsOnlyThisAccessPointsOwnReadings)
{
    own(1, peer_ip);
    recv(relay_msg(1, {0, 0, 0, 0, 0, 0x0b}, -70, 5180)); // a third AP's reading, kept here
    hear(if0, {rec(1, -55)});
    cycle();
    ASSERT_EQ(fake::hc_sent().size(), 1u);
    EXPECT_EQ(fake::hc_sent()[0].id, peer_ip);
    EXPECT_EQ((int8_t)fake::hc_sent()[0].data[25], -55);
    EXPECT_TRUE(eng.tlvs.empty());
}

class RssiOwner : public RssiTest {
  protected:
    // Applies a reply as the event dispatcher would hand it over.
    static void reply(std::vector<std::pair<uint8_t, uint32_t>> recs)
    {
        fake::bytes p{(uint8_t)recs.size(), (uint8_t)(recs.size() >> 8)};
        for (auto &[n, ip] : recs) {
            auto m = sta_mac(n);
            p.insert(p.end(), m.begin(), m.end());
            const uint8_t *b = (const uint8_t *)&ip;
            p.insert(p.end(), b, b + 4);
        }
        EXPECT_EQ(ltr_handle_owner_reply((const ltr_owner_reply_evt *)p.data()), 0);
    }
};

TEST_F(RssiOwner, ReplySetsOwnersAndHandsTheNewestReadingToANewOwner)
{
    hear(if0, {rec(1, -50), rec(2, -50), rec(3, -50)});
    cycle();
    recv(relay_msg(1, peer_mac, -61, 5180)); // station 1's newest reading is relayed
    sta(1)->sup_cnt = sta(1)->rpt_age = 5;
    ltr_rssi_flush(sta(3));
    sta(3)->sup_cnt = 5;

    reply({{1, peer_ip}, {2, my_ip}, {3, peer_ip}, {9, peer_ip}});
    ASSERT_EQ(fake::hc_sent().size(), 1u); // only station 1 has a reading to hand over
    EXPECT_EQ(fake::hc_sent()[0].id, peer_ip);
    const auto &m = fake::hc_sent()[0].data;
    EXPECT_EQ(fake::bytes(m.begin() + 18, m.begin() + 24), fake::bytes(my_mac.begin(), my_mac.end()));
    EXPECT_EQ((int8_t)m[25], -61);
    EXPECT_EQ(entry(1, peer_mac)->last_pwr_rpt, -61);
    EXPECT_EQ(sta(1)->need_report, 0u);
    EXPECT_EQ(sta(1)->sup_cnt + sta(1)->rpt_age, 0);
    EXPECT_EQ(sta(2)->ni_owner_ip, my_ip);
    EXPECT_EQ(sta(3)->ni_owner_ip, peer_ip);
    EXPECT_EQ(sta(3)->sup_cnt, 5); // nothing handed over, nothing reset

    // The same owner again, count 0, or tracking stopped: nothing more happens.
    reply({{1, peer_ip}});
    reply({});
    cfg.enabled = 0;
    reply({{1, 0}});
    EXPECT_EQ(sta(1)->ni_owner_ip, peer_ip);
    cfg.enabled = 1;
    reply({{1, 0}});
    EXPECT_EQ(sta(1)->ni_owner_ip, 0u);
    EXPECT_EQ(fake::hc_sent().size(), 1u);
}

} // namespace
