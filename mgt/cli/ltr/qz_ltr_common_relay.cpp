// Placeholder until this unit lands: every operation fails.
#include "ltr_rssi.h"
int ltr_relay_rssi(const uint8_t *, const ltr_rssi_data *, uint32_t) { return -1; }
int ltr_lta_msg_recv(void *, int, void *) { return 0; }
int ltr_relay_rssi_recv(ltr_lta_msg *) { return -1; }
