// Tracking state shared by the radio drivers: see drv_track.h.
#include "drv_track.h"

#include "mac_text.h"

#include <stdio.h>
#include <string.h>

#include <algorithm>

namespace {

// Finds key in v; on delete removes it, on add appends it within max. Counts misses;
// deleting an absent key is done already, as a radio's table treats it.
template <typename T>
int add_or_del(std::vector<T> &v, const T &key, bool del, size_t max, uint32_t &no_node,
               uint32_t &no_mem)
{
    auto it = std::find(v.begin(), v.end(), key);
    if (del) {
        if (it == v.end()) {
            no_node++;
            return 0;
        }
        v.erase(it);
    } else if (it == v.end()) {
        if (v.size() >= max) {
            no_mem++;
            return -1;
        }
        v.push_back(key);
    }
    return 0;
}

} // namespace

void drv_set_track(drv_track &t, int enable) { t.track = enable ? 1 : 0; }

void drv_set_lmatch(drv_track &t, int value) { t.lmatch = value; }

int drv_set_trackobj(drv_track &t, const lta_trackobj *obj)
{
    if (!obj || obj->is_oui > 1 || obj->del > 1)
        return -1;
    if (obj->is_oui) {
        std::array<uint8_t, 3> oui;
        memcpy(oui.data(), obj->mac, 3);
        return add_or_del(t.ouis, oui, obj->del, DRV_MAX_OUI_OBJ, t.stats.oui_no_node,
                          t.stats.oui_no_mem);
    }
    drv_mac mac;
    memcpy(mac.data(), obj->mac, 6);
    return add_or_del(t.macs, mac, obj->del, DRV_MAX_MAC_OBJ, t.stats.sta_no_node,
                      t.stats.sta_no_mem);
}

bool drv_matches(const drv_track &t, const uint8_t *mac)
{
    if (std::any_of(t.macs.begin(), t.macs.end(),
                    [&](const drv_mac &m) { return memcmp(m.data(), mac, 6) == 0; }))
        return true;
    return std::any_of(t.ouis.begin(), t.ouis.end(),
                       [&](const auto &o) { return memcmp(o.data(), mac, 3) == 0; });
}

void drv_report(drv_track &t, std::span<const drv_heard> heard, lta_rpt_entry *buf, int *count)
{
    int n = 0;
    if (t.track)
        for (const drv_heard &h : heard) {
            if (n >= *count)
                break;
            if (t.lmatch && !drv_matches(t, h.mac.data()))
                continue;
            lta_rpt_entry &e = buf[n++];
            memcpy(e.mac, h.mac.data(), 6);
            e.active = h.active;
            e.rssi = h.rssi;
            e.chan_freq = h.freq;
        }
    *count = n;
    t.stats.rpt_cnt += static_cast<uint32_t>(n);
}

int drv_one_sta(void *buf, int buflen, const uint8_t *mac, uint16_t freq, int *len)
{
    constexpr uint16_t rec_len = 10;
    if (!buf || buflen < rec_len)
        return -1;
    auto *b = static_cast<uint8_t *>(buf);
    memcpy(b, &rec_len, 2);
    memcpy(b + 2, &freq, 2);
    memcpy(b + 4, mac, 6);
    if (len)
        *len = rec_len;
    return 0;
}

std::string drv_track_text(const drv_track &t)
{
    std::string s = "track " + std::to_string(t.track) + "\nlmatch " + std::to_string(t.lmatch) + "\n";
    for (const auto &m : t.macs)
        s += "obj mac " + drv_mac_text(m.data(), 6) + "\n";
    for (const auto &o : t.ouis)
        s += "obj oui " + drv_mac_text(o.data(), 3) + "\n";
    const lta_stats &st = t.stats;
    s += "stats " + std::to_string(st.rpt_cnt) + " " + std::to_string(st.sta_no_node) + " " +
         std::to_string(st.oui_no_node) + " " + std::to_string(st.sta_no_mem) + " " +
         std::to_string(st.oui_no_mem) + "\n";
    return s;
}

std::string drv_mac_text(const uint8_t *b, size_t n)
{
    return n == 3 ? ltr_oui_text(b) : ltr_mac_text(b);
}
