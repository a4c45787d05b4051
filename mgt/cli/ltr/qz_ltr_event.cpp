// Event subscription and dispatch: the three platform events and the kernel
// interface-change event, each length-checked before a handler reads it.
#define LTR_UNIT "qz_ltr_common"
#include "ltr_event.h"

#include <string.h>

#include <array>

#include "ltr_mgt.h"
#include "ltr_rssi.h"
#include "qz_event.h"

int ltr_event_init(pthread_t *thread)
{
    if (qz_event_init(LTR_MODULE_ID, thread) < 0)
        return -1;
    qz_event_subscribe(LTR_EVT_MGT_IP, ltr_event_handler);
    qz_event_subscribe(LTR_EVT_OWNER_REPLY, ltr_event_handler);
    qz_event_subscribe(LTR_EVT_SRV_MSG_IN, ltr_event_handler);
    qz_kevent_subscribe(LTR_KEVT_IF_CHANGE, ltr_kevent_handler);
    return 0;
}

int ltr_event_cleanup(void)
{
    qz_event_unsubscribe(LTR_EVT_MGT_IP);
    qz_event_unsubscribe(LTR_EVT_OWNER_REPLY);
    qz_event_unsubscribe(LTR_EVT_SRV_MSG_IN);
    qz_kevent_unsubscribe(LTR_KEVT_IF_CHANGE);
    qz_event_cleanup();
    return 0;
}

// A delivery shorter than its fixed layout is dropped before anything reads it.
static bool ltr_evt_short(uint32_t id, int len, int need)
{
    if (len >= need)
        return false;
    qz_log(0, 3, "drop short event %d (%s): %d bytes, need %d\n", (int)id, qz_eventid_to_name(id),
           len, need);
    return true;
}

void ltr_event_handler(uint32_t id, int len, void *payload)
{
    switch (id) {
    case LTR_EVT_SRV_MSG_IN:
        LTR_DBG(EVENT, "receive event (%s)\n", qz_eventid_to_name(id));
        // The engine's validation checks the message against len itself.
        ltr_handle_msg_in(payload, len);
        break;
    case LTR_EVT_MGT_IP:
        LTR_DBG(EVENT, "receive event (%s)\n", qz_eventid_to_name(id));
        if (ltr_evt_short(id, len, LTR_MGT_IP_OFFSET + 4))
            return;
        ltr_handle_mgt_ip(payload);
        break;
    case LTR_EVT_OWNER_REPLY: {
        LTR_DBG(EVENT, "receive event (%s):\n", qz_eventid_to_name(id));
        if (ltr_evt_short(id, len, (int)sizeof(ltr_owner_reply_evt)))
            return;
        const auto *evt = (const ltr_owner_reply_evt *)payload;
        int count = evt->count;
        if (ltr_evt_short(id, len, (int)sizeof(*evt) + count * (int)sizeof(ltr_owner_rec)))
            return;
        if (LTR_DBG_ON(EVENT)) {
            const auto *rec = (const uint8_t *)payload + sizeof(*evt);
            for (int i = 0; i < count; i++, rec += sizeof(ltr_owner_rec)) {
                uint32_t owner;
                memcpy(&owner, rec + offsetof(ltr_owner_rec, owner), sizeof(owner));
                LTR_DBG(EVENT, "station %m, owner %i.\n", rec, owner);
            }
        }
        ltr_handle_owner_reply(evt);
        break;
    }
    default:
        qz_log(0, 3, "receive unknown event %d", (int)id);
        break;
    }
}

void ltr_kevent_handler(uint32_t id, int len, void *payload)
{
    if (id != LTR_KEVT_IF_CHANGE) {
        qz_log(0, 3, "receive unknown kevent %d (%s)", (int)id, ltr_kevent_name(id));
        return;
    }
    // Fixed part, then a name that must end inside the delivery.
    const char *name = (const char *)payload + LTR_IF_CHANGE_HDR;
    int need = LTR_IF_CHANGE_HDR + 1;
    if (len > LTR_IF_CHANGE_HDR) {
        const void *nul = memchr(name, 0, (size_t)(len - LTR_IF_CHANGE_HDR));
        need = nul ? LTR_IF_CHANGE_HDR + (int)((const char *)nul - name) + 1 : len + 1;
    }
    if (len < need) {
        qz_log(0, 3, "drop short kevent %d (ifchange): %d bytes, need %d\n", (int)id,
               len, need);
        return;
    }
    ltr_if_change chg; // the delivery need not be aligned
    memcpy(&chg, payload, LTR_IF_CHANGE_HDR);

    LTR_DBG(EVENT, "receive %s ifchange event, type: %s", name, ltr_if_change_name(chg.type));
    if ((chg.flags & (LTR_IF_UP_FLAG | LTR_IF_LOOPBACK_FLAG)) != LTR_IF_UP_FLAG)
        return;
    if (chg.type != 1)
        return;
    ltr_handle_radio_up(chg.ifindex, (chg.flags & LTR_IF_NOACCESS_FLAG) ? 0 : 1);
}

