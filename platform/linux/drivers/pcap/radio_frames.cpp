// One frame into a pcap radio's state: who is an access point, who is associated, and
// the reading of a client station.
#include "radio_frames.h"

#include "radiotap.h"

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
    ++*p.cnt.read;
    if (f.has_ta && f.ap_sent && !qz_rt_is_group(f.ta) && f.verdict != QZ_RT_MALFORMED &&
        f.verdict != QZ_RT_BAD_FCS) {
        uint64_t k = qz_pcap_mac_key(f.ta);
        if (!p.aps.count(k) && p.aps.size() < QZ_PCAP_MAX_KNOWN) {
            p.aps.insert(k);
            qz_sw_forget(p.win, f.ta); // heard as a client before it was seen as an AP
            p.assoc.erase(k);
        }
    }
    if (!p.live && f.has_assoc && f.verdict != QZ_RT_MALFORMED && f.verdict != QZ_RT_BAD_FCS &&
        f.freq) {
        uint64_t k = qz_pcap_mac_key(f.assoc_sta);
        if (!p.aps.count(k) && (p.assoc.count(k) || p.assoc.size() < QZ_PCAP_MAX_KNOWN))
            p.assoc[k] = f.freq;
    }
    switch (f.verdict) {
    case QZ_RT_KEPT:
        break;
    case QZ_RT_NO_SIGNAL:
        ++*p.cnt.no_signal;
        return;
    case QZ_RT_BAD_FCS:
        ++*p.cnt.bad_fcs;
        return;
    case QZ_RT_MALFORMED:
        ++*p.cnt.malformed;
        return;
    default:
        ++*p.cnt.not_station;
        return;
    }
    if (p.aps.count(qz_pcap_mac_key(f.ta))) {
        ++*p.cnt.not_station;
        return;
    }
    const uint64_t local = p.win.cnt.local_ignored, evicted = p.win.cnt.evicted;
    qz_sw_add(p.win, f.ta, f.dbm, f.freq);
    if (p.win.cnt.local_ignored != local)
        ++*p.cnt.local_ignored;
    else
        ++*p.cnt.kept;
    *p.cnt.evicted += p.win.cnt.evicted - evicted;
}
