// The site file and the station store: which access point a reading belongs to,
// when a station enters and leaves, and what the JSON says about it.
#include <gtest/gtest.h>

#include <arpa/inet.h>

#include "srv_json.h"
#include "srv_site.h"
#include "srv_store.h"

using namespace lsrv;

namespace {

const char *k_site = R"(
[model]
ref_rssi = -35.0
exponent = 3.0
[[ap]]
name = "ap1"
mac = "02:fe:00:00:00:01"
position = [0.0, 0.0]
radios = [2412]
[[ap]]
name = "ap2"
ip = "127.0.0.12"
position = [20.0, 0.0]
floor = 1
[[ap]]
name = "ap3"
position = [10, 15]
[[station]]
mac = "02:00:00:00:00:09"
position = [1.0, 1.0]
)";

mac_addr mac(uint8_t last, uint8_t first = 0x02) { return {first, 0xfe, 0, 0, 0, last}; }

station heard(uint8_t sta, std::initializer_list<std::pair<mac_addr, int>> rs)
{
    station s;
    s.mac = {0x02, 0xaa, 0, 0, 0, sta};
    for (auto &[ap, rssi] : rs)
        s.readings.push_back({ap, 2412, int8_t(rssi)});
    return s;
}

uint32_t ip(const char *s) { return inet_addr(s); }

struct StoreTest : ::testing::Test {
    site where;
    store st;
    std::vector<st_event> ev;
    void SetUp() override
    {
        std::string err;
        ASSERT_TRUE(site_parse(k_site, "site", where, err)) << err;
        st.where = &where;
        st.params = where.model;
        st.params.timeout_s = 10;
    }
    void report(double now, std::vector<station> s) { store_report(st, "ap1", mac(1), s, now, ev); }
};

} // namespace

TEST(SiteFile, ReadsTheWorldsApTablesAndNamesTheFaultyLine)
{
    site s;
    std::string err;
    ASSERT_TRUE(site_parse(k_site, "w", s, err)) << err;
    ASSERT_EQ(s.aps.size(), 3u);
    EXPECT_EQ(s.aps[0].mac, mac(1));
    EXPECT_EQ(s.aps[1].ip, ip("127.0.0.12"));
    EXPECT_EQ((std::pair{s.aps[1].x, s.aps[1].floor}), (std::pair{20.0, 1}));
    EXPECT_FALSE(s.aps[2].mac || s.aps[2].ip);
    EXPECT_EQ((std::pair{s.model.rssi_at_1m, s.model.path_loss_exp}), (std::pair{-35.0, 3.0}));

    const std::pair<const char *, const char *> bad[] = {
        {"[[ap]]\nname = \"a\"\nposition = [0, 0]\ncolour = 1\n", "f:4: ap.colour: unknown key"},
        {"[[ap]]\nname = \"a\"\nposition = [0]\n", "f:3: ap.position: expected [x, y]"},
        {"[[ap]]\nname = \"a\"\nposition = [0, 0]\nmac = \"02:fe:00\"\n", "f:4: ap.mac: expected aa:bb:cc:dd:ee:ff"},
        {"[[ap]]\nname = \"a\"\nposition = [0, 0]\nip = \"300.1.1.1\"\n", "f:4: ap.ip: expected an IPv4 address"},
        {"[[ap]]\nname = \"a\"\nposition = [0, 0]\n[[ap]]\nname = \"a\"\nposition = [1, 0]\n",
         "f:5: ap.name: duplicate access point a"},
        {"[[ap]]\nname = \"a\"\nposition = [0, 0]\nfloor = 1.5\n", "f:4: ap.floor: expected a whole number"},
        {"[model]\nexponent = 3\n", "f: no [[ap]] table"},
    };
    for (auto [text, want] : bad) {
        site keep = s;
        EXPECT_FALSE(site_parse(text, "f", s, err)) << text;
        EXPECT_EQ(err, want);
        EXPECT_EQ(s.aps.size(), keep.aps.size()) << "a failed parse changed the site";
    }
    EXPECT_FALSE(site_load("/nonexistent/site.toml", s, err));
}

TEST_F(StoreTest, ApsAreFoundByMacThenByTheAddressOrNameOfTheirHello)
{
    EXPECT_EQ(store_ap(st, mac(1))->name, "ap1");
    EXPECT_EQ(store_ap(st, mac(2)), nullptr);
    store_hello(st, mac(2), ip("127.0.0.12"), "whatever");
    store_hello(st, mac(3), ip("127.0.0.13"), "ap3");
    store_hello(st, mac(4), ip("127.0.0.14"), "ap2"); // ap2 is matched by address only
    store_hello(st, mac(5), ip("127.0.0.15"), "ap1"); // ap1 has a MAC of its own
    EXPECT_EQ(store_ap(st, mac(2))->name, "ap2");
    EXPECT_EQ(store_ap(st, mac(3))->name, "ap3");
    EXPECT_EQ(store_ap(st, mac(4)), nullptr);
    EXPECT_EQ(store_ap(st, mac(5)), nullptr);
}

