#include "srv_json.h"

#include <map>
#include <set>

namespace lsrv {

using nlohmann::json;

json station_json(const store &s, const st_station &st, double now, double unix_now)
{
    json j;
    j["mac"] = mac_str(st.mac.data());
    j["present"] = st.present;
    j["owner"] = st.owner;
    j["owner_mac"] = mac_str(st.owner_mac.data());
    j["last_seen"] = unix_now - (now - st.last_seen);
    j["age"] = now - st.last_seen;
    if (st.fix.valid) {
        j["position"] = {{"x", st.fix.x}, {"y", st.fix.y}, {"radius", st.fix.radius},
                         {"floor", st.floor}};
    } else {
        j["position"] = nullptr;
    }
    json trail = json::array();
    for (const st_point &p : st.trail)
        trail.push_back({p.x, p.y});
    j["trail"] = std::move(trail);
    json rd = json::array();
    for (const auto &[ap, r] : st.readings) {
        const site_ap *a = store_ap(s, ap);
        rd.push_back({{"ap_mac", mac_str(ap.data())},
                      {"ap", a ? json(a->name) : json(nullptr)},
                      {"freq", r.freq},
                      {"rssi", r.rssi},
                      {"age", now - r.t}});
    }
    j["readings"] = std::move(rd);
    return j;
}

json aps_json(const store &s, const std::vector<ap_ident> &connected)
{
    json out = json::array();
    std::set<mac_addr> listed;
    std::map<const site_ap *, const ap_ident *> placed; // site entry -> its connection
    for (const ap_ident &c : connected)
        if (const site_ap *a = store_ap(s, c.mac))
            placed.emplace(a, &c);
    auto conn_of = [&](const site_ap &a) -> const ap_ident * {
        auto it = placed.find(&a);
        return it == placed.end() ? nullptr : it->second;
    };
    if (s.where)
        for (const site_ap &a : s.where->aps) {
            const ap_ident *c = conn_of(a);
            json j = {{"name", a.name}, {"x", a.x}, {"y", a.y}, {"floor", a.floor},
                      {"in_site", true}, {"connected", c != nullptr}};
            if (c || a.mac)
                j["mac"] = mac_str(c ? c->mac.data() : a.mac->data());
            if (c || a.ip)
                j["ip"] = ip_str(c ? c->ip : *a.ip);
            if (c)
                listed.insert(c->mac);
            if (a.mac)
                listed.insert(*a.mac);
            out.push_back(std::move(j));
        }
    for (const ap_ident &c : connected)
        if (listed.insert(c.mac).second)
            out.push_back({{"name", c.name}, {"mac", mac_str(c.mac.data())}, {"ip", ip_str(c.ip)},
                           {"in_site", false}, {"connected", true}});
    for (const auto &[mac, st] : s.stations)
        for (const auto &[ap, r] : st.readings)
            if (!store_ap(s, ap) && listed.insert(ap).second)
                out.push_back({{"name", nullptr}, {"mac", mac_str(ap.data())}, {"in_site", false},
                               {"connected", false}});
    return out;
}

} // namespace lsrv
