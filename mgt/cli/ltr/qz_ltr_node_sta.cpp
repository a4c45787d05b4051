// Placeholder until this unit lands: every operation fails.
#include "ltr_node.h"
void ltr_sta_tbl_init(ltr_sta_tbl *, uint32_t) {}
void ltr_sta_tbl_flush(ltr_sta_tbl *) {}
ltr_sta *ltr_sta_find(ltr_sta_tbl *, const uint8_t *) { return nullptr; }
ltr_sta *ltr_sta_add(ltr_sta_tbl *, const uint8_t *) { return nullptr; }
void ltr_sta_del(ltr_sta *) {}
void ltr_sta_del_bymac(ltr_sta_tbl *, const uint8_t *) {}
ltr_rssi_entry *ltr_rssi_find(ltr_sta *, const uint8_t *) { return nullptr; }
ltr_rssi_entry *ltr_rssi_add(ltr_sta *, const ltr_rssi_data *) { return nullptr; }
void ltr_rssi_del(ltr_rssi_entry *) {}
void ltr_rssi_flush(ltr_sta *) {}
