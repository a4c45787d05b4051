// Position engine: log-distance path loss, a robust weighted least-squares fit in dB and
// a constant-velocity Kalman filter over the fixes.
#include "position.h"

#include <math.h>

#include <algorithm>
#include <vector>

#include <Eigen/Dense>

namespace
{

using vec2 = Eigen::Vector2d;
using mat2 = Eigen::Matrix2d;
using vec4 = Eigen::Vector4d;
using mat4 = Eigen::Matrix4d;

constexpr double k_ln10 = 2.302585092994046;
constexpr double k_far = 1e6;          // metres: access point coordinates beyond are bad input
constexpr double k_radius_sigma = 1.5; // 1.5 sigma: about a 68 % circle
constexpr double k_gate = 16.0;        // squared Mahalanobis distance of a believable fix
constexpr int k_max_misses = 3;        // unbelievable fixes in a row that restart the track
// Fixes in a row share readings (unchanged ones ride along in every report, relayed
// ones a cycle late), so each brings about half the news its covariance claims.
constexpr double k_fix_overlap = 2.0;

struct reading {
    vec2 ap;
    double rssi;
    double w; // prior weight: strength and age
};

// A fit with its covariance; the filter needs the shape, not only the radius.
struct fit {
    bool valid = false;
    vec2 x = vec2::Zero();
    mat2 cov = mat2::Identity();
    double radius = 0;
    double t = 0; // time of the newest reading used
    int floor = 0;
};

bool is_num(double v)
{
    return std::isfinite(v);
}

double model_rssi(const pos_params &p, double d)
{
    return p.rssi_at_1m - 10.0 * p.path_loss_exp * log10(std::max(d, 1.0));
}

double strength_weight(const pos_params &p, double rssi)
{
    if (rssi >= p.weak_dbm)
        return 1.0;
    return std::max(0.1, 1.0 - (p.weak_dbm - rssi) / 10.0);
}

// The readings worth fitting: finite, plausible, on the floor of the strongest one.
std::vector<reading> usable(std::span<const pos_obs> obs, const pos_params &p, double &t_new,
                            int &floor)
{
    std::vector<const pos_obs *> ok;
    for (const pos_obs &o : obs)
        if (is_num(o.x) && is_num(o.y) && is_num(o.rssi_dbm) && is_num(o.t) && fabs(o.x) < k_far &&
            fabs(o.y) < k_far && o.rssi_dbm <= 0 && o.rssi_dbm >= -127)
            ok.push_back(&o);
    std::vector<reading> r;
    if (ok.empty())
        return r;
    const pos_obs *best =
        *std::max_element(ok.begin(), ok.end(), [](const pos_obs *a, const pos_obs *b) {
            return a->rssi_dbm < b->rssi_dbm;
        });
    floor = best->floor;
    t_new = -INFINITY;
    for (const pos_obs *o : ok)
        if (o->floor == floor)
            t_new = std::max(t_new, o->t);
    double stale = p.stale_s > 0 ? p.stale_s : 1e9;
    for (const pos_obs *o : ok) {
        if (o->floor != floor)
            continue;
        double age = (t_new - o->t) / stale;
        r.push_back(
            {vec2(o->x, o->y), o->rssi_dbm, strength_weight(p, o->rssi_dbm) / (1.0 + age * age)});
    }
    return r;
}

// Robust weight: Huber while finding the basin, Tukey's biweight to drop gross outliers.
double robust_weight(double r, double sigma, bool tukey)
{
    double a = fabs(r);
    if (tukey) {
        double c = 4.685 * sigma;
        if (a >= c)
            return 0;
        double u = 1 - (r / c) * (r / c);
        return u * u;
    }
    double k = 1.345 * sigma;
    return a <= k ? 1.0 : k / a;
}

double robust_cost(double r, double sigma, bool tukey)
{
    double a = fabs(r);
    if (tukey) {
        double c = 4.685 * sigma;
        if (a >= c)
            return c * c / 6;
        double u = 1 - (r / c) * (r / c);
        return c * c / 6 * (1 - u * u * u);
    }
    double k = 1.345 * sigma;
    return a <= k ? 0.5 * r * r : k * (a - 0.5 * k);
}

double total_cost(const std::vector<reading> &rd, const pos_params &p, const vec2 &x, bool tukey)
{
    double c = 0;
    for (const reading &r : rd)
        c += r.w * robust_cost(r.rssi - model_rssi(p, (x - r.ap).norm()), p.noise_db, tukey);
    return c;
}

// d(model rssi)/dx: zero within 1 m of the access point, where the model is flat.
vec2 gradient(const pos_params &p, const vec2 &x, const vec2 &ap)
{
    vec2 d = x - ap;
    double n2 = d.squaredNorm();
    if (n2 <= 1.0)
        return vec2::Zero();
    return -10.0 * p.path_loss_exp / k_ln10 * d / n2;
}

// Levenberg-Marquardt on the iteratively reweighted problem from x, kept inside box.
vec2 descend(const std::vector<reading> &rd, const pos_params &p, vec2 x, bool tukey,
             const vec2 &lo, const vec2 &hi)
{
    double lambda = 1e-3;
    double cost = total_cost(rd, p, x, tukey);
    for (int it = 0; it < 60; ++it) {
        mat2 h = mat2::Zero();
        vec2 g = vec2::Zero();
        for (const reading &r : rd) {
            double res = r.rssi - model_rssi(p, (x - r.ap).norm());
            double w = r.w * robust_weight(res, p.noise_db, tukey);
            vec2 j = gradient(p, x, r.ap);
            h += w * j * j.transpose();
            g += w * j * res;
        }
        bool moved = false;
        for (int tries = 0; tries < 12 && !moved; ++tries) {
            mat2 a = h;
            a.diagonal() += lambda * (h.diagonal().array() + 1e-6).matrix();
            vec2 step = a.ldlt().solve(g);
            if (!step.allFinite())
                break;
            vec2 nx = x + step;
            nx = nx.cwiseMax(lo).cwiseMin(hi);
            double nc = total_cost(rd, p, nx, tukey);
            if (nc < cost) {
                // A tenth of a millimetre, or no real gain, is as good as it gets.
                bool done = (nx - x).norm() < 1e-4 || cost - nc < 1e-12 * cost;
                x = nx;
                cost = nc;
                lambda = std::max(lambda / 3, 1e-9);
                moved = true;
                if (done)
                    return x;
            } else {
                lambda *= 4;
            }
        }
        if (!moved)
            break;
    }
    return x;
}

// The fit of the usable readings of obs; invalid when there are none.
fit solve_fit(std::span<const pos_obs> obs, const pos_params &p)
{
    fit f;
    double t_new = 0;
    std::vector<reading> rd = usable(obs, p, t_new, f.floor);
    if (rd.empty() || !(p.noise_db > 0) || !(p.path_loss_exp > 0) || !is_num(p.rssi_at_1m))
        return f;
    f.t = t_new;
    const double sigma = p.noise_db;

    vec2 lo = rd[0].ap, hi = rd[0].ap;
    for (const reading &r : rd) {
        lo = lo.cwiseMin(r.ap);
        hi = hi.cwiseMax(r.ap);
    }
    // One place heard from: the station is within range of it, direction unknown.
    if ((hi - lo).norm() < 1e-6) {
        double sw = 0, sr = 0;
        for (const reading &r : rd) {
            sw += r.w;
            sr += r.w * r.rssi;
        }
        double far = pos_range(sr / sw - k_radius_sigma * sigma, p);
        f.valid = true;
        f.x = lo;
        f.radius = std::max(far, 1.0);
        double v = f.radius * f.radius / (k_radius_sigma * k_radius_sigma);
        f.cov = mat2::Identity() * v;
        return f;
    }
    double span = (hi - lo).norm();
    vec2 box_lo = (lo.array() - (span + 10.0)).matrix(),
         box_hi = (hi.array() + (span + 10.0)).matrix();

    // Starts: the centroid weighted by expected closeness, and a point at the modelled
    // range from each of the three strongest readings, towards that centroid.
    vec2 c = vec2::Zero();
    double cw = 0;
    for (const reading &r : rd) {
        double d = std::max(pos_range(r.rssi, p), 1.0);
        double w = r.w / (d * d);
        c += w * r.ap;
        cw += w;
    }
    c /= cw;
    std::vector<vec2> starts{c};
    std::vector<const reading *> strong;
    for (const reading &r : rd)
        strong.push_back(&r);
    std::sort(strong.begin(), strong.end(),
              [](const reading *a, const reading *b) { return a->rssi > b->rssi; });
    for (size_t i = 0; i < strong.size() && i < 3; ++i) {
        vec2 dir = c - strong[i]->ap;
        double n = dir.norm();
        dir = n > 1e-9 ? vec2(dir / n) : vec2(1, 0);
        starts.push_back(strong[i]->ap + dir * std::min(pos_range(strong[i]->rssi, p), span));
    }

    vec2 best = c;
    double best_cost = INFINITY;
    for (const vec2 &s : starts) {
        vec2 x = descend(rd, p, s, false, box_lo, box_hi);
        x = descend(rd, p, x, true, box_lo, box_hi);
        double cost = total_cost(rd, p, x, true);
        if (cost < best_cost) {
            best_cost = cost;
            best = x;
        }
    }

    // Covariance: the information of the weighted readings at the solution, with the
    // noise taken from the residuals when they are enough to tell it; a weak prior of
    // the site's size keeps directions the geometry cannot resolve finite.
    mat2 info = mat2::Zero();
    double swr = 0, sw = 0;
    int n = 0;
    for (const reading &r : rd) {
        double res = r.rssi - model_rssi(p, (best - r.ap).norm());
        double w = r.w * robust_weight(res, sigma, true);
        vec2 j = gradient(p, best, r.ap);
        info += w * j * j.transpose();
        swr += w * res * res;
        sw += w;
        n += w > 0;
    }
    double s2 = sigma * sigma;
    if (n > 3 && sw > 0)
        s2 = std::max(s2, swr / sw * n / (n - 2));
    double prior = span + 10.0;
    mat2 inv = (info / s2 + mat2::Identity() / (prior * prior)).inverse();
    if (!best.allFinite() || !inv.allFinite())
        return f;
    Eigen::SelfAdjointEigenSolver<mat2> es(inv);
    double lmax = std::max(es.eigenvalues().maxCoeff(), 0.0);
    f.valid = true;
    f.x = best;
    f.cov = inv;
    f.radius = std::max(k_radius_sigma * sqrt(lmax), 0.5);
    return f;
}

pos_fix to_fix(const vec2 &x, const mat2 &cov)
{
    pos_fix r;
    Eigen::SelfAdjointEigenSolver<mat2> es(cov);
    double lmax = std::max(es.eigenvalues().maxCoeff(), 0.0);
    if (!x.allFinite() || !is_num(lmax))
        return r;
    r.valid = true;
    r.x = x.x();
    r.y = x.y();
    r.radius = std::max(k_radius_sigma * sqrt(lmax), 0.5);
    return r;
}

mat4 transition(double dt)
{
    mat4 f = mat4::Identity();
    f(0, 2) = f(1, 3) = dt;
    return f;
}

// White-acceleration process noise over dt.
mat4 process_noise(double dt, double accel)
{
    double q = accel * accel;
    mat4 m = mat4::Zero();
    for (int i = 0; i < 2; ++i) {
        m(i, i) = q * dt * dt * dt / 3;
        m(i, i + 2) = m(i + 2, i) = q * dt * dt / 2;
        m(i + 2, i + 2) = q * dt;
    }
    return m;
}

void start_track(pos_track &tr, const fit &f, const pos_params &p)
{
    vec4 s(f.x.x(), f.x.y(), 0, 0);
    mat4 c = mat4::Zero();
    c.topLeftCorner<2, 2>() = f.cov;
    double v = std::max(p.max_speed, 0.1) / 2;
    c(2, 2) = c(3, 3) = v * v;
    Eigen::Map<vec4>(tr.state) = s;
    Eigen::Map<mat4>(tr.cov) = c;
    tr.t = f.t;
    tr.floor = f.floor;
    tr.misses = 0;
    tr.started = true;
}

} // namespace

