// Site file: the [[ap]] tables of a world file, checked as strictly as the simulated
// radios check them; the other tables belong to the simulator.
#include "srv_site.h"

#include <arpa/inet.h>

#include <fstream>
#include <sstream>

#include <toml++/toml.h>

namespace lsrv {

namespace {

struct site_error {
    std::string msg;
};

[[noreturn]] void fail(const toml::node &n, const std::string &key, const std::string &what)
{
    throw site_error{std::to_string(n.source().begin.line) + ": " + key + ": " + what};
}

double num(const toml::node &n, const std::string &key)
{
    if (auto d = n.value<double>(); d && (n.is_integer() || n.is_floating_point()))
        return *d;
    fail(n, key, "expected a number");
}

std::string str(const toml::node &n, const std::string &key)
{
    if (!n.is_string())
        fail(n, key, "expected a string");
    return *n.value<std::string>();
}

site_ap parse_ap(const toml::node &e, const site &s)
{
    const toml::table *t = e.as_table();
    if (!t)
        fail(e, "ap", "expected a table");
    for (auto &&[k, v] : *t)
        if (k != "name" && k != "position" && k != "radios" && k != "mac" && k != "ip" && k != "floor")
            fail(v, "ap." + std::string(k.str()), "unknown key");
    site_ap ap;
    auto name = t->get("name");
    if (!name)
        fail(e, "ap.name", "missing");
    ap.name = str(*name, "ap.name");
    for (const site_ap &o : s.aps)
        if (o.name == ap.name)
            fail(*name, "ap.name", "duplicate access point " + ap.name);
    auto pos = t->get("position");
    const toml::array *pa = pos ? pos->as_array() : nullptr;
    if (!pos)
        fail(e, "ap.position", "missing");
    if (!pa || pa->size() != 2)
        fail(*pos, "ap.position", "expected [x, y]");
    ap.x = num(*pa->get(0), "ap.position");
    ap.y = num(*pa->get(1), "ap.position");
    if (auto m = t->get("mac")) {
        mac_addr v{};
        if (!parse_mac(str(*m, "ap.mac"), v))
            fail(*m, "ap.mac", "expected aa:bb:cc:dd:ee:ff");
        for (const site_ap &o : s.aps)
            if (o.mac == v)
                fail(*m, "ap.mac", "also the MAC of " + o.name);
        ap.mac = v;
    }
    if (auto a = t->get("ip")) {
        in_addr v{};
        if (inet_pton(AF_INET, str(*a, "ap.ip").c_str(), &v) != 1)
            fail(*a, "ap.ip", "expected an IPv4 address");
        ap.ip = v.s_addr;
    }
    if (auto f = t->get("floor")) {
        if (!f->is_integer())
            fail(*f, "ap.floor", "expected a whole number");
        ap.floor = int(*f->value<int64_t>());
    }
    return ap;
}

} // namespace

bool site_parse(const std::string &text, const std::string &name, site &out, std::string &err)
{
    site s;
    try {
        toml::table root = toml::parse(text, name);
        if (auto m = root.get("model"); m && m->is_table()) {
            const toml::table &mt = *m->as_table();
            if (auto r = mt.get("ref_rssi"))
                s.model.rssi_at_1m = num(*r, "model.ref_rssi");
            if (auto x = mt.get("exponent"))
                s.model.path_loss_exp = num(*x, "model.exponent");
        }
        if (auto a = root.get("ap")) {
            const toml::array *arr = a->as_array();
            if (!arr)
                fail(*a, "ap", "expected [[ap]] tables");
            for (auto &&e : *arr)
                s.aps.push_back(parse_ap(e, s));
        }
    } catch (const toml::parse_error &e) {
        err = name + ":" + std::to_string(e.source().begin.line) + ": " + std::string(e.description());
        return false;
    } catch (const site_error &e) {
        err = name + ":" + e.msg;
        return false;
    }
    if (s.aps.empty()) {
        err = name + ": no [[ap]] table";
        return false;
    }
    for (size_t i = 0; i < s.aps.size(); ++i)
        if (s.aps[i].mac)
            s.by_mac[*s.aps[i].mac] = i;
    out = std::move(s);
    return true;
}

bool site_load(const std::string &path, site &out, std::string &err)
{
    std::ifstream f(path);
    if (!f) {
        err = path + ": cannot read";
        return false;
    }
    std::stringstream ss;
    ss << f.rdbuf();
    return site_parse(ss.str(), path, out, err);
}

const site_ap *site_find(const site &s, const mac_addr &mac, uint32_t ip, const std::string &name)
{
    if (auto it = s.by_mac.find(mac); it != s.by_mac.end())
        return &s.aps[it->second];
    for (const site_ap &a : s.aps)
        if (ip && a.ip == ip)
            return &a;
    for (const site_ap &a : s.aps)
        if (!name.empty() && a.name == name)
            return &a;
    return nullptr;
}

} // namespace lsrv
