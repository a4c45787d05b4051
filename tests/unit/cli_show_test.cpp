// Show and dump output, byte for byte.
#include <array>

#include "ltr_cli.h"
#include "ltr_test.h"

namespace {

// The real station table and tracking list, on one radio.
class CliShow : public LtrTest {
  protected:
    qz_cli_cmd cmd{};
    void SetUp() override
    {
        LtrTest::SetUp();
        fake::set_radios({{"wifi0", 4}});
        ASSERT_EQ(ltr_mgt_init(), 0);
    }
    ltr_sta *sta(std::array<uint8_t, 6> mac, uint32_t owner, uint16_t age, uint16_t sup)
    {
        ltr_sta *s = ltr_sta_add(&mgt.sta_tbl, mac.data());
        s->ni_owner_ip = owner;
        s->rpt_age = age;
        s->sup_cnt = sup;
        return s;
    }
    void reading(ltr_sta *s, std::array<uint8_t, 6> ap, int8_t rssi, uint16_t freq, uint8_t active,
                 int8_t lpwr, int32_t life)
    {
        ltr_rssi_data d{};
        memcpy(d.ap_mac, ap.data(), 6);
        d.rssi = rssi;
        d.chan_freq = freq;
        d.active = active;
        ltr_rssi_entry *e = ltr_rssi_add(s, &d);
        e->last_pwr_rpt = lpwr;
        e->life_cnt = life;
    }
    // Three stations: two of OUI 00:11:22 (the first heard by two access points).
    void populate()
    {
        ltr_sta *a = sta({0x00, 0x11, 0x22, 0x00, 0x00, 0x01}, ltr_ip(10, 0, 0, 2), 60, 1);
        reading(a, {0x02, 0, 0, 0, 0, 0x0a}, -70, 2412, 1, -71, 1);
        reading(a, {0x02, 0, 0, 0, 0, 0x0b}, -48, 5180, 0, 0, 3); // newest: listed first
        sta({0x66, 0x77, 0x88, 0x00, 0x00, 0x02}, 0, 0, 0);
        ltr_sta *c = sta({0x00, 0x11, 0x22, 0x00, 0x00, 0x03}, 0, 120, 2);
        reading(c, {0x02, 0, 0, 0, 0, 0x0a}, -90, 2437, 1, -88, 2);
    }
    std::string show(uint32_t type, std::vector<uint8_t> addr)
    {
        ltr_rssi_filter f{};
        f.type = type;
        if (!addr.empty())
            memcpy(f.addr, addr.data(), addr.size());
        fake::clear_text();
        EXPECT_EQ(ltr_show_rssi(&cmd, &f), 0);
        return fake::cli_text();
    }
};

const std::string LEGEND =
    "RSSI=received signal strength in dBm; Freq=channel frequence in MHZ; RptAge=report age;\n"
    "SupCnt=suppress count; LPwrRpt=last power reported; LifeCnt=life counter\n";
const std::string HEAD = "No. Reporter       RSSI  Freq  Active LPwrRpt LifeCnt\n"
                         "--- -------------- ----- ----- ------ ------  ------\n";
const std::string STA1 = "Station: 0011.2200.0001, Owner: 10.0.0.2, RptAge 60, SupCnt 1, RSSI list:\n" +
                         HEAD +
                         "1   0200.0000.000b -48   5180  no     0       3     \n"
                         "2   0200.0000.000a -70   2412  yes    -71     1     \n"
                         "\n";
const std::string STA2 = "Station: 6677.8800.0002, Owner: 0.0.0.0, RptAge 0, SupCnt 0, RSSI list:\n" +
                         HEAD + "\n";
const std::string STA3 = "Station: 0011.2200.0003, Owner: 0.0.0.0, RptAge 120, SupCnt 2, RSSI list:\n" +
                         HEAD +
                         "1   0200.0000.000a -90   2437  yes    -88     2     \n"
                         "\n";

} // namespace

TEST_F(CliShow, RssiListsFilteredByMacAndByOui)
{
    populate();
    const std::string count = "Number of stations in tracking: 3\n";
    EXPECT_EQ(show(LTR_FILTER_MAC, {0x66, 0x77, 0x88, 0x00, 0x00, 0x02}), LEGEND + count + STA2);
    // A station that is not in the table: legend and total only.
    EXPECT_EQ(show(LTR_FILTER_MAC, {0x66, 0x77, 0x88, 0x00, 0x00, 0x09}), LEGEND + count);
    EXPECT_EQ(show(LTR_FILTER_OUI, {0x00, 0x11, 0x22}), LEGEND + count + STA1 + STA3);
    EXPECT_EQ(show(7, {}), LEGEND + count); // an unknown filter keeps nothing
}

TEST_F(CliShow, TrackListRowsNumberedInListOrder)
{
    ASSERT_EQ(ltr_set_enabled(1), 0);
    const uint8_t mac[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
    const uint8_t oui[3] = {0xf0, 0x0d, 0x0a};
    ASSERT_EQ(ltr_mgt_add_mac(mac), 0);
    ASSERT_EQ(ltr_mgt_add_oui(oui), 0);
    ASSERT_EQ(ltr_mgt_set_lmatch(0), 0);
    fake::clear_text();
    EXPECT_EQ(ltr_dump_track_list(&cmd), 0);
    EXPECT_EQ(fake::cli_text(), "Match track list enabled: no\n"
                                "No. Type Address\n"
                                "--- ---- ----------------\n"
                                "1   mac  0011.2233.4455\n"
                                "2   oui  f00d.0a00.0000\n");
}

TEST_F(CliShow, ParametersOfAChangedConfiguration)
{
    *mgt.cfg = ltr_cfg{1, 1, 0, 5, 2, 7, 30, 90};
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

TEST_F(CliShow, DriverStatsSkipMissingRadiosAndZeroAFailedRead)
{
    fake::set_radios({{"wifi0", 5}, {"gone", 0}, {"wifi1", 6}});
    fake::radio_state(5).stats = lta_stats{99, 99, 99, 99, 99};
    fake::radio_state(6).stats = lta_stats{11, 1, 2, 3, 4};
    fake::script("qz_dcd_get_lta_stats", -1); // wifi0's read fails
    ltr_debug_flags = LTR_DBG_ERROR;
    EXPECT_EQ(ltr_dump_drv_stats(&cmd), 0);
    auto block = [](std::string radio, std::array<int, 5> n) {
        return "ltr statistics counter for " + radio + ":\nnumber of reported rssi readings:       " +
               std::to_string(n[0]) + "\nstation list no node:                   " + std::to_string(n[1]) +
               "\noui list no node:                       " + std::to_string(n[2]) +
               "\nstation list no memory:                 " + std::to_string(n[3]) +
               "\noui list no memory:                     " + std::to_string(n[4]) + "\n\n";
    };
    EXPECT_EQ(fake::cli_text(), block("wifi0", {0, 0, 0, 0, 0}) + block("wifi1", {11, 1, 2, 3, 4}));
    EXPECT_TRUE(fake::dbg_has("get ltr statistics to interface failed"));
}
