// Radios and the driver library, dispatched by interface index.
#include <gtest/gtest.h>
#include <arpa/inet.h>
#include <net/if.h>
#include <syslog.h>

#include "qz_dcd.h"
#include "qz_hw.h"
#include "rt_config.h"
#include "rt_driver.h"
#include "rt_log.h"
#include "rt_notify.h"
#include "rt_process.h"
#include "rt_test_util.h"
#include "sim_radio.h"

namespace {
class Dcd : public testing::Test {
  protected:
    void TearDown() override { qz_dcd_lib_cleanup(); }
    bool logged(const char *text) { return rt_read_file(s.path("log")).find(text) != std::string::npos; }
    rt_scratch s;
    rt_config c = rt_test_config(s);
};
} // namespace

TEST_F(Dcd, CallsForUnknownInterfacesOrBadArgumentsFail)
{
    rt_cfg_set(c); // no radios
    ASSERT_EQ(qz_dcd_lib_init(), 0);
    int lo = (int)if_nametoindex("lo"), count = 4, len = 0; // lo is no radio here
    lta_rpt_entry tbl[4];
    uint8_t mac[6] = {}, sta[QZ_DCD_STA_BUF_LEN];
    EXPECT_LT(qz_dcd_set_lta_track_enable(lo, 1), 0);
    EXPECT_LT(qz_dcd_get_lta_rpt_tbl(lo, tbl, &count), 0);
    EXPECT_LT(qz_dcd_get_radio_one_sta(lo, mac, sta, sizeof sta, &len), 0);
    EXPECT_LT(qz_dcd_set_lta_track_enable(-5, 1), 0);

    c.radios = {{"lo", "warp", true}}; // an unknown driver fails the start
    rt_cfg_set(c);
    qz_dcd_lib_cleanup();
    EXPECT_LT(qz_dcd_lib_init(), 0);
    EXPECT_TRUE(rt_radios().empty());
    EXPECT_FALSE(rt_dcd_opened());
    EXPECT_TRUE(logged("radio lo: unknown driver \"warp\""));
}

TEST_F(Dcd, Mgt0MapsToTheConfiguredInterfaceOrFixedValues)
{
    uint8_t mac[6];
    uint32_t ip = 1, mask = 1;
    c.mgt_interface = "lo";
    rt_cfg_set(c);
    ASSERT_EQ(qz_dcd_get_mac_byname("mgt0", mac), 0);
    ASSERT_EQ(qz_dcd_get_addr_byname("mgt0", &ip, &mask), 0);
    EXPECT_EQ(ip, inet_addr("127.0.0.1"));
    EXPECT_EQ(mask, inet_addr("255.0.0.0"));

    c.mgt_interface = "qznone0";
    rt_cfg_set(c);
    EXPECT_LT(qz_dcd_get_mac_byname("mgt0", mac), 0);
    EXPECT_LT(qz_dcd_get_addr_byname("mgt0", &ip, &mask), 0);

    c.mgt_ip = inet_addr("192.0.2.7"); // configured values win
    rt_cfg_set(c);
    ASSERT_EQ(qz_dcd_get_addr_byname("mgt0", &ip, &mask), 0);
    EXPECT_EQ(ip, inet_addr("192.0.2.7"));
    // Other names are read from the interface itself.
    ASSERT_EQ(qz_dcd_get_addr_byname("lo", &ip, nullptr), 0);
    EXPECT_EQ(ip, inet_addr("127.0.0.1"));
}

