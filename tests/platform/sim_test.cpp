// Simulated radios: driver semantics, the world model and radio.sock.
#include <gtest/gtest.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>

#include "rt_test_util.h"
#include "sim_radio.h"

namespace {

const char *k_world = R"(
model = { ref_rssi = -40, exponent = 3.0, noise = 2.0, floor = -90 }
ap = [ { name = "ap1", position = [0, 0], radios = [2412, 5180] },
       { name = "ap2", position = [30, 0], radios = [2437] } ]
station = [
  { mac = "02:00:00:00:00:01", position = [3, 4], assoc = "ap1", assoc_radio = 1 },
  { mac = "02:00:00:00:00:02", position = [28, 0], assoc = "ap2" },
  { mac = "02:00:00:00:00:03", position = [0, 10], path = [[20, 10]], speed = 2.0, active = false } ]
)";

struct SimTest : ::testing::Test {
    rt_scratch s;
    std::vector<rt_radio> radios;
    double now = 0;

    void SetUp() override { sim_set_clock([this] { return now; }); }
    void TearDown() override
    {
        for (auto &r : radios)
            rt_driver_sim.close(&r);
        rt_radio_sock_stop();
        sim_reset();
    }
    // Opens n radios wlan0.. with an optional world, as instance "ap1".
    void open(size_t n, const char *world = nullptr, uint64_t seed = 1)
    {
        rt_config c;
        c.instance = "ap1";
        c.runtime_dir = s.dir;
        c.sim_seed = seed;
        if (world) {
            c.sim_world = s.dir + "/site.world.toml";
            std::ofstream(c.sim_world) << world;
        }
        rt_cfg_set(c);
        radios.resize(n);
        for (size_t i = 0; i < n; i++) {
            radios[i].id = (int)i;
            radios[i].cfg.name = "wlan" + std::to_string(i);
            radios[i].ops = &rt_driver_sim;
            ASSERT_EQ(rt_driver_sim.open(&radios[i]), 0);
        }
    }
    std::vector<lta_rpt_entry> table(size_t r, int cap = QZ_DCD_RPT_TBL_MAX)
    {
        std::vector<lta_rpt_entry> buf((size_t)cap);
        EXPECT_EQ(rt_driver_sim.get_rpt_tbl(&radios[r], buf.data(), &cap), 0);
        buf.resize((size_t)cap);
        return buf;
    }
    int obj(const char *text, bool oui, bool del = false)
    {
        lta_trackobj o{};
        EXPECT_TRUE(sim_parse_hex(text, o.mac, oui ? 3 : 6));
        o.is_oui = oui;
        o.del = del;
        return rt_driver_sim.set_trackobj(&radios[0], &o);
    }
    std::string cmd(const std::string &line) { return rt_radio_sock_command(line); }
    lta_stats stats()
    {
        lta_stats st{};
        return rt_driver_sim.get_stats(&radios[0], &st), st;
    }
    // Frequency of an associated station's record on radio r, or -1.
    int assoc_freq(size_t r, uint8_t last)
    {
        uint8_t sta[6] = {2, 0, 0, 0, 0, last}, rec[QZ_DCD_STA_BUF_LEN];
        int len = 0;
        uint16_t freq;
        if (rt_driver_sim.get_one_sta(&radios[r], sta, rec, sizeof rec, &len) != 0)
            return -1;
        memcpy(&freq, rec + 2, 2);
        return freq;
    }
};

} // namespace

TEST_F(SimTest, TrackSwitchAndListMatchDecideWhatIsReported)
{
    open(1);
    for (const char *h : {"00:11:22:00:00:01 -50 1 2412", "00:11:22:00:00:02 -60 0 2412",
                          "aa:bb:cc:00:00:03 -70 1 5180"})
        ASSERT_EQ(cmd(std::string("hear wlan0 ") + h), "ok\n");
    EXPECT_TRUE(table(0).empty()); // tracking off: nothing
    ASSERT_EQ(rt_driver_sim.set_track_enable(&radios[0], 1), 0);
    auto all = table(0);
    ASSERT_EQ(all.size(), 3u);
    EXPECT_EQ(std::tuple(+all[1].rssi, +all[1].active, +all[2].chan_freq),
              std::tuple(-60, 0, 5180));
    EXPECT_EQ(table(0, 2).size(), 2u); // never more than the capacity

    ASSERT_EQ(rt_driver_sim.set_lmatch(&radios[0], 1), 0);
    EXPECT_TRUE(table(0).empty()); // list match with no objects matches nothing
    ASSERT_EQ(obj("00:11:22:00:00:02", false), 0);
    ASSERT_EQ(table(0).size(), 1u);
    ASSERT_EQ(obj("aa:bb:cc", true), 0);
    ASSERT_EQ(table(0).size(), 2u);
    EXPECT_EQ(table(0)[1].mac[0], 0xaa);
    ASSERT_EQ(obj("00:11:22:00:00:02", false, true), 0);
    EXPECT_EQ(table(0).size(), 1u);
    ASSERT_EQ(rt_driver_sim.set_lmatch(&radios[0], 0), 0);
    EXPECT_EQ(table(0).size(), 3u);

    ASSERT_EQ(cmd("forget wlan0 00:11:22:00:00:01"), "ok\n");
    EXPECT_EQ(table(0).size(), 2u);
    ASSERT_EQ(cmd("clear wlan0"), "ok\n");
    EXPECT_TRUE(table(0).empty());
    EXPECT_EQ(stats().rpt_cnt, 3u + 2 + 1 + 2 + 2 + 1 + 3 + 2);
}

