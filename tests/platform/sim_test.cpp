// Simulated radios: driver semantics, the world model and radio.sock.
#include <gtest/gtest.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <fstream>

#include "rt_config.h"
#include "rt_test_util.h"
#include "sim_radio.h"

namespace {

const char *k_world = R"(
model = { ref_rssi = -40, exponent = 3.0, noise = 2.0, floor = -90 }
ap = [ { name = "ap1", position = [0, 0], radios = [2412, 5180], mac = "02:fe:00:00:00:01", ip = "10.0.0.1", floor = 0 },
       { name = "ap2", position = [30, 0], radios = [2437] } ]
station = [
  { mac = "02:00:00:00:00:01", position = [3, 4], assoc = "ap1", assoc_radio = 1 },
  { mac = "02:00:00:00:00:02", position = [28, 0], assoc = "ap2" },
  { mac = "02:00:00:00:00:03", position = [0, 10], path = [[20, 10]], speed = 2.0, active = false } ]
)";

struct SimTest : ::testing::Test {
    rt_scratch s;
    std::vector<rt_radio> radios;
    void TearDown() override
    {
        for (auto &r : radios)
            rt_driver_sim.close(&r);
        rt_radio_sock_stop();
        sim_reset();
    }
    // Opens n radios wlan0.. as instance "ap1", with a [sim] table when given.
    void open(size_t n, const sim_conf *sc = nullptr)
    {
        rt_config c;
        c.instance = "ap1";
        c.runtime_dir = s.dir;
        if (sc)
            rt_driver_conf<sim_conf>(c, "sim") = *sc;
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
    int radio_sock()
    {
        int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un a{AF_UNIX, {}};
        strcpy(a.sun_path, (s.dir + "/radio.sock").c_str());
        EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
        return fd;
    }
    lta_stats stats()
    {
        lta_stats st{};
        EXPECT_EQ(rt_driver_sim.get_stats(&radios[0], &st), 0);
        return st;
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
    EXPECT_TRUE(table(0).empty()); // list match is on from the start: no objects, nothing
    ASSERT_EQ(rt_driver_sim.set_lmatch(&radios[0], 0), 0);
    auto all = table(0);
    ASSERT_EQ(all.size(), 3u);
    EXPECT_EQ(std::tuple(+all[1].rssi, +all[1].active), std::tuple(-60, 0));
    EXPECT_EQ(table(0, 2).size(), 2u); // never more than the capacity

    ASSERT_EQ(rt_driver_sim.set_lmatch(&radios[0], 1), 0);
    EXPECT_TRUE(table(0).empty()); // list match with no objects matches nothing
    ASSERT_EQ(obj("00:11:22:00:00:02", false), 0);
    ASSERT_EQ(table(0).size(), 1u);
    ASSERT_EQ(obj("aa:bb:cc", true), 0);
    ASSERT_EQ(table(0).size(), 2u);
    ASSERT_EQ(obj("00:11:22:00:00:02", false, true), 0);
    EXPECT_EQ(table(0).size(), 1u);
    ASSERT_EQ(rt_driver_sim.set_lmatch(&radios[0], 0), 0);
    EXPECT_EQ(table(0).size(), 3u);
    EXPECT_EQ(stats().rpt_cnt, 3u + 2 + 1 + 2 + 1 + 3);
}

TEST_F(SimTest, ObjectTableLimitsAndInjectedFailures)
{
    open(1);
    // Deleting an absent object is done already (counted), as on a real radio.
    EXPECT_EQ(obj("00:00:00:00:00:01", false, true), 0);
    EXPECT_EQ(obj("00:00:01", true, true), 0);
    char m[40];
    for (bool oui : {false, true}) {
        size_t max = oui ? SIM_MAX_OUI_OBJ : SIM_MAX_MAC_OBJ;
        for (size_t i = 0; i <= max; i++) { // one past the limit is refused
            snprintf(m, sizeof m, oui ? "0a:%02zx:%02zx" : "02:00:00:00:%02zx:%02zx", i >> 8, i & 255);
            EXPECT_EQ(obj(m, oui), i < max ? 0 : -1) << i;
        }
        EXPECT_EQ(obj(oui ? "0a:00:05" : "02:00:00:00:00:05", oui), 0); // already there
    }
    lta_stats st = stats(); // each miss counted once, under its reason
    EXPECT_EQ(std::tuple(st.sta_no_node, st.oui_no_node, st.sta_no_mem, st.oui_no_mem),
              std::tuple(1u, 1u, 1u, 1u));

    // An injected failure hits the named operation, as many times as asked.
    ASSERT_EQ(cmd("fail set_lta_trackobj 2"), "ok\n");
    for (int want : {-1, -1, 0})
        EXPECT_EQ(obj("0a:00:00", true, true), want);
}

TEST_F(SimTest, WorldFollowsDistanceIsDeterministicForASeedAndNamesErrors)
{
    std::string err;
    auto w = sim_world_parse(k_world, "w", err);
    ASSERT_TRUE(w) << err;
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

    const std::pair<const char *, const char *> bad[] = {
        {"[[ap]]\nname = \"a\"\nposition = [0, 0]\ncolour = 1\n", "f:4: ap.colour: unknown key"},
        {"[[ap]]\nname = \"a\"\nposition = [0, 0]\nmac = \"02:fe\"\n", "f:4: ap.mac: expected aa:bb:cc:dd:ee:ff"},
        {"station = [{ mac = \"02:00:00:00:00:01\", position = [0, 0], assoc = \"nowhere\" }]",
         "f:1: station.assoc: no access point nowhere"},
        {"[model\n", "f:1: "}, // a syntax error: where, then the parser's words
    };
    for (auto &[text, want] : bad) {
        EXPECT_FALSE(sim_world_parse(text, "f", err)) << text;
        EXPECT_EQ(err.substr(0, strlen(want)), want);
    }
    EXPECT_FALSE(sim_world_load("/", err)); // as a FIFO (blocks) or /dev/zero (never ends)
    EXPECT_EQ(err, "/: not a regular file");
}

TEST_F(SimTest, SharedEpochSetsTheWorldClock)
{
    // A walker from (0,10) to (20,10) at 2 m/s, heard without noise from (0,0).
    sim_conf sc;
    sc.world = s.path("w.toml");
    std::ofstream(sc.world) << "model = { ref_rssi = -40, exponent = 3.0, noise = 0.0, floor = -120 }\n"
                               "ap = [ { name = \"ap1\", position = [0, 0], radios = [2412] } ]\n"
                               "station = [ { mac = \"02:00:00:00:00:03\", position = [0, 10], "
                               "path = [[20, 10]], speed = 2.0 } ]\n";
    sc.epoch = std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count() - 4;
    open(1, &sc);
    ASSERT_EQ(rt_driver_sim.set_track_enable(&radios[0], 1), 0);
    ASSERT_EQ(rt_driver_sim.set_lmatch(&radios[0], 0), 0);
    auto t = table(0);
    ASSERT_EQ(t.size(), 1u);
    EXPECT_EQ(t[0].rssi, -73); // 4 s into the walk, at (8,10); at its start it would be -70
}

TEST_F(SimTest, RadioSockSpeaksLinesOverItsSocket)
{
    open(1);
    int fd = radio_sock();

    // Two requests in one write, one split across writes.
    rt_driver_sim.set_lmatch(&radios[0], 1);
    obj("00:11:22", true);
    obj("00:11:22:33:44:55", false);
    for (std::string req : {"bogus\nhear wlan9 00:11:22:33:44:55 -40 1 2412\nhear wlan0 00:11:2",
                            "2:33:44:55 -40 1 2412\nstate wlan0\nhear wlan0 zz -1 1 1\n"
                            "hear wlan0 00:11:22:33:44:55 -40 1 0\nforget wlan0\n"})
        ASSERT_EQ(write(fd, req.data(), req.size()), static_cast<ssize_t>(req.size()));
    std::string want = "error: unknown command bogus\nerror: no simulated radio wlan9\nok\n"
                       "track 0\nlmatch 1\nobj mac 00:11:22:33:44:55\nobj oui 00:11:22\n"
                       "stats 0 0 0 0 0\nok\nerror: bad mac zz\nerror: bad frequency 0\n"
                       "error: usage: forget <radio> <mac>\nerror: line too long\n";
    // An endless line is refused and the connection closed.
    std::string junk(2000, 'x'), got;
    ASSERT_EQ(write(fd, junk.data(), junk.size()), static_cast<ssize_t>(junk.size()));
    char buf[1024];
    for (ssize_t n; (n = read(fd, buf, sizeof buf)) > 0;)
        got.append(buf, static_cast<size_t>(n));
    EXPECT_EQ(got, want);
    close(fd);
}

TEST_F(SimTest, RadioSockClientThatNeverReadsHoldsUpOnlyItself)
{
    open(1);
    int hog = radio_sock();
    // Requests until the daemon stops taking them: its replies for this client are full.
    const std::string req = "state wlan0\n";
    size_t sent = 0;
    for (pollfd p{hog, POLLOUT, 0}; sent < 200000 && poll(&p, 1, 300) > 0;)
        if (send(hog, req.data(), req.size(), MSG_DONTWAIT | MSG_NOSIGNAL) == (ssize_t)req.size())
            sent++;
    EXPECT_LT(sent, 200000u) << "replies were held without bound";
    int other = radio_sock();
    ASSERT_EQ(write(other, "clear wlan0\n", 12), 12);
    char buf[16] = {};
    pollfd p{other, POLLIN, 0};
    bool answered = poll(&p, 1, 5000) > 0 && read(other, buf, sizeof buf) == 3;
    close(hog); // ends a send that blocks on it
    EXPECT_TRUE(answered);
    EXPECT_STREQ(buf, "ok\n");
    close(other);
}
