// Placeholder until this unit lands: every operation fails.
#include "ltr_event.h"
int ltr_handle_msg_in(void *, int) { return 0; }
int ltr_handle_mgt_ip(const void *) { return 0; }
int ltr_handle_radio_up(int, uint32_t) { return 0; }
