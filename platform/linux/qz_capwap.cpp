// Placeholder until this service lands: every call fails.
#include "qz_capwap.h"
int qz_capwap_send_event(uint32_t, int, void *) { return -1; }
