// Driver "sim": radios computed from the world file and from radio.sock, with the
// tracking switch, track objects, list match, statistics and injected failures.
#include <string.h>
#include <syslog.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <mutex>
#include <utility>

#include "drv_track.h"
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
    drv_track trk;
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
    // A shared epoch puts every instance of a site on one clock, which an observer
    // outside can follow too.
    if (double e = rt_driver_conf<sim_conf>(rt_cfg(), "sim").epoch; e >= 0)
        return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count() - e;
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - g().epoch).count();
}

// Loads the world once; false (logged) when it is configured but unusable.
bool sim_load_world_locked()
{
    sim_global &s = g();
    const sim_conf &c = rt_driver_conf<sim_conf>(rt_cfg(), "sim");
    if (s.world_tried)
        return s.world || c.world.empty();
    s.world_tried = true;
    if (c.world.empty())
        return true;
    std::string err;
    auto w = sim_world_load(c.world, err);
    if (!w) {
        rt_log(LOG_ERR, "sim.world: %s", err.c_str());
        return false;
    }
    std::string ap = c.ap.empty() ? rt_cfg().instance : c.ap;
    s.ap = sim_world_find_ap(*w, ap);
    if (s.ap < 0) {
        rt_log(LOG_ERR, "sim.ap: no access point \"%s\" in %s", ap.c_str(), c.world.c_str());
        return false;
    }
    s.world = w;
    return true;
}

sim_radio *priv(rt_radio *r) { return static_cast<sim_radio *>(r->priv); }

bool sim_section_key(rt_config &c, const rt_cfg_key &k)
{
    sim_conf &sc = rt_driver_conf<sim_conf>(c, "sim");
    int64_t seed;
    if (strcmp(k.key, "world") == 0)
        return rt_cfg_str(k, sc.world);
    if (strcmp(k.key, "ap") == 0)
        return rt_cfg_str(k, sc.ap);
    if (strcmp(k.key, "epoch") == 0)
        return rt_cfg_num(k, sc.epoch, 0, 1e11);
    if (strcmp(k.key, "seed") != 0)
        return rt_cfg_fail(k, "unknown key");
    if (!rt_cfg_int(k, seed, 0, INT64_MAX))
        return false;
    sc.seed = static_cast<uint64_t>(seed);
    return true;
}

bool sim_config_key(rt_radio_cfg &cfg, const rt_cfg_key &k)
{
    if (strcmp(k.key, "freq") != 0)
        return rt_cfg_fail(k, "unknown key");
    int64_t v;
    if (!rt_cfg_int(k, v, 0, 65535))
        return false;
    rt_radio_conf<sim_radio_conf>(cfg).freq = static_cast<uint16_t>(v);
    return true;
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
    if (uint16_t f = rt_radio_conf<sim_radio_conf>(std::as_const(r->cfg)).freq)
        s->freq = f;
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
    drv_set_track(priv(r)->trk, enable);
    return 0;
}

int sim_set_lmatch(rt_radio *r, int value)
{
    if (sim_take_fail("set_lta_lmatch_enable"))
        return -1;
    std::lock_guard l(priv(r)->mu);
    drv_set_lmatch(priv(r)->trk, value);
    return 0;
}

int sim_set_trackobj(rt_radio *r, const lta_trackobj *obj)
{
    if (sim_take_fail("set_lta_trackobj"))
        return -1;
    std::lock_guard l(priv(r)->mu);
    return drv_set_trackobj(priv(r)->trk, obj);
}

int sim_get_rpt_tbl(rt_radio *r, lta_rpt_entry *buf, int *count)
{
    if (sim_take_fail("get_lta_rpt_tbl") || !buf || !count || *count < 0)
        return -1;
    double t = sim_now();
    std::vector<sim_heard> world;
    std::shared_ptr<const sim_world> w;
    int ap;
    uint64_t seed = rt_driver_conf<sim_conf>(rt_cfg(), "sim").seed;
    {
        std::lock_guard l(g().mu);
        w = g().world;
        ap = g().ap;
    }
    sim_radio *s = priv(r);
    std::lock_guard l(s->mu);
    if (!s->trk.track) {
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
    std::vector<drv_heard> heard;
    heard.reserve(all.size());
    for (const auto &kv : all)
        heard.push_back(kv.second);
    drv_report(s->trk, heard, buf, count);
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
    return drv_one_sta(buf, buflen, mac, freq, len);
}

int sim_get_stats(rt_radio *r, lta_stats *st)
{
    if (sim_take_fail("get_lta_stats") || !st)
        return -1;
    std::lock_guard l(priv(r)->mu);
    *st = priv(r)->trk.stats;
    return 0;
}

} // namespace

const rt_driver_ops rt_driver_sim = {
    .name = "sim",
    .config_key = sim_config_key,
    .section_key = sim_section_key,
    .open = sim_open,
    .close = sim_close,
    .set_track_enable = sim_set_track_enable,
    .set_lmatch = sim_set_lmatch,
    .set_trackobj = sim_set_trackobj,
    .get_rpt_tbl = sim_get_rpt_tbl,
    .get_one_sta = sim_get_one_sta,
    .get_stats = sim_get_stats,
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
    return r->heard.erase(mac) ? "" : drv_mac_text(mac.data()) + " is not heard on " + r->name;
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
    return was ? "" : drv_mac_text(mac.data()) + " is not associated on " + r->name;
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
    return drv_track_text(r->trk);
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
