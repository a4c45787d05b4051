// Placeholder until this service lands: every call fails.
#include "qz_event.h"
#include "rt.h"
int qz_event_init(int, pthread_t *) { return -1; }
int qz_event_subscribe(uint32_t, qz_event_handler) { return -1; }
int qz_kevent_subscribe(uint32_t, qz_event_handler) { return -1; }
int qz_event_unsubscribe(uint32_t) { return -1; }
int qz_kevent_unsubscribe(uint32_t) { return -1; }
int qz_event_cleanup(void) { return -1; }
int qz_event_send(uint32_t, int, void *) { return -1; }
const char *qz_eventid_to_name(uint32_t) { return "unknown"; }
void rt_event_post(uint32_t, const void *, int) {}
void rt_kevent_post(uint32_t, const void *, int) {}
void rt_event_add_send_tap(rt_event_tap_fn) {}
