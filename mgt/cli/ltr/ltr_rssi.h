// RSSI collection and reporting cycle, AP-to-AP relay and station owners.
#pragma once
#include <stddef.h>
#include <stdint.h>

#include "ltr_mgt.h"
#include "qz_evt_owner.h"

#define LTR_EVT_OWNER_QUERY QZ_EVT_OWNER_QUERY
#define LTR_EVT_OWNER_REPLY QZ_EVT_OWNER_REPLY
#define LTR_OWNER_QUERY_CODE QZ_OWNER_QUERY_CODE
#define LTR_BAND_BOUNDARY 4000
#define LTR_LOCAL_HORIZON 60

// AP-to-AP message header; big-endian except src_ip (network order, as held).
struct ltr_lta_msg {
    uint32_t type;
    uint32_t src_ip;
    uint16_t len; // payload bytes
    uint16_t reserved;
} __attribute__((packed));
static_assert(sizeof(ltr_lta_msg) == 12);

#define LTR_LTA_RSSI_RELAY 0u

struct ltr_rssi_relay {
    uint8_t sta_mac[6];
    uint8_t ap_mac[6];
    uint8_t active;
    int8_t rssi;
    uint16_t chan_freq; // big-endian
} __attribute__((packed));
static_assert(sizeof(ltr_rssi_relay) == 16);
#define LTR_RELAY_MSG_LEN 28

using ltr_owner_query_evt = qz_owner_query_evt;
using ltr_owner_reply_evt = qz_owner_reply_evt;
using ltr_owner_rec = qz_owner_rec;

// Due rule. All with the lock held.
// One cycle of a reading's life; false once it has run out.
bool ltr_rssi_age(ltr_mgt *m, ltr_rssi_entry *e);
// The same with the reading's life (ltr_rssi_life) already known.
bool ltr_rssi_age_life(ltr_rssi_entry *e, int life);
// Stores a fresh reading of sta under its reporter (rd->ap_mac), opening the entry when
// needed, and marks sta due for a new reporter, for due, or for a change beyond the
// threshold. local: heard by this AP's radios. Null when nothing was stored.
ltr_rssi_entry *ltr_rssi_store(ltr_mgt *m, ltr_sta *sta, const ltr_rssi_data *rd, bool local,
                               bool due);
// A cycle without a report: sta falls due by the suppress count or the valid period.
void ltr_sta_age(const ltr_cfg *c, ltr_sta *sta);
// A reading reported or handed over, and then its station.
void ltr_rssi_consume(ltr_rssi_entry *e);
void ltr_sta_consume(ltr_sta *sta);

// Cycle.
void ltr_rssi_cycle(qz_pmpt_timer_t *t, void *param);
void ltr_set_rpt_interval(ltr_mgt *m, uint16_t interval); // lock held
int ltr_report_all(ltr_mgt *m);                           // lock held
int ltr_report_stations(ltr_mgt *m, const uint8_t *mlist, uint8_t nmac);

// Relay.
int ltr_relay_rssi(const uint8_t *sta_mac, const ltr_rssi_data *rssi, uint32_t owner_ip);
int ltr_lta_msg_recv(void *ctx, int length, void *data);
int ltr_relay_rssi_recv(ltr_lta_msg *msg_hdr);

// Owners.
int ltr_owner_query(const uint8_t *sta_arr, uint16_t count);
void ltr_owner_check_timeout(qz_pmpt_timer_t *t, void *m);
// evt holds at least 2 + 10 * count bytes (the event dispatcher checks it).
int ltr_handle_owner_reply(const ltr_owner_reply_evt *evt);
