// The RSSI cycle on the lean platform (bench/lean): the driver answers from prepared
// tables and nothing is recorded, so the figures are the core's own.
#include "cycle_bench.h"
#include "lean_platform.h"

using namespace cycle_bench;

std::vector<int> cycle_platform_prepare()
{
    std::vector<lean::radio> rl;
    std::vector<int> ifindexes;
    for (int r = 0; r < radios; r++) {
        lean::radio rd{"wifi" + std::to_string(r), 10 + r, {}, {}, {}};
        for (int i = 0; i < recs; i++) {
            lta_rpt_entry e{};
            sta_mac(i, e.mac);
            e.active = 1;
            e.rssi = sta_rssi(r, i);
            e.chan_freq = radio_freq(r);
            rd.rpt.push_back(e);
            if (r == assoc_radio) {
                lean::assoc_rec a{{}, assoc_freq};
                sta_mac(i, a.mac);
                rd.assoc.push_back(a);
            }
        }
        ifindexes.push_back(rd.ifindex);
        rl.push_back(std::move(rd));
    }
    lean::set_radios(std::move(rl));
    lean::set_mgt(me, my_ip);
    return ifindexes;
}
