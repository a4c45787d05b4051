// Placeholder until this unit lands: every operation fails.
#include "ltr_rssi.h"
int ltr_owner_query(const uint8_t *, uint16_t) { return -1; }
void ltr_owner_check_timeout(qz_pmpt_timer_t *, void *) {}
int ltr_handle_owner_reply(const ltr_owner_reply_evt *) { return 0; }