double pos_range(double rssi_dbm, const pos_params &p)
{
    double d = pow(10.0, (p.rssi_at_1m - rssi_dbm) / (10.0 * p.path_loss_exp));
    return is_num(d) ? std::min(d, k_far) : k_far;
}

double pos_rssi_2g4(double rssi_dbm, unsigned freq_mhz)
{
    if (freq_mhz == 0)
        return rssi_dbm;
    return rssi_dbm + 20.0 * log10(freq_mhz / 2412.0);
}

pos_fix pos_solve(std::span<const pos_obs> obs, const pos_params &p)
{
    fit f = solve_fit(obs, p);
    pos_fix r;
    if (!f.valid)
        return r;
    r.valid = true;
    r.x = f.x.x();
    r.y = f.x.y();
    r.radius = f.radius;
    return r;
}

pos_fix pos_track_update(pos_track &tr, std::span<const pos_obs> obs, double now,
                         const pos_params &p)
{
    if (!is_num(now))
        return pos_fix{};
    if (tr.started && pos_track_expired(tr, now, p))
        tr = pos_track{};
    fit f = solve_fit(obs, p);
    f.t = std::min(f.t, now); // a clock ahead of ours must not push the track into the future
    bool fresh = f.valid && (!tr.started || f.t > tr.t);

    if (fresh && (!tr.started || f.floor != tr.floor)) {
        start_track(tr, f, p);
    } else if (fresh) {
        Eigen::Map<vec4> s(tr.state);
        Eigen::Map<mat4> c(tr.cov);
        double dt = f.t - tr.t;
        mat4 fm = transition(dt);
        vec4 xs = fm * s;
        mat4 pc = fm * c * fm.transpose() + process_noise(dt, p.accel);
        Eigen::Matrix<double, 2, 4> h = Eigen::Matrix<double, 2, 4>::Zero();
        h(0, 0) = h(1, 1) = 1;
        vec2 y = f.x - h * xs;
        mat2 r = f.cov * k_fix_overlap;
        mat2 sm = h * pc * h.transpose() + r;
        double d2 = y.dot(sm.ldlt().solve(y));
        if (!(d2 <= k_gate) && ++tr.misses >= k_max_misses) {
            // It really is somewhere else: start over from the fix.
            start_track(tr, f, p);
        } else {
            if (d2 <= k_gate) {
                tr.misses = 0;
            } else {
                // Believe a lone jump only in part.
                r *= d2 / k_gate;
                sm = h * pc * h.transpose() + r;
            }
            Eigen::Matrix<double, 4, 2> k = pc * h.transpose() * sm.inverse();
            xs += k * y;
            mat4 ikh = mat4::Identity() - k * h;
            pc = ikh * pc * ikh.transpose() + k * r * k.transpose();
            double v = xs.tail<2>().norm();
            if (p.max_speed > 0 && v > p.max_speed)
                xs.tail<2>() *= p.max_speed / v;
            if (xs.allFinite() && pc.allFinite()) {
                s = xs;
                c = pc;
                tr.t = f.t;
            } else {
                start_track(tr, f, p);
            }
        }
    }
    if (!tr.started)
        return pos_fix{};

    // Where the track expects the station now.
    double dt = std::max(now - tr.t, 0.0);
    mat4 fm = transition(dt);
    vec4 xs = fm * Eigen::Map<const vec4>(tr.state);
    mat4 pc = fm * Eigen::Map<const mat4>(tr.cov) * fm.transpose() + process_noise(dt, p.accel);
    pos_fix out = to_fix(xs.head<2>(), pc.topLeftCorner<2, 2>());
    if (!out.valid) {
        tr = pos_track{};
        return out;
    }
    tr.last = out;
    return out;
}

