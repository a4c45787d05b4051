// The lean platform: plain tables, no locks, nothing recorded. Only for benchmarks, which
// call the core from one thread.
#include "lean_platform.h"

#include <stdarg.h>
#include <net/if.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>

#include "qz.h"
#include "qz_capwap.h"
#include "qz_cli.h"
#include "qz_db.h"
#include "qz_event.h"
#include "qz_evt_names.h"
#include "qz_hw.h"
#include "qz_log.h"
#include "qz_mpi.h"
#include "qz_nbrcom.h"
#include "qz_sys.h"
#include "qz_top.h"
#include "qz_tpa.h"

namespace lean {
namespace {

std::vector<radio> g_radios;
uint8_t g_mac[6];
uint32_t g_ip;
counters g_counts;

std::vector<std::pair<qz_pmpt_timer_cb, void *>> g_timers; // never fired: benchmarks call the cycle
std::vector<uint8_t> g_shm;

// MAC in the high 48 bits (in order), frequency in the low 16.
uint64_t key_of(const uint8_t *mac, uint16_t freq)
{
    uint64_t k = 0;
    for (int i = 0; i < 6; i++)
        k = k << 8 | mac[i];
    return k << 16 | freq;
}

radio *by_ifindex(int ifindex)
{
    for (auto &r : g_radios)
        if (r.ifindex == ifindex)
            return &r;
    return nullptr;
}

int sent(int len)
{
    g_counts.sends++;
    g_counts.send_bytes += (uint64_t)std::max(len, 0);
    return 0;
}

} // namespace

void set_radios(std::vector<radio> radios)
{
    for (auto &r : radios) {
        r.assoc_key.clear();
        for (auto &a : r.assoc)
            r.assoc_key.push_back(key_of(a.mac, a.freq));
        std::sort(r.assoc_key.begin(), r.assoc_key.end());
    }
    g_radios = std::move(radios);
}

void set_mgt(const uint8_t mac[6], uint32_t ip)
{
    memcpy(g_mac, mac, 6);
    g_ip = ip;
}

const counters &counts() { return g_counts; }

} // namespace lean

using namespace lean;

