// Event library internals: the delivery queue and the sources the event thread polls
// besides it (rtnetlink, events.sock). The records delivered are the platform headers'.
#pragma once
#include <net/if.h>
#include <stdint.h>

#include <vector>

#include "qz_evt_mgt_addr.h"
#include "qz_kevt_if_change.h"

static_assert(sizeof(qz_if_change{}.name) == IFNAMSIZ);
static_assert(sizeof(qz_mgt_addr_evt{}.ifname) == IFNAMSIZ);

// Queue a delivery for the event thread (payload copied).
void rt_event_post(uint32_t id, const void *payload, int len);
void rt_kevent_post(uint32_t id, const void *payload, int len);
// True while the queue holds its bound (1 MiB, counted with bookkeeping): sources
// outside the process then stop reading (server channel) or drop (events.sock).
bool rt_event_queue_full();
// Readable (eventfd) once the queue has dropped below its bound since it was last
// read: a source held back by a full queue waits on it instead of polling.
int rt_event_room_fd();
// Observers of qz_event_send (owner service, events.sock subscribers).
typedef void (*rt_event_tap_fn)(uint32_t id, const void *payload, int len);
void rt_event_add_send_tap(rt_event_tap_fn fn);

// rtnetlink: link changes of the radios (kernel event 19) and address changes of the
// management interface (event 280). open returns the fd to poll, or -1.
int rt_netlink_open();
void rt_netlink_readable();
// The configured radios that were up when rt_netlink_open learnt the links, each as an
// "up" change (what a link dump reports). Call while the event thread is not running.
std::vector<qz_if_change> rt_netlink_up_radios();
void rt_netlink_close();

// events.sock: injection of deliveries and subscription to qz_event_send copies.
int rt_events_sock_open();
void rt_events_sock_readable();
void rt_events_sock_close();
void rt_events_sock_tap(uint32_t id, const void *payload, int len);
