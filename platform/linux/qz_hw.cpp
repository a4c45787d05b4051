// Placeholder until this service lands: every call fails.
#include "qz_hw.h"
int qz_radio_count(void) { return 0; }
const char *qz_ifname_id2radio(int) { return nullptr; }
