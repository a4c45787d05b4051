// Position engine on synthetic geometry: readings made from the path-loss model itself.
#include <gtest/gtest.h>
#include <math.h>

#include <random>
#include <vector>

#include "position.h"

namespace
{

const pos_params k_p; // defaults: -40 dBm at 1 m, exponent 2.7
const double k_aps[][2] = {{0, 0}, {30, 0}, {30, 20}, {0, 20}, {15, -5}};

double model(double x, double y, double ax, double ay)
{
    return k_p.rssi_at_1m - 10 * k_p.path_loss_exp * log10(std::max(hypot(x - ax, y - ay), 1.0));
}

std::vector<pos_obs> readings(double x, double y, double t = 0, int n = 5)
{
    std::vector<pos_obs> v;
    for (int i = 0; i < n; ++i)
        v.push_back({k_aps[i][0], k_aps[i][1], 0, model(x, y, k_aps[i][0], k_aps[i][1]), t});
    return v;
}

double err(const pos_fix &f, double x, double y)
{
    return hypot(f.x - x, f.y - y);
}

TEST(PositionSolve, ExactReadingsGiveExactPosition)
{
    for (auto [x, y] : {std::pair{12.0, 7.0}, {3.0, 2.0}, {28.0, 17.5}, {35.0, 10.0}}) {
        pos_fix f = pos_solve(readings(x, y), k_p);
        ASSERT_TRUE(f.valid);
        EXPECT_LT(err(f, x, y), 1e-3) << x << "," << y;
        EXPECT_GT(f.radius, 0);
        EXPECT_LT(f.radius, 10);
    }
    // Three access points determine it too.
    EXPECT_LT(err(pos_solve(readings(12, 7, 0, 3), k_p), 12, 7), 1e-3);
    // A 5 GHz reading brought to the 2.4 GHz reference says the same.
    double five = model(12, 7, 0, 0) - 20 * log10(5180 / 2412.0);
    EXPECT_NEAR(pos_rssi_2g4(five, 5180), model(12, 7, 0, 0), 1e-9);
    EXPECT_NEAR(pos_range(model(12, 7, 0, 0), k_p), hypot(12, 7), 1e-9);
}

TEST(PositionSolve, AbsurdReadingsAreDownWeightedOrIgnored)
{
    auto obs = readings(12, 7);
    obs[2].rssi_dbm = -30; // ap at (30, 20), 21 m away, claims to be within a metre
    pos_fix f = pos_solve(obs, k_p);
    ASSERT_TRUE(f.valid);
    EXPECT_LT(err(f, 12, 7), 0.5);

    // Impossible values change nothing.
    obs = readings(12, 7);
    obs.push_back({20, 5, 0, 25.0, 0}); // positive dBm
    obs.push_back({20, 5, 0, NAN, 0});
    obs.push_back({NAN, 5, 0, -50, 0});
    obs.push_back({1e300, 5, 0, -50, 0});
    obs.push_back({20, 5, 0, -50, INFINITY});
    obs.push_back({20, 5, 3, -90, 0}); // another floor, weaker than ours
    f = pos_solve(obs, k_p);
    ASSERT_TRUE(f.valid);
    EXPECT_LT(err(f, 12, 7), 1e-3);

    // Nothing usable: no fix, finite numbers.
    std::vector<pos_obs> bad{{1, 1, 0, NAN, 0}, {2, 2, 0, 3.0, 0}};
    for (auto &o : {std::vector<pos_obs>{}, bad}) {
        f = pos_solve(o, k_p);
        EXPECT_FALSE(f.valid);
        EXPECT_TRUE(std::isfinite(f.x) && std::isfinite(f.y) && std::isfinite(f.radius));
    }
}

TEST(PositionSolve, FewAccessPointsGiveWiderCircles)
{
    // One access point: its own position, a radius that reaches the station.
    std::vector<pos_obs> one{{4, 5, 0, model(12, 7, 4, 5), 0},
                             {4, 5, 0, model(12, 7, 4, 5) - 2, 0}};
    pos_fix f = pos_solve(one, k_p);
    ASSERT_TRUE(f.valid);
    EXPECT_EQ(f.x, 4);
    EXPECT_EQ(f.y, 5);
    EXPECT_GT(f.radius, hypot(8, 2));

    // Two: somewhere finite, less sure than with all five.
    pos_fix two = pos_solve(readings(12, 7, 0, 2), k_p);
    ASSERT_TRUE(two.valid);
    EXPECT_TRUE(std::isfinite(two.x) && std::isfinite(two.y));
    EXPECT_GT(two.radius, 2 * pos_solve(readings(12, 7), k_p).radius);
}

TEST(PositionTrack, SmoothsNoiseAndFollowsAWalk)
{
    std::mt19937 rng(11);
    std::normal_distribution<double> noise(0, 3);
    pos_params p = k_p;
    p.noise_db = 3;
    pos_track tr{};
    double raw = 0, smooth = 0;
    int n = 0, inside = 0;
    for (int s = 0; s <= 90; ++s) { // 0.3 m/s east along y = 8, one report a second
        double x = 2 + s * 0.3, t = 100 + s;
        auto obs = readings(x, 8, t);
        for (auto &o : obs)
            o.rssi_dbm = round(o.rssi_dbm + noise(rng));
        pos_fix f = pos_track_update(tr, obs, t, p);
        ASSERT_TRUE(f.valid);
        if (s >= 10) {
            raw += err(pos_solve(obs, p), x, 8);
            smooth += err(f, x, 8);
            inside += err(f, x, 8) <= f.radius;
            ++n;
        }
    }
    EXPECT_LT(smooth / n, 0.8 * raw / n) << raw / n;
    EXPECT_GE(inside, 0.6 * n);         // the radius means something
    EXPECT_NEAR(tr.state[2], 0.3, 0.2); // it learned the velocity
}

TEST(PositionTrack, FollowsAMoveNotALoneJumpAndExpires)
{
    pos_params p = k_p;
    p.noise_db = 1;
    pos_track tr{};
    pos_fix f{};
    for (int s = 0; s < 10; ++s)
        f = pos_track_update(tr, readings(5, 5, s), s, p);
    EXPECT_LT(err(f, 5, 5), 0.1);
    // One wild fix moves the track less than a third of the way.
    pos_track once = tr;
    f = pos_track_update(once, readings(26, 16, 10), 10, p);
    EXPECT_LT(hypot(f.x - 5, f.y - 5), hypot(21, 11) / 3);
    // Fixes that stay there win within a few reports.
    for (int s = 10; s < 16; ++s)
        f = pos_track_update(tr, readings(26, 16, s), s, p);
    EXPECT_LT(err(f, 26, 16), 1.0);

    // Old readings again do not keep it alive; nothing fresh for the timeout ends it.
    EXPECT_FALSE(pos_track_expired(tr, 15 + p.timeout_s - 1, p));
    f = pos_track_update(tr, readings(26, 16, 15), 15 + p.timeout_s - 1, p);
    EXPECT_TRUE(f.valid);
    EXPECT_TRUE(pos_track_expired(tr, 15 + p.timeout_s + 1, p));
    // Heard again later: a new track at the new place, no memory of the old one.
    f = pos_track_update(tr, readings(3, 15, 100), 100, p);
    EXPECT_LT(err(f, 3, 15), 1e-3);
    EXPECT_EQ(tr.state[2], 0);
    EXPECT_EQ(tr.state[3], 0);
}

TEST(PositionCalibrate, RecoversTheModelOfASite)
{
    pos_params p;
    std::vector<pos_sample> s;
    for (double d : {1.5, 3.0, 6.0, 12.0, 24.0})
        for (double e : {-2.0, 2.0})
            s.push_back({d, -45 - 32 * log10(d) + e});
    ASSERT_TRUE(pos_calibrate(s, p));
    EXPECT_NEAR(p.rssi_at_1m, -45, 1e-6);
    EXPECT_NEAR(p.path_loss_exp, 3.2, 1e-6);
    EXPECT_NEAR(p.noise_db, 2.0, 0.3);
    pos_params q;
    EXPECT_FALSE(pos_calibrate(std::span(s).first(2), q));
    EXPECT_EQ(q.path_loss_exp, pos_params{}.path_loss_exp);
}

} // namespace
