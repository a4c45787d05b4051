// The pcap driver: capture files replayed through its operations, as the daemon calls them.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <net/if.h>
#include <string.h>
#include <sys/stat.h>

#include <fstream>
#include <thread>
#include <vector>

#include "drv_pcap.h"
#include "nl80211_sock.h"
#include "rt_config.h"
#include "rt_counter.h"
#include "rt_test_util.h"

namespace {

using bytes = std::vector<uint8_t>;
using mac = std::array<uint8_t, 6>;

const mac k_ap{0x00, 0x0a, 0, 0, 0, 1}, k_s1{0x00, 0x11, 0x22, 0, 0, 1}, k_s2{0x00, 0x11, 0x22, 0, 0, 2},
    k_local{0x02, 0, 0, 0, 0, 3}, k_s4{0x00, 0x44, 0, 0, 0, 4}, k_later_ap{0x00, 0x55, 0, 0, 0, 5},
    k_bcast{0xff, 0xff, 0xff, 0xff, 0xff, 0xff};

// Radiotap (flags, channel, dBm signal when given) + a 24-byte 802.11 header.
bytes frame(uint8_t fc0, uint8_t fc1, const mac &a1, const mac &a2, const mac &a3, int dbm,
            uint16_t freq = 2437, uint8_t flags = 0)
{
    const bool sig = dbm != 0;
    bytes b{0, 0, uint8_t(sig ? 15 : 14), 0, uint8_t(0x0a | (sig ? 0x20 : 0)), 0, 0, 0, flags, 0,
            uint8_t(freq), uint8_t(freq >> 8), 0xa0, 0};
    if (sig)
        b.push_back(uint8_t(int8_t(dbm)));
    b.insert(b.end(), {fc0, fc1, 0, 0});
    for (const mac *m : {&a1, &a2, &a3})
        b.insert(b.end(), m->begin(), m->end());
    b.insert(b.end(), {0, 0});
    return b;
}
bytes probe(const mac &sta, int dbm) { return frame(0x40, 0, k_bcast, sta, k_bcast, dbm); }
bytes beacon(const mac &ap) { return frame(0x80, 0, k_bcast, ap, ap, -30); }

void put32(std::ofstream &f, uint32_t v) { f.write(reinterpret_cast<const char *>(&v), 4); }

// Frames 1 ms apart, or step_s seconds apart when given.
void write_pcap(const std::string &path, const std::vector<bytes> &frames, uint32_t link = 127,
                uint32_t step_s = 0)
{
    std::ofstream f(path, std::ios::binary);
    put32(f, 0xa1b2c3d4), put32(f, 0x00040002), put32(f, 0), put32(f, 0), put32(f, 65535), put32(f, link);
    uint32_t ms = 0;
    for (const bytes &b : frames) {
        put32(f, 1000 + step_s * ms), put32(f, step_s ? 0 : 1000 * ms);
        put32(f, uint32_t(b.size())), put32(f, uint32_t(b.size()));
        ms++;
        f.write(reinterpret_cast<const char *>(b.data()), std::streamsize(b.size()));
    }
}

// One station of each kind the driver must tell apart.
std::vector<bytes> mixed_capture()
{
    bytes truncated = probe(k_s4, -50);
    truncated[2] = 200; // radiotap length past the frame
    return {beacon(k_ap),
            probe(k_s1, -40), probe(k_s1, -41), probe(k_s1, -90), probe(k_s1, -42), probe(k_s1, -39),
            frame(0x08, 0x01, k_ap, k_s2, k_bcast, -55, 2462),  // ToDS: s2 associated
            frame(0x08, 0x02, k_s2, k_ap, k_ap, -35, 2462),     // FromDS: the access point
            probe(k_local, -60),
            frame(0x40, 0, k_bcast, k_s4, k_bcast, -50, 2437, 0x40), // bad FCS
            probe(k_s4, 0),                                          // no signal
            truncated,
            probe(k_later_ap, -70), beacon(k_later_ap)};            // a client until it beacons
}

struct PcapTest : ::testing::Test {
    rt_scratch s;
    rt_radio r{};
    bool opened = false;
    void SetUp() override { rt_cfg_set(rt_test_config(s)); }
    void TearDown() override
    {
        if (opened)
            rt_driver_pcap.close(&r);
    }
    int open(const std::string &name, const std::string &capture, bool ignore_local = false,
             double speed = 1e6, const std::string &monitor = "")
    {
        pcap_radio_conf c;
        c.capture = capture;
        c.monitor = monitor;
        c.ignore_local = ignore_local;
        c.speed = speed;
        r.cfg.name = name;
        r.cfg.driver = "pcap";
        r.cfg.conf = std::make_shared<pcap_radio_conf>(c);
        int rc = rt_driver_pcap.open(&r);
        opened = rc == 0;
        return rc;
    }
    void replay(const std::string &name, bool ignore_local = false)
    {
        write_pcap(s.path("c.pcap"), mixed_capture());
        ASSERT_EQ(open(name, s.path("c.pcap"), ignore_local), 0);
        ASSERT_TRUE(rt_poll_until([&] { return pcap_radio_done(&r); }, 5000));
        ASSERT_EQ(rt_driver_pcap.set_track_enable(&r, 1), 0);
        ASSERT_EQ(rt_driver_pcap.set_lmatch(&r, 0), 0);
    }
    std::map<mac, lta_rpt_entry> table()
    {
        std::vector<lta_rpt_entry> buf(QZ_DCD_RPT_TBL_MAX);
        int n = int(buf.size());
        EXPECT_EQ(rt_driver_pcap.get_rpt_tbl(&r, buf.data(), &n), 0);
        std::map<mac, lta_rpt_entry> out;
        for (int i = 0; i < n; i++)
            out[std::to_array(buf[size_t(i)].mac)] = buf[size_t(i)];
        return out;
    }
    uint64_t counter(const std::string &name) { return rt_counter(("pcap." + r.cfg.name + "." + name).c_str()); }
};

} // namespace

