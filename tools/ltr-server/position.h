// tools/ltr-server/position.h: estimates a station's position from RSSI; no I/O.
#pragma once
#include <span>
struct pos_params {
    double rssi_at_1m = -40.0;   // dBm heard 1 m from an access point
    double path_loss_exp = 2.7;  // log-distance exponent
    double timeout_s = 30.0;     // a track not updated this long is gone
    double noise_db = 4.0;       // spread of readings about the model (shadowing), dB
    double weak_dbm = -85.0;     // weaker readings count less: near the radios' floor they
                                 // are noisy and biased up (the weakest go unheard)
    double stale_s = 10.0;       // a reading this much older than the newest counts half
    double accel = 1.0;          // m/s^2: how briskly a station changes its velocity
    double max_speed = 3.0;      // m/s: faster apparent movement is noise
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
    int floor = 0;               // floor of the last fix
    int misses = 0;              // fixes in a row far outside the prediction
};
pos_fix pos_solve(std::span<const pos_obs> obs, const pos_params &p);   // one-shot fit
pos_fix pos_track_update(pos_track &tr, std::span<const pos_obs> obs, double now,
                         const pos_params &p);                         // smoothed
bool pos_track_expired(const pos_track &tr, double now, const pos_params &p);

// Distance in metres at which the model expects rssi_dbm.
double pos_range(double rssi_dbm, const pos_params &p);
// The reading as it would be on 2412 MHz, the band rssi_at_1m is given for: higher
// channels lose 20*log10(f/2412) dB more over the same distance.
double pos_rssi_2g4(double rssi_dbm, unsigned freq_mhz);

// One calibration reading: a station at a known distance from an access point.
struct pos_sample {
    double dist;                 // metres
    double rssi_dbm;
};
// Fits rssi_at_1m, path_loss_exp and noise_db of p to the samples (least squares in
// dB over log-distance); false, p unchanged, with fewer than 3 usable samples or
// without distances spread over at least a factor 2.
bool pos_calibrate(std::span<const pos_sample> s, pos_params &p);
