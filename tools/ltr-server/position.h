// tools/ltr-server/position.h: estimates a station's position from RSSI; no I/O.
#pragma once
#include <span>
struct pos_params {
    double rssi_at_1m = -40.0;   // dBm heard 1 m from an access point
    double path_loss_exp = 2.7;  // log-distance exponent
    double timeout_s = 30.0;     // a track not updated this long is gone
};
struct pos_obs {                 // one access point's latest reading of the station
    double x, y;                 // access point position, metres
    int floor;
    double rssi_dbm;
    double t;                    // arrival time of the report carrying it, seconds
};
struct pos_fix {
    bool valid = false;
    double x = 0, y = 0;         // metres
    double radius = 0;           // confidence radius, metres
};
struct pos_track {               // per-station smoothing state; value-initialised = new
    pos_fix last;
    double t = 0;
    double state[4] = {0, 0, 0, 0};
    double cov[16] = {};
    bool started = false;
};
pos_fix pos_solve(std::span<const pos_obs> obs, const pos_params &p);   // one-shot fit
pos_fix pos_track_update(pos_track &tr, std::span<const pos_obs> obs, double now,
                         const pos_params &p);                         // smoothed
bool pos_track_expired(const pos_track &tr, double now, const pos_params &p);
