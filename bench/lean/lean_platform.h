// A platform for benchmarks that keeps nothing: every call answers at once, sends are
// counted and dropped, logs and debug lines are not formatted, and the radios' report
// tables and associations are answered from tables prepared before the run.
#pragma once
#include <stdint.h>

#include <string>
#include <vector>

#include "qz_dcd.h"

namespace lean {

struct assoc_rec { uint8_t mac[6]; uint16_t freq; };

struct radio {
    std::string name;
    int ifindex;
    std::vector<lta_rpt_entry> rpt; // every report-table fetch returns these
    std::vector<assoc_rec> assoc;   // associated stations
    std::vector<uint64_t> assoc_key; // made by set_radios: sorted MACs with their frequency
};

void set_radios(std::vector<radio> radios);
void set_mgt(const uint8_t mac[6], uint32_t ip_net_order);

struct counters { uint64_t sends, send_bytes; };
const counters &counts();

} // namespace lean
