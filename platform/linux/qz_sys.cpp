// Placeholder until this service lands: every call fails.
#include "qz_sys.h"
int qz_sys_ready(void) { return 1; }
