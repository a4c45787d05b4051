// Station state from RSSI reports, positions through the position engine.
#include "srv_store.h"

namespace lsrv {

namespace {

void locate(store &s, st_station &st, double now)
{
    std::vector<pos_obs> obs;
    int best_rssi = -1000;
    for (const auto &[ap, r] : st.readings) {
        const site_ap *a = store_ap(s, ap);
        if (!a)
            continue; // unknown access points show readings, nothing more
        obs.push_back({a->x, a->y, a->floor, double(r.rssi), r.t});
        if (r.rssi > best_rssi) {
            best_rssi = r.rssi;
            st.floor = a->floor;
        }
    }
    if (obs.empty())
        return;
    st.fix = pos_track_update(st.track, obs, now, s.params);
    ++s.counts.solves;
    if (!st.fix.valid)
        return;
    st.trail.push_back({st.fix.x, st.fix.y});
    while (st.trail.size() > s.trail_len)
        st.trail.pop_front();
}

} // namespace

const site_ap *store_ap(const store &s, const mac_addr &ap)
{
    if (!s.where)
        return nullptr;
    if (const site_ap *a = site_find(*s.where, ap))
        return a;
    auto it = s.learned.find(ap);
    return it == s.learned.end() ? nullptr : site_find(*s.where, mac_addr{}, 0, it->second);
}

void store_hello(store &s, const mac_addr &mac, uint32_t ip, const std::string &name)
{
    if (!s.where)
        return;
    // A listed MAC wins; otherwise the site entry with this address or name.
    if (site_find(*s.where, mac))
        return;
    for (const site_ap &a : s.where->aps)
        if (!a.mac && ((ip && a.ip == ip) || (!a.ip && a.name == name))) {
            s.learned[mac] = a.name;
            return;
        }
}

void store_report(store &s, const std::string &owner, const mac_addr &owner_mac,
                  const std::vector<station> &stations, double now, std::vector<st_event> &ev)
{
    ++s.counts.reports;
    for (const station &in : stations) {
        if (in.readings.empty())
            continue; // nothing to place it with; expiry decides whether it left
        auto [it, fresh] = s.stations.try_emplace(in.mac);
        st_station &st = it->second;
        if (fresh) {
            st.mac = in.mac;
            st.first_seen = now;
        }
        for (const rssi_reading &r : in.readings)
            st.readings[r.ap] = {r.freq, r.rssi, now};
        st.owner = owner;
        st.owner_mac = owner_mac;
        st.last_seen = now;
        ++s.counts.station_updates;
        locate(s, st, now);
        if (!st.present) {
            st.present = true;
            st.first_seen = now;
            ev.push_back({ST_ENTER, st.mac});
        } else {
            ev.push_back({ST_MOVE, st.mac});
        }
    }
}

void store_expire(store &s, double now, std::vector<st_event> &ev)
{
    for (auto it = s.stations.begin(); it != s.stations.end();) {
        st_station &st = it->second;
        if (!st.present) {
            if (now - st.last_seen > s.forget_s) {
                ev.push_back({ST_FORGET, st.mac});
                it = s.stations.erase(it);
            } else {
                ++it;
            }
            continue;
        }
        std::erase_if(st.readings, [&](const auto &kv) { return now - kv.second.t > s.params.timeout_s; });
        if (st.readings.empty() || pos_track_expired(st.track, now, s.params)) {
            st.present = false;
            st.readings.clear();
            st.track = {};
            st.fix = {};
            st.trail.clear();
            ev.push_back({ST_LEAVE, st.mac});
        }
        ++it;
    }
}

} // namespace lsrv
