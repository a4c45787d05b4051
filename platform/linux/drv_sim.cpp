// Driver "sim": radios computed from the world file and from radio.sock, with the
// tracking switch, track objects, list match, statistics and injected failures.
#include <string.h>
#include <syslog.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <mutex>

#include "rt.h"
#include "rt_config.h"
#include "rt_life.h"
#include "rt_log.h"
#include "sim_radio.h"

struct sim_radio {
    std::mutex mu;
    std::string name;
    int world_radio = 0;      // index of this radio at its world access point
    uint16_t freq = 2412;
    int track = 0;
    int lmatch = 0;
    std::vector<sim_mac> macs;                 // track objects, in insertion order
    std::vector<std::array<uint8_t, 3>> ouis;
    lta_stats stats{};
    std::map<sim_mac, sim_heard> heard;        // injected readings
    std::map<sim_mac, uint16_t> assoc;         // injected: freq, or 0 = disassociated
};

namespace {

struct sim_global {
    std::mutex mu;
    bool world_tried = false;
    std::shared_ptr<const sim_world> world;
    int ap = -1;
    std::map<std::string, int> fails;
    std::map<std::string, std::shared_ptr<sim_radio>> radios; // owners of the state
    std::chrono::steady_clock::time_point epoch = std::chrono::steady_clock::now();
    std::function<double()> clock;
};

sim_global &g()
{
    static sim_global s;
    return s;
}

constexpr const char *k_ops[] = {"set_lta_track_enable", "set_lta_lmatch_enable",
                                 "set_lta_trackobj",     "get_lta_rpt_tbl",
                                 "get_radio_one_sta",    "get_lta_stats"};

bool sim_take_fail(const char *op)
{
    std::lock_guard l(g().mu);
    auto it = g().fails.find(op);
    if (it == g().fails.end() || it->second <= 0)
        return false;
    it->second--;
    return true;
}

double sim_now()
{
    std::lock_guard l(g().mu);
    if (g().clock)
        return g().clock();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - g().epoch).count();
}

// Loads the world once; false (logged) when it is configured but unusable.
bool sim_load_world_locked()
{
    sim_global &s = g();
    if (s.world_tried)
        return s.world || rt_cfg().sim_world.empty();
    s.world_tried = true;
    const rt_config &c = rt_cfg();
    if (c.sim_world.empty())
        return true;
    std::string err;
    auto w = sim_world_load(c.sim_world, err);
    if (!w) {
        rt_log(LOG_ERR, "sim.world: %s", err.c_str());
        return false;
    }
    std::string ap = c.sim_ap.empty() ? c.instance : c.sim_ap;
    s.ap = sim_world_find_ap(*w, ap);
    if (s.ap < 0) {
        rt_log(LOG_ERR, "sim.ap: no access point \"%s\" in %s", ap.c_str(), c.sim_world.c_str());
        return false;
    }
    s.world = w;
    return true;
}

sim_radio *priv(rt_radio *r) { return static_cast<sim_radio *>(r->priv); }

bool obj_matches(const sim_radio *s, const sim_mac &mac)
{
    if (std::find(s->macs.begin(), s->macs.end(), mac) != s->macs.end())
        return true;
    return std::any_of(s->ouis.begin(), s->ouis.end(),
                       [&](const auto &o) { return memcmp(o.data(), mac.data(), 3) == 0; });
}

int sim_open(rt_radio *r)
{
    std::unique_lock l(g().mu);
    if (!sim_load_world_locked())
        return -1;
    if (g().radios.count(r->cfg.name)) {
        rt_log(LOG_ERR, "sim: radio %s is configured twice", r->cfg.name.c_str());
        return -1;
    }
    auto s = std::make_shared<sim_radio>();
    s->name = r->cfg.name;
    s->world_radio = r->id;
    if (r->cfg.freq)
        s->freq = r->cfg.freq;
    else if (g().world) {
        const auto &radios = g().world->aps[static_cast<size_t>(g().ap)].radios;
        if (static_cast<size_t>(r->id) < radios.size())
            s->freq = radios[static_cast<size_t>(r->id)];
    }
    g().radios[s->name] = s;
    r->priv = s.get();
    l.unlock();
    rt_radio_sock_start();
    rt_life_started("radio.sock", rt_radio_sock_stop);
    return 0;
}

