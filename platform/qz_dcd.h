// Radio driver library: location-tracking control and reports per radio.
#pragma once
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// One station heard by a radio, as the driver reports it.
struct lta_rpt_entry {
    uint8_t mac[6];
    uint8_t active;
    int8_t rssi;        // dBm
    uint16_t chan_freq; // MHz, host order
} __attribute__((packed));

// One tracked object handed to the driver.
struct lta_trackobj {
    uint8_t mac[6];  // MAC, or OUI in bytes 0-2 with bytes 3-5 zero
    uint8_t pad[2];
    uint32_t is_oui; // 0 MAC, 1 OUI
    uint32_t del;    // 0 add, 1 delete
};

// Per-radio driver counters.
struct lta_stats {
    uint32_t rpt_cnt;
    uint32_t sta_no_node;
    uint32_t oui_no_node;
    uint32_t sta_no_mem;
    uint32_t oui_no_mem;
};

#define QZ_DCD_RPT_TBL_MAX 512 // records one report-table fetch returns at most
#define QZ_DCD_STA_BUF_LEN 1936 // size of the associated-station record buffer

int qz_dcd_lib_init(void);
int qz_dcd_lib_cleanup(void);
int qz_dcd_set_lta_track_enable(int ifindex, int enable);
int qz_dcd_set_lta_lmatch_enable(int ifindex, int value);
int qz_dcd_set_lta_trackobj(int ifindex, struct lta_trackobj *obj);
// count: in, capacity of buf in records; out, records written. 0 on success.
int qz_dcd_get_lta_rpt_tbl(int ifindex, struct lta_rpt_entry *buf, int *count);
// 0 when the station is associated on this radio; buf then holds its record,
// whose u16 at byte 2 is the channel frequency in MHz (host order).
int qz_dcd_get_radio_one_sta(int ifindex, const uint8_t *mac, void *buf, int buflen, int *len);
int qz_dcd_get_lta_stats(int ifindex, struct lta_stats *stats);
int qz_dcd_get_mac_byname(const char *ifname, uint8_t *mac);
// ip and mask in network byte order.
int qz_dcd_get_addr_byname(const char *ifname, uint32_t *ip, uint32_t *mask);

#ifdef __cplusplus
}
static_assert(sizeof(lta_rpt_entry) == 10);
static_assert(offsetof(lta_rpt_entry, active) == 6);
static_assert(offsetof(lta_rpt_entry, rssi) == 7);
static_assert(offsetof(lta_rpt_entry, chan_freq) == 8);
static_assert(sizeof(lta_trackobj) == 16);
static_assert(offsetof(lta_trackobj, is_oui) == 8);
static_assert(offsetof(lta_trackobj, del) == 12);
static_assert(sizeof(lta_stats) == 20);
static_assert(offsetof(lta_stats, oui_no_mem) == 16);
#endif