TEST_F(PcapTest, ReplayedCaptureGivesStationsDepartureAssociationAndCounters)
{
    replay("wlan7");
    auto t = table();
    ASSERT_EQ(t.size(), 3u); // s1, s2 and the local address; no access point, nothing dropped
    EXPECT_EQ(std::tuple(+t[k_s1].rssi, +t[k_s1].active, +t[k_s1].chan_freq), std::tuple(-41, 1, 2437))
        << "median: the -90 outlier does not move it";
    EXPECT_EQ(std::tuple(+t[k_s2].rssi, +t[k_s2].chan_freq), std::tuple(-55, 2462));
    EXPECT_EQ(t.count(k_local), 1u);

    uint8_t rec[16];
    int len = 0;
    ASSERT_EQ(rt_driver_pcap.get_one_sta(&r, k_s2.data(), rec, sizeof rec, &len), 0);
    uint16_t freq;
    memcpy(&freq, rec + 2, 2);
    EXPECT_EQ(freq, 2462);
    EXPECT_NE(rt_driver_pcap.get_one_sta(&r, k_s1.data(), rec, sizeof rec, &len), 0) << "probes only";
    EXPECT_NE(rt_driver_pcap.get_one_sta(&r, k_ap.data(), rec, sizeof rec, &len), 0);

    // Not heard since: one departure record each with the last values, then nothing.
    t = table();
    ASSERT_EQ(t.size(), 3u);
    EXPECT_EQ(std::tuple(+t[k_s1].rssi, +t[k_s1].active), std::tuple(-41, 0));
    EXPECT_TRUE(table().empty());

    EXPECT_EQ(counter("frames_read"), 14u);
    EXPECT_EQ(counter("kept"), 8u);
    EXPECT_EQ(counter("not_station"), 3u);
    EXPECT_EQ(std::tuple(counter("bad_fcs"), counter("no_signal"), counter("malformed")), std::tuple(1u, 1u, 1u));
    lta_stats st{};
    ASSERT_EQ(rt_driver_pcap.get_stats(&r, &st), 0);
    EXPECT_EQ(st.rpt_cnt, 6u);
}

TEST_F(PcapTest, ListMatchObjectsAndPrivacySwitchFilterTheTable)
{
    replay("wlan8", true);
    ASSERT_EQ(rt_driver_pcap.set_lmatch(&r, 1), 0);
    lta_trackobj o{};
    memcpy(o.mac, k_s2.data(), 6);
    ASSERT_EQ(rt_driver_pcap.set_trackobj(&r, &o), 0);
    o.del = 1;
    o.mac[5] = 9;
    EXPECT_EQ(rt_driver_pcap.set_trackobj(&r, &o), 0); // absent: done already, counted
    auto t = table();
    ASSERT_EQ(t.size(), 1u);
    EXPECT_EQ(t.count(k_s2), 1u);
    EXPECT_EQ(counter("local_ignored"), 1u);
    lta_stats st{};
    ASSERT_EQ(rt_driver_pcap.get_stats(&r, &st), 0);
    EXPECT_EQ(std::tuple(st.rpt_cnt, st.sta_no_node), std::tuple(1u, 1u));
    // Tracking off: the report table is empty.
    ASSERT_EQ(rt_driver_pcap.set_track_enable(&r, 0), 0);
    EXPECT_TRUE(table().empty());
}

