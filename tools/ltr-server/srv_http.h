// The live map and its JSON API, served from threads of their own. The main loop
// hands over ready JSON text; request threads never touch the station store, so a
// slow browser never holds up the reports.
#pragma once
#include <stdint.h>

#include <memory>
#include <string>

namespace lsrv {

struct http_server;

// Listens on HOST:PORT and serves from another thread; null with err when it cannot.
std::unique_ptr<http_server, void (*)(http_server *)> http_start(const std::string &addr,
                                                                   std::string &err);

// The access points (a JSON array); sent to live pages when it changed.
void http_set_aps(http_server &h, const std::string &json);
// A station's state (a JSON object) under its MAC text; sent to live pages.
void http_set_station(http_server &h, const std::string &mac, const std::string &json);
// The station is forgotten.
void http_drop_station(http_server &h, const std::string &mac);
// Counters for /api/stats (a JSON object).
void http_set_stats(http_server &h, const std::string &json);

// Events kept for live pages that fall behind; one further behind gets a snapshot.
constexpr size_t HTTP_BACKLOG = 1024;
// Request threads; each live page keeps one busy.
constexpr size_t HTTP_THREADS = 32;

} // namespace lsrv
