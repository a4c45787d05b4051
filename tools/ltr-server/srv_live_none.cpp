// ltr-server built without cpp-httplib and libmosquitto: --http and --mqtt refuse.
#include "srv_http.h"
#include "srv_mqtt.h"

namespace lsrv {

struct http_server {};
struct mqtt_link {};

std::unique_ptr<http_server, void (*)(http_server *)> http_start(const std::string &, std::string &err)
{
    err = "--http: this ltr-server was built without cpp-httplib";
    return {nullptr, [](http_server *) {}};
}
void http_set_aps(http_server &, const std::string &) {}
void http_set_station(http_server &, const std::string &, const std::string &) {}
void http_drop_station(http_server &, const std::string &) {}
void http_set_stats(http_server &, const std::string &) {}

mqtt_ptr mqtt_start(const std::string &, const std::string &, const std::string &, std::string &err)
{
    err = "--mqtt: this ltr-server was built without libmosquitto";
    return {nullptr, [](mqtt_link *) {}};
}
bool mqtt_take_connected(mqtt_link &) { return false; }
void mqtt_station(mqtt_link &, const std::string &, const std::string &, bool) {}
void mqtt_event(mqtt_link &, const char *, const std::string &, double) {}
std::string mqtt_mac_topic(const std::string &mac) { return mac; }

} // namespace lsrv
