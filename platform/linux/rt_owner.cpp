// The process's owner service: started by qz_event_init, fed by the event send tap.
#include <net/if.h>
#include <syslog.h>

#include <mutex>

#include "owner_service.h"
#include "rt.h"
#include "rt_config.h"
#include "rt_event.h"
#include "rt_life.h"
#include "rt_log.h"

static std::mutex g_mu;

// Created after the neighbour endpoint, so destroyed before it at exit.
static owner_service_ptr &owner_slot()
{
    static owner_service_ptr s;
    return s;
}

static void owner_tap(uint32_t id, const void *payload, int len)
{
    if (id != QZ_EVT_OWNER_QUERY)
        return;
    std::lock_guard l(g_mu);
    if (owner_slot())
        owner_service_query(owner_slot().get(), payload, len);
}

// Asks the driver library by interface index, so a radio being closed is never touched.
static bool owner_associated_here(const uint8_t *mac)
{
    uint8_t rec[QZ_DCD_STA_BUF_LEN];
    for (const rt_radio_cfg &rc : rt_cfg().radios) {
        int len = 0;
        unsigned ifindex = if_nametoindex(rc.name.c_str()); // the radio table, no kernel call
        if (ifindex && qz_dcd_get_radio_one_sta(static_cast<int>(ifindex), mac, rec, sizeof rec, &len) == 0)
            return true;
    }
    return false;
}

void rt_owner_stop()
{
    std::lock_guard l(g_mu);
    owner_slot().reset(); // waits out a turn on the loop
}

void rt_owner_start()
{
    nbr_endpoint *ep = nbr_global();
    std::lock_guard l(g_mu);
    static bool started;
    if (started)
        return;
    started = true;
    const rt_config &c = rt_cfg();
    if (c.owners_mode == "external") {
        rt_log(LOG_INFO, "owner queries are left to an outside resolver (owners.mode external)");
        return;
    }
    owner_params p;
    if (rt_mgt_ip(&p.self_ip) < 0 || p.self_ip == 0)
        rt_log(LOG_WARNING, "owner service: the management IPv4 is unknown; owners will read 0");
    p.peer_timeout_ms = static_cast<int>(c.owners_peer_timeout_ms);
    for (const auto &s : c.nb_peers) {
        uint32_t ip;
        if (nbr_parse_ipv4(s, &ip))
            p.peers.push_back(ip);
    }
    p.associated = owner_associated_here;
    p.post = rt_event_post; // queued for the event thread, never run on the poster's
    p.hears = rt_radio_hears;
    owner_slot() = owner_service_open(p, ep);
    rt_event_add_send_tap(owner_tap);
}
