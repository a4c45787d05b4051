// Placeholder until this unit lands: every operation fails.
#include "ltr_mgt.h"
uint32_t ltr_debug_flags;
int ltr_main(int, char **) { return 1; }
void *qz_ltr_main(void *) { return nullptr; }
int ltr_register_debug_flags(void) { return -1; }
int ltr_noop_initializer(void) { return 0; }
int ltr_start_tracking(void) { return -1; }
int ltr_set_enabled(int) { return -1; }
