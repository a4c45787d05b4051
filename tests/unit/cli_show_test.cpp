// Show and dump output, byte for byte.
#include <net/if.h>

#include "ltr_cli.h"
#include "ltr_test.h"

namespace {

class CliShow : public LtrTest {
  protected:
    ltr_cfg cfg{1, 0, 1, 0, 0, 3, 60, 60};
    qz_cli_cmd cmd{};
    void SetUp() override
    {
        LtrTest::SetUp();
        mgt.cfg = &cfg;
    }
};

void noop_timer(qz_pmpt_timer_t *, void *) {}

} // namespace

TEST_F(CliShow, ParametersOfAChangedConfiguration)
{
    cfg = ltr_cfg{1, 1, 0, 5, 2, 7, 30, 90};
    EXPECT_EQ(ltr_show_param(&cmd), 0);
    EXPECT_EQ(fake::cli_text(), "Engine name:                            Quorvane\n"
                                "Status:                                 enabled\n"
                                "Track list match:                       no\n"
                                "Report suppressing parameter:           5\n"
                                "RSSI hold time:                         2\n"
                                "Report interval:                        30\n"
                                "Report valid period:                    90\n"
                                "RSSI change update threshold:           7\n");
}

TEST_F(CliShow, EmptyStationTableGivesLegendAndCountOnly)
{
    ltr_rssi_filter f{};
    EXPECT_EQ(ltr_show_rssi(&cmd, &f), 0);
    EXPECT_EQ(fake::cli_text(),
              "RSSI=received signal strength in dBm; Freq=channel frequence in MHZ; RptAge=report age;\n"
              "SupCnt=suppress count; LPwrRpt=last power reported; LifeCnt=life counter\n"
              "Number of stations in tracking: 0\n");
}

TEST_F(CliShow, StateWithTimersStoppedAndArmed)
{
    mgt.shm_id = 4242;
    const uint8_t mac[6] = {0x00, 0x1a, 0x2b, 0x3c, 0x4d, 0x5e};
    memcpy(mgt.my_mac, mac, 6);
    mgt.my_ip = ltr_ip(10, 0, 0, 7);
    mgt.rssi_fetch_timer = qz_pmpt_timer_create(noop_timer, nullptr);
    mgt.owner_flush_timer = qz_pmpt_timer_create(noop_timer, nullptr);
    EXPECT_EQ(ltr_dump_state(&cmd), 0);
    EXPECT_EQ(fake::cli_text(), "Engine Status:                          disabled\n"
                                "Shared memory ID:                       4242\n"
                                "My MAC (mgt0):                          001a.2b3c.4d5e\n"
                                "My IP (mgt):                            10.0.0.7\n"
                                "RSSI fetch time to fire:                not started\n"
                                "Station owner flush time to fire:       not started\n");
    fake::clear_text();
    qz_pmpt_timer_start(mgt.rssi_fetch_timer, 60);
    fake::set_time2fire(mgt.rssi_fetch_timer, 17);
    qz_pmpt_timer_start(mgt.owner_flush_timer, 300);
    fake::set_time2fire(mgt.owner_flush_timer, 0);
    ltr_dump_state(&cmd);
    EXPECT_NE(fake::cli_text().find("RSSI fetch time to fire:                17s\n"
                                    "Station owner flush time to fire:       0s\n"),
              std::string::npos);
}

TEST_F(CliShow, DriverStatsSkipMissingRadiosAndZeroAFailedRead)
{
    fake::set_radios({{"wifi0", 5}, {"gone", 0}, {"wifi1", 6}});
    fake::radio_state(5).stats = lta_stats{99, 99, 99, 99, 99};
    fake::radio_state(6).stats = lta_stats{11, 1, 2, 3, 4};
    fake::script("qz_dcd_get_lta_stats", -1); // wifi0's read fails
    ltr_debug_flags = LTR_DBG_ERROR;
    EXPECT_EQ(ltr_dump_drv_stats(&cmd), 0);
    EXPECT_EQ(fake::cli_text(), "ltr statistics counter for wifi0:\n"
                                "number of reported rssi readings:       0\n"
                                "station list no node:                   0\n"
                                "oui list no node:                       0\n"
                                "station list no memory:                 0\n"
                                "oui list no memory:                     0\n"
                                "\n"
                                "ltr statistics counter for wifi1:\n"
                                "number of reported rssi readings:       11\n"
                                "station list no node:                   1\n"
                                "oui list no node:                       2\n"
                                "station list no memory:                 3\n"
                                "oui list no memory:                     4\n"
                                "\n");
    EXPECT_TRUE(fake::dbg_has("get ltr statistics to interface failed"));
}
