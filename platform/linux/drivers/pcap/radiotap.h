// Radiotap + 802.11 header parsing for the pcap driver: one captured frame in, one
// verdict and the reading it carries out. No I/O, no state, no allocation.
#pragma once

#include <cstdint>
#include <span>

enum qz_rt_verdict : uint8_t {
    QZ_RT_KEPT,        // a reading of a client station
    QZ_RT_NO_SIGNAL,   // no dBm antenna signal (e.g. frames the sniffer sent itself)
    QZ_RT_BAD_FCS,     // the receiver flagged a failed frame check
    QZ_RT_MALFORMED,   // radiotap or 802.11 header inconsistent with the delivered bytes
    QZ_RT_NOT_STATION, // no transmitter, a group transmitter, or sent by an access point
    QZ_RT_VERDICTS
};

// 802.11 frame types (frame control bits 2-3).
enum qz_rt_type : uint8_t { QZ_RT_MGMT = 0, QZ_RT_CTRL = 1, QZ_RT_DATA = 2, QZ_RT_EXT = 3 };

struct qz_rt_frame {
    qz_rt_verdict verdict;
    uint8_t type;       // qz_rt_type
    uint8_t subtype;    // frame control bits 4-7
    uint8_t ds;         // bit 0 ToDS, bit 1 FromDS
    int8_t dbm;         // first dBm antenna signal; valid when has_signal
    bool has_signal;
    bool has_ta;        // ta holds the transmitter address
    bool ap_sent;       // the transmitter is an access point (beacon, probe response, FromDS)
    bool has_bssid;     // bssid holds an individual BSSID
    bool has_assoc;     // assoc_sta exchanges data frames with bssid
    uint16_t freq;      // channel field's MHz, 0 when absent
    uint8_t ta[6];
    uint8_t bssid[6];
    uint8_t assoc_sta[6];
};

// Parses one frame as delivered (radiotap header first). Never reads outside bytes.
// Fields other than verdict are filled as far as the headers could be read.
void qz_rt_parse(std::span<const uint8_t> bytes, qz_rt_frame &out);

// Short name of a verdict, for status lines and test messages.
const char *qz_rt_verdict_name(qz_rt_verdict v);

inline bool qz_rt_is_group(const uint8_t *mac) { return (mac[0] & 0x01) != 0; }
inline bool qz_rt_is_local(const uint8_t *mac) { return (mac[0] & 0x02) != 0; }
