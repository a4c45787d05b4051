// Placeholder until this service lands: every call fails.
#include "qz_capwap.h"
#include "rt.h"
int qz_capwap_send_event(uint32_t, int, void *) { return -1; }
void rt_srvchan_start() {}
