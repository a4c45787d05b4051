// The runtime's configuration: a TOML file read once at start-up. Every key is known
// here; an unknown key or a wrong value is an error naming file, line and key.
#include "mac_text.h"
#include "rt.h"
#include "rt_config.h"
#include "rt_crypto.h"
#include "rt_log.h"
#include "srvchan.h"
#include "srvchan_transport.h"

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/un.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>
#include <set>
#include <span>
#include <toml++/toml.h>

namespace {

constexpr size_t max_config_bytes = 1 << 20;
constexpr size_t max_key_bytes = 4096;
// "/events.sock", the longest socket name, and its NUL must fit sun_path.
constexpr size_t max_runtime_dir = sizeof(sockaddr_un::sun_path) - sizeof("/events.sock");

// Where a key sits: its dotted name and the line it is written on.
struct key_ctx {
    const std::string &file;
    std::string name;
    int line;
    std::string *err;

    bool fail(const std::string &what) const
    {
        *err = file + ":" + std::to_string(line) + ": " + name + ": " + what;
        return false;
    }
};

bool get_bool(const key_ctx &k, const toml::node &n, bool &out)
{
    auto v = n.value_exact<bool>();
    if (!v)
        return k.fail("expected true or false");
    out = *v;
    return true;
}

bool get_str(const key_ctx &k, const toml::node &n, std::string &out, bool allow_empty = false)
{
    auto v = n.value_exact<std::string>();
    if (!v)
        return k.fail("expected a string");
    if (!allow_empty && v->empty())
        return k.fail("must not be empty");
    if (v->find('\0') != std::string::npos)
        return k.fail("must not contain a NUL character");
    out = *v;
    return true;
}

template <typename T>
bool get_int(const key_ctx &k, const toml::node &n, T &out, int64_t lo, int64_t hi)
{
    auto v = n.value_exact<int64_t>();
    if (!v)
        return k.fail("expected an integer");
    if (*v < lo || *v > hi)
        return k.fail("must be between " + std::to_string(lo) + " and " + std::to_string(hi));
    out = (T)*v;
    return true;
}

bool parse_ipv4(const std::string &s, uint32_t &ip)
{
    in_addr a;
    if (inet_pton(AF_INET, s.c_str(), &a) != 1)
        return false;
    ip = a.s_addr;
    return true;
}

bool get_ipv4_text(const key_ctx &k, const toml::node &n, std::string &out)
{
    uint32_t ip;
    if (!get_str(k, n, out))
        return false;
    if (!parse_ipv4(out, ip))
        return k.fail("expected an IPv4 address such as \"192.0.2.1\"");
    return true;
}

bool get_ifname(const key_ctx &k, const toml::node &n, std::string &out)
{
    if (!get_str(k, n, out))
        return false;
    if (out.size() > 15 || out.find_first_of("/ \t:") != std::string::npos)
        return k.fail("expected an interface name (at most 15 characters, no '/', ':' or blanks)");
    return true;
}

bool parse_mac(const std::string &s, std::array<uint8_t, 6> &mac)
{
    return ltr_mac_parse(s, mac.data());
}

bool valid_instance(const std::string &s)
{
    if (s.empty() || s.size() > 64 || s[0] == '.')
        return false;
    for (char c : s)
        if (!isalnum((unsigned char)c) && c != '-' && c != '_' && c != '.')
            return false;
    return true;
}

// One key of a section: its name and how its value lands in the configuration.
using setter_fn = bool (*)(const key_ctx &k, const toml::node &n, rt_config &c);
struct key_def {
    const char *name;
    setter_fn set;
};

constexpr key_def top_keys[] = {
    {"instance",
     [](const key_ctx &k, const toml::node &n, rt_config &c) {
         if (!get_str(k, n, c.instance))
             return false;
         if (!valid_instance(c.instance))
             return k.fail("expected letters, digits, '-', '_' or '.' (at most 64, not starting "
                           "with '.')");
         return true;
     }},
    {"runtime_dir",
     [](const key_ctx &k, const toml::node &n, rt_config &c) {
         if (!get_str(k, n, c.runtime_dir))
             return false;
         if (c.runtime_dir[0] != '/')
             return k.fail("expected an absolute path");
         // The sockets live in it: the longest name must still fit a socket address.
         if (c.runtime_dir.size() > max_runtime_dir)
             return k.fail("too long for its sockets (at most " + std::to_string(max_runtime_dir) +
                           " characters)");
         return true;
     }},
    {"foreground", [](const key_ctx &k, const toml::node &n, rt_config &c) {
         return get_bool(k, n, c.foreground);
     }},
};

constexpr key_def log_keys[] = {
    {"syslog", [](const key_ctx &k, const toml::node &n, rt_config &c) {
         return get_bool(k, n, c.log_syslog);
     }},
    {"file", [](const key_ctx &k, const toml::node &n, rt_config &c) {
         return get_str(k, n, c.log_file);
     }},
    {"stderr", [](const key_ctx &k, const toml::node &n, rt_config &c) {
         return get_bool(k, n, c.log_stderr);
     }},
};

constexpr key_def mgt_keys[] = {
    {"interface", [](const key_ctx &k, const toml::node &n, rt_config &c) {
         return get_ifname(k, n, c.mgt_interface);
     }},
    {"mac",
     [](const key_ctx &k, const toml::node &n, rt_config &c) {
         std::string s;
         std::array<uint8_t, 6> mac;
         if (!get_str(k, n, s))
             return false;
         if (!parse_mac(s, mac))
             return k.fail("expected a MAC address such as \"02:00:00:00:00:01\"");
         c.mgt_mac = mac;
         return true;
     }},
    {"ip",
     [](const key_ctx &k, const toml::node &n, rt_config &c) {
         std::string s;
         uint32_t ip = 0;
         if (!get_ipv4_text(k, n, s))
             return false;
         parse_ipv4(s, ip);
         c.mgt_ip = ip;
         return true;
     }},
};

constexpr key_def server_keys[] = {
    {"address",
     [](const key_ctx &k, const toml::node &n, rt_config &c) {
         if (!get_str(k, n, c.server_address))
             return false;
         // The channel's own split: whatever is accepted here, it can connect to.
         std::string host, port;
         if (srv_split_address(c.server_address, host, port))
             return true;
         const std::string &a = c.server_address;
         if (a[0] != '[' && std::count(a.begin(), a.end(), ':') > 1)
             return k.fail("expected an IPv6 address in brackets: \"[address]:port\"");
         return k.fail("expected \"host:port\" with a port from 1 to 65535");
     }},
    {"queue_limit", [](const key_ctx &k, const toml::node &n, rt_config &c) {
         return get_int(k, n, c.server_queue_limit, 0, 1 << 30);
     }},
    {"tls",
     [](const key_ctx &k, const toml::node &n, rt_config &c) {
         bool on = false;
         if (!get_bool(k, n, on))
             return false;
         c.server_tls = on;
         return true;
     }},
    {"ca_file", [](const key_ctx &k, const toml::node &n, rt_config &c) {
         return get_str(k, n, c.server_ca_file);
     }},
    {"server_name", [](const key_ctx &k, const toml::node &n, rt_config &c) {
         return get_str(k, n, c.server_name);
     }},
    {"cert_file", [](const key_ctx &k, const toml::node &n, rt_config &c) {
         return get_str(k, n, c.server_cert_file);
     }},
    {"key_file", [](const key_ctx &k, const toml::node &n, rt_config &c) {
         return get_str(k, n, c.server_key_file);
     }},
};

constexpr key_def neighbours_keys[] = {
    {"port", [](const key_ctx &k, const toml::node &n, rt_config &c) {
         return get_int(k, n, c.nb_port, 1, 65535);
     }},
    {"bind", [](const key_ctx &k, const toml::node &n, rt_config &c) {
         return get_ipv4_text(k, n, c.nb_bind);
     }},
    {"peers",
     [](const key_ctx &k, const toml::node &n, rt_config &c) {
         const toml::array *a = n.as_array();
         if (!a)
             return k.fail("expected an array of IPv4 addresses");
         c.nb_peers.clear();
         for (size_t i = 0; i < a->size(); i++) {
             key_ctx ek{k.file, k.name + "[" + std::to_string(i) + "]",
                        (int)(*a)[i].source().begin.line, k.err};
             std::string s;
             if (!get_ipv4_text(ek, (*a)[i], s))
                 return false;
             c.nb_peers.push_back(s);
         }
         return true;
     }},
    {"key_file", [](const key_ctx &k, const toml::node &n, rt_config &c) {
         return get_str(k, n, c.nb_key_file);
     }},
};

constexpr key_def radio_keys[] = {
    {"name", [](const key_ctx &k, const toml::node &n, rt_config &c) {
         return get_ifname(k, n, c.radios.back().name);
     }},
    {"driver", [](const key_ctx &k, const toml::node &n, rt_config &c) {
         return get_str(k, n, c.radios.back().driver);
     }},
    {"access", [](const key_ctx &k, const toml::node &n, rt_config &c) {
         return get_bool(k, n, c.radios.back().access);
     }},
};

constexpr key_def owners_keys[] = {
    {"mode",
     [](const key_ctx &k, const toml::node &n, rt_config &c) {
         if (!get_str(k, n, c.owners_mode))
             return false;
         if (c.owners_mode != "auto" && c.owners_mode != "external")
             return k.fail("expected \"auto\" or \"external\"");
         return true;
     }},
    {"peer_timeout_ms", [](const key_ctx &k, const toml::node &n, rt_config &c) {
         return get_int(k, n, c.owners_peer_timeout_ms, 1, 60000);
     }},
};

constexpr key_def store_keys[] = {
    {"dir",
     [](const key_ctx &k, const toml::node &n, rt_config &c) {
         if (!get_str(k, n, c.store_dir))
             return false;
         if (c.store_dir[0] != '/')
             return k.fail("expected an absolute path");
         return true;
     }},
};

struct section_def {
    const char *name;
    std::span<const key_def> keys;
};

constexpr section_def sections[] = {
    {"log", log_keys},         {"mgt", mgt_keys},       {"server", server_keys},
    {"neighbours", neighbours_keys}, {"owners", owners_keys},
    {"store", store_keys},
};

int line_of(const toml::key &k) { return (int)k.source().begin.line; }

bool apply_table(const std::string &file, const std::string &prefix, const toml::table &t,
                 std::span<const key_def> keys, rt_config &c, std::string &err)
{
    for (auto &&[key, node] : t) {
        key_ctx k{file, prefix + std::string(key.str()), line_of(key), &err};
        const key_def *def = nullptr;
        for (const key_def &d : keys)
            if (key.str() == d.name)
                def = &d;
        if (!def)
            return k.fail("unknown key");
        if (!def->set(k, node, c))
            return false;
        c.lines[k.name] = k.line;
    }
    return true;
}

const key_def *find_key(std::span<const key_def> keys, std::string_view key)
{
    for (const key_def &d : keys)
        if (key == d.name)
            return &d;
    return nullptr;
}

bool is_radio_key(std::string_view key) { return find_key(radio_keys, key) != nullptr; }

bool apply_radios(const std::string &file, const toml::key &key, const toml::node &node,
                  rt_config &c, std::string &err)
{
    key_ctx k{file, "radio", line_of(key), &err};
    const toml::array *a = node.as_array();
    if (!a || !a->is_array_of_tables())
        return k.fail("expected [[radio]] tables");
    std::set<std::string> names;
    for (size_t i = 0; i < a->size(); i++) {
        const toml::table &t = *(*a)[i].as_table();
        std::string prefix = "radio[" + std::to_string(i) + "].";
        c.radios.emplace_back();
        rt_radio_cfg &rc = c.radios.back();
        rc.driver = "sim";
        for (auto &&[key, node] : t) {
            if (!is_radio_key(key.str()))
                continue;
            key_ctx k{file, prefix + std::string(key.str()), line_of(key), &err};
            if (!find_key(radio_keys, key.str())->set(k, node, c))
                return false;
            c.lines[k.name] = k.line;
        }
        // The driver reads the rest; one this build lacks is refused by the check.
        const rt_driver_ops *ops = rt_driver_find(rc.driver);
        for (auto &&[key, node] : t) {
            if (is_radio_key(key.str()))
                continue;
            std::string name(key.str());
            rt_cfg_key dk{name.c_str(), prefix + name, &file, line_of(key), &node, &err};
            if (!ops)
                continue;
            if (!ops->config_key)
                return rt_cfg_fail(dk, "unknown key");
            if (!ops->config_key(rc, dk))
                return false;
            c.lines[dk.name] = dk.line;
        }
        key_ctx rk{file, prefix + "name", (int)t.source().begin.line, &err};
        if (c.radios.back().name.empty())
            return rk.fail("missing (every radio needs its interface name)");
        if (!names.insert(c.radios.back().name).second)
            return rk.fail("radio \"" + c.radios.back().name + "\" is configured twice");
    }
    return true;
}

std::string default_runtime_dir(const std::string &instance)
{
    // An unprivileged user cannot create /run/qz; its session runtime dir serves.
    const char *xdg = getenv("XDG_RUNTIME_DIR");
    if (geteuid() != 0 && xdg && xdg[0] == '/')
        return std::string(xdg) + "/qz/" + instance;
    return "/run/qz/" + instance;
}

} // namespace

