// Placeholder until this unit lands: every operation fails.
#include "ltr_mgt.h"
ltr_mgt mgt;
int ltr_mgt_inited;
int ltr_mgt_init(void) { return -1; }
int ltr_mgt_cleanup(void) { return 0; }
int ltr_mgt_set_suppress(uint16_t) { return -1; }
int ltr_mgt_set_rpt_interval(uint16_t) { return -1; }
int ltr_mgt_set_valid_period(uint16_t) { return -1; }
int ltr_mgt_set_hold_time(uint8_t) { return -1; }
int ltr_mgt_set_rssi_threshold(uint16_t) { return -1; }
int ltr_rssi_life(ltr_mgt *, ltr_rssi_entry *) { return 0; }
