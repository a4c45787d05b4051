// Radiotap walk (extended bitmaps, radiotap and vendor namespaces, natural alignment)
// and the 802.11 address rules that decide who transmitted a frame.
#include "radiotap.h"

#include <cstring>

namespace {

// Alignment and size of the radiotap namespace fields, by present bit. A zero size marks
// a bit whose layout we do not know: the walk stops there, keeping what it found before.
struct rt_field {
    uint8_t align;
    uint8_t size;
};
constexpr rt_field rt_fields[29] = {
    {8, 8},  // 0 TSFT
    {1, 1},  // 1 flags
    {1, 1},  // 2 rate
    {2, 4},  // 3 channel: MHz, flags
    {1, 2},  // 4 FHSS
    {1, 1},  // 5 dBm antenna signal
    {1, 1},  // 6 dBm antenna noise
    {2, 2},  // 7 lock quality
    {2, 2},  // 8 TX attenuation
    {2, 2},  // 9 dB TX attenuation
    {1, 1},  // 10 dBm TX power
    {1, 1},  // 11 antenna
    {1, 1},  // 12 dB antenna signal
    {1, 1},  // 13 dB antenna noise
    {2, 2},  // 14 RX flags
    {2, 2},  // 15 TX flags
    {1, 1},  // 16 RTS retries
    {1, 1},  // 17 data retries
    {4, 8},  // 18 extended channel
    {1, 3},  // 19 MCS
    {4, 8},  // 20 A-MPDU status
    {2, 12}, // 21 VHT
    {8, 12}, // 22 timestamp
    {2, 12}, // 23 HE
    {2, 12}, // 24 HE-MU
    {2, 6},  // 25 HE-MU other user
    {1, 1},  // 26 zero-length PSDU
    {2, 4},  // 27 L-SIG
    {0, 0},  // 28 TLVs: the rest of the header, not walked
};
static_assert(sizeof(rt_fields) / sizeof(rt_fields[0]) == 29);

constexpr uint32_t bit_radiotap_ns = 29, bit_vendor_ns = 30, bit_ext = 31;
constexpr uint8_t flag_fcs_at_end = 0x10, flag_bad_fcs = 0x40;
constexpr size_t rt_fixed = 8;     // version, pad, length, first present word

uint16_t le16(const uint8_t *p) { return uint16_t(p[0] | p[1] << 8); }
uint32_t le32(const uint8_t *p) { return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24; }

struct rt_info {
    size_t len = 0;   // radiotap header length
    bool has_flags = false;
    uint8_t flags = 0;
};

// Walks the present bitmaps and their fields; false when the header does not fit the bytes.
bool rt_walk(std::span<const uint8_t> b, rt_info &ri, qz_rt_frame &out) {
    if (b.size() < rt_fixed || b[0] != 0)
        return false;
    size_t len = le16(&b[2]);
    if (len < rt_fixed || len > b.size())
        return false;
    ri.len = len;
    const uint8_t *h = b.data();

    // Present words run until one without the extension bit.
    size_t nwords = 1;
    while (le32(h + 4 + 4 * (nwords - 1)) & (1u << bit_ext)) {
        if (4 + 4 * (nwords + 1) > len) // bounded by the header length
            return false;
        ++nwords;
    }
    size_t off = 4 + 4 * nwords;

    bool vendor = false;     // the current namespace is a vendor one
    size_t vendor_end = 0;   // where the current vendor namespace's data ends
    bool stopped = false;    // an unknown radiotap field: later fields cannot be located
    for (size_t w = 0, bitbase = 0; w < nwords && !stopped; ++w, bitbase += 32) {
        uint32_t word = le32(h + 4 + 4 * w);
        if (!vendor) {
            for (uint32_t bit = 0; bit < 29; ++bit) {
                if (!(word & (1u << bit)))
                    continue;
                size_t idx = bitbase + bit;
                if (idx >= 29 || rt_fields[idx].size == 0) {
                    stopped = true;
                    break;
                }
                const rt_field f = rt_fields[idx];
                off = (off + f.align - 1) & ~size_t(f.align - 1);
                if (off + f.size > len)
                    return false;
                const uint8_t *p = h + off;
                if (idx == 1 && !ri.has_flags) {
                    ri.has_flags = true;
                    ri.flags = p[0];
                } else if (idx == 3 && out.freq == 0) {
                    out.freq = le16(p);
                } else if (idx == 5 && !out.has_signal) {
                    out.has_signal = true;
                    out.dbm = int8_t(p[0]);
                }
                off += f.size;
            }
        }
        // The namespace bits decide what the next word describes.
        if (word & (1u << bit_vendor_ns)) {
            if (vendor)
                off = vendor_end;
            off = (off + 1) & ~size_t(1);
            if (off + 6 > len)
                return false;
            size_t skip = le16(h + off + 4);
            off += 6;
            if (off + skip > len)
                return false;
            vendor = true;
            vendor_end = off + skip;
            bitbase = size_t(0) - 32;
        } else if (word & (1u << bit_radiotap_ns)) {
            if (vendor)
                off = vendor_end;
            vendor = false;
            bitbase = size_t(0) - 32;
        }
    }
    return true;
}

void copy_mac(uint8_t *to, const uint8_t *from) { std::memcpy(to, from, 6); }

// Fills transmitter, BSSID and association from the 802.11 header; false when short.
bool wlan_addresses(std::span<const uint8_t> f, qz_rt_frame &out) {
    if (f.size() < 10)
        return false;
    const uint8_t fc0 = f[0], fc1 = f[1];
    if ((fc0 & 0x03) != 0)
        return false; // protocol version other than 0
    out.type = (fc0 >> 2) & 0x03;
    out.subtype = fc0 >> 4;
    out.ds = fc1 & 0x03;
    const uint8_t *a1 = &f[4], *a2 = &f[10], *a3 = &f[16];

    switch (out.type) {
    case QZ_RT_MGMT:
        if (f.size() < 24)
            return false;
        out.has_ta = true;
        copy_mac(out.ta, a2);
        out.has_bssid = true;
        copy_mac(out.bssid, a3);
        out.ap_sent = out.subtype == 8 || out.subtype == 5; // beacon, probe response
        return true;
    case QZ_RT_CTRL:
        switch (out.subtype) {
        case 8: case 9: case 10: case 11: // block ack request, block ack, PS-Poll, RTS
            if (f.size() < 16)
                return false;
            out.has_ta = true;
            copy_mac(out.ta, a2);
            if (out.subtype == 10) { // PS-Poll: addr1 is the BSSID
                out.has_bssid = true;
                copy_mac(out.bssid, a1);
            }
            return true;
        case 14: case 15: // CF-End: the access point sends it
            if (f.size() < 16)
                return false;
            out.has_ta = out.ap_sent = out.has_bssid = true;
            copy_mac(out.ta, a2);
            copy_mac(out.bssid, a2);
            return true;
        default: // CTS, ACK, wrappers: a receiver only
            return true;
        }
    case QZ_RT_DATA: {
        const size_t need = out.ds == 3 ? 30 : 24;
        if (f.size() < need)
            return false;
        out.has_ta = true;
        copy_mac(out.ta, a2);
        const uint8_t *sta = nullptr;
        switch (out.ds) {
        case 0: // ad hoc: addr3 is the BSSID
            out.has_bssid = true;
            copy_mac(out.bssid, a3);
            break;
        case 1: // ToDS: station -> access point
            out.has_bssid = true;
            copy_mac(out.bssid, a1);
            sta = a2;
            break;
        case 2: // FromDS: access point -> station
            out.has_bssid = out.ap_sent = true;
            copy_mac(out.bssid, a2);
            sta = a1;
            break;
        default: // between access points
            out.ap_sent = true;
            break;
        }
        if (sta && !qz_rt_is_group(sta) && !qz_rt_is_group(out.bssid)) {
            out.has_assoc = true;
            copy_mac(out.assoc_sta, sta);
        }
        return true;
    }
    default:
        return true; // extension frames carry no transmitter we attribute
    }
}

} // namespace

