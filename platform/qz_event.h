// Event library: platform events and kernel events, delivered on the event thread.
#pragma once
#include <pthread.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// payload is writable and valid until the handler returns; len is its true length.
typedef void (*qz_event_handler)(uint32_t id, int len, void *payload);

// Opens the library and creates the event thread, whose identity goes to *thread.
int qz_event_init(int module_id, pthread_t *thread);
int qz_event_subscribe(uint32_t id, qz_event_handler handler);
int qz_kevent_subscribe(uint32_t id, qz_event_handler handler);
int qz_event_unsubscribe(uint32_t id);
int qz_kevent_unsubscribe(uint32_t id);
int qz_event_cleanup(void);
// Posts an event; the payload stays the caller's.
int qz_event_send(uint32_t id, int len, void *payload);
const char *qz_eventid_to_name(uint32_t id);

#ifdef __cplusplus
}
#endif