// Radios come from the configuration in order (a missing interface is only warned
// about); they hear the stations of their last two report tables, nothing once
// tracking is off.
TEST_F(Dcd, RadiosFromTheConfigurationHearWhatTheirLastTwoTablesHeld)
{
    c.radios = {{"lo", "sim", true}, {"qznone0", "sim", false}};
    rt_cfg_set(c);
    EXPECT_EQ(qz_radio_count(), 2);
    EXPECT_STREQ(qz_ifname_id2radio(1), "qznone0");
    EXPECT_EQ(qz_ifname_id2radio(2), nullptr);
    ASSERT_EQ(qz_dcd_lib_init(), 0);
    EXPECT_TRUE(logged("radio qznone0: no such interface"));
    EXPECT_FALSE(rt_radio_by_name("qznone0")->cfg.access);
    int lo = (int)if_nametoindex("lo");
    rt_radio *r = rt_radio_by_ifindex(lo);
    ASSERT_TRUE(r && r->id == 0);

    auto radio = sim_radio_find("lo");
    ASSERT_TRUE(radio);
    sim_heard h{{2, 0, 0, 0, 0, 1}, -50, 1, 2412};
    sim_hear(radio.get(), h);
    lta_rpt_entry tbl[4];
    auto fetch = [&] {
        int count = 4;
        return qz_dcd_get_lta_rpt_tbl(lo, tbl, &count);
    };
    ASSERT_EQ(fetch(), 0);
    EXPECT_FALSE(rt_radio_hears(h.mac.data())) << "tracking off: the table is empty";
    ASSERT_EQ(qz_dcd_set_lta_track_enable(lo, 1), 0);
    ASSERT_EQ(qz_dcd_set_lta_lmatch_enable(lo, 0), 0);
    ASSERT_EQ(fetch(), 0);
    EXPECT_TRUE(rt_radio_hears(h.mac.data()));
    sim_forget(radio.get(), h.mac);
    ASSERT_EQ(fetch(), 0);
    EXPECT_TRUE(rt_radio_hears(h.mac.data())) << "one table without it is not enough";
    ASSERT_EQ(fetch(), 0);
    EXPECT_FALSE(rt_radio_hears(h.mac.data()));

    sim_hear(radio.get(), h);
    ASSERT_EQ(fetch(), 0);
    ASSERT_EQ(qz_dcd_set_lta_track_enable(lo, 0), 0);
    EXPECT_FALSE(rt_radio_hears(h.mac.data()));
}

namespace {
std::string g_field_in_call;
int capture_about(rt_radio *, lta_stats *)
{
    g_field_in_call = rt_journal_fields(LOG_INFO, nullptr, "x", "ltrd").back();
    return 0;
}
} // namespace

// What a service manager's status line and the journal learn from driver calls: the
// radios whose tracking switch is on, and which radio a line written in a call is about.
TEST_F(Dcd, TrackingSwitchesMakeTheStatusAndCallsNameTheirRadio)
{
    c.radios = {{"lo", "sim", true}, {"qznone0", "sim", false}};
    rt_cfg_set(c);
    ASSERT_EQ(qz_dcd_lib_init(), 0);
    int lo = (int)if_nametoindex("lo");
    EXPECT_EQ(rt_notify_status_text(), "tracking off, server not connected");
    ASSERT_EQ(qz_dcd_set_lta_track_enable(lo, 1), 0);
    EXPECT_EQ(rt_notify_status_text(), "tracking on 1 of 2 radios, server not connected");
    EXPECT_LT(qz_dcd_set_lta_track_enable(9999, 1), 0); // no such radio: no change
    EXPECT_EQ(rt_notify_status_text(), "tracking on 1 of 2 radios, server not connected");
    ASSERT_EQ(qz_dcd_set_lta_track_enable(lo, 0), 0);
    EXPECT_EQ(rt_notify_status_text(), "tracking off, server not connected");

    rt_radio *r = rt_radio_by_ifindex(lo);
    ASSERT_NE(r, nullptr);
    rt_driver_ops ops = *r->ops;
    ops.get_stats = capture_about;
    const rt_driver_ops *was = r->ops;
    r->ops = &ops;
    lta_stats st{};
    EXPECT_EQ(qz_dcd_get_lta_stats(lo, &st), 0);
    r->ops = was;
    EXPECT_EQ(g_field_in_call, "RADIO=lo");
    EXPECT_EQ(rt_journal_fields(LOG_INFO, nullptr, "x", "ltrd").size(), 4u); // after the call
}
