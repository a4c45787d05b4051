// Placeholder until this unit lands: every operation fails.
#include "ltr_rssi.h"
void ltr_rssi_cycle(qz_pmpt_timer_t *, void *) {}
void ltr_set_rpt_interval(ltr_mgt *, uint16_t) {}
int ltr_report_all(ltr_mgt *) { return 0; }
int ltr_report_stations(ltr_mgt *, const uint8_t *, uint8_t) { return 0; }
