// Simulated radios: driver semantics, the world model and radio.sock.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "rt.h"
#include "sim_radio.h"

namespace {

const char *k_world = R"(
[model]
ref_rssi = -40
exponent = 3.0
noise = 2.0
floor = -90

[[ap]]
name = "ap1"
position = [0, 0]
radios = [2412, 5180]

[[ap]]
name = "ap2"
position = [30, 0]
radios = [2437]

[[station]]
mac = "02:00:00:00:00:01"
position = [3, 4]
assoc = "ap1"
assoc_radio = 1

[[station]]
mac = "02:00:00:00:00:02"
position = [28, 0]
assoc = "ap2"

[[station]]
mac = "02:00:00:00:00:03"
position = [0, 10]
path = [[20, 10]]
speed = 2.0
active = false
)";

struct SimTest : ::testing::Test {
    std::string dir;
    std::vector<rt_radio> radios;
    double now = 0;

    void SetUp() override
    {
        char tmpl[] = "/tmp/sim_test.XXXXXX";
        ASSERT_TRUE(mkdtemp(tmpl));
        dir = tmpl;
        sim_reset();
        sim_set_clock([this] { return now; });
    }
    void TearDown() override
    {
        for (auto &r : radios)
            rt_driver_sim.close(&r);
        rt_radio_sock_stop();
        sim_reset();
        std::filesystem::remove_all(dir);
    }
    // Opens n radios wlan0.. with an optional world, as instance "ap1".
    void open(int n, const char *world = nullptr, uint64_t seed = 1)
    {
        rt_config c;
        c.instance = "ap1";
        c.runtime_dir = dir;
        c.sim_seed = seed;
        if (world) {
            c.sim_world = dir + "/site.world.toml";
            std::ofstream(c.sim_world) << world;
        }
        rt_cfg_set(c);
        radios.resize(static_cast<size_t>(n));
        for (int i = 0; i < n; i++) {
            radios[static_cast<size_t>(i)].id = i;
            radios[static_cast<size_t>(i)].cfg.name = "wlan" + std::to_string(i);
            radios[static_cast<size_t>(i)].ops = &rt_driver_sim;
            ASSERT_EQ(rt_driver_sim.open(&radios[static_cast<size_t>(i)]), 0);
        }
    }
    std::vector<lta_rpt_entry> table(int r, int cap = QZ_DCD_RPT_TBL_MAX)
    {
        std::vector<lta_rpt_entry> buf(static_cast<size_t>(cap));
        int n = cap;
        EXPECT_EQ(rt_driver_sim.get_rpt_tbl(&radios[static_cast<size_t>(r)], buf.data(), &n), 0);
        buf.resize(static_cast<size_t>(n));
        return buf;
    }
    int obj(int r, const char *text, bool oui, bool del)
    {
        lta_trackobj o{};
        EXPECT_TRUE(sim_parse_hex(text, o.mac, oui ? 3 : 6));
        o.is_oui = oui;
        o.del = del;
        return rt_driver_sim.set_trackobj(&radios[static_cast<size_t>(r)], &o);
    }
    std::string cmd(const std::string &line) { return rt_radio_sock_command(line); }
    lta_stats stats(int r)
    {
        lta_stats st{};
        EXPECT_EQ(rt_driver_sim.get_stats(&radios[static_cast<size_t>(r)], &st), 0);
        return st;
    }
};

} // namespace