TEST_F(StoreTest, ReadingsOfUnknownApsAreKeptButPlaceNothing)
{
    report(1, {heard(1, {{mac(9), -50}})});
    const st_station &s = st.stations.at(heard(1, {}).mac);
    EXPECT_TRUE(s.present);
    EXPECT_EQ(s.readings.size(), 1u);
    EXPECT_FALSE(s.fix.valid);
    EXPECT_EQ(st.counts.solves, 0u);
    nlohmann::json j = station_json(st, s, 1, 1000);
    EXPECT_TRUE(j["position"].is_null());
    EXPECT_TRUE(j["readings"][0]["ap"].is_null());
    // The access points' list shows the unknown reporter, without a position.
    nlohmann::json aps = aps_json(st, {});
    ASSERT_EQ(aps.size(), 4u);
    EXPECT_EQ(aps[3]["mac"], "02:fe:00:00:00:09");
    EXPECT_FALSE(aps[3]["in_site"]);
    EXPECT_FALSE(aps[3].contains("x"));

    report(2, {heard(1, {{mac(1), -40}, {mac(9), -50}})});
    EXPECT_TRUE(s.fix.valid);
    EXPECT_EQ(s.readings.size(), 2u);
    EXPECT_EQ(station_json(st, s, 2, 1000)["readings"][0]["ap"], "ap1");
}

TEST_F(StoreTest, StationsEnterLeaveOnTimeoutAndAreForgottenLater)
{
    report(0, {heard(1, {{mac(1), -40}}), heard(2, {{mac(1), -60}}), heard(3, {})});
    ASSERT_EQ(ev.size(), 2u) << "a station without readings entered";
    EXPECT_EQ(ev[0].kind, ST_ENTER);
    EXPECT_EQ(st.stations.size(), 2u);
    ev.clear();
    report(6, {heard(1, {{mac(1), -41}})});
    ASSERT_EQ(ev.size(), 1u);
    EXPECT_EQ(ev[0].kind, ST_MOVE);
    ev.clear();

    store_expire(st, 10.5, ev); // station 2 unheard for 10.5 s, station 1 for 4.5 s
    ASSERT_EQ(ev.size(), 1u);
    EXPECT_EQ((std::pair{ev[0].kind, ev[0].mac}), (std::pair{ST_LEAVE, heard(2, {}).mac}));
    const st_station &two = st.stations.at(heard(2, {}).mac);
    EXPECT_FALSE(two.present);
    EXPECT_TRUE(two.readings.empty());
    EXPECT_FALSE(station_json(st, two, 10.5, 1000)["present"]);
    ev.clear();
    store_expire(st, 11, ev);
    EXPECT_TRUE(ev.empty()) << "a station that left left again";

    report(12, {heard(2, {{mac(1), -60}})});
    ASSERT_EQ(ev.size(), 1u);
    EXPECT_EQ(ev[0].kind, ST_ENTER);
    ev.clear();
    store_expire(st, 30, ev);
    EXPECT_EQ(ev.size(), 2u);
    ev.clear();
    store_expire(st, 30 + st.forget_s + 1, ev);
    EXPECT_EQ(ev.size(), 2u);
    EXPECT_EQ(ev[0].kind, ST_FORGET);
    EXPECT_TRUE(st.stations.empty());
}

TEST_F(StoreTest, OneStaleReadingGoesWhileTheOthersStillPlaceTheStation)
{
    report(0, {heard(1, {{mac(1), -40}, {mac(2), -40}})});
    store_hello(st, mac(2), ip("127.0.0.12"), "ap2");
    report(8, {heard(1, {{mac(1), -45}})});
    store_expire(st, 12, ev);
    const st_station &s = st.stations.begin()->second;
    ASSERT_EQ(s.readings.size(), 1u);
    EXPECT_EQ(s.readings.begin()->first, mac(1));
    EXPECT_TRUE(s.present);
    EXPECT_EQ(s.owner, "ap1");
    EXPECT_EQ(s.trail.size(), 2u);
    for (int i = 0; i < 40; ++i)
        report(13 + i * 0.1, {heard(1, {{mac(1), -45}})});
    EXPECT_EQ(s.trail.size(), st.trail_len);
}