extern "C" {

uint32_t qz_lib_dbg;

unsigned int if_nametoindex(const char *name) __THROW
{
    for (auto &r : g_radios)
        if (name && r.name == name)
            return (unsigned)r.ifindex;
    return 0;
}

char *if_indextoname(unsigned int ifindex, char *buf) __THROW
{
    radio *r = by_ifindex((int)ifindex);
    return r ? (snprintf(buf, IF_NAMESIZE, "%s", r->name.c_str()), buf) : nullptr;
}

int qz_radio_count(void) { return (int)g_radios.size(); }
const char *qz_ifname_id2radio(int i) { return i < 0 || i >= (int)g_radios.size() ? nullptr : g_radios[(size_t)i].name.c_str(); }

int qz_dcd_get_lta_rpt_tbl(int ifindex, lta_rpt_entry *buf, int *count)
{
    radio *r = by_ifindex(ifindex);
    if (!r)
        return -1;
    *count = std::min((int)r->rpt.size(), *count);
    memcpy(buf, r->rpt.data(), sizeof(*buf) * (size_t)std::max(*count, 0));
    return 0;
}

int qz_dcd_get_radio_one_sta(int ifindex, const uint8_t *mac, void *buf, int buflen, int *len)
{
    radio *r = by_ifindex(ifindex);
    if (!r || buflen < 4)
        return -1;
    uint64_t key = key_of(mac, 0);
    auto it = std::lower_bound(r->assoc_key.begin(), r->assoc_key.end(), key);
    if (it == r->assoc_key.end() || (*it >> 16) != (key >> 16))
        return -1;
    uint16_t freq = (uint16_t)*it;
    memset(buf, 0, 4); // the record's length and frequency are all the daemon reads
    memcpy((uint8_t *)buf + 2, &freq, 2);
    *len = buflen;
    return 0;
}

int qz_dcd_set_lta_track_enable(int, int) { return 0; }
int qz_dcd_set_lta_lmatch_enable(int, int) { return 0; }
int qz_dcd_set_lta_trackobj(int, lta_trackobj *) { return 0; }
int qz_dcd_get_lta_stats(int, lta_stats *stats) { *stats = lta_stats{}; return 0; }
int qz_dcd_get_mac_byname(const char *, uint8_t *mac) { memcpy(mac, g_mac, 6); return 0; }
int qz_dcd_get_addr_byname(const char *, uint32_t *ip, uint32_t *mask)
{
    *ip = g_ip;
    if (mask)
        *mask = 0x00ffffff;
    return 0;
}
int qz_dcd_lib_init(void) { return 0; }
int qz_dcd_lib_cleanup(void) { return 0; }

int qz_event_send(uint32_t, int len, void *) { return sent(len); }
int qz_hc3u_send(uint32_t, void *, int len) { return sent(len); }
int qz_capwap_send_event(uint32_t, int len, void *) { return sent(len); }

qz_pmpt_timer_t *qz_pmpt_timer_create(qz_pmpt_timer_cb cb, void *arg)
{
    g_timers.push_back({cb, arg});
    return (qz_pmpt_timer_t *)(uintptr_t)g_timers.size(); // a handle, never dereferenced
}
int qz_pmpt_timer_start(qz_pmpt_timer_t *, unsigned int) { return 0; }
int qz_pmpt_timer_stop(qz_pmpt_timer_t *) { return 0; }
int qz_pmpt_timer_delete(qz_pmpt_timer_t *) { return 0; }
int qz_pmpt_timer_time2fire(qz_pmpt_timer_t *) { return -1; }
int qz_pmpt_timer_init(int) { return 0; }

void qz_log(int, int, const char *, ...) {}
void __qz_dbg(const char *, int, const char *, const char *, ...) {}
void __qz_err(const char *, int, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    vfprintf(stderr, fmt, ap);
    va_end(ap);
}
void qz_hexdump(const void *, int) {}
int qz_daemonize(int, int) { return 0; }
void *qz_shm_create(int *id, int, int size)
{
    g_shm.assign((size_t)std::max(size, 0), 0);
    *id = 1;
    return g_shm.data();
}
int qz_shm_destroy(int, void *) { return 0; }
int qz_pthread_setschedparam(pthread_t, int, int) { return 0; }
int qz_pthread_create(pthread_t *, qz_thread_fn, void *, int, int, int) { return -1; }
int qz_pm_init(int) { return 0; }
int qz_pm_setstate(int, int) { return 0; }
int qz_pm_cleanup(int) { return 0; }
int qz_sys_ready(void) { return 1; }
int qz_event_init(int, pthread_t *) { return -1; }
int qz_event_cleanup(void) { return 0; }
int qz_event_subscribe(uint32_t, qz_event_handler) { return 0; }
int qz_kevent_subscribe(uint32_t, qz_event_handler) { return 0; }
int qz_event_unsubscribe(uint32_t) { return 0; }
int qz_kevent_unsubscribe(uint32_t) { return 0; }
const char *qz_eventid_to_name(uint32_t id) { return qz_evt_name(id); }
int qz_hc_register(qz_hc_reg *) { return 0; }
int qz_hc_unregister(void) { return 0; }
int qz_start_cli_agent(int, int, pthread_t *) { return -1; }
int qz_add_cli_vector_initializer(qz_cli_init_fn) { return 0; }
int qz_reg_cmd_vector(int, int, qz_cli_cmd_fn) { return 0; }
int qz_reg_cfg_generator(qz_cli_cfg_gen_fn, void *) { return 0; }
int qz_cli_agent_add_tlv(void *, int, const void *, int, int) { return 0; }
int qz_cli_printf(qz_cli_cmd *, const char *, ...) { return 0; }
int qz_register_debug_flag(const char *, const char *, uint32_t *, uint32_t) { return 0; }
int qz_register_dbg_lib_flag(const char *, const char *, uint32_t *, uint32_t) { return 0; }
qz_db_t *qz_db_open(const char *) { return nullptr; }
int qz_db_foreach(qz_db_t *, qz_db_walk_cb) { return 0; }
int qz_db_fetch_bykey(qz_db_t *, const void *, int, void *) { return -1; }
int qz_db_store(qz_db_t *, const void *, int, const void *, int) { return -1; }
int qz_db_delete(qz_db_t *, const void *, int) { return -1; }

} // extern "C"