const char *ltr_if_change_name(uint32_t type)
{
    static constexpr const char *names[] = {
        "INVALID", "IF_UP",   "IF_DOWN",       "IF_REBOOT",        "IF_MTU",
        "IF_MAC",  "IF_NAME", "IF_GOING_DOWN", "IF_IPV6_ADDR_ADD", "IF_IPV6_ADDR_DEL",
    };
    return type < std::size(names) ? names[type] : "n/a";
}

// Names of the platform's kernel events, for the log line of an unexpected one.
#define LTR_KEVT_MAX 53
static constexpr std::array<const char *, LTR_KEVT_MAX> ltr_kevent_names()
{
    std::array<const char *, LTR_KEVT_MAX> n{};
    n[0] = "KEVT_NONE";
    n[1] = "LINK_UP";
    n[2] = "LINK_DOWN";
    n[4] = "ADDR_ADD";
    n[5] = "ADDR_DEL";
    n[6] = "ROUTE_ADD";
    n[7] = "ROUTE_DEL";
    n[8] = "NEIGH_ADD";
    n[9] = "NEIGH_DEL";
    n[10] = "BRIDGE_PORT_ADD";
    n[11] = "BRIDGE_PORT_DEL";
    n[12] = "VLAN_ADD";
    n[13] = "VLAN_DEL";
    n[14] = "STA_ASSOC";
    n[15] = "STA_DISASSOC";
    n[16] = "STA_AUTH";
    n[17] = "STA_DEAUTH";
    n[20] = "RADIO_CHAN_CHANGE";
    n[21] = "RADIO_TXPOWER_CHANGE";
    n[22] = "RADIO_RESET";
    n[23] = "RADAR_DETECTED";
    n[24] = "DFS_CAC_START";
    n[25] = "DFS_CAC_DONE";
    n[26] = "SCAN_DONE";
    n[27] = "MIC_FAILURE";
    n[28] = "KEY_INSTALL";
    n[29] = "KEY_REMOVE";
    n[30] = "PORT_AUTHORIZED";
    n[31] = "PORT_UNAUTHORIZED";
    n[32] = "FDB_ADD";
    n[33] = "FDB_DEL";
    n[34] = "IPV6_RA";
    n[35] = "DHCP_SNOOP";
    n[36] = "ARP_SNOOP";
    n[37] = "TEMP_ALARM";
    n[38] = "FAN_FAIL";
    n[39] = "POWER_SOURCE_CHANGE";
    n[40] = "USB_PLUG";
    n[41] = "USB_UNPLUG";
    n[42] = "reset button pressed";
    n[43] = "watchdog about to expire";
    n[44] = "low memory";
    n[45] = "ETH_SPEED_CHANGE";
    n[46] = "POE_CHANGE";
    n[47] = "LED_MODE_CHANGE";
    n[48] = "CLOCK_SET";
    n[49] = "configuration reload";
    n[50] = "TUNNEL_UP";
    n[51] = "TUNNEL_DOWN";
    n[52] = "MESH_LINK_CHANGE";
    return n;
}
static constexpr auto ltr_kevt_names = ltr_kevent_names();
static constexpr int ltr_kevent_named()
{
    int c = 0;
    for (auto *p : ltr_kevt_names)
        c += p != nullptr;
    return c;
}
static_assert(ltr_kevent_named() == 50);
static_assert(!ltr_kevt_names[3] && !ltr_kevt_names[18] && !ltr_kevt_names[19]);

const char *ltr_kevent_name(uint32_t id)
{
    const char *n = id < LTR_KEVT_MAX ? ltr_kevt_names[id] : nullptr;
    return n ? n : "n/a";
}