void sim_close(rt_radio *r)
{
    sim_radio *s = priv(r);
    if (!s)
        return;
    std::lock_guard l(g().mu);
    g().radios.erase(s->name);
    r->priv = nullptr;
}

int sim_set_track_enable(rt_radio *r, int enable)
{
    if (sim_take_fail("set_lta_track_enable"))
        return -1;
    std::lock_guard l(priv(r)->mu);
    priv(r)->track = enable ? 1 : 0;
    return 0;
}

int sim_set_lmatch(rt_radio *r, int value)
{
    if (sim_take_fail("set_lta_lmatch_enable"))
        return -1;
    std::lock_guard l(priv(r)->mu);
    priv(r)->lmatch = value;
    return 0;
}

int sim_set_trackobj(rt_radio *r, const lta_trackobj *obj)
{
    if (sim_take_fail("set_lta_trackobj") || !obj || obj->is_oui > 1 || obj->del > 1)
        return -1;
    sim_radio *s = priv(r);
    std::lock_guard l(s->mu);
    if (obj->is_oui) {
        std::array<uint8_t, 3> oui;
        memcpy(oui.data(), obj->mac, 3);
        auto it = std::find(s->ouis.begin(), s->ouis.end(), oui);
        if (obj->del) {
            if (it == s->ouis.end()) {
                s->stats.oui_no_node++;
                return -1;
            }
            s->ouis.erase(it);
        } else if (it == s->ouis.end()) {
            if (s->ouis.size() >= SIM_MAX_OUI_OBJ) {
                s->stats.oui_no_mem++;
                return -1;
            }
            s->ouis.push_back(oui);
        }
        return 0;
    }
    sim_mac mac;
    memcpy(mac.data(), obj->mac, 6);
    auto it = std::find(s->macs.begin(), s->macs.end(), mac);
    if (obj->del) {
        if (it == s->macs.end()) {
            s->stats.sta_no_node++;
            return -1;
        }
        s->macs.erase(it);
    } else if (it == s->macs.end()) {
        if (s->macs.size() >= SIM_MAX_MAC_OBJ) {
            s->stats.sta_no_mem++;
            return -1;
        }
        s->macs.push_back(mac);
    }
    return 0;
}

int sim_get_rpt_tbl(rt_radio *r, lta_rpt_entry *buf, int *count)
{
    if (sim_take_fail("get_lta_rpt_tbl") || !buf || !count || *count < 0)
        return -1;
    double t = sim_now();
    std::vector<sim_heard> world;
    std::shared_ptr<const sim_world> w;
    int ap;
    uint64_t seed = rt_cfg().sim_seed;
    {
        std::lock_guard l(g().mu);
        w = g().world;
        ap = g().ap;
    }
    sim_radio *s = priv(r);
    std::lock_guard l(s->mu);
    if (!s->track) {
        *count = 0;
        return 0;
    }
    std::map<sim_mac, sim_heard> all;
    if (w)
        sim_world_hear(*w, ap, s->world_radio, s->freq, t, seed, world);
    for (const auto &h : world)
        all[h.mac] = h;
    for (const auto &[mac, h] : s->heard)
        all[mac] = h; // what radio.sock says wins
    int n = 0;
    for (const auto &[mac, h] : all) {
        if (n >= *count)
            break;
        if (s->lmatch && !obj_matches(s, mac))
            continue;
        lta_rpt_entry &e = buf[n++];
        memcpy(e.mac, mac.data(), 6);
        e.active = h.active;
        e.rssi = h.rssi;
        e.chan_freq = h.freq;
    }
    *count = n;
    s->stats.rpt_cnt += static_cast<uint32_t>(n);
    return 0;
}

int sim_get_one_sta(rt_radio *r, const uint8_t *mac, void *buf, int buflen, int *len)
{
    if (sim_take_fail("get_radio_one_sta") || !mac || !buf || buflen < 10)
        return -1;
    sim_mac m;
    memcpy(m.data(), mac, 6);
    std::shared_ptr<const sim_world> w;
    int ap;
    {
        std::lock_guard l(g().mu);
        w = g().world;
        ap = g().ap;
    }
    sim_radio *s = priv(r);
    std::lock_guard l(s->mu);
    uint16_t freq = 0;
    if (auto it = s->assoc.find(m); it != s->assoc.end())
        freq = it->second;
    else if (w && sim_world_assoc(*w, ap, s->world_radio, m))
        freq = s->freq;
    if (!freq)
        return -1;
    // Record: u16 length, u16 channel frequency, station MAC.
    auto *b = static_cast<uint8_t *>(buf);
    uint16_t rec_len = 10;
    memset(b, 0, 10);
    memcpy(b, &rec_len, 2);
    memcpy(b + 2, &freq, 2);
    memcpy(b + 4, mac, 6);
    if (len)
        *len = rec_len;
    return 0;
}

