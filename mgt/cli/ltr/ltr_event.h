// Event subscription and dispatch.
#pragma once
#include <pthread.h>
#include <stdint.h>

#define LTR_EVT_SRV_MSG_IN 164
#define LTR_EVT_MGT_IP 280
#define LTR_KEVT_IF_CHANGE 19

#define LTR_IF_UP_FLAG 0x1u
#define LTR_IF_NOACCESS_FLAG 0x2u
#define LTR_IF_LOOPBACK_FLAG 0x8u

// Interface-change record of kernel event 19, host order.
struct ltr_if_change {
    uint32_t type;
    int32_t ifindex;
    uint32_t flags;
    char name[]; // NUL-terminated
};
#define LTR_IF_CHANGE_HDR 12
#define LTR_MGT_IP_OFFSET 20

int ltr_event_init(pthread_t *thread);
int ltr_event_cleanup(void);
void ltr_event_handler(uint32_t id, int len, void *payload);
void ltr_kevent_handler(uint32_t id, int len, void *payload);
const char *ltr_kevent_name(uint32_t id);
const char *ltr_if_change_name(uint32_t type);

// Handlers (they take the lock).
int ltr_handle_msg_in(void *in_msg, int len);
int ltr_handle_mgt_ip(const void *evt);
int ltr_handle_radio_up(int ifindex, uint32_t access);
