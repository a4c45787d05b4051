// The daemon's side of ltrd-crypto.so: loaded on first need (a site key, or TLS to
// the server, found when the configuration is checked), looked for next to the
// executable (a build tree) and then in the installed plugin directory. The crypto
// entry points of the runtime forward to its table.
#include <dlfcn.h>
#include <errno.h>
#include <limits.h>
#include <string.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <mutex>

#include "nbr_mac.h"
#include "rt_config.h"
#include "rt_crypto.h"
#include "rt_log.h"
#include "srvchan_transport.h"

#ifndef LTR_CRYPTO_DIR
#define LTR_CRYPTO_DIR "/usr/lib/ltrd"
#define LTR_CRYPTO_RELDIR "../lib/ltrd"
#endif

namespace {

std::mutex g_mu;
std::atomic<const rt_crypto_ops *> g_ops;
bool g_failed;        // tried and failed: not again on every datagram
std::string g_failure; // why, for the next caller

std::string exe_dir()
{
    char buf[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n <= 0)
        return "";
    std::string p(buf, size_t(n));
    return p.substr(0, p.rfind('/'));
}

// One candidate that exists: the table, or null with why.
const rt_crypto_ops *open_plugin(const std::string &path, std::string &why)
{
    // RTLD_LOCAL: its symbols (and the crypto library's) stay out of the daemon's.
    void *h = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!h) {
        const char *e = dlerror();
        why = e ? e : path + ": cannot be loaded";
        return nullptr;
    }
    auto *ops = static_cast<const rt_crypto_ops *>(dlsym(h, "ltrd_crypto_ops"));
    if (!ops)
        why = path + ": no ltrd_crypto_ops in it";
    else if (ops->abi != RT_CRYPTO_ABI || ops->config_size != sizeof(rt_config))
        why = path + ": built for another version of ltrd";
    else
        return ops; // never unloaded: threads keep its per-thread contexts
    dlclose(h);
    return nullptr;
}

const rt_crypto_ops *load(std::string &why)
{
    if (const rt_crypto_ops *o = g_ops.load(std::memory_order_acquire))
        return o;
    std::lock_guard g(g_mu);
    if (const rt_crypto_ops *o = g_ops.load())
        return o;
    if (g_failed) {
        why = g_failure;
        return nullptr;
    }
    // The first that exists is the one: a broken plugin is reported, not skipped.
    std::string exe = exe_dir();
    std::string dirs[] = {exe, exe + "/" LTR_CRYPTO_RELDIR, LTR_CRYPTO_DIR};
    std::string tried, err;
    const rt_crypto_ops *o = nullptr;
    for (const std::string &d : dirs) {
        std::string path = d + "/" + RT_CRYPTO_PLUGIN;
        if (access(path.c_str(), F_OK) != 0) {
            tried += (tried.empty() ? "" : ", ") + path;
            continue;
        }
        if ((o = open_plugin(path, err)))
            g_ops.store(o, std::memory_order_release);
        break;
    }
    if (o)
        return o;
    g_failed = true;
    g_failure = why = "cannot load the cryptography plugin: " +
                      (err.empty() ? "no " + std::string(RT_CRYPTO_PLUGIN) + " (looked for " +
                                         tried + ")"
                                   : err);
    return nullptr;
}

const rt_crypto_ops *ops_or_log()
{
    std::string why;
    const rt_crypto_ops *o = load(why);
    if (!o)
        rt_log_ratelimited("crypto.load", 300, LOG_ERR, "%s", why.c_str());
    return o;
}

// A connection exists only once the plugin is loaded.
const srv_transport &tls() { return *g_ops.load(std::memory_order_acquire)->tls; }

srv_conn *tls_connect(const std::string &addr, const srv_connect_ctl &ctl)
{
    const rt_crypto_ops *o = ops_or_log();
    return o ? o->tls->connect(addr, ctl) : nullptr;
}
ssize_t tls_read(srv_conn *c, void *buf, size_t len) { return tls().read(c, buf, len); }
ssize_t tls_write(srv_conn *c, const void *buf, size_t len) { return tls().write(c, buf, len); }
void tls_close(srv_conn *c) { tls().close(c); }
int tls_poll_fd(const srv_conn *c) { return tls().poll_fd(c); }
short tls_poll_events(const srv_conn *c, bool r, bool w) { return tls().poll_events(c, r, w); }
bool tls_buffered(const srv_conn *c) { return tls().buffered(c); }

} // namespace

bool rt_crypto_ready(std::string &why) { return load(why) != nullptr; }

void nbr_mac_init(std::string_view key)
{
    if (const rt_crypto_ops *o = ops_or_log())
        o->mac_init(key);
}

bool nbr_mac(std::string_view key, const uint8_t *data, size_t len, uint8_t out[NBR_MAC_LEN])
{
    const rt_crypto_ops *o = ops_or_log();
    return o && o->mac(key, data, len, out);
}

bool srv_tls_check(const rt_config &c, std::string &key, std::string &why)
{
    const rt_crypto_ops *o = load(why);
    if (!o) {
        key = "server.tls";
        return false;
    }
    return o->tls_check(c, key, why);
}

const srv_transport srv_tls_transport = {
    "tls", tls_connect, tls_read, tls_write, tls_close, tls_poll_fd, tls_poll_events, tls_buffered,
};