// ---- Readers of drivers' own keys ----

namespace {

key_ctx ctx_of(const rt_cfg_key &k) { return key_ctx{*k.file, k.name, k.line, k.err}; }
const toml::node &node_of(const rt_cfg_key &k) { return *static_cast<const toml::node *>(k.node); }

} // namespace

static std::string fmt_num(double v)
{
    char b[32];
    snprintf(b, sizeof b, "%g", v);
    return b;
}

bool rt_cfg_fail(const rt_cfg_key &k, const std::string &what) { return ctx_of(k).fail(what); }

bool rt_cfg_str(const rt_cfg_key &k, std::string &out) { return get_str(ctx_of(k), node_of(k), out); }

bool rt_cfg_bool(const rt_cfg_key &k, bool &out) { return get_bool(ctx_of(k), node_of(k), out); }

bool rt_cfg_int(const rt_cfg_key &k, int64_t &out, int64_t lo, int64_t hi)
{
    return get_int(ctx_of(k), node_of(k), out, lo, hi);
}

bool rt_cfg_num(const rt_cfg_key &k, double &out, double lo, double hi)
{
    const toml::node &n = node_of(k);
    std::optional<double> v = n.value_exact<double>();
    if (auto i = n.value_exact<int64_t>())
        v = double(*i); // "speed = 2" is as good as 2.0
    if (!v)
        return rt_cfg_fail(k, "expected a number");
    if (!(*v >= lo && *v <= hi)) // NaN fails too
        return rt_cfg_fail(k, "must be between " + fmt_num(lo) + " and " + fmt_num(hi));
    out = *v;
    return true;
}

