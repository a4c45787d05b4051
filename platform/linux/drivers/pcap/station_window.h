// Per-radio station window of the pcap driver: readings of client stations collected
// between two report-table fetches, turned into report records at each fetch.
// No locking inside: the driver holds its radio's lock around every call.
#pragma once

#include "qz_dcd.h"

#include <cstdint>
#include <span>
#include <vector>

constexpr uint32_t QZ_SW_SAMPLES = 9; // latest readings kept per station and window

struct qz_sw_station {
    uint8_t mac[6];
    bool used;
    bool reported;        // had a record with active 1 in the previous fetch
    uint8_t nsamples;     // readings in the current window (saturates at QZ_SW_SAMPLES)
    uint8_t next;         // ring position of the next reading
    int8_t samples[QZ_SW_SAMPLES];
    int8_t last_rssi;     // value of the latest record
    uint16_t freq;        // channel of the latest reading
    uint64_t heard_seq;   // order of the latest reading, for eviction
};

struct qz_sw_counters {
    uint64_t readings;      // readings added
    uint64_t local_ignored; // locally administered addresses dropped by the privacy switch
    uint64_t evicted;       // stations dropped to make room, oldest first
    uint64_t over_fetch;    // records that did not fit a fetch
};

struct qz_station_window {
    std::vector<qz_sw_station> slots; // fixed at init: the memory bound
    std::vector<uint32_t> index;      // open-addressing hash of slot numbers + 1, 0 = empty
    uint64_t seq;
    uint32_t used;
    uint32_t cursor;                  // where the next fetch starts, so overflow rotates
    bool ignore_local;                // privacy switch
    qz_sw_counters cnt;
};

// Sizes the window for at most `capacity` stations (at least 1).
void qz_sw_init(qz_station_window &w, uint32_t capacity, bool ignore_local);
// One reading of a client station (already filtered by the frame parser).
void qz_sw_add(qz_station_window &w, const uint8_t *mac, int8_t dbm, uint16_t freq);
// Forgets a station, e.g. once its address is known to be an access point.
void qz_sw_forget(qz_station_window &w, const uint8_t *mac);
// Ends the window: writes at most out.size() records, returns how many.
uint32_t qz_sw_fetch(qz_station_window &w, std::span<lta_rpt_entry> out);
// The aggregation rule: median of the readings (mean of the middle two when even).
int8_t qz_sw_median(std::span<const int8_t> v);