void qz_rt_parse(std::span<const uint8_t> bytes, qz_rt_frame &out) {
    out = qz_rt_frame{};
    rt_info ri;
    if (!rt_walk(bytes, ri, out)) {
        out.verdict = QZ_RT_MALFORMED;
        return;
    }
    std::span<const uint8_t> wlan = bytes.subspan(ri.len);
    if (ri.has_flags && (ri.flags & flag_fcs_at_end)) {
        if (wlan.size() < 4) {
            out.verdict = QZ_RT_MALFORMED;
            return;
        }
        wlan = wlan.first(wlan.size() - 4);
    }
    const bool read = wlan_addresses(wlan, out);
    if (out.has_bssid && qz_rt_is_group(out.bssid))
        out.has_bssid = false; // wildcard BSSID of probe requests: no access point to learn
    if (!read)
        out.verdict = QZ_RT_MALFORMED;
    else if (ri.has_flags && (ri.flags & flag_bad_fcs))
        out.verdict = QZ_RT_BAD_FCS;
    else if (!out.has_signal)
        out.verdict = QZ_RT_NO_SIGNAL;
    else if (!out.has_ta || out.ap_sent || qz_rt_is_group(out.ta))
        out.verdict = QZ_RT_NOT_STATION;
    else
        out.verdict = QZ_RT_KEPT;
}

const char *qz_rt_verdict_name(qz_rt_verdict v) {
    static constexpr const char *names[QZ_RT_VERDICTS] = {"kept", "no signal", "bad FCS", "malformed",
                                                          "not from a station"};
    return v < QZ_RT_VERDICTS ? names[v] : "?";
}
