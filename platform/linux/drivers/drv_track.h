// What every radio driver keeps per radio for the daemon: the tracking switch, the
// track objects (MACs and OUIs), list match and the five statistics, and the filter
// that turns the stations a radio hears into its report table. A driver holds one
// drv_track per radio under its own lock and calls these from its operations.
#pragma once
#include <stdint.h>

#include <array>
#include <span>
#include <string>
#include <vector>

#include "qz_dcd.h"

constexpr size_t DRV_MAX_MAC_OBJ = 512; // track objects per radio, like a driver's table
constexpr size_t DRV_MAX_OUI_OBJ = 128;

using drv_mac = std::array<uint8_t, 6>;

// One station as a radio hears it.
struct drv_heard {
    drv_mac mac{};
    int8_t rssi = 0;
    uint8_t active = 0;
    uint16_t freq = 0;
};

struct drv_track {
    int track = 0;
    // On from the start, as the daemon assumes: it tells a radio only when list match
    // changes or the radio comes up while tracking runs, never when tracking starts.
    int lmatch = 1;
    std::vector<drv_mac> macs;               // in insertion order
    std::vector<std::array<uint8_t, 3>> ouis;
    lta_stats stats{};
};

void drv_set_track(drv_track &t, int enable);
void drv_set_lmatch(drv_track &t, int value);
// Adds or deletes a track object; adding past the table's bound fails and counts
// (sta_/oui_no_mem). Deleting a missing one (counted in sta_/oui_no_node) or adding a
// present one succeeds and changes nothing. 0 / -1.
int drv_set_trackobj(drv_track &t, const lta_trackobj *obj);
// Whether mac is a track object or lies in a tracked OUI.
bool drv_matches(const drv_track &t, const uint8_t *mac);
// The report table from what the radio heard, in the order given: nothing while
// tracking is off, only matching stations under list match, at most *count entries
// (*count set to how many, rpt_cnt counts them).
void drv_report(drv_track &t, std::span<const drv_heard> heard, lta_rpt_entry *buf, int *count);
// The associated-station record of get_one_sta: u16 length (10), u16 channel
// frequency, station MAC, host order. -1 when buflen cannot hold it.
int drv_one_sta(void *buf, int buflen, const uint8_t *mac, uint16_t freq, int *len);
// "track", "lmatch", "obj mac|oui" and "stats" lines, each ending in '\n'.
std::string drv_track_text(const drv_track &t);
// "aa:bb:cc:dd:ee:ff" (n = 6) or "aa:bb:cc" (n = 3), as radio.sock and the state lines write them.
std::string drv_mac_text(const uint8_t *b, size_t n = 6);
