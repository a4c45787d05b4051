// Event library internals: the records the runtime delivers, and the sources the
// event thread polls besides its queue (rtnetlink, events.sock).
#pragma once
#include <net/if.h>
#include <stddef.h>
#include <stdint.h>

#include <vector>

#define RT_EVT_OWNER_QUERY 156
#define RT_EVT_OWNER_REPLY 157
#define RT_EVT_SRV_MSG_IN 164
#define RT_EVT_SRV_MSG_OUT 165
#define RT_EVT_MGT_IP 280
#define RT_KEVT_IF_CHANGE 19

// Change types of kernel event 19.
enum rt_if_change_type : uint32_t {
    RT_IF_UP = 1,
    RT_IF_DOWN = 2,
    RT_IF_MAC = 5,
    RT_IF_NAME = 6,
};

// Flags word of kernel event 19: the platform's own, not the kernel's.
#define RT_IFF_UP 0x1u
#define RT_IFF_NO_ACCESS 0x2u
#define RT_IFF_LOOPBACK 0x8u

// Payload of kernel event 19, host order.
struct rt_if_change {
    uint32_t type;
    int32_t ifindex;
    uint32_t flags;
    char name[IFNAMSIZ]; // NUL-terminated
};
static_assert(sizeof(rt_if_change) == 28);
static_assert(offsetof(rt_if_change, ifindex) == 4);
static_assert(offsetof(rt_if_change, flags) == 8);
static_assert(offsetof(rt_if_change, name) == 12);

// Payload of event 280: the management interface's address changed.
struct rt_mgt_addr_evt {
    char ifname[IFNAMSIZ]; // the Linux interface that plays mgt0
    int32_t ifindex;       // host order
    uint32_t ip;           // network order; 0 = no address any more
    uint32_t mask;         // network order
};
static_assert(sizeof(rt_mgt_addr_evt) == 28);
static_assert(offsetof(rt_mgt_addr_evt, ip) == 20);

// rtnetlink: link changes of the radios (kernel event 19) and address changes of the
// management interface (event 280). open returns the fd to poll, or -1.
int rt_netlink_open();
void rt_netlink_readable();
// The configured radios that were up when rt_netlink_open learnt the links, each as an
// "up" change (what a link dump reports). Call while the event thread is not running.
std::vector<rt_if_change> rt_netlink_up_radios();
void rt_netlink_close();

// events.sock: injection of deliveries and subscription to qz_event_send copies.
int rt_events_sock_open();
void rt_events_sock_readable();
void rt_events_sock_close();
void rt_events_sock_tap(uint32_t id, const void *payload, int len);
