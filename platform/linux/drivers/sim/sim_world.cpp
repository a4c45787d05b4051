// World file loading, station movement and the path-loss model of the simulated radios.
#include "sim_world.h"

#include <arpa/inet.h>
#include <math.h>
#include <stdio.h>

#include <algorithm>
#include <set>
#include <sstream>

#include <toml++/toml.h>

#include "mac_text.h"
#include "rt_config.h"

namespace {

struct world_error {
    std::string msg;
};

[[noreturn]] void fail(const toml::node &n, const std::string &key, const std::string &what)
{
    throw world_error{std::to_string(n.source().begin.line) + ": " + key + ": " + what};
}

void only_keys(const toml::table &t, const std::string &where, std::initializer_list<const char *> keys)
{
    for (auto &&[k, v] : t) {
        bool known = std::any_of(keys.begin(), keys.end(), [&key = k](const char *s) { return key.str() == s; });
        if (!known)
            fail(v, where + std::string(k.str()), "unknown key");
    }
}

double num(const toml::node &n, const std::string &key)
{
    if (auto d = n.value<double>(); d && (n.is_integer() || n.is_floating_point()))
        return *d;
    fail(n, key, "expected a number");
}

sim_point point(const toml::node &n, const std::string &key)
{
    const toml::array *a = n.as_array();
    if (!a || a->size() != 2)
        fail(n, key, "expected [x, y]");
    return {num(*a->get(0), key), num(*a->get(1), key)};
}

std::string str(const toml::node &n, const std::string &key)
{
    if (!n.is_string())
        fail(n, key, "expected a string");
    return *n.value<std::string>();
}

const toml::table &table_of(const toml::node &n, const std::string &key)
{
    if (!n.is_table())
        fail(n, key, "expected a table");
    return *n.as_table();
}

void parse_model(const toml::table &t, sim_model &m)
{
    only_keys(t, "model.", {"ref_rssi", "exponent", "noise", "floor"});
    if (auto n = t.get("ref_rssi"))
        m.ref_rssi = num(*n, "model.ref_rssi");
    if (auto n = t.get("exponent")) {
        m.exponent = num(*n, "model.exponent");
        if (m.exponent <= 0 || m.exponent > 10)
            fail(*n, "model.exponent", "must be in (0, 10]");
    }
    if (auto n = t.get("noise")) {
        m.noise = num(*n, "model.noise");
        if (m.noise < 0)
            fail(*n, "model.noise", "must not be negative");
    }
    if (auto n = t.get("floor"))
        m.floor = static_cast<int>(num(*n, "model.floor"));
}

void parse_aps(const toml::node &n, sim_world &w)
{
    const toml::array *arr = n.as_array();
    if (!arr)
        fail(n, "ap", "expected [[ap]] tables");
    for (auto &&e : *arr) {
        const toml::table &t = table_of(e, "ap");
        // mac, ip and floor place the access point for the location server, which reads
        // the same file; the radios do not need them, but a typo should not pass.
        only_keys(t, "ap.", {"name", "position", "radios", "mac", "ip", "floor"});
        sim_world_ap ap;
        auto name = t.get("name");
        if (!name)
            fail(e, "ap.name", "missing");
        ap.name = str(*name, "ap.name");
        if (sim_world_find_ap(w, ap.name) >= 0)
            fail(*name, "ap.name", "duplicate access point " + ap.name);
        if (auto p = t.get("position"))
            ap.pos = point(*p, "ap.position");
        else
            fail(e, "ap.position", "missing");
        if (auto r = t.get("radios")) {
            const toml::array *ra = r->as_array();
            if (!ra)
                fail(*r, "ap.radios", "expected an array of frequencies");
            for (auto &&f : *ra) {
                double v = num(f, "ap.radios");
                if (v < 1 || v > 65535)
                    fail(f, "ap.radios", "frequency out of range");
                ap.radios.push_back(static_cast<uint16_t>(v));
            }
        }
        if (auto m = t.get("mac"); m && !sim_parse_hex(str(*m, "ap.mac"), sim_mac{}.data(), 6))
            fail(*m, "ap.mac", "expected aa:bb:cc:dd:ee:ff");
        if (auto a = t.get("ip")) {
            in_addr ip{};
            if (inet_pton(AF_INET, str(*a, "ap.ip").c_str(), &ip) != 1)
                fail(*a, "ap.ip", "expected an IPv4 address");
        }
        if (auto f = t.get("floor"); f && !f->is_integer())
            fail(*f, "ap.floor", "expected a whole number");
        w.aps.push_back(std::move(ap));
    }
}

void parse_stations(const toml::node &n, sim_world &w)
{
    const toml::array *arr = n.as_array();
    if (!arr)
        fail(n, "station", "expected [[station]] tables");
    std::set<sim_mac> seen;
    for (auto &&e : *arr) {
        const toml::table &t = table_of(e, "station");
        only_keys(t, "station.", {"mac", "position", "path", "speed", "active", "assoc", "assoc_radio"});
        sim_world_sta s;
        auto mac = t.get("mac");
        if (!mac)
            fail(e, "station.mac", "missing");
        if (!sim_parse_hex(str(*mac, "station.mac"), s.mac.data(), 6))
            fail(*mac, "station.mac", "expected aa:bb:cc:dd:ee:ff");
        if (!seen.insert(s.mac).second)
            fail(*mac, "station.mac", "duplicate station");
        if (auto p = t.get("position"))
            s.pos = point(*p, "station.position");
        else
            fail(e, "station.position", "missing");
        if (auto p = t.get("path")) {
            const toml::array *pa = p->as_array();
            if (!pa)
                fail(*p, "station.path", "expected an array of [x, y]");
            for (auto &&q : *pa)
                s.path.push_back(point(q, "station.path"));
        }
        if (auto p = t.get("speed")) {
            s.speed = num(*p, "station.speed");
            if (s.speed < 0)
                fail(*p, "station.speed", "must not be negative");
        }
        if (auto p = t.get("active")) {
            if (!p->is_boolean())
                fail(*p, "station.active", "expected true or false");
            s.active = *p->value<bool>();
        }
        if (auto p = t.get("assoc")) {
            std::string ap = str(*p, "station.assoc");
            s.assoc_ap = sim_world_find_ap(w, ap);
            if (s.assoc_ap < 0)
                fail(*p, "station.assoc", "no access point " + ap);
        }
        if (auto p = t.get("assoc_radio")) {
            if (!p->is_integer() || *p->value<int64_t>() < 0)
                fail(*p, "station.assoc_radio", "expected a radio index");
            s.assoc_radio = static_cast<int>(*p->value<int64_t>());
        }
        w.stations.push_back(std::move(s));
    }
}

// splitmix64: a well-mixed, seedable, stateless source of noise.
uint64_t mix(uint64_t x)
{
    x += 0x9e3779b97f4a7c15ull;
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ull;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebull;
    return x ^ (x >> 31);
}

// Standard normal sample, a pure function of its inputs.
double gauss(uint64_t key)
{
    uint64_t a = mix(key), b = mix(a);
    double u1 = (static_cast<double>(a >> 11) + 1.0) / 9007199254740993.0; // (0, 1]
    double u2 = static_cast<double>(b >> 11) / 9007199254740992.0;
    return sqrt(-2.0 * log(u1)) * cos(2.0 * M_PI * u2);
}

} // namespace