bool rt_config_parse(const std::string &path, rt_config &out, std::string &err)
{
    std::string text, why;
    if (!rt_read_regular(path, max_config_bytes, false, text, why)) {
        err = path + ": " + why;
        return false;
    }
    return rt_config_parse_text(text, path, out, err);
}

bool rt_config_parse_text(const std::string &text, const std::string &path, rt_config &out,
                          std::string &err)
{
    rt_config c;
    c.path = path;
    toml::table root;
    try {
        root = toml::parse(text, path);
    } catch (const toml::parse_error &e) {
        err = path + ":" + std::to_string(e.source().begin.line) + ": " +
              std::string(e.description());
        return false;
    }
    for (auto &&[key, node] : root) {
        std::string name(key.str());
        key_ctx k{path, name, line_of(key), &err};
        if (name == "radio") {
            if (!apply_radios(path, key, node, c, err))
                return false;
            continue;
        }
        const section_def *sec = nullptr;
        for (const section_def &s : sections)
            if (name == s.name)
                sec = &s;
        if (sec) {
            const toml::table *t = node.as_table();
            if (!t)
                return k.fail("expected a table ([" + name + "])");
            if (!apply_table(path, name + ".", *t, sec->keys, c, err))
                return false;
            continue;
        }
        // A table named after a driver of this build is that driver's.
        if (const rt_driver_ops *ops = rt_driver_find(name); ops && ops->section_key) {
            const toml::table *t = node.as_table();
            if (!t)
                return k.fail("expected a table ([" + name + "])");
            for (auto &&[dkey, dnode] : *t) {
                std::string dname(dkey.str());
                rt_cfg_key dk{dname.c_str(), name + "." + dname, &path, line_of(dkey), &dnode, &err};
                if (!ops->section_key(c, dk))
                    return false;
                c.lines[dk.name] = dk.line;
            }
            continue;
        }
        const key_def *def = nullptr;
        for (const key_def &d : top_keys)
            if (name == d.name)
                def = &d;
        if (!def)
            return k.fail("unknown key");
        if (!def->set(k, node, c))
            return false;
        c.lines[name] = k.line;
    }
    if (c.runtime_dir.empty())
        c.runtime_dir = default_runtime_dir(c.instance);
    out = std::move(c);
    return true;
}

