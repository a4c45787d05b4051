// Placeholder until this service lands: every call fails.
#include "qz_nbrcom.h"
#include "rt.h"
int qz_hc_register(qz_hc_reg *) { return -1; }
int qz_hc_unregister(void) { return -1; }
int qz_hc3u_send(uint32_t, void *, int) { return -1; }
void rt_owner_start() {}