std::shared_ptr<const sim_world> sim_world_parse(const std::string &text, const std::string &name,
                                                 std::string &err)
{
    auto w = std::make_shared<sim_world>();
    try {
        toml::table root = toml::parse(text, name);
        only_keys(root, "", {"model", "ap", "station"});
        if (auto m = root.get("model"))
            parse_model(table_of(*m, "model"), w->model);
        if (auto a = root.get("ap"))
            parse_aps(*a, *w);
        if (auto s = root.get("station"))
            parse_stations(*s, *w);
    } catch (const toml::parse_error &e) {
        err = name + ":" + std::to_string(e.source().begin.line) + ": " + std::string(e.description());
        return nullptr;
    } catch (const world_error &e) {
        err = name + ":" + e.msg;
        return nullptr;
    }
    return w;
}

std::shared_ptr<const sim_world> sim_world_load(const std::string &path, std::string &err)
{
    // A FIFO would block the start, a device never end.
    std::string text, why;
    if (!rt_read_regular(path, 4 << 20, false, text, why)) {
        err = path + ": " + why;
        return nullptr;
    }
    return sim_world_parse(text, path, err);
}

int sim_world_find_ap(const sim_world &w, const std::string &name)
{
    for (size_t i = 0; i < w.aps.size(); i++)
        if (w.aps[i].name == name)
            return static_cast<int>(i);
    return -1;
}

