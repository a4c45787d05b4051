// ltr_locate_eval: scores the position engine and two simple baselines against the
// simulated world's true positions, from the reports a location server received.
//
// usage: ltr_locate_eval WORLD REPORTS [CALIBRATION_SECONDS]
// REPORTS: one line per station per report, "T MAC AP:FREQ:RSSI ...", T in world
// seconds (the sim.epoch clock), AP a world access point name.
#include <math.h>
#include <stdio.h>

#include <algorithm>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "position.h"
#include "sim_world.h"

namespace
{

struct line_in {
    double t;
    int sta;                  // index into the world's stations
    std::vector<pos_obs> obs; // this report's readings, RSSI brought to 2412 MHz
    std::vector<int> aps;     // world access point of each reading
};

struct stat_col {
    const char *name;
    std::vector<double> err;
    int inside = 0; // truth within the reported radius
    bool has_radius = false;
};

double pct(std::vector<double> v, double q)
{
    if (v.empty())
        return NAN;
    std::sort(v.begin(), v.end());
    double i = q * double(v.size() - 1);
    size_t lo = size_t(floor(i)), hi = size_t(ceil(i));
    return v[lo] + (v[hi] - v[lo]) * (i - double(lo));
}

bool read_reports(const char *path, const sim_world &w, std::vector<line_in> &out)
{
    std::ifstream f(path);
    if (!f) {
        fprintf(stderr, "ltr_locate_eval: cannot read %s\n", path);
        return false;
    }
    std::string s;
    int n = 0;
    while (std::getline(f, s)) {
        ++n;
        std::istringstream in(s);
        line_in l{};
        std::string mac, item;
        if (!(in >> l.t >> mac))
            continue;
        sim_mac m{};
        l.sta = -1;
        if (sim_parse_hex(mac, m.data(), 6))
            for (size_t i = 0; i < w.stations.size(); ++i)
                if (w.stations[i].mac == m)
                    l.sta = int(i);
        if (l.sta < 0) {
            fprintf(stderr, "ltr_locate_eval: %s:%d: station %s is not in the world\n", path, n,
                    mac.c_str());
            return false;
        }
        while (in >> item) {
            size_t a = item.find(':'), b = item.rfind(':');
            int ap = a == std::string::npos ? -1 : sim_world_find_ap(w, item.substr(0, a));
            if (ap < 0 || a == b) {
                fprintf(stderr, "ltr_locate_eval: %s:%d: bad reading %s\n", path, n, item.c_str());
                return false;
            }
            unsigned freq = unsigned(atoi(item.substr(a + 1, b - a - 1).c_str()));
            double rssi = atof(item.substr(b + 1).c_str());
            const sim_point &pos = w.aps[size_t(ap)].pos;
            l.obs.push_back({pos.x, pos.y, 0, pos_rssi_2g4(rssi, freq), l.t});
            l.aps.push_back(ap);
        }
        out.push_back(std::move(l));
    }
    return true;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 3) {
        fprintf(stderr, "usage: ltr_locate_eval WORLD REPORTS [CALIBRATION_SECONDS]\n");
        return 2;
    }
    std::string err;
    auto w = sim_world_load(argv[1], err);
    if (!w) {
        fprintf(stderr, "ltr_locate_eval: %s\n", err.c_str());
        return 2;
    }
    std::vector<line_in> lines;
    if (!read_reports(argv[2], *w, lines))
        return 2;
    if (lines.empty()) {
        fprintf(stderr, "ltr_locate_eval: no reports in %s\n", argv[2]);
        return 1;
    }
    double cal_s = argc > 3 ? atof(argv[3]) : 20;
    double t0 = lines.front().t, t1 = lines.back().t;

    // Calibration as a site would do it: a walk with known positions, here the first
    // seconds of the run, gives distance and RSSI pairs.
    pos_params dflt, cal;
    std::vector<pos_sample> samples;
    for (const line_in &l : lines) {
        if (l.t > t0 + cal_s)
            break;
        sim_point p = sim_station_pos(w->stations[size_t(l.sta)], l.t);
        for (size_t i = 0; i < l.obs.size(); ++i)
            samples.push_back({hypot(p.x - l.obs[i].x, p.y - l.obs[i].y), l.obs[i].rssi_dbm});
    }
    bool calibrated = pos_calibrate(samples, cal);

