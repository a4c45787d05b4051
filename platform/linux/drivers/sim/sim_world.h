// The simulated site: access points with radios, stations that move, and the
// log-distance path-loss model that turns distance into RSSI with seeded noise.
#pragma once
#include <stdint.h>

#include <array>
#include <memory>
#include <string>
#include <vector>

#include "drv_track.h"

using sim_mac = drv_mac;

struct sim_point {
    double x = 0, y = 0;
};

struct sim_model {
    double ref_rssi = -40.0;  // dBm at 1 m on 2412 MHz
    double exponent = 3.0;    // path-loss exponent
    double noise = 2.0;       // standard deviation of the noise, dB
    int floor = -92;          // weaker signals are not heard
};

struct sim_world_ap {
    std::string name;
    sim_point pos;
    std::vector<uint16_t> radios; // channel frequency of radio i, MHz
};

struct sim_world_sta {
    sim_mac mac{};
    sim_point pos;                // start of the walk, or where it stays
    std::vector<sim_point> path;  // further points, walked in a loop back to pos
    double speed = 0;             // m/s along the walk
    bool active = true;
    int assoc_ap = -1;            // index into aps, -1 = not associated
    int assoc_radio = 0;
};

struct sim_world {
    sim_model model;
    std::vector<sim_world_ap> aps;
    std::vector<sim_world_sta> stations;
};

// One station as a radio hears it.
using sim_heard = drv_heard;

// Reads a world file; null with err "file:line: key: what" on any fault.
std::shared_ptr<const sim_world> sim_world_load(const std::string &path, std::string &err);
// Same from text (tests); name is used in error messages.
std::shared_ptr<const sim_world> sim_world_parse(const std::string &text, const std::string &name,
                                                 std::string &err);

// Index of the access point called name, -1 when none.
int sim_world_find_ap(const sim_world &w, const std::string &name);
// Where a station is t seconds after the start.
sim_point sim_station_pos(const sim_world_sta &s, double t);
// Mean received power at distance d metres on freq MHz, without noise.
double sim_path_rssi(const sim_model &m, double d, uint16_t freq);
// What radio `radio` (on freq) of access point ap hears at time t, for seed.
void sim_world_hear(const sim_world &w, int ap, int radio, uint16_t freq, double t, uint64_t seed,
                    std::vector<sim_heard> &out);
// Whether the station is associated with that radio of ap.
bool sim_world_assoc(const sim_world &w, int ap, int radio, const sim_mac &mac);

// A MAC (n = 6) or OUI (n = 3) in any form of mac_text.h; false on anything else.
bool sim_parse_hex(const std::string &s, uint8_t *out, int n);
