// The platform's names of the events the daemon exchanges with it, one table for every
// implementation of qz_eventid_to_name.
#pragma once
#include <stdint.h>

#include "qz_evt_mgt_addr.h"
#include "qz_evt_owner.h"
#include "qz_evt_srv_msg.h"

constexpr const char *qz_evt_name(uint32_t id)
{
    switch (id) {
    case QZ_EVT_OWNER_QUERY:
        return "STA_OWNER_QUERY";
    case QZ_EVT_OWNER_REPLY:
        return "STA_OWNER_REPLY";
    case QZ_EVT_SRV_MSG_IN:
        return "SERVER_MSG_IN";
    case QZ_EVT_SRV_MSG_OUT:
        return "SERVER_MSG_OUT";
    case QZ_EVT_MGT_IP:
        return "MGT_ADDR_CHANGE";
    default:
        return "UNKNOWN";
    }
}
