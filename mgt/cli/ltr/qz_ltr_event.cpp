// Placeholder until this unit lands: every operation fails.
#include "ltr_event.h"
int ltr_event_init(pthread_t *) { return -1; }
int ltr_event_cleanup(void) { return 0; }
void ltr_event_handler(uint32_t, int, void *) {}
void ltr_kevent_handler(uint32_t, int, void *) {}
const char *ltr_kevent_name(uint32_t) { return "n/a"; }
const char *ltr_if_change_name(uint32_t) { return "n/a"; }
