// What the server knows of each station: the latest reading from every access point
// that hears it, its owner, whether it is present, and its position track. Fed by the
// RSSI reports, read by the map and the MQTT feed. Single-threaded: the main loop owns it.
#pragma once
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "position.h"
#include "srv_site.h"

namespace lsrv {

struct st_reading {
    uint16_t freq = 0;
    int rssi = 0;
    double t = 0;           // arrival of the report that carried it, server seconds
};

struct st_point {
    double x, y;
};

struct st_station {
    mac_addr mac{};
    std::map<mac_addr, st_reading> readings; // by the MAC of the access point that heard
    std::string owner;      // name of the access point that reported it last
    mac_addr owner_mac{};
    double first_seen = 0, last_seen = 0;    // server seconds
    bool present = false;
    pos_track track;
    pos_fix fix;
    int floor = 0;
    std::deque<st_point> trail;              // recent positions, oldest first
};

enum st_change { ST_ENTER, ST_MOVE, ST_LEAVE, ST_FORGET };
struct st_event {
    st_change kind;
    mac_addr mac;
};

struct store_counts {
    uint64_t reports = 0;        // RSSI reports taken in
    uint64_t station_updates = 0;
    uint64_t solves = 0;         // positions computed
};

struct store {
    const site *where = nullptr;          // may be null: no positions at all
    pos_params params;
    size_t trail_len = 20;
    double forget_s = 300;                // a station that left is dropped after this
    std::map<mac_addr, st_station> stations;
    std::map<mac_addr, std::string> learned; // AP MAC from HELLO -> site AP name
    store_counts counts;
};

// The site's access point for a reading's AP MAC (listed or learned), or null.
const site_ap *store_ap(const store &s, const mac_addr &ap);

// An access point said hello: ties its MAC to the site entry of the same IPv4 or name.
void store_hello(store &s, const mac_addr &mac, uint32_t ip, const std::string &name);

// One decoded RSSI report from the access point (owner) at server time now.
void store_report(store &s, const std::string &owner, const mac_addr &owner_mac,
                  const std::vector<station> &stations, double now, std::vector<st_event> &ev);

// Readings older than the timeout go; a station with none left, or whose track
// expired, leaves; one gone long enough is forgotten.
void store_expire(store &s, double now, std::vector<st_event> &ev);

} // namespace lsrv
