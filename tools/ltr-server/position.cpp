// Stand-in estimator: RSSI-weighted centroid with a fixed radius, so the server runs
// before the real engine lands in these two files.
#include "position.h"

#include <math.h>

pos_fix pos_solve(std::span<const pos_obs> obs, const pos_params &)
{
    pos_fix f;
    double wsum = 0;
    for (const pos_obs &o : obs) {
        double w = pow(10.0, o.rssi_dbm / 20.0); // amplitude, not power: flatter weights
        f.x += w * o.x;
        f.y += w * o.y;
        wsum += w;
    }
    if (wsum <= 0)
        return {};
    f.x /= wsum;
    f.y /= wsum;
    f.radius = obs.size() == 1 ? 10.0 : 5.0;
    f.valid = true;
    return f;
}

pos_fix pos_track_update(pos_track &tr, std::span<const pos_obs> obs, double now,
                         const pos_params &p)
{
    pos_fix f = pos_solve(obs, p);
    if (!f.valid)
        return tr.last;
    tr.last = f;
    tr.t = now;
    tr.started = true;
    return f;
}

bool pos_track_expired(const pos_track &tr, double now, const pos_params &p)
{
    return tr.started && now - tr.t > p.timeout_s;
}
