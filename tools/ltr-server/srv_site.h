// The site as the server sees it: where each access point stands. Read from the
// [[ap]] tables of a world file, so one file describes a site for the simulated
// radios and for the server.
#pragma once
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "position.h"
#include "srv_wire.h"

namespace lsrv {

struct site_ap {
    std::string name;
    std::optional<mac_addr> mac;   // management MAC, as readings name the AP
    std::optional<uint32_t> ip;    // management IPv4, network order
    double x = 0, y = 0;           // metres
    int floor = 0;
};

struct site {
    std::vector<site_ap> aps;
    pos_params model;              // [model] ref_rssi and exponent, when given
    std::map<mac_addr, size_t> by_mac; // index into aps: every reading looks one up
};

// Parses text (name for messages). False with err "name:line: key: what"; out untouched.
bool site_parse(const std::string &text, const std::string &name, site &out, std::string &err);
bool site_load(const std::string &path, site &out, std::string &err);

// The access point a reading or a connection names: by MAC, else by IPv4 (network
// order, 0: none), else by instance name; null when the site does not know it.
const site_ap *site_find(const site &s, const mac_addr &mac, uint32_t ip = 0,
                         const std::string &name = "");

} // namespace lsrv
