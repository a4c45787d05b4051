// Station window: the aggregation rule, departure records, and the bounds.
#include "station_window.h"

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <random>

namespace {

struct mac_t {
    uint8_t b[6];
};
mac_t mac(uint32_t n, uint8_t first = 0x00) { return {{first, 0x11, uint8_t(n >> 24), uint8_t(n >> 16), uint8_t(n >> 8), uint8_t(n)}}; }
uint32_t id(const lta_rpt_entry &e) { return uint32_t(e.mac[2]) << 24 | e.mac[3] << 16 | e.mac[4] << 8 | e.mac[5]; }

std::vector<lta_rpt_entry> fetch(qz_station_window &w, size_t cap = QZ_DCD_RPT_TBL_MAX) {
    std::vector<lta_rpt_entry> out(cap);
    out.resize(qz_sw_fetch(w, out));
    return out;
}

TEST(StationWindow, MedianIgnoresOneOutlierAndLatestChannelWins) {
    qz_station_window w;
    qz_sw_init(w, 16, false);
    for (auto [dbm, freq] : {std::pair{-62, 2412}, {15, 2437}, {-60, 2462}}) // one absurd frame
        qz_sw_add(w, mac(1).b, int8_t(dbm), uint16_t(freq));
    auto r = fetch(w);
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0].rssi, -60);
    EXPECT_EQ(r[0].chan_freq, 2462);
    EXPECT_EQ(r[0].active, 1);

    for (int i = 0; i < 20; ++i) // more frames than a window keeps: the latest count
        qz_sw_add(w, mac(1).b, int8_t(i < 10 ? -90 : -40), 5200);
    EXPECT_EQ(fetch(w).at(0).rssi, -40);
    const int8_t even[] = {-50, -53};
    EXPECT_EQ(qz_sw_median(even), -52);
}

TEST(StationWindow, DepartureRecordOnceThenSilentUntilHeard) {
    qz_station_window w;
    qz_sw_init(w, 2, false);
    qz_sw_add(w, mac(1).b, -70, 2412);
    qz_sw_add(w, mac(2).b, -50, 5180);
    EXPECT_EQ(fetch(w).size(), 2u);
    qz_sw_add(w, mac(2).b, -52, 5180);
    std::map<uint32_t, lta_rpt_entry> r;
    for (auto &e : fetch(w))
        r[id(e)] = e;
    ASSERT_EQ(r.size(), 2u);
    EXPECT_EQ(r[1].active, 0); // departure with its last values
    EXPECT_EQ(r[1].rssi, -70);
    EXPECT_EQ(r[1].chan_freq, 2412);
    EXPECT_EQ(r[2].active, 1);
    auto last = fetch(w);
    ASSERT_EQ(last.size(), 1u); // station 2's departure only; station 1 stays silent
    EXPECT_EQ(id(last[0]), 2u);
    EXPECT_EQ(last[0].active, 0);
    EXPECT_TRUE(fetch(w).empty());

    qz_sw_add(w, mac(1).b, -71, 2412);
    qz_sw_add(w, mac(3).b, -71, 2412);
    EXPECT_EQ(w.cnt.evicted, 0u) << "departed stations make room";
    last = fetch(w);
    ASSERT_EQ(last.size(), 2u);
    EXPECT_EQ(last[0].active + last[1].active, 2);
}

TEST(StationWindow, BoundsPrivacyAndOverflowRotation) {
    qz_station_window w;
    qz_sw_init(w, 2, true);
    qz_sw_add(w, mac(4, 0x02).b, -40, 2412); // locally administered
    EXPECT_EQ(w.cnt.local_ignored, 1u);
    for (uint32_t s : {1, 2, 1, 3}) // 1 heard again: 2 is the oldest when 3 comes
        qz_sw_add(w, mac(s).b, -40, 2412);
    EXPECT_EQ(w.cnt.evicted, 1u);
    for (auto &e : fetch(w))
        EXPECT_NE(id(e), 2u);

    // A fetch smaller than the stations heard: the rest is counted and goes first next time.
    qz_sw_init(w, 8, false);
    for (int round = 0; round < 2; ++round)
        for (uint32_t s = 0; s < 3; ++s)
            qz_sw_add(w, mac(s).b, -50, 2412);
    auto first = fetch(w, 2);
    EXPECT_EQ(w.cnt.over_fetch, 1u);
    for (uint32_t s = 0; s < 3; ++s)
        qz_sw_add(w, mac(s).b, -50, 2412);
    auto next = fetch(w, 1);
    ASSERT_EQ(next.size(), 1u);
    EXPECT_TRUE(id(next[0]) != id(first[0]) && id(next[0]) != id(first[1])) << "the one left out goes first";
}

// The slot index against a plain map under random adds, forgets and fetches.
TEST(StationWindow, IndexMatchesModelUnderChurn) {
    const unsigned seed = std::random_device{}();
    std::mt19937 rng(seed);
    qz_station_window w;
    qz_sw_init(w, 64, false);
    uint32_t pool[60]; // random addresses (sequential ones never collide), no eviction
    for (auto &p : pool)
        p = uint32_t(rng());
    std::map<uint32_t, int> model; // station -> readings in the window
    for (int step = 0; step < 20000; ++step) {
        const uint32_t s = pool[rng() % 60], op = rng() % 10;
        if (op < 7) {
            qz_sw_add(w, mac(s).b, -50, 2412);
            model[s]++;
        } else if (op < 9) {
            qz_sw_forget(w, mac(s).b);
            model.erase(s);
        } else {
            std::map<uint32_t, int> active;
            for (auto &e : fetch(w))
                active[id(e)] += e.active;
            for (auto &[k, n] : model) {
                ASSERT_EQ(active[k], n > 0 ? 1 : 0) << "seed " << seed << " step " << step;
                n = 0;
            }
        }
    }
}

} // namespace
