// Event subscription and dispatch.
#pragma once
#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

#include "qz_evt_mgt_addr.h"
#include "qz_evt_srv_msg.h"
#include "qz_kevt_if_change.h"

#define LTR_EVT_SRV_MSG_IN QZ_EVT_SRV_MSG_IN
#define LTR_EVT_MGT_IP QZ_EVT_MGT_IP
#define LTR_KEVT_IF_CHANGE QZ_KEVT_IF_CHANGE

#define LTR_IF_UP_FLAG QZ_IFF_UP
#define LTR_IF_NOACCESS_FLAG QZ_IFF_NO_ACCESS
#define LTR_IF_LOOPBACK_FLAG QZ_IFF_LOOPBACK

using ltr_if_change = qz_if_change;
#define LTR_IF_CHANGE_HDR QZ_IF_CHANGE_HDR
// The daemon reads only the address word of the management address event.
#define LTR_MGT_IP_OFFSET ((int)offsetof(qz_mgt_addr_evt, ip))

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
