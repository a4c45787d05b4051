// AP-to-AP relay: the 28-byte message as sent, validation of what arrives, and how
// relayed readings are stored.
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

} // namespace
