// One frame into a pcap radio's state: who is an access point, who is associated, and
// the reading of a client station.
#include "radio_frames.h"

#include "radiotap.h"

namespace {

// The capture thread is the counters' only writer: a plain load and store, no locked
// read-modify-write per frame.
void bump(std::atomic<uint64_t> *c, uint64_t n = 1)
{
    c->store(c->load(std::memory_order_relaxed) + n, std::memory_order_relaxed);
}

// Most captures hold no access point at all: skip the hash then.
bool is_ap(const qz_pcap_frames &p, uint64_t k) { return !p.aps.empty() && p.aps.count(k); }

} // namespace

uint64_t qz_pcap_mac_key(const uint8_t *m)
{
    uint64_t k = 0;
    for (int i = 0; i < 6; i++)
        k = k << 8 | m[i];
    return k;
}

void qz_pcap_take(qz_pcap_frames &p, std::span<const uint8_t> bytes)
{
    qz_rt_frame f;
    qz_rt_parse(bytes, f);
    bump(p.cnt.read);
    if (f.has_ta && f.ap_sent && !qz_rt_is_group(f.ta) && f.verdict != QZ_RT_MALFORMED &&
        f.verdict != QZ_RT_BAD_FCS) {
        uint64_t k = qz_pcap_mac_key(f.ta);
        if (!is_ap(p, k) && p.aps.size() < QZ_PCAP_MAX_KNOWN) {
            p.aps.insert(k);
            qz_sw_forget(p.win, f.ta); // heard as a client before it was seen as an AP
            p.assoc.erase(k);
        }
    }
    if (!p.live && f.has_assoc && f.verdict != QZ_RT_MALFORMED && f.verdict != QZ_RT_BAD_FCS &&
        f.freq) {
        uint64_t k = qz_pcap_mac_key(f.assoc_sta);
        if (!is_ap(p, k) && (p.assoc.count(k) || p.assoc.size() < QZ_PCAP_MAX_KNOWN))
            p.assoc[k] = f.freq;
    }
    switch (f.verdict) {
    case QZ_RT_KEPT:
        break;
    case QZ_RT_NO_SIGNAL:
        bump(p.cnt.no_signal);
        return;
    case QZ_RT_BAD_FCS:
        bump(p.cnt.bad_fcs);
        return;
    case QZ_RT_MALFORMED:
        bump(p.cnt.malformed);
        return;
    default:
        bump(p.cnt.not_station);
        return;
    }
    if (is_ap(p, qz_pcap_mac_key(f.ta))) {
        bump(p.cnt.not_station);
        return;
    }
    const uint64_t local = p.win.cnt.local_ignored, evicted = p.win.cnt.evicted;
    qz_sw_add(p.win, f.ta, f.dbm, f.freq);
    if (p.win.cnt.local_ignored != local)
        bump(p.cnt.local_ignored);
    else
        bump(p.cnt.kept);
    if (p.win.cnt.evicted != evicted)
        bump(p.cnt.evicted, p.win.cnt.evicted - evicted);
}
