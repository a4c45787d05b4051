// What the frames of one pcap radio build up: the station window, the access points
// and associations they reveal, and the counters. The capture thread feeds it one frame
// at a time under the radio's lock; the benchmark feeds it the same way.
#pragma once

#include <atomic>
#include <cstdint>
#include <span>
#include <unordered_map>
#include <unordered_set>

#include "station_window.h"

// The radio's status counters, owned by the caller (the runtime's named counters).
struct qz_pcap_counters {
    std::atomic<uint64_t> *read, *kept, *no_signal, *bad_fcs, *malformed, *not_station,
        *kernel_drop, *local_ignored, *evicted, *associated;
};

struct qz_pcap_frames {
    bool live = false;             // associations come from the kernel, not from frames
    qz_station_window win;
    std::unordered_set<uint64_t> aps;             // addresses seen acting as access points
    std::unordered_map<uint64_t, uint16_t> assoc; // station -> channel (frames, or nl80211)
    qz_pcap_counters cnt{};
};

constexpr size_t QZ_PCAP_MAX_KNOWN = 4096; // access points / associations remembered

// One captured frame as delivered (radiotap header first).
void qz_pcap_take(qz_pcap_frames &p, std::span<const uint8_t> bytes);

uint64_t qz_pcap_mac_key(const uint8_t *m);