int sim_get_stats(rt_radio *r, lta_stats *st)
{
    if (sim_take_fail("get_lta_stats") || !st)
        return -1;
    std::lock_guard l(priv(r)->mu);
    *st = priv(r)->stats;
    return 0;
}

} // namespace

const rt_driver_ops rt_driver_sim = {
    "sim",          sim_open,         sim_close,       sim_set_track_enable, sim_set_lmatch,
    sim_set_trackobj, sim_get_rpt_tbl, sim_get_one_sta, sim_get_stats,
};

std::shared_ptr<sim_radio> sim_radio_find(const std::string &name)
{
    std::lock_guard l(g().mu);
    auto it = g().radios.find(name);
    return it == g().radios.end() ? nullptr : it->second;
}

std::string sim_hear(sim_radio *r, const sim_heard &h)
{
    std::lock_guard l(r->mu);
    r->heard[h.mac] = h;
    return {};
}

std::string sim_forget(sim_radio *r, const sim_mac &mac)
{
    std::lock_guard l(r->mu);
    return r->heard.erase(mac) ? "" : sim_mac_text(mac.data()) + " is not heard on " + r->name;
}

void sim_clear(sim_radio *r)
{
    std::lock_guard l(r->mu);
    r->heard.clear();
}

std::string sim_assoc(sim_radio *r, const sim_mac &mac, uint16_t freq)
{
    std::lock_guard l(r->mu);
    r->assoc[mac] = freq;
    return {};
}

std::string sim_disassoc(sim_radio *r, const sim_mac &mac)
{
    // Associated through the world or radio.sock: remember the disassociation.
    bool was;
    {
        std::shared_ptr<const sim_world> w;
        int ap;
        {
            std::lock_guard l(g().mu);
            w = g().world;
            ap = g().ap;
        }
        std::lock_guard l(r->mu);
        auto it = r->assoc.find(mac);
        was = it != r->assoc.end() ? it->second != 0
                                   : w && sim_world_assoc(*w, ap, r->world_radio, mac);
        if (was)
            r->assoc[mac] = 0;
    }
    return was ? "" : sim_mac_text(mac.data()) + " is not associated on " + r->name;
}

std::string sim_fail(const std::string &op, int count)
{
    if (std::find_if(std::begin(k_ops), std::end(k_ops), [&](const char *o) { return op == o; }) ==
        std::end(k_ops))
        return "unknown operation " + op;
    if (count < 0)
        return "negative count";
    std::lock_guard l(g().mu);
    g().fails[op] = count;
    return {};
}

std::string sim_state_text(sim_radio *r)
{
    std::lock_guard l(r->mu);
    std::string s = "track " + std::to_string(r->track) + "\nlmatch " + std::to_string(r->lmatch) + "\n";
    for (const auto &m : r->macs)
        s += "obj mac " + sim_mac_text(m.data()) + "\n";
    for (const auto &o : r->ouis)
        s += "obj oui " + sim_mac_text(o.data(), 3) + "\n";
    const lta_stats &st = r->stats;
    s += "stats " + std::to_string(st.rpt_cnt) + " " + std::to_string(st.sta_no_node) + " " +
         std::to_string(st.oui_no_node) + " " + std::to_string(st.sta_no_mem) + " " +
         std::to_string(st.oui_no_mem) + "\n";
    return s;
}

void sim_set_clock(std::function<double()> clock)
{
    std::lock_guard l(g().mu);
    g().clock = std::move(clock);
}

void sim_reset()
{
    std::lock_guard l(g().mu);
    g().world_tried = false;
    g().world.reset();
    g().ap = -1;
    g().fails.clear();
    g().clock = nullptr;
    g().epoch = std::chrono::steady_clock::now();
}
