// JSON forms of the server's state, shared by the HTTP API, the live page and MQTT.
#pragma once
#include <vector>

#include <nlohmann/json.hpp>

#include "srv_print.h"
#include "srv_store.h"

namespace lsrv {

// now: server seconds; unix_now: the same instant as Unix time (for "last_seen").
nlohmann::json station_json(const store &s, const st_station &st, double now, double unix_now);
// The site's access points, then those that connected or were heard without being in it.
nlohmann::json aps_json(const store &s, const std::vector<ap_ident> &connected);

} // namespace lsrv