TEST_F(SimTest, TrackSwitchAndListMatchDecideWhatIsReported)
{
    open(1);
    ASSERT_EQ(cmd("hear wlan0 00:11:22:00:00:01 -50 1 2412"), "ok\n");
    ASSERT_EQ(cmd("hear wlan0 00:11:22:00:00:02 -60 0 2412"), "ok\n");
    ASSERT_EQ(cmd("hear wlan0 aa:bb:cc:00:00:03 -70 1 5180"), "ok\n");
    rt_radio *r = &radios[0];

    EXPECT_TRUE(table(0).empty()); // tracking off: nothing
    ASSERT_EQ(rt_driver_sim.set_track_enable(r, 1), 0);
    auto all = table(0);
    ASSERT_EQ(all.size(), 3u);
    EXPECT_EQ(all[1].rssi, -60);
    EXPECT_EQ(all[1].active, 0);
    EXPECT_EQ(all[2].chan_freq, 5180);
    EXPECT_EQ(table(0, 2).size(), 2u); // never more than the capacity

    ASSERT_EQ(rt_driver_sim.set_lmatch(r, 1), 0);
    EXPECT_TRUE(table(0).empty()); // list match with no objects matches nothing
    ASSERT_EQ(obj(0, "00:11:22:00:00:02", false, false), 0);
    ASSERT_EQ(table(0).size(), 1u);
    ASSERT_EQ(obj(0, "aa:bb:cc", true, false), 0);
    auto m = table(0);
    ASSERT_EQ(m.size(), 2u);
    EXPECT_EQ(m[1].mac[0], 0xaa);
    ASSERT_EQ(obj(0, "00:11:22:00:00:02", false, true), 0);
    EXPECT_EQ(table(0).size(), 1u);
    ASSERT_EQ(rt_driver_sim.set_lmatch(r, 0), 0);
    EXPECT_EQ(table(0).size(), 3u);

    ASSERT_EQ(cmd("forget wlan0 00:11:22:00:00:01"), "ok\n");
    EXPECT_EQ(table(0).size(), 2u);
    ASSERT_EQ(cmd("clear wlan0"), "ok\n");
    EXPECT_TRUE(table(0).empty());
    EXPECT_EQ(stats(0).rpt_cnt, 3u + 2 + 1 + 2 + 1 + 3 + 2);
}

TEST_F(SimTest, ObjectTableIsBoundedAndCountsMisses)
{
    open(1);
    EXPECT_EQ(obj(0, "00:00:00:00:00:01", false, true), -1);
    EXPECT_EQ(obj(0, "00:00:01", true, true), -1);
    for (size_t i = 0; i < SIM_MAX_MAC_OBJ; i++) {
        char m[40];
        snprintf(m, sizeof m, "02:00:00:00:%02zx:%02zx", i >> 8, i & 0xff);
        ASSERT_EQ(obj(0, m, false, false), 0) << i;
    }
    EXPECT_EQ(obj(0, "02:00:00:00:00:05", false, false), 0); // already there: no new slot
    EXPECT_EQ(obj(0, "06:00:00:00:00:00", false, false), -1);
    for (size_t i = 0; i < SIM_MAX_OUI_OBJ; i++) {
        char o[40];
        snprintf(o, sizeof o, "0a:00:%02zx", i);
        ASSERT_EQ(obj(0, o, true, false), 0) << i;
    }
    EXPECT_EQ(obj(0, "0b:00:00", true, false), -1);
    lta_stats st = stats(0);
    EXPECT_EQ(st.sta_no_node, 1u);
    EXPECT_EQ(st.oui_no_node, 1u);
    EXPECT_EQ(st.sta_no_mem, 1u);
    EXPECT_EQ(st.oui_no_mem, 1u);

    lta_trackobj bad{};
    bad.is_oui = 2;
    EXPECT_EQ(rt_driver_sim.set_trackobj(&radios[0], &bad), -1);
    EXPECT_EQ(memcmp(&st, &(const lta_stats &)stats(0), sizeof st), 0); // refused, nothing counted
}

TEST_F(SimTest, InjectedFailuresHitTheNamedOperationOnly)
{
    open(1);
    int n = 4;
    lta_rpt_entry buf[4];
    ASSERT_EQ(cmd("fail get_lta_rpt_tbl 2"), "ok\n");
    EXPECT_EQ(rt_driver_sim.set_track_enable(&radios[0], 1), 0);
    EXPECT_EQ(rt_driver_sim.get_rpt_tbl(&radios[0], buf, &n), -1);
    EXPECT_EQ(rt_driver_sim.get_rpt_tbl(&radios[0], buf, &n), -1);
    EXPECT_EQ(rt_driver_sim.get_rpt_tbl(&radios[0], buf, &n), 0);
    ASSERT_EQ(cmd("fail set_lta_trackobj 1"), "ok\n");
    EXPECT_EQ(obj(0, "00:00:00:00:00:01", false, false), -1);
    EXPECT_EQ(obj(0, "00:00:00:00:00:01", false, false), 0);
    EXPECT_EQ(stats(0).sta_no_mem, 0u);
    EXPECT_EQ(cmd("fail reboot 1"), "error: unknown operation reboot\n");
    EXPECT_EQ(cmd("fail get_lta_stats x"), "error: bad count x\n");
}

