// MQTT feed: each station's state retained under its own topic, enter and leave
// events, through the library's network thread, which also reconnects. Publishing
// never waits for the broker: while it is away, states are skipped and published
// again in full once it is back.
#pragma once
#include <memory>
#include <string>

namespace lsrv {

struct mqtt_link;
using mqtt_ptr = std::unique_ptr<mqtt_link, void (*)(mqtt_link *)>;

// HOST:PORT of the broker; topics start with prefix; id names this server (client id
// and status topic). Null with err on a bad address or a library failure; a broker
// that is down is not a failure.
mqtt_ptr mqtt_start(const std::string &addr, const std::string &prefix, const std::string &id,
                    std::string &err);

// True once after each connection to the broker: time to publish every state again.
bool mqtt_take_connected(mqtt_link &m);

// Retained: <prefix>/station/<mac12>/state (JSON) and .../presence ("present"/"left").
void mqtt_station(mqtt_link &m, const std::string &mac, const std::string &json, bool present);
// Not retained: <prefix>/event, {"event":"enter"|"leave","mac":...,"time":...}.
void mqtt_event(mqtt_link &m, const char *kind, const std::string &mac, double unix_time);

// The topic part for a MAC: 12 lower-case hex digits.
std::string mqtt_mac_topic(const std::string &mac);

// Messages waiting in the library while the broker is away, at most.
constexpr int MQTT_QUEUE_MAX = 1000;

} // namespace lsrv
