// Logging and debug output through the one formatter, and the registry of debug
// categories that the operator switches with the debug command.
#include "qz_log.h"

#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <syslog.h>

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

#include "rt_debug.h"
#include "rt_log.h"

uint32_t qz_lib_dbg;

void qz_log(int, int severity, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    rt_vlog(severity, nullptr, fmt, ap);
    va_end(ap);
}

void __qz_dbg(const char *prefix, int, const char *tag, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    if (prefix && prefix[0]) {
        std::string f = std::string(prefix) + fmt;
        rt_vlog(LOG_DEBUG, tag ? tag : "debug", f.c_str(), ap);
    } else {
        rt_vlog(LOG_DEBUG, tag ? tag : "debug", fmt, ap);
    }
    va_end(ap);
}

void __qz_err(const char *, int, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    rt_vlog(LOG_ERR, nullptr, fmt, ap);
    va_end(ap);
}

void qz_hexdump(const void *addr, int len)
{
    const uint8_t *p = (const uint8_t *)addr;
    if (!p || len <= 0)
        return;
    for (int off = 0; off < len; off += 16) {
        char hex[16 * 3 + 1] = "";
        char text[17] = "";
        int n = len - off < 16 ? len - off : 16;
        for (int i = 0; i < n; i++) {
            uint8_t b = p[off + i];
            snprintf(hex + i * 3, 4, "%02x ", b);
            text[i] = b >= 0x20 && b < 0x7f ? (char)b : '.';
        }
        rt_log_tagged(LOG_DEBUG, "hexdump", "%04x: %-48s %s", off, hex, text);
    }
}

// ---- Debug categories ----

namespace {
struct debug_flag {
    std::string module;
    std::string name;
    uint32_t *word;
    uint32_t mask;
};
std::mutex g_flags_mu;
std::vector<debug_flag> g_flags;

int register_flag(const char *module, const char *name, uint32_t *word, uint32_t mask)
{
    if (!module || !name || !word || !module[0] || !name[0])
        return -1;
    std::lock_guard g(g_flags_mu);
    for (debug_flag &f : g_flags)
        if (f.module == module && f.name == name) { // registered again: the newer wins
            f.word = word;
            f.mask = mask;
            return 0;
        }
    g_flags.push_back({module, name, word, mask});
    return 0;
}
} // namespace

int qz_register_debug_flag(const char *module, const char *name, uint32_t *word, uint32_t mask)
{
    return register_flag(module, name, word, mask);
}

int qz_register_dbg_lib_flag(const char *module, const char *name, uint32_t *word, uint32_t mask)
{
    return register_flag(module, name, word, mask);
}

int rt_debug_switch(const char *module, const char *category, bool on)
{
    if (!module || !category)
        return -1;
    std::lock_guard g(g_flags_mu);
    for (debug_flag &f : g_flags) {
        if (f.module != module || f.name != category)
            continue;
        // The daemon reads its word without a lock; flip the bits atomically.
        std::atomic_ref<uint32_t> w(*f.word);
        if (on)
            w.fetch_or(f.mask);
        else
            w.fetch_and(~f.mask);
        return 0;
    }
    return -1;
}

std::string rt_debug_text()
{
    std::lock_guard g(g_flags_mu);
    std::string out;
    for (const debug_flag &f : g_flags) {
        std::atomic_ref<uint32_t> w(*f.word);
        bool on = (w.load() & f.mask) == f.mask;
        out += f.module + " " + f.name + " " + (on ? "on" : "off") + "\n";
    }
    return out;
}