namespace {

// The TLS keys of [server] fit together and their files load.
template <typename L> bool check_server_tls(const rt_config &c, L line, std::string &err)
{
    auto fail = [&](const std::string &key, const std::string &what) {
        return key_ctx{c.path, key, line(key), &err}.fail(what);
    };
    const std::pair<const char *, const std::string *> tls_keys[] = {
        {"server.ca_file", &c.server_ca_file},
        {"server.server_name", &c.server_name},
        {"server.cert_file", &c.server_cert_file},
        {"server.key_file", &c.server_key_file},
    };
    if (!rt_server_tls(c)) {
        for (auto &[key, value] : tls_keys)
            if (!value->empty())
                return fail(key, c.server_tls ? "not used with server.tls = false"
                                              : "needs TLS: set server.tls = true and server.ca_file");
        return true;
    }
    if (c.server_ca_file.empty())
        return fail("server.tls", "needs server.ca_file (the CA that signed the server's "
                                  "certificate)");
    if (c.server_cert_file.empty() != c.server_key_file.empty())
        return c.server_cert_file.empty() ? fail("server.key_file", "needs server.cert_file")
                                          : fail("server.cert_file", "needs server.key_file");
    std::string key, why;
    if (!srv_tls_check(c, key, why))
        return fail(key, why);
    return true;
}

} // namespace