TEST_F(PcapTest, OpenRefusesBadSourcesAndCloseEndsAWaitingReplay)
{
    // Real time, a day between two frames: close must not wait for the second.
    write_pcap(s.path("slow.pcap"), {probe(k_s1, -40), probe(k_s1, -41)}, 127, 86400);
    ASSERT_EQ(open("wlan6", s.path("slow.pcap"), false, 1), 0);
    rt_poll_until([&] { return counter("frames_read") != 0; }, 5000);
    EXPECT_EQ(counter("frames_read"), 1u);
    rt_driver_pcap.close(&r);
    opened = false;
    EXPECT_FALSE(r.priv);

    // The same for a FIFO whose writer went quiet without closing it.
    ASSERT_EQ(mkfifo(s.path("fifo").c_str(), 0600), 0);
    write_pcap(s.path("one.pcap"), {probe(k_s1, -40)});
    std::string one = rt_read_file(s.path("one.pcap"));
    int wfd = -1;
    std::thread writer([&] {
        wfd = ::open(s.path("fifo").c_str(), O_WRONLY);
        EXPECT_EQ(write(wfd, one.data(), one.size()), ssize_t(one.size()));
    });
    ASSERT_EQ(open("wlan5", s.path("fifo"), false, 1), 0);
    writer.join();
    rt_poll_until([&] { return counter("frames_read") != 0; }, 5000);
    EXPECT_EQ(counter("frames_read"), 1u);
    rt_driver_pcap.close(&r);
    opened = false;
    ::close(wfd);

    write_pcap(s.path("eth.pcap"), {probe(k_s1, -40)}, 1);
    EXPECT_LT(open("wlan9", s.path("eth.pcap")), 0);
    EXPECT_LT(open("wlan9", ""), 0);
    EXPECT_LT(open("wlan9", s.path("none.pcap")), 0);
    std::string log = rt_read_file(s.path("log"));
    EXPECT_NE(log.find("pcap: wlan9: " + s.path("eth.pcap") + " has link type EN10MB (1), not radiotap"),
              std::string::npos)
        << log;
    EXPECT_NE(log.find("pcap: wlan9: give either capture"), std::string::npos) << log;

    // speed is a number, integer or not, and positive.
    auto parse = [&](const std::string &speed) {
        std::ofstream(s.path("c.toml")) << "[[radio]]\nname = \"w0\"\ndriver = \"pcap\"\ncapture = \"x\"\nspeed = "
                                        << speed << "\n";
        rt_config c;
        std::string err;
        rt_config_parse(s.path("c.toml"), c, err);
        return err.empty() ? std::to_string(rt_radio_conf<pcap_radio_conf>(std::as_const(c.radios[0])).speed) : err;
    };
    EXPECT_EQ(parse("2"), "2.000000");
    EXPECT_EQ(parse("0.5"), "0.500000");
    EXPECT_NE(parse("0").find("radio[0].speed: must be between"), std::string::npos);
    EXPECT_NE(parse("\"fast\"").find("radio[0].speed: expected a number"), std::string::npos);
}

// The live path on this machine's kernel: an interface that is not radiotap is refused,
// and a kernel without nl80211 only costs the associations.
TEST_F(PcapTest, LiveRadioOnAWiredInterfaceIsRefusedAndNl80211FailuresAreNamed)
{
    EXPECT_LT(open("wlan4", "", false, 1, "lo"), 0);
    std::string log = rt_read_file(s.path("log"));
    if (log.find("pcap: wlan4: cannot capture on lo") != std::string::npos)
        GTEST_SKIP() << "no capture rights here: " << log;
    EXPECT_NE(log.find("pcap: wlan4: lo has link type EN10MB (1), not radiotap"), std::string::npos) << log;

    qz_nl80211 n;
    std::string err;
    if (!qz_nl_open(n, err)) {
        EXPECT_NE(log.find("pcap: wlan4: associated stations unknown: " + err), std::string::npos) << log;
        return; // no wireless support in this kernel: nothing more to ask it
    }
    std::vector<qz_nl_mac> stas{qz_nl_mac{}};
    uint32_t freq = 1;
    EXPECT_FALSE(qz_nl_associated(n, if_nametoindex("lo"), stas, freq, err)) << "not a wireless interface";
    EXPECT_FALSE(err.empty());
    EXPECT_TRUE(stas.empty());
    EXPECT_EQ(freq, 0u);
}
