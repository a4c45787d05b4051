#include "srv_mqtt.h"

#include <ctype.h>
#include <stdio.h>
#include <stdlib.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

#include <mosquitto.h>

namespace lsrv {

struct mqtt_link {
    mosquitto *mosq = nullptr;
    std::string prefix, id;
    std::atomic<bool> connected{false};
    std::atomic<bool> fresh{false};  // connected since the last mqtt_take_connected
    std::atomic<int> queued{0};      // events sent while away, waiting in the library
    std::atomic<bool> said_down{false};
    std::atomic<bool> stopping{false};
    std::string host;
    int port = 0;
    std::thread net;
};

namespace {

std::once_flag lib_once;

void on_connect(mosquitto *mosq, void *obj, int rc)
{
    auto *m = static_cast<mqtt_link *>(obj);
    if (rc != 0) {
        fprintf(stderr, "ltr-server: MQTT broker refused the connection: %s\n", mosquitto_connack_string(rc));
        return;
    }
    fprintf(stderr, "ltr-server: MQTT connected\n");
    // Before any state: a subscriber that sees states finds the server online.
    std::string t = m->prefix + "/server/" + m->id;
    mosquitto_publish(mosq, nullptr, t.c_str(), 6, "online", 1, true);
    m->said_down = false;
    m->queued = 0;
    m->connected = true;
    m->fresh = true;
}

void on_disconnect(mosquitto *, void *obj, int)
{
    auto *m = static_cast<mqtt_link *>(obj);
    m->connected = false;
    if (!m->said_down.exchange(true))
        fprintf(stderr, "ltr-server: MQTT broker unreachable; publishing resumes when it is back\n");
}

// The network thread. The library reconnects a connection it once had, but gives up
// on a first one that fails, so the first is tried here, with backoff, until it holds.
void run_net(mqtt_link *m)
{
    using namespace std::chrono;
    double delay = 1;
    while (!m->stopping) {
        if (mosquitto_connect_async(m->mosq, m->host.c_str(), m->port, 30) == MOSQ_ERR_SUCCESS) {
            auto end = steady_clock::now() + seconds(10);
            while (!m->stopping && !m->connected && steady_clock::now() < end)
                if (mosquitto_loop(m->mosq, 100, 1) != MOSQ_ERR_SUCCESS)
                    break;
            if (m->connected) {
                mosquitto_loop_forever(m->mosq, 1000, 1); // until mosquitto_disconnect
                return;
            }
        }
        on_disconnect(m->mosq, m, 0);
        for (int i = 0; i < int(delay * 10) && !m->stopping; ++i)
            std::this_thread::sleep_for(milliseconds(100));
        delay = std::min(delay * 2, 30.0);
    }
}

void stop(mqtt_link *m)
{
    m->stopping = true;
    if (m->mosq) {
        if (m->connected) {
            std::string t = m->prefix + "/server/" + m->id;
            mosquitto_publish(m->mosq, nullptr, t.c_str(), 7, "offline", 1, true);
        }
        mosquitto_disconnect(m->mosq);
    }
    if (m->net.joinable())
        m->net.join();
    if (m->mosq)
        mosquitto_destroy(m->mosq);
    delete m;
}

void publish(mqtt_link &m, const std::string &topic, const std::string &payload, bool retain)
{
    mosquitto_publish(m.mosq, nullptr, topic.c_str(), int(payload.size()), payload.data(), 1, retain);
}

} // namespace

mqtt_ptr mqtt_start(const std::string &addr, const std::string &prefix, const std::string &id,
                    std::string &err)
{
    size_t colon = addr.rfind(':');
    std::string host = colon == std::string::npos ? "" : addr.substr(0, colon);
    int port = colon == std::string::npos ? 0 : atoi(addr.c_str() + colon + 1);
    if (host.empty() || port <= 0 || port > 65535) {
        err = "bad --mqtt address \"" + addr + "\" (want host:port)";
        return {nullptr, stop};
    }
    std::call_once(lib_once, [] { mosquitto_lib_init(); });
    mqtt_ptr m(new mqtt_link, stop);
    m->prefix = prefix;
    m->id = id;
    m->mosq = mosquitto_new(("ltr-server-" + id).c_str(), true, m.get());
    if (!m->mosq) {
        err = "cannot create an MQTT client";
        return {nullptr, stop};
    }
    mosquitto_connect_callback_set(m->mosq, on_connect);
    mosquitto_disconnect_callback_set(m->mosq, on_disconnect);
    mosquitto_reconnect_delay_set(m->mosq, 1, 30, true);
    std::string status = prefix + "/server/" + id;
    mosquitto_will_set(m->mosq, status.c_str(), 7, "offline", 1, true);
    m->host = host;
    m->port = port;
    m->net = std::thread(run_net, m.get());
    return m;
}

bool mqtt_take_connected(mqtt_link &m) { return m.fresh.exchange(false); }

std::string mqtt_mac_topic(const std::string &mac)
{
    std::string s;
    for (char c : mac)
        if (c != ':')
            s += char(tolower(static_cast<unsigned char>(c)));
    return s;
}

void mqtt_station(mqtt_link &m, const std::string &mac, const std::string &json, bool present)
{
    if (!m.connected)
        return; // all of it goes out again on reconnection
    std::string base = m.prefix + "/station/" + mqtt_mac_topic(mac);
    publish(m, base + "/state", json, true);
    publish(m, base + "/presence", present ? "present" : "left", true);
}

void mqtt_event(mqtt_link &m, const char *kind, const std::string &mac, double unix_time)
{
    // Events are not state: while the broker is away the library keeps a bounded
    // number of them and delivers them on reconnection.
    if (!m.connected && m.queued.fetch_add(1) >= MQTT_QUEUE_MAX)
        return;
    char t[32];
    snprintf(t, sizeof t, "%.3f", unix_time);
    publish(m, m.prefix + "/event",
            std::string("{\"event\":\"") + kind + "\",\"mac\":\"" + mac + "\",\"time\":" + t + "}", false);
}

} // namespace lsrv