bool rt_config_check(const rt_config &c, std::string &err)
{
    auto line = [&](const std::string &key) {
        auto it = c.lines.find(key);
        return it == c.lines.end() ? 0 : it->second;
    };
    for (size_t i = 0; i < c.radios.size(); i++) {
        std::string key = "radio[" + std::to_string(i) + "].driver";
        // An unset driver is "sim": name the radio's line then.
        int l = line(key) ? line(key) : line("radio[" + std::to_string(i) + "].name");
        key_ctx k{c.path, key, l, &err};
        if (!rt_driver_find(c.radios[i].driver))
            return k.fail("unknown driver \"" + c.radios[i].driver + "\" (this build has: " +
                          rt_driver_names() + ")");
    }
    if (!check_server_tls(c, line, err))
        return false;
    if (!c.nb_key_file.empty()) {
        key_ctx k{c.path, "neighbours.key_file", line("neighbours.key_file"), &err};
        std::string key, why;
        if (!rt_read_key(c.nb_key_file, key, why))
            return k.fail(c.nb_key_file + ": " + why);
        if (!rt_crypto_ready(why))
            return k.fail(why);
    }
    return true;
}

bool rt_read_regular(const std::string &path, size_t max, bool nofollow, std::string &out,
                     std::string &why)
{
    // Non-blocking: opening a FIFO must not wait for a writer.
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | (nofollow ? O_NOFOLLOW : 0));
    if (fd < 0) {
        why = nofollow && errno == ELOOP ? "is a symbolic link" : strerror(errno);
        return false;
    }
    struct stat st;
    bool ok = false;
    if (fstat(fd, &st) != 0)
        why = strerror(errno);
    else if (!S_ISREG(st.st_mode))
        why = "not a regular file";
    else if ((size_t)st.st_size > max)
        why = "larger than " + std::to_string(max) + " bytes";
    else {
        // Bounded even when the size lies (a file growing meanwhile).
        out.assign(max + 1, '\0');
        size_t n = 0;
        for (;;) {
            ssize_t r = read(fd, out.data() + n, out.size() - n);
            if (r < 0 && errno == EINTR)
                continue;
            if (r < 0)
                why = strerror(errno);
            if (r <= 0)
                break;
            n += (size_t)r;
            if (n == out.size())
                break;
        }
        out.resize(n);
        if (why.empty() && n > max)
            why = "larger than " + std::to_string(max) + " bytes";
        ok = why.empty();
    }
    close(fd);
    return ok;
}

bool rt_read_key(const std::string &path, std::string &key, std::string &why)
{
    if (!rt_read_regular(path, max_key_bytes, true, key, why))
        return false;
    while (!key.empty() && (key.back() == '\n' || key.back() == '\r'))
        key.pop_back();
    if (key.empty()) {
        why = "empty key";
        return false;
    }
    return true;
}

// ---- The process's configuration ----

std::string rt_config_path()
{
    const char *env = getenv("QZ_PLATFORM_CONFIG");
    return env && env[0] ? env : "/etc/qz/platform.toml";
}

bool rt_config_load(rt_config &out, std::string &err)
{
    std::string path = rt_config_path();
    struct stat st;
    if (stat(path.c_str(), &st) != 0 && errno == ENOENT) {
        out = rt_config{};
        out.runtime_dir = default_runtime_dir(out.instance);
        // Said on stderr: the log is not set up yet, and a new user wonders where the
        // settings come from.
        fprintf(stderr, "%s: not found, running with defaults\n", path.c_str());
        return true;
    }
    return rt_config_parse(path, out, err) && rt_config_check(out, err);
}

namespace {
rt_config g_cfg;
std::once_flag g_cfg_once;

void load_cfg()
{
    std::string err;
    if (!rt_config_load(g_cfg, err)) {
        fprintf(stderr, "configuration error: %s\n", err.c_str());
        exit(1);
    }
}
} // namespace

const rt_config &rt_cfg()
{
    std::call_once(g_cfg_once, load_cfg);
    return g_cfg;
}

void rt_cfg_set(const rt_config &cfg)
{
    std::call_once(g_cfg_once, [] {});
    g_cfg = cfg;
    if (g_cfg.runtime_dir.empty())
        g_cfg.runtime_dir = default_runtime_dir(g_cfg.instance);
    rt_log_reopen();
}