    // The latest reading of each access point per station, as the server keeps them.
    std::vector<std::map<int, pos_obs>> latest(w->stations.size());
    pos_params world;
    world.rssi_at_1m = w->model.ref_rssi;
    world.path_loss_exp = w->model.exponent;
    world.noise_db = std::max(w->model.noise, 0.5);
    std::vector<pos_track> tr_cal(w->stations.size()), tr_dflt(w->stations.size()),
        tr_world(w->stations.size());
    stat_col eng{"engine, calibrated model", {}, 0, true};
    stat_col engd{"engine, default model", {}, 0, true};
    stat_col engw{"engine, the world's own model", {}, 0, true};
    stat_col one{"engine unsmoothed, calibrated", {}, 0, true};
    stat_col near{"nearest access point", {}, 0, false};
    stat_col cent{"RSSI-weighted centroid", {}, 0, false};
    for (const line_in &l : lines) {
        auto &m = latest[size_t(l.sta)];
        for (size_t i = 0; i < l.obs.size(); ++i)
            m[l.aps[i]] = l.obs[i];
        std::vector<pos_obs> obs;
        for (auto &[ap, o] : m)
            if (l.t - o.t <= dflt.timeout_s)
                obs.push_back(o);
        if (obs.empty())
            continue;
        sim_point truth = sim_station_pos(w->stations[size_t(l.sta)], l.t);
        auto score = [&](stat_col &c, double x, double y, double radius) {
            double e = hypot(x - truth.x, y - truth.y);
            c.err.push_back(e);
            c.inside += e <= radius;
        };
        pos_fix f = pos_track_update(tr_cal[size_t(l.sta)], obs, l.t, cal);
        if (f.valid)
            score(eng, f.x, f.y, f.radius);
        f = pos_track_update(tr_dflt[size_t(l.sta)], obs, l.t, dflt);
        if (f.valid)
            score(engd, f.x, f.y, f.radius);
        f = pos_track_update(tr_world[size_t(l.sta)], obs, l.t, world);
        if (f.valid)
            score(engw, f.x, f.y, f.radius);
        f = pos_solve(obs, cal);
        if (f.valid)
            score(one, f.x, f.y, f.radius);
        const pos_obs *best = &obs[0];
        double sw = 0, sx = 0, sy = 0;
        for (const pos_obs &o : obs) {
            if (o.rssi_dbm > best->rssi_dbm)
                best = &o;
            double wt = pow(10.0, o.rssi_dbm / 10.0); // received power, mW
            sw += wt;
            sx += wt * o.x;
            sy += wt * o.y;
        }
        score(near, best->x, best->y, 0);
        score(cent, sx / sw, sy / sw, 0);
    }

    printf("%zu access points, %zu stations, %zu station reports over %.0f s\n", w->aps.size(),
           w->stations.size(), lines.size(), t1 - t0);
    if (calibrated)
        printf("calibration from the first %.0f s (%zu readings): rssi_at_1m %.1f dBm, "
               "path_loss_exp %.2f, noise_db %.1f\n",
               cal_s, samples.size(), cal.rssi_at_1m, cal.path_loss_exp, cal.noise_db);
    else
        printf("calibration failed (%zu readings): the calibrated rows use the defaults\n",
               samples.size());
    printf("default model: rssi_at_1m %.1f dBm, path_loss_exp %.2f, noise_db %.1f\n\n",
           dflt.rssi_at_1m, dflt.path_loss_exp, dflt.noise_db);
    printf("%-32s %8s %8s %8s %8s  %s\n", "error in metres", "median", "p90", "mean", "fixes",
           "inside radius");
    for (stat_col *c : {&eng, &engd, &engw, &one, &near, &cent}) {
        double mean = 0;
        for (double e : c->err)
            mean += e;
        mean /= double(std::max<size_t>(c->err.size(), 1));
        printf("%-32s %8.2f %8.2f %8.2f %8zu", c->name, pct(c->err, 0.5), pct(c->err, 0.9), mean,
               c->err.size());
        if (c->has_radius && !c->err.empty())
            printf("  %5.1f %%", 100.0 * c->inside / double(c->err.size()));
        printf("\n");
    }
    double ratio = pct(eng.err, 0.5) / pct(near.err, 0.5);
    printf("\nengine median / nearest-AP median: %.2f (aim: at most 0.50)\n", ratio);
    return 0;
}