TEST_F(SimTest, ObjectTableLimitsAndInjectedFailures)
{
    open(1);
    EXPECT_EQ(obj("00:00:00:00:00:01", false, true), -1);
    EXPECT_EQ(obj("00:00:01", true, true), -1);
    char m[40];
    for (size_t i = 0; i < SIM_MAX_MAC_OBJ; i++) {
        snprintf(m, sizeof m, "02:00:00:00:%02zx:%02zx", i >> 8, i & 0xff);
        ASSERT_EQ(obj(m, false), 0) << i;
    }
    EXPECT_EQ(obj("02:00:00:00:00:05", false), 0); // already there: no new slot
    EXPECT_EQ(obj("06:00:00:00:00:00", false), -1);
    for (size_t i = 0; i < SIM_MAX_OUI_OBJ; i++) {
        snprintf(m, sizeof m, "0a:00:%02zx", i);
        ASSERT_EQ(obj(m, true), 0) << i;
    }
    EXPECT_EQ(obj("0b:00:00", true), -1);
    lta_stats st = stats();
    EXPECT_EQ(std::tuple(st.sta_no_node, st.oui_no_node, st.sta_no_mem, st.oui_no_mem),
              std::tuple(1u, 1u, 1u, 1u));
    lta_trackobj bad{};
    bad.is_oui = 2;
    EXPECT_EQ(rt_driver_sim.set_trackobj(&radios[0], &bad), -1);
    EXPECT_EQ(memcmp(&st, &(const lta_stats &)stats(), sizeof st), 0); // refused, not counted

    // An injected failure hits the named operation, as many times as asked.
    ASSERT_EQ(cmd("fail set_lta_trackobj 2"), "ok\n");
    for (int want : {-1, -1, 0})
        EXPECT_EQ(obj("0a:00:00", true, true), want);
    EXPECT_EQ(cmd("fail reboot 1"), "error: unknown operation reboot\n");
    EXPECT_EQ(cmd("fail get_lta_stats x"), "error: bad count x\n");
}

TEST_F(SimTest, WorldIsDeterministicForASeedAndFollowsDistance)
{
    std::string err;
    auto w = sim_world_parse(k_world, "w", err);
    ASSERT_TRUE(w) << err;
    EXPECT_GT(sim_path_rssi(w->model, 10, 2412), sim_path_rssi(w->model, 11, 2412));
    EXPECT_GT(sim_path_rssi(w->model, 10, 2412), sim_path_rssi(w->model, 10, 5180));

    auto hear = [&](double t, uint64_t seed) {
        std::vector<sim_heard> v;
        sim_world_hear(*w, 0, 0, 2412, t, seed, v);
        std::vector<std::tuple<uint8_t, int, int>> out; // mac, rssi, active
        for (auto &h : v)
            out.emplace_back(h.mac[5], h.rssi, h.active);
        return out;
    };
    EXPECT_EQ(hear(12.3, 7), hear(12.3, 7));
    EXPECT_NE(hear(12.3, 7), hear(12.3, 8)) << "the seed is ignored";
    double near = 0, far = 0; // 5 m and 28 m away
    for (int t = 0; t < 50; t++)
        for (auto [m, rssi, active] : hear(t, 3))
            (m == 1 ? near : far) += m < 3 ? rssi : 0;
    EXPECT_GT(near, far);

    // The walker goes from (0,10) to (20,10) and back at 2 m/s.
    EXPECT_DOUBLE_EQ(sim_station_pos(w->stations[2], 15).x, 10);
    EXPECT_DOUBLE_EQ(sim_station_pos(w->stations[2], 20).x, 0);

    auto shipped = std::filesystem::path(__FILE__).parent_path() / "../../examples/site.world.toml";
    auto sw = sim_world_load(shipped.string(), err);
    ASSERT_TRUE(sw) << err;
    EXPECT_EQ(sw->aps.size(), 3u);
}

