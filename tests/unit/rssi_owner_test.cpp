// Station owners: the query event, the periodic check, and applying replies (with the
// hand-over of the newest reading to a new owner).
#include "rssi_fixture.h"

using namespace rssi_test;

namespace {

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

TEST_F(RssiOwner, QueryEventCarriesEveryMac)
{
    uint8_t macs[12] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    EXPECT_EQ(ltr_owner_query(macs, 2), 0);
    ASSERT_EQ(fake::events_sent().size(), 1u);
    EXPECT_EQ(fake::events_sent()[0].id, 156u);
    EXPECT_EQ(fake::events_sent()[0].data, (fake::bytes{0x2e, 1, 2, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}));
    EXPECT_TRUE(fake::dbg_has("query the owner of station 0708.090a.0b0c.\n"));

    fake::script("qz_event_send", -4);
    EXPECT_EQ(ltr_owner_query(macs, 1), -4);
    EXPECT_TRUE(fake::dbg_has("send station owner query event failed.\n"));
    ltr_alloc_fail_at = 1;
    EXPECT_EQ(ltr_owner_query(macs, 1), -1);
    EXPECT_TRUE(fake::dbg_has("no memory!\n"));
}

TEST_F(RssiOwner, PeriodicCheckAsksForAllStationsAndAlwaysRearms)
{
    fake::fire(mgt.owner_flush_timer);
    EXPECT_TRUE(fake::events_sent().empty());
    EXPECT_EQ(fake::timer_state(mgt.owner_flush_timer).period, 300u);
    EXPECT_TRUE(fake::dbg_has("station owner check timer timeout.\n"));

    std::vector<lta_rpt_entry> recs(512, rec(0, -50));
    for (int i = 0; i < 512; i++)
        recs[i].mac[4] = (uint8_t)(i >> 8), recs[i].mac[5] = (uint8_t)i;
    hear(if0, recs);
    cycle();
    fake::clear_calls();
    fake::fire(mgt.owner_flush_timer);
    auto q = fake::calls_of("qz_event_send");
    ASSERT_EQ(q.size(), 1u);
    EXPECT_EQ(q[0].args[1], 3076);
    EXPECT_EQ(q[0].data[2] | q[0].data[3] << 8, 512);
    EXPECT_EQ(q[0].data[4 + 6 * 511 + 5], 0xff); // table order: the last one heard is last

    ltr_alloc_fail_at = 1;
    fake::clear_calls();
    fake::fire(mgt.owner_flush_timer);
    EXPECT_TRUE(fake::dbg_has("no memory.\n"));
    EXPECT_EQ(fake::count("qz_event_send"), 0u);
    EXPECT_EQ(fake::count("qz_pmpt_timer_start"), 1u);
}

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
