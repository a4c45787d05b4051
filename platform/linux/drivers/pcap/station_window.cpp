// Station window: fixed slot table + open-addressing index, so memory is set at init.
#include "station_window.h"

#include <algorithm>
#include <cstring>

namespace {

uint64_t mac_key(const uint8_t *m) {
    uint64_t k = 0;
    for (int i = 0; i < 6; ++i)
        k = k << 8 | m[i];
    return k;
}

size_t home(const qz_station_window &w, const uint8_t *mac) {
    return (mac_key(mac) * 0x9E3779B97F4A7C15ull >> 20) & (w.index.size() - 1);
}

// Index position holding mac, or the empty position where it would go.
size_t probe(const qz_station_window &w, const uint8_t *mac) {
    const size_t mask = w.index.size() - 1;
    size_t i = home(w, mac);
    while (w.index[i] && std::memcmp(w.slots[w.index[i] - 1].mac, mac, 6) != 0)
        i = (i + 1) & mask;
    return i;
}

// Backward-shift deletion keeps probe chains whole without tombstones.
void unindex(qz_station_window &w, size_t i) {
    const size_t mask = w.index.size() - 1;
    size_t j = i;
    for (;;) {
        j = (j + 1) & mask;
        if (!w.index[j])
            break;
        size_t h = home(w, w.slots[w.index[j] - 1].mac);
        // Move j back to i when its home does not lie cyclically in (i, j].
        if ((j > i && (h <= i || h > j)) || (j < i && h <= i && h > j)) {
            w.index[i] = w.index[j];
            i = j;
        }
    }
    w.index[i] = 0;
}

void release(qz_station_window &w, uint32_t slot) {
    unindex(w, probe(w, w.slots[slot].mac));
    w.slots[slot].used = false;
    --w.used;
}

uint32_t oldest(const qz_station_window &w) {
    uint32_t best = 0;
    for (uint32_t s = 1; s < w.slots.size(); ++s)
        if (w.slots[s].heard_seq < w.slots[best].heard_seq)
            best = s;
    return best;
}

} // namespace

int8_t qz_sw_median(std::span<const int8_t> v) {
    if (v.empty())
        return 0;
    int8_t tmp[QZ_SW_SAMPLES];
    const size_t n = std::min<size_t>(v.size(), QZ_SW_SAMPLES);
    std::copy_n(v.begin(), n, tmp);
    std::sort(tmp, tmp + n);
    if (n % 2)
        return tmp[n / 2];
    int sum = tmp[n / 2 - 1] + tmp[n / 2];
    return int8_t(sum >= 0 ? (sum + 1) / 2 : -((-sum + 1) / 2)); // round half away from 0
}

void qz_sw_init(qz_station_window &w, uint32_t capacity, bool ignore_local) {
    capacity = std::max<uint32_t>(capacity, 1);
    size_t buckets = 2;
    while (buckets < 2 * size_t(capacity))
        buckets *= 2;
    w.slots.assign(capacity, qz_sw_station{});
    w.index.assign(buckets, 0);
    w.seq = 0;
    w.used = 0;
    w.cursor = 0;
    w.ignore_local = ignore_local;
    w.cnt = {};
}

void qz_sw_add(qz_station_window &w, const uint8_t *mac, int8_t dbm, uint16_t freq) {
    if (w.ignore_local && (mac[0] & 0x02)) {
        ++w.cnt.local_ignored;
        return;
    }
    size_t pos = probe(w, mac);
    if (!w.index[pos]) {
        uint32_t slot;
        if (w.used == w.slots.size()) {
            slot = oldest(w);
            release(w, slot);
            ++w.cnt.evicted;
            pos = probe(w, mac);
        } else {
            slot = 0;
            while (w.slots[slot].used)
                ++slot;
        }
        qz_sw_station &s = w.slots[slot];
        s = qz_sw_station{};
        std::memcpy(s.mac, mac, 6);
        s.used = true;
        w.index[pos] = slot + 1;
        ++w.used;
    }
    qz_sw_station &s = w.slots[w.index[pos] - 1];
    s.samples[s.next] = dbm;
    s.next = uint8_t((s.next + 1) % QZ_SW_SAMPLES);
    if (s.nsamples < QZ_SW_SAMPLES)
        ++s.nsamples;
    s.freq = freq;
    s.heard_seq = ++w.seq;
    ++w.cnt.readings;
}

void qz_sw_forget(qz_station_window &w, const uint8_t *mac) {
    size_t pos = probe(w, mac);
    if (w.index[pos])
        release(w, w.index[pos] - 1);
}

uint32_t qz_sw_fetch(qz_station_window &w, std::span<lta_rpt_entry> out) {
    uint32_t n = 0;
    const uint32_t cap = uint32_t(w.slots.size());
    const uint32_t start = w.cursor;
    bool rotated = false;
    for (uint32_t k = 0; k < cap; ++k) {
        const uint32_t slot = (start + k) % cap;
        qz_sw_station &s = w.slots[slot];
        if (!s.used || (!s.nsamples && !s.reported))
            continue;
        const bool active = s.nsamples > 0;
        if (active)
            s.last_rssi = qz_sw_median(std::span<const int8_t>(s.samples, s.nsamples));
        if (n < out.size()) {
            lta_rpt_entry &e = out[n++];
            std::memcpy(e.mac, s.mac, 6);
            e.active = active ? 1 : 0;
            e.rssi = s.last_rssi;
            e.chan_freq = s.freq;
        } else {
            ++w.cnt.over_fetch;
            if (!rotated) {
                w.cursor = slot; // the first left out goes first next time
                rotated = true;
            }
        }
        s.nsamples = 0;
        s.next = 0;
        s.reported = active;
        if (!active)
            release(w, slot); // departure sent: gone until heard again
    }
    return n;
}