TEST_F(SimTest, WorldIsDeterministicForASeedAndFollowsDistance)
{
    std::string err;
    auto w = sim_world_parse(k_world, "w", err);
    ASSERT_TRUE(w) << err;

    // Path loss falls with distance and with frequency.
    for (double d = 1; d < 300; d += 1.5)
        EXPECT_GT(sim_path_rssi(w->model, d, 2412), sim_path_rssi(w->model, d + 1.5, 2412)) << d;
    EXPECT_GT(sim_path_rssi(w->model, 10, 2412), sim_path_rssi(w->model, 10, 5180));

    auto hear = [&](double t, uint64_t seed) {
        std::vector<sim_heard> v;
        sim_world_hear(*w, 0, 0, 2412, t, seed, v);
        return v;
    };
    auto same = [](const std::vector<sim_heard> &a, const std::vector<sim_heard> &b) {
        return a.size() == b.size() &&
               std::equal(a.begin(), a.end(), b.begin(), [](auto &x, auto &y) {
                   return x.mac == y.mac && x.rssi == y.rssi && x.active == y.active;
               });
    };
    EXPECT_TRUE(same(hear(12.3, 7), hear(12.3, 7)));
    bool differs = false;
    for (uint64_t s = 8; s < 16 && !differs; s++)
        differs = !same(hear(12.3, 7), hear(12.3, s));
    EXPECT_TRUE(differs);

    // Near stations are louder on average; the far one (28 m) is weaker than the 5 m one.
    double near = 0, far = 0;
    for (int t = 0; t < 50; t++) {
        for (const auto &h : hear(t, 3)) {
            if (h.mac[5] == 1)
                near += h.rssi;
            if (h.mac[5] == 2)
                far += h.rssi;
        }
    }
    EXPECT_GT(near, far);

    // The walker goes from (0,10) to (20,10) and back at 2 m/s.
    const sim_world_sta &s = w->stations[2];
    EXPECT_DOUBLE_EQ(sim_station_pos(s, 5).x, 10);
    EXPECT_DOUBLE_EQ(sim_station_pos(s, 15).x, 10);
    EXPECT_DOUBLE_EQ(sim_station_pos(s, 20).x, 0);
    EXPECT_DOUBLE_EQ(sim_station_pos(s, 5).y, 10);
}

TEST_F(SimTest, WorldFileErrorsNameTheLineAndKey)
{
    std::string err;
    EXPECT_FALSE(sim_world_parse("[[ap]]\nname = \"a\"\nposition = [0, 0]\ncolour = 1\n", "f", err));
    EXPECT_EQ(err, "f:4: ap.colour: unknown key");
    EXPECT_FALSE(sim_world_parse("[[station]]\nmac = \"02:00:00:00:00\"\nposition = [0, 0]\n", "f", err));
    EXPECT_EQ(err, "f:2: station.mac: expected aa:bb:cc:dd:ee:ff");
    EXPECT_FALSE(sim_world_parse("[[station]]\nmac = \"02:00:00:00:00:01\"\nposition = [0, 0]\n"
                                 "assoc = \"nowhere\"\n", "f", err));
    EXPECT_EQ(err, "f:4: station.assoc: no access point nowhere");
    EXPECT_FALSE(sim_world_parse("[[ap]]\nname = \"a\"\nposition = [0]\n", "f", err));
    EXPECT_EQ(err, "f:3: ap.position: expected [x, y]");
    EXPECT_FALSE(sim_world_parse("[model\n", "f", err));
    EXPECT_EQ(err.rfind("f:1: ", 0), 0u) << err;
}