bool pos_track_expired(const pos_track &tr, double now, const pos_params &p)
{
    return !(now - tr.t <= p.timeout_s);
}

bool pos_calibrate(std::span<const pos_sample> s, pos_params &p)
{
    // rssi = a + b * u with u = -10 * log10(d): b is the exponent.
    double n = 0, su = 0, sr = 0, suu = 0, sur = 0, umin = INFINITY, umax = -INFINITY;
    for (const pos_sample &x : s) {
        if (!is_num(x.dist) || !is_num(x.rssi_dbm) || x.dist < 1.0 || x.dist > k_far)
            continue;
        double u = -10.0 * log10(x.dist);
        n += 1;
        su += u;
        sr += x.rssi_dbm;
        suu += u * u;
        sur += u * x.rssi_dbm;
        umin = std::min(umin, u);
        umax = std::max(umax, u);
    }
    if (n < 3 || umax - umin < 10.0 * log10(2.0))
        return false;
    double b = (n * sur - su * sr) / (n * suu - su * su);
    double a = (sr - b * su) / n;
    if (!is_num(a) || !is_num(b) || b <= 0)
        return false;
    double ss = 0;
    for (const pos_sample &x : s) {
        if (!is_num(x.dist) || !is_num(x.rssi_dbm) || x.dist < 1.0 || x.dist > k_far)
            continue;
        double e = x.rssi_dbm - (a - b * 10.0 * log10(x.dist));
        ss += e * e;
    }
    p.rssi_at_1m = a;
    p.path_loss_exp = b;
    p.noise_db = std::max(sqrt(ss / (n - 2)), 0.5);
    return true;
}