TEST_F(SimTest, WorldFileErrorsNameTheLineAndKey)
{
    std::string err;
    EXPECT_FALSE(sim_world_parse("[[ap]]\nname = \"a\"\nposition = [0, 0]\ncolour = 1\n", "f", err));
    EXPECT_EQ(err, "f:4: ap.colour: unknown key");
    EXPECT_FALSE(sim_world_parse("[[ap]]\nname = \"a\"\nposition = [0]\n", "f", err));
    EXPECT_EQ(err, "f:3: ap.position: expected [x, y]");
    EXPECT_FALSE(sim_world_parse("station = [{ mac = \"02:00:00:00:00:01\", position = [0, 0], "
                                 "assoc = \"nowhere\" }]", "f", err));
    EXPECT_EQ(err, "f:1: station.assoc: no access point nowhere");
    EXPECT_FALSE(sim_world_parse("[model\n", "f", err));
    EXPECT_EQ(err.rfind("f:1: ", 0), 0u) << err;
}

TEST_F(SimTest, WorldStationsReachTheDriverWithAssociations)
{
    open(2, k_world, 5);
    ASSERT_EQ(rt_driver_sim.set_track_enable(&radios[1], 1), 0);
    now = 3;
    auto t1 = table(1);
    ASSERT_FALSE(t1.empty());
    EXPECT_EQ(t1.back().chan_freq, 5180);
    EXPECT_EQ(assoc_freq(0, 1), -1);
    EXPECT_EQ(assoc_freq(1, 1), 5180);
    EXPECT_EQ(assoc_freq(1, 2), -1); // at ap2
    EXPECT_EQ(cmd("disassoc wlan1 02:00:00:00:00:01"), "ok\n");
    EXPECT_EQ(assoc_freq(1, 1), -1);
    EXPECT_EQ(cmd("disassoc wlan1 02:00:00:00:00:01"),
              "error: 02:00:00:00:00:01 is not associated on wlan1\n");
    EXPECT_EQ(cmd("assoc wlan0 02:00:00:00:00:02 2462"), "ok\n");
    EXPECT_EQ(assoc_freq(0, 2), 2462);
}

TEST_F(SimTest, RadioSockSpeaksLinesOverItsSocket)
{
    open(1);
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    std::string path = s.dir + "/radio.sock";
    strcpy(a.sun_path, path.c_str());
    ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
    namespace fs = std::filesystem;
    EXPECT_EQ(fs::status(path).permissions() & fs::perms::all,
              fs::perms::owner_read | fs::perms::owner_write);

    // Two requests in one write, one split across writes.
    rt_driver_sim.set_lmatch(&radios[0], 1);
    obj("00:11:22", true);
    obj("00:11:22:33:44:55", false);
    for (std::string req :
         {"bogus\nhear wlan9 00:11:22:33:44:55 -40 1 2412\nhear wlan0 00:11:22:33:44:55 -4",
          "0 1 2412\nstate wlan0\nhear wlan0 zz -1 1 1\nhear wlan0 00:11:22:33:44:55 -40 2 2412\n"
          "hear wlan0 00:11:22:33:44:55 -40 1 0\nforget wlan0\n"})
        ASSERT_EQ(write(fd, req.data(), req.size()), static_cast<ssize_t>(req.size()));
    std::string want = "error: unknown command bogus\nerror: no simulated radio wlan9\nok\n"
                       "track 0\nlmatch 1\nobj mac 00:11:22:33:44:55\nobj oui 00:11:22\n"
                       "stats 0 0 0 0 0\nok\nerror: bad mac zz\nerror: bad active flag 2\n"
                       "error: bad frequency 0\nerror: usage: forget <radio> <mac>\n"
                       "error: line too long\n";
    // An endless line is refused and the connection closed.
    std::string junk(2000, 'x'), got;
    ASSERT_EQ(write(fd, junk.data(), junk.size()), static_cast<ssize_t>(junk.size()));
    char buf[1024];
    for (ssize_t n; (n = read(fd, buf, sizeof buf)) > 0;)
        got.append(buf, static_cast<size_t>(n));
    EXPECT_EQ(got, want);
    close(fd);
}
