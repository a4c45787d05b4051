// Placeholder until the runtime core lands.
#include "rt.h"

#include <stdio.h>

#include <map>
#include <mutex>

static rt_config g_cfg;
bool rt_config_parse(const std::string &, rt_config &, std::string &err)
{
    err = "configuration parser not built yet";
    return false;
}
const rt_config &rt_cfg() { return g_cfg; }
void rt_cfg_set(const rt_config &cfg) { g_cfg = cfg; }
void rt_vlog(int, const char *, const char *fmt, va_list ap) { vfprintf(stderr, fmt, ap); }
void rt_log(int sev, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    rt_vlog(sev, nullptr, fmt, ap);
    va_end(ap);
}
bool rt_log_ratelimited(const char *, int, int, const char *, ...) { return false; }
std::atomic<uint64_t> &rt_counter(const char *name)
{
    static std::mutex mu;
    static std::map<std::string, std::atomic<uint64_t>> m;
    std::lock_guard g(mu);
    return m[name];
}
std::string rt_status_text() { return {}; }
static std::atomic<bool> g_stop;
bool rt_stopping() { return g_stop; }
void rt_request_stop() { g_stop = true; }
void rt_signals_init() {}
bool rt_wait_stop(int) { return g_stop; }
std::string rt_runtime_path(const char *name) { return g_cfg.runtime_dir + "/" + name; }