sim_point sim_station_pos(const sim_world_sta &s, double t)
{
    if (s.path.empty() || s.speed <= 0)
        return s.pos;
    std::vector<sim_point> loop{s.pos};
    loop.insert(loop.end(), s.path.begin(), s.path.end());
    loop.push_back(s.pos);
    double total = 0;
    for (size_t i = 1; i < loop.size(); i++)
        total += hypot(loop[i].x - loop[i - 1].x, loop[i].y - loop[i - 1].y);
    if (total <= 0)
        return s.pos;
    double left = fmod(s.speed * std::max(t, 0.0), total);
    for (size_t i = 1; i < loop.size(); i++) {
        double seg = hypot(loop[i].x - loop[i - 1].x, loop[i].y - loop[i - 1].y);
        if (left <= seg && seg > 0) {
            double f = left / seg;
            return {loop[i - 1].x + f * (loop[i].x - loop[i - 1].x),
                    loop[i - 1].y + f * (loop[i].y - loop[i - 1].y)};
        }
        left -= seg;
    }
    return s.pos;
}

double sim_path_rssi(const sim_model &m, double d, uint16_t freq)
{
    double f = freq ? freq : 2412;
    return m.ref_rssi - 10.0 * m.exponent * log10(std::max(d, 1.0)) - 20.0 * log10(f / 2412.0);
}

void sim_world_hear(const sim_world &w, int ap, int radio, uint16_t freq, double t, uint64_t seed,
                    std::vector<sim_heard> &out)
{
    if (ap < 0 || ap >= static_cast<int>(w.aps.size()))
        return;
    const sim_world_ap &a = w.aps[static_cast<size_t>(ap)];
    // Noise changes once a second, so a fetch repeated within the second agrees.
    auto tick = static_cast<uint64_t>(std::max(t, 0.0));
    for (const sim_world_sta &s : w.stations) {
        sim_point p = sim_station_pos(s, t);
        double d = hypot(p.x - a.pos.x, p.y - a.pos.y);
        uint64_t key = mix(seed) ^ mix(static_cast<uint64_t>(ap) << 8 | static_cast<uint64_t>(radio));
        for (uint8_t b : s.mac)
            key = mix(key ^ b);
        double r = sim_path_rssi(w.model, d, freq) + w.model.noise * gauss(key ^ mix(tick));
        long v = lround(r);
        if (v < w.model.floor || v < -127)
            continue;
        sim_heard h;
        h.mac = s.mac;
        h.rssi = static_cast<int8_t>(std::min(v, 0L));
        h.active = s.active ? 1 : 0;
        h.freq = freq;
        out.push_back(h);
    }
}

bool sim_world_assoc(const sim_world &w, int ap, int radio, const sim_mac &mac)
{
    for (const sim_world_sta &s : w.stations)
        if (s.mac == mac)
            return s.assoc_ap == ap && s.assoc_radio == radio;
    return false;
}

bool sim_parse_hex(const std::string &s, uint8_t *out, int n)
{
    return n == 6 ? ltr_mac_parse(s, out) : n == 3 && ltr_oui_parse(s, out);
}

