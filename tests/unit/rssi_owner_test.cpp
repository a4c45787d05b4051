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
