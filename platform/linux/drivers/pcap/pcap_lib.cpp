// Loading libpcap by its run-time names (Debian's soname first).
#include "pcap_lib.h"

#include <dlfcn.h>

#include <mutex>

namespace {

pcap_lib g_lib;
std::once_flag g_once;
const pcap_lib *g_loaded;
std::string g_why;

template <typename F> bool sym(void *h, const char *name, F &out)
{
    out = reinterpret_cast<F>(dlsym(h, name));
    if (!out)
        g_why = std::string("libpcap has no ") + name;
    return out != nullptr;
}

void load()
{
    void *h = nullptr;
    for (const char *so : {"libpcap.so.0.8", "libpcap.so.1", "libpcap.so"})
        if ((h = dlopen(so, RTLD_NOW | RTLD_LOCAL)))
            break;
    if (!h) {
        const char *e = dlerror();
        g_why = std::string("cannot load libpcap: ") + (e ? e : "not found");
        return;
    }
    pcap_lib &l = g_lib;
    if (sym(h, "pcap_open_offline", l.open_offline) && sym(h, "pcap_create", l.create) &&
        sym(h, "pcap_set_snaplen", l.set_snaplen) &&
        sym(h, "pcap_set_immediate_mode", l.set_immediate_mode) &&
        sym(h, "pcap_set_timeout", l.set_timeout) && sym(h, "pcap_activate", l.activate) &&
        sym(h, "pcap_statustostr", l.statustostr) && sym(h, "pcap_datalink", l.datalink) &&
        sym(h, "pcap_datalink_val_to_name", l.datalink_val_to_name) &&
        sym(h, "pcap_compile", l.compile) && sym(h, "pcap_setfilter", l.setfilter) &&
        sym(h, "pcap_freecode", l.freecode) && sym(h, "pcap_next_ex", l.next_ex) &&
        sym(h, "pcap_dispatch", l.dispatch) && sym(h, "pcap_stats", l.stats) &&
        sym(h, "pcap_geterr", l.geterr) && sym(h, "pcap_breakloop", l.breakloop) &&
        sym(h, "pcap_close", l.close))
        g_loaded = &g_lib;
    else
        dlclose(h);
}

} // namespace

const pcap_lib *pcap_lib_load(std::string &why)
{
    std::call_once(g_once, load);
    if (!g_loaded)
        why = g_why;
    return g_loaded;
}

const pcap_lib &pcap_fn() { return g_lib; }