TEST_F(SimTest, WorldStationsReachTheDriverWithAssociations)
{
    open(2, k_world, 5);
    ASSERT_EQ(rt_driver_sim.set_track_enable(&radios[1], 1), 0);
    now = 3;
    auto t1 = table(1);
    auto t2 = table(1);
    ASSERT_FALSE(t1.empty());
    ASSERT_EQ(t1.size(), t2.size());
    for (size_t i = 0; i < t1.size(); i++) {
        EXPECT_EQ(t1[i].rssi, t2[i].rssi);
        EXPECT_EQ(t1[i].chan_freq, 5180);
    }

    uint8_t sta1[6] = {2, 0, 0, 0, 0, 1}, sta2[6] = {2, 0, 0, 0, 0, 2};
    uint8_t rec[QZ_DCD_STA_BUF_LEN];
    int len = 0;
    EXPECT_EQ(rt_driver_sim.get_one_sta(&radios[0], sta1, rec, sizeof rec, &len), -1);
    ASSERT_EQ(rt_driver_sim.get_one_sta(&radios[1], sta1, rec, sizeof rec, &len), 0);
    uint16_t freq;
    memcpy(&freq, rec + 2, 2);
    EXPECT_EQ(freq, 5180);
    EXPECT_EQ(rt_driver_sim.get_one_sta(&radios[1], sta2, rec, sizeof rec, &len), -1); // at ap2

    EXPECT_EQ(cmd("disassoc wlan1 02:00:00:00:00:01"), "ok\n");
    EXPECT_EQ(rt_driver_sim.get_one_sta(&radios[1], sta1, rec, sizeof rec, &len), -1);
    EXPECT_EQ(cmd("disassoc wlan1 02:00:00:00:00:01"),
              "error: 02:00:00:00:00:01 is not associated on wlan1\n");
    EXPECT_EQ(cmd("assoc wlan0 02:00:00:00:00:02 2462"), "ok\n");
    ASSERT_EQ(rt_driver_sim.get_one_sta(&radios[0], sta2, rec, sizeof rec, &len), 0);
    memcpy(&freq, rec + 2, 2);
    EXPECT_EQ(freq, 2462);
}

TEST_F(SimTest, RadioSockSpeaksLinesOverItsSocket)
{
    open(1);
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::string path = dir + "/radio.sock";
    strcpy(a.sun_path, path.c_str());
    ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
    EXPECT_EQ(std::filesystem::status(path).permissions() & std::filesystem::perms::all,
              std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);

    // Two requests in one write, one split across writes.
    rt_driver_sim.set_lmatch(&radios[0], 1);
    obj(0, "00:11:22", true, false);
    obj(0, "00:11:22:33:44:55", false, false);
    std::string req = "bogus\nhear wlan9 00:11:22:33:44:55 -40 1 2412\nhear wlan0 00:11:22:33:44:55 -4";
    ASSERT_EQ(write(fd, req.data(), req.size()), static_cast<ssize_t>(req.size()));
    req = "0 1 2412\nstate wlan0\nhear wlan0 zz -1 1 1\nhear wlan0 00:11:22:33:44:55 -40 2 2412\n"
          "hear wlan0 00:11:22:33:44:55 -40 1 0\nforget wlan0\n";
    ASSERT_EQ(write(fd, req.data(), req.size()), static_cast<ssize_t>(req.size()));
    std::string want = "error: unknown command bogus\n"
                       "error: no simulated radio wlan9\n"
                       "ok\n"
                       "track 0\nlmatch 1\nobj mac 00:11:22:33:44:55\nobj oui 00:11:22\nstats 0 0 0 0 0\nok\n"
                       "error: bad mac zz\n"
                       "error: bad active flag 2\n"
                       "error: bad frequency 0\n"
                       "error: usage: forget <radio> <mac>\n";
    std::string got;
    char buf[1024];
    while (got.size() < want.size()) {
        ssize_t n = read(fd, buf, sizeof buf);
        ASSERT_GT(n, 0);
        got.append(buf, static_cast<size_t>(n));
    }
    EXPECT_EQ(got, want);

    // An endless line is refused and the connection closed.
    std::string junk(2000, 'x');
    ASSERT_EQ(write(fd, junk.data(), junk.size()), static_cast<ssize_t>(junk.size()));
    got.clear();
    ssize_t n;
    while ((n = read(fd, buf, sizeof buf)) > 0)
        got.append(buf, static_cast<size_t>(n));
    EXPECT_EQ(got, "error: line too long\n");
    close(fd);
}

TEST(SimExample, ShippedWorldLoads)
{
    std::string err;
    auto path = std::filesystem::path(__FILE__).parent_path() / "../../examples/site.world.toml";
    auto w = sim_world_load(path.string(), err);
    ASSERT_TRUE(w) << err;
    EXPECT_EQ(w->aps.size(), 3u);
    std::vector<sim_heard> h;
    sim_world_hear(*w, 0, 0, 2412, 0, 1, h);
    EXPECT_FALSE(h.empty());
}
