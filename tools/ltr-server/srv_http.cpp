// HTTP: the map page, its script and style, the JSON API and a Server-Sent Events
// stream of changes.
#include "srv_http.h"

#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>

#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <thread>

#include <httplib.h>

#include "srv_web.h"
#include "srv_wire.h"

namespace lsrv {

struct http_server {
    httplib::Server svr;
    std::thread thread;

    std::mutex m;
    std::condition_variable cv;
    bool closing = false;
    uint64_t seq = 0;                                 // of the newest event
    std::deque<std::pair<uint64_t, std::string>> events; // SSE text, oldest first
    std::string aps = "[]", stats = "{}";
    std::map<std::string, std::string> stations;     // MAC text -> JSON

    void push(std::string ev) // with m held
    {
        events.emplace_back(++seq, std::move(ev));
        while (events.size() > HTTP_BACKLOG)
            events.pop_front();
        cv.notify_all();
    }
    std::string stations_json() // with m held
    {
        std::string s = "[";
        for (const auto &[mac, j] : stations)
            s += (s.size() > 1 ? "," : "") + j;
        return s + "]";
    }
};

namespace {

void stop(http_server *h)
{
    {
        std::lock_guard l(h->m);
        h->closing = true;
        h->cv.notify_all();
    }
    h->svr.stop();
    if (h->thread.joinable())
        h->thread.join();
    delete h;
}

// What a live page has not seen yet, from event seq `last` on; a snapshot when it
// is new or fell out of the backlog.
std::string pending_for(http_server &h, int64_t &last)
{
    std::string out;
    if (last < 0 || h.events.empty() || int64_t(h.events.front().first) > last + 1) {
        out = "event: snapshot\ndata: {\"aps\":" + h.aps + ",\"stations\":" + h.stations_json() + "}\n\n";
    } else {
        for (const auto &[n, ev] : h.events)
            if (int64_t(n) > last)
                out += ev;
    }
    last = int64_t(h.seq);
    return out;
}

void routes(http_server &h)
{
    auto &svr = h.svr;
    // Every open page holds a thread for its event stream: room for many of them.
    svr.new_task_queue = [] { return new httplib::ThreadPool(HTTP_THREADS); };
    for (const web_asset &a : web_assets)
        svr.Get(a.path, [&a](const httplib::Request &, httplib::Response &res) {
            res.set_content(a.body, a.type);
        });
    auto json_of = [&h](std::string http_server::*field) {
        return [&h, field](const httplib::Request &, httplib::Response &res) {
            std::lock_guard l(h.m);
            res.set_content(h.*field, "application/json");
        };
    };
    svr.Get("/api/aps", json_of(&http_server::aps));
    svr.Get("/api/stats", json_of(&http_server::stats));
    svr.Get("/api/stations", [&h](const httplib::Request &, httplib::Response &res) {
        std::lock_guard l(h.m);
        res.set_content(h.stations_json(), "application/json");
    });
    svr.Get(R"(/api/stations/([0-9A-Fa-f:.\-]+))", [&h](const httplib::Request &req, httplib::Response &res) {
        mac_addr m{};
        std::string key = parse_mac(req.matches[1], m) ? mac_str(m.data()) : "";
        std::lock_guard l(h.m);
        auto it = h.stations.find(key);
        if (it == h.stations.end()) {
            res.status = 404;
            res.set_content("{\"error\":\"no such station\"}", "application/json");
            return;
        }
        res.set_content(it->second, "application/json");
    });
    svr.Get("/events", [&h](const httplib::Request &, httplib::Response &res) {
        res.set_header("Cache-Control", "no-cache");
        auto last = std::make_shared<int64_t>(-1); // event seq seen; -1: a new page
        res.set_chunked_content_provider("text/event-stream", [&h, last](size_t, httplib::DataSink &sink) {
            std::string out;
            {
                std::unique_lock l(h.m);
                h.cv.wait_for(l, std::chrono::seconds(15),
                              [&] { return h.closing || *last < int64_t(h.seq); });
                if (h.closing)
                    return false;
                if (*last < int64_t(h.seq))
                    out = pending_for(h, *last);
            }
            if (out.empty())
                out = ": idle\n\n"; // lets a dead connection show up
            return sink.write(out.data(), out.size());
        });
    });
}

} // namespace

std::unique_ptr<http_server, void (*)(http_server *)> http_start(const std::string &addr, std::string &err)
{
    std::unique_ptr<http_server, void (*)(http_server *)> h(new http_server, stop);
    size_t colon = addr.rfind(':');
    std::string host = colon == std::string::npos ? "" : addr.substr(0, colon);
    int port = colon == std::string::npos ? 0 : atoi(addr.c_str() + colon + 1);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']')
        host = host.substr(1, host.size() - 2);
    if (host.empty() || port <= 0 || port > 65535) {
        err = "bad --http address \"" + addr + "\" (want host:port)";
        return {nullptr, stop};
    }
    routes(*h);
    if (!h->svr.bind_to_port(host.c_str(), port)) {
        err = "cannot listen on " + addr + " for HTTP";
        return {nullptr, stop};
    }
    http_server *p = h.get();
    h->thread = std::thread([p] { p->svr.listen_after_bind(); });
    return h;
}

void http_set_aps(http_server &h, const std::string &json)
{
    std::lock_guard l(h.m);
    if (json == h.aps)
        return;
    h.aps = json;
    h.push("event: aps\ndata: " + json + "\n\n");
}

void http_set_station(http_server &h, const std::string &mac, const std::string &json)
{
    std::lock_guard l(h.m);
    h.stations[mac] = json;
    h.push("event: station\ndata: " + json + "\n\n");
}

void http_drop_station(http_server &h, const std::string &mac)
{
    std::lock_guard l(h.m);
    if (h.stations.erase(mac))
        h.push("event: gone\ndata: {\"mac\":\"" + mac + "\"}\n\n");
}

void http_set_stats(http_server &h, const std::string &json)
{
    std::lock_guard l(h.m);
    h.stats = json;
}

} // namespace lsrv
