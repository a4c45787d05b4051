// Station window: the aggregation rule, departure records, and the bounds.
#include "station_window.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <random>

namespace {

struct mac_t {
    uint8_t b[6];
};
mac_t mac(uint32_t n, uint8_t first = 0x00) { return {{first, 0x11, uint8_t(n >> 24), uint8_t(n >> 16), uint8_t(n >> 8), uint8_t(n)}}; }

std::vector<lta_rpt_entry> fetch(qz_station_window &w, size_t cap = QZ_DCD_RPT_TBL_MAX) {
    std::vector<lta_rpt_entry> out(cap);
    out.resize(qz_sw_fetch(w, out));
    return out;
}

TEST(StationWindow, MedianIgnoresOneOutlierAndLatestChannelWins) {
    qz_station_window w;
    qz_sw_init(w, 16, false);
    const mac_t a = mac(1);
    qz_sw_add(w, a.b, -62, 2412);
    qz_sw_add(w, a.b, 15, 2437); // one absurd frame
    qz_sw_add(w, a.b, -60, 2462);
    auto r = fetch(w);
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0].rssi, -60);
    EXPECT_EQ(r[0].chan_freq, 2462);
    EXPECT_EQ(r[0].active, 1);

    // More frames than the window keeps: the latest ones count.
    for (int i = 0; i < 20; ++i)
        qz_sw_add(w, a.b, int8_t(i < 10 ? -90 : -40), 5200);
    r = fetch(w);
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0].rssi, -40);

    const int8_t even[] = {-50, -53};
    EXPECT_EQ(qz_sw_median(even), -52);
}

TEST(StationWindow, DepartureRecordOnceThenSilentUntilHeard) {
    qz_station_window w;
    qz_sw_init(w, 2, false);
    const mac_t a = mac(1), b = mac(2);
    qz_sw_add(w, a.b, -70, 2412);
    qz_sw_add(w, b.b, -50, 5180);
    EXPECT_EQ(fetch(w).size(), 2u);

    qz_sw_add(w, b.b, -52, 5180);
    auto r = fetch(w);
    ASSERT_EQ(r.size(), 2u);
    for (auto &e : r) {
        if (memcmp(e.mac, a.b, 6) == 0) {
            EXPECT_EQ(e.active, 0);
            EXPECT_EQ(e.rssi, -70);
            EXPECT_EQ(e.chan_freq, 2412);
        } else {
            EXPECT_EQ(e.active, 1);
        }
    }
    r = fetch(w);
    ASSERT_EQ(r.size(), 1u); // b's departure only; a is silent
    EXPECT_EQ(memcmp(r[0].mac, b.b, 6), 0);
    EXPECT_EQ(r[0].active, 0);
    EXPECT_TRUE(fetch(w).empty());

    qz_sw_add(w, a.b, -71, 2412);
    qz_sw_add(w, mac(3).b, -71, 2412);
    EXPECT_EQ(w.cnt.evicted, 0u) << "departed stations make room";
    r = fetch(w);
    ASSERT_EQ(r.size(), 2u);
    EXPECT_EQ(r[0].active + r[1].active, 2);
}

TEST(StationWindow, BoundsPrivacyAndOverflowRotation) {
    qz_station_window w;
    qz_sw_init(w, 2, true);
    const mac_t a = mac(1), b = mac(2), c = mac(3), local = mac(4, 0x02);
    qz_sw_add(w, local.b, -40, 2412);
    EXPECT_EQ(w.cnt.local_ignored, 1u);
    qz_sw_add(w, a.b, -40, 2412);
    qz_sw_add(w, b.b, -41, 2412);
    qz_sw_add(w, a.b, -42, 2412); // a heard again: b is now the oldest
    qz_sw_add(w, c.b, -43, 2412);
    EXPECT_EQ(w.cnt.evicted, 1u);
    auto r = fetch(w);
    ASSERT_EQ(r.size(), 2u);
    for (auto &e : r)
        EXPECT_NE(memcmp(e.mac, b.b, 6), 0);

    // A fetch smaller than the stations heard: the rest is counted and goes first next time.
    qz_station_window big;
    qz_sw_init(big, 8, false);
    for (uint32_t i = 0; i < 3; ++i)
        qz_sw_add(big, mac(i).b, -50, 2412);
    r = fetch(big, 2);
    ASSERT_EQ(r.size(), 2u);
    EXPECT_EQ(big.cnt.over_fetch, 1u);
    std::map<uint8_t, int> seen;
    for (auto &e : r)
        seen[e.mac[5]]++;
    for (uint32_t i = 0; i < 3; ++i)
        qz_sw_add(big, mac(i).b, -50, 2412);
    r = fetch(big, 1);
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(seen.count(r[0].mac[5]), 0u) << "the station left out before is served first";
}

// The slot index against a plain map under random adds, forgets and fetches.
TEST(StationWindow, IndexMatchesModelUnderChurn) {
    const unsigned seed = std::random_device{}();
    printf("seed %u\n", seed);
    std::mt19937 rng(seed);
    qz_station_window w;
    qz_sw_init(w, 64, false);
    uint32_t pool[60]; // random addresses, fewer than the capacity: no eviction
    for (auto &p : pool)
        p = uint32_t(rng());
    std::map<uint32_t, int> model; // station -> readings in the window
    for (int step = 0; step < 20000; ++step) {
        const uint32_t id = pool[rng() % 60];
        const int op = int(rng() % 10);
        if (op < 7) {
            qz_sw_add(w, mac(id).b, -50, 2412);
            model[id]++;
        } else if (op < 9) {
            qz_sw_forget(w, mac(id).b);
            model.erase(id);
        } else {
            std::map<uint32_t, int> got; // station -> records this fetch
            for (auto &e : fetch(w))
                got[uint32_t(e.mac[2]) << 24 | uint32_t(e.mac[3]) << 16 | uint32_t(e.mac[4]) << 8 | e.mac[5]] += e.active ? 1 : 100;
            for (auto &[k, n] : model) {
                if (n > 0) {
                    ASSERT_EQ(got[k], 1) << "seed " << seed << " step " << step << " station " << k;
                }
            }
            for (auto &[k, n] : got)
                ASSERT_TRUE(n == 0 || n == 100 || (model.count(k) && model[k] > 0))
                    << "seed " << seed << " step " << step << " station " << k << " records " << n;
            for (auto &[k, n] : model)
                n = 0;
        }
    }
    EXPECT_EQ(w.cnt.evicted, 0u) << "seed " << seed;
}

} // namespace
