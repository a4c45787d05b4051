// The RSSI cycle on the Linux runtime's driver layer: radios dispatched by interface
// index to the simulated driver, which answers from stations injected as radio.sock
// would. Radios need real interfaces: the first (up to) 4 of this machine serve, and
// the figures say how many there were.
#include <net/if.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>

#include "cycle_bench.h"
#include "rt_config.h"
#include "sim_radio.h"

using namespace cycle_bench;

namespace {

struct scratch {
    std::string dir;
    scratch()
    {
        char name[] = "/tmp/ltr_bench_XXXXXX";
        dir = mkdtemp(name) ? name : "";
    }
    ~scratch() { std::filesystem::remove_all(dir); }
} tmp;

} // namespace

std::vector<int> cycle_platform_prepare()
{
    rt_config c;
    c.instance = "bench" + std::to_string(getpid());
    c.runtime_dir = tmp.dir + "/run";
    c.foreground = true;
    c.log_syslog = false;
    c.log_file = tmp.dir + "/log";
    if (struct if_nameindex *ni = if_nameindex()) {
        for (auto *p = ni; p->if_index && c.radios.size() < (size_t)radios; p++)
            c.radios.push_back({p->if_name, "sim", true});
        if_freenameindex(ni);
    }
    rt_cfg_set(c);
    std::vector<int> ifindexes;
    if (c.radios.empty() || qz_dcd_lib_init() != 0) {
        fprintf(stderr, "no radio could be opened (log: %s)\n", c.log_file.c_str());
        return ifindexes;
    }
    int n = (int)c.radios.size();
    for (int r = 0; r < n; r++) {
        int ifindex = (int)if_nametoindex(c.radios[(size_t)r].name.c_str());
        auto sr = sim_radio_find(c.radios[(size_t)r].name);
        if (!sr || qz_dcd_set_lta_track_enable(ifindex, 1) != 0)
            return {};
        for (int i = 0; i < recs; i++) {
            sim_heard h;
            sta_mac(i, h.mac.data());
            h.rssi = sta_rssi(r, i);
            h.active = 1;
            h.freq = radio_freq(r);
            if (!sim_hear(sr.get(), h).empty())
                return {};
            if (r == n - 1 && !sim_assoc(sr.get(), h.mac, assoc_freq).empty())
                return {};
        }
        ifindexes.push_back(ifindex);
    }
    return ifindexes;
}
