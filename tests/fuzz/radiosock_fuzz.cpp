// Fuzz target: radio.sock requests. The input is cut into lines as the socket cuts
// them and each runs against two open simulated radios, wlan0 and wlan1; every reply ends in "ok" or
// is one "error: " line. The radios are cleared and injected failures reset after each
// input.
#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

#include "fuzz_rt.h"
#include "rt_driver.h"
#include "sim_radio.h"

namespace {

std::vector<rt_radio> &radios()
{
    static std::vector<rt_radio> r = [] {
        fuzz_rt_init();
        std::vector<rt_radio> v(2);
        for (size_t i = 0; i < v.size(); i++) {
            v[i].id = (int)i;
            v[i].cfg.name = "wlan" + std::to_string(i);
            v[i].ops = &rt_driver_sim;
            if (rt_driver_sim.open(&v[i]) != 0)
                __builtin_trap();
        }
        return v;
    }();
    return r;
}

bool ends_well(const std::string &reply)
{
    if (reply.size() >= 3 && reply.compare(reply.size() - 3, 3, "ok\n") == 0)
        return true;
    return reply.rfind("error: ", 0) == 0 && reply.find('\n') == reply.size() - 1;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    radios();
    std::string all(reinterpret_cast<const char *>(data), size);
    for (size_t at = 0; at < all.size();) {
        size_t nl = all.find('\n', at);
        if (nl == std::string::npos)
            break; // no line end yet: the socket waits for one
        if (!ends_well(rt_radio_sock_command(all.substr(at, nl - at))))
            __builtin_trap();
        at = nl + 1;
    }
    for (const char *reset : {"clear wlan0", "clear wlan1"})
        rt_radio_sock_command(reset);
    for (const char *op : {"set_lta_track_enable", "set_lta_lmatch_enable", "set_lta_trackobj",
                           "get_lta_rpt_tbl", "get_radio_one_sta", "get_lta_stats"})
        rt_radio_sock_command(std::string("fail ") + op + " 0");
    return 0;
}
