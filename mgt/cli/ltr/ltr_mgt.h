// The tracking manager: the daemon's one context, its settings record, its lock, and
// the conventions every unit shares (debug output, argument checks, results).
#pragma once
#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

#include "ltr_node.h"
#include "qz_log.h"
#include "qz_top.h"

#define LTR_MODULE_ID 52
#define LTR_SHM_KEY 0x10201
#define LTR_STA_MAX 512
#define LTR_OWNER_CHECK_PERIOD 300
#define LTR_ERR_DISABLED (-1001)

// Defaults of the settings record.
#define LTR_DEF_LMATCH 1
#define LTR_DEF_SUPPRESS 0
#define LTR_DEF_HOLD_TIME 0
#define LTR_DEF_RSSI_THRESHOLD 3
#define LTR_DEF_RPT_INTERVAL 60
#define LTR_DEF_VALID_PERIOD 60

// Settings, kept in a shared segment so that they outlive a restart. Host order.
struct ltr_cfg {
    uint32_t inited;
    uint32_t enabled;
    uint32_t lmatch;
    uint16_t suppress;
    uint8_t hold_time;
    uint8_t rssi_threshold;
    uint16_t rpt_interval;
    uint16_t valid_period;
};
static_assert(sizeof(ltr_cfg) == 20);
static_assert(offsetof(ltr_cfg, enabled) == 4);
static_assert(offsetof(ltr_cfg, lmatch) == 8);
static_assert(offsetof(ltr_cfg, suppress) == 12);
static_assert(offsetof(ltr_cfg, hold_time) == 14);
static_assert(offsetof(ltr_cfg, rssi_threshold) == 15);
static_assert(offsetof(ltr_cfg, rpt_interval) == 16);
static_assert(offsetof(ltr_cfg, valid_period) == 18);

struct ltr_engine_ops_t;
struct ltr_omsg;
struct ltr_lta_msg;

// Handler entry for AP-to-AP messages of one type.
struct ltr_lta_handler {
    uint32_t type;
    int (*handler)(ltr_lta_msg *msg_hdr);
};

struct ltr_mgt {
    pthread_mutex_t lock;
    int32_t shm_id;
    ltr_cfg *cfg;
    const ltr_engine_ops_t *engine; // null while tracking is stopped
    ltr_sta_tbl sta_tbl;
    qz_pmpt_timer_t *rssi_fetch_timer;
    qz_pmpt_timer_t *owner_flush_timer;
    uint8_t my_mac[6];
    uint32_t my_ip; // network order; 0 = unknown
    ltr_omsg *omsg;
    ltr_lta_handler lta_handler;
};

extern ltr_mgt mgt;
extern int ltr_mgt_inited;

// Debug output: one bit test when off.
#define LTR_DBG_ERROR 0x1u
#define LTR_DBG_EVENT 0x2u
#define LTR_DBG_INFO 0x4u
#define LTR_DBG_PACKET 0x8u
#define LTR_DBG_ALL 0xFFFFFFFFu
#define LTR_TAG_ERROR "ltr_error"
#define LTR_TAG_EVENT "ltr_event"
#define LTR_TAG_INFO "ltr_info"
#define LTR_TAG_PACKET "ltr_packet"

extern uint32_t ltr_debug_flags;

#define LTR_DBG(cat, ...)                                                                      \
    do {                                                                                       \
        if (ltr_debug_flags & LTR_DBG_##cat)                                                   \
            __qz_dbg("", __LINE__, LTR_TAG_##cat, __VA_ARGS__);                                \
    } while (0)
#define LTR_DBG_ON(cat) ((ltr_debug_flags & LTR_DBG_##cat) != 0)

// Argument checks. A failed check is a programming error: it is written to the
// system log and the error output, then the process stops at once. Each source file
// defines LTR_UNIT (the unit's name) before using LTR_CHECK; write null as LTR_NULL so
// the message shows the expression as the C library spells it.
#define LTR_NULL ((void *)0)
[[noreturn]] void ltr_assert_fail(const char *expr, const char *unit, int line);
#define LTR_CHECK(e) LTR_CHECK_(e)
#define LTR_CHECK_(e)                                                                          \
    do {                                                                                       \
        if (!(e))                                                                              \
            ltr_assert_fail(#e, LTR_UNIT, __LINE__);                                           \
    } while (0)

// Locking at entry points only; nothing below an entry point takes the lock again.
inline void ltr_lock(ltr_mgt *m) { pthread_mutex_lock(&m->lock); }
inline void ltr_unlock(ltr_mgt *m) { pthread_mutex_unlock(&m->lock); }

// Start-up, threads and shutdown.
int ltr_main(int argc, char **argv); // the process entry; ltrd's main calls it
void *qz_ltr_main(void *arg);
int ltr_register_debug_flags(void);
int ltr_reg_cfg_generator(void);
int ltr_noop_initializer(void);
int ltr_reg_cmd_vectors(void);
int ltr_start_tracking(void); // lock held (or start-up)
int ltr_set_enabled(int enable);

// Manager.
int ltr_mgt_init(void);
int ltr_mgt_cleanup(void); // never on shutdown: it destroys the settings segment
// The operator's numeric settings, in the order the running configuration lists them.
enum ltr_setting : uint8_t {
    LTR_SET_SUPPRESS,
    LTR_SET_RPT_INTERVAL,
    LTR_SET_RSSI_THRESHOLD,
    LTR_SET_VALID_PERIOD,
    LTR_SET_HOLD_TIME,
    LTR_SET_COUNT,
};
// Takes the lock and stores value cut to the setting's width; returns 0. No range check.
int ltr_mgt_set(ltr_setting s, uint32_t value);
uint32_t ltr_setting_default(ltr_setting s);
uint32_t ltr_setting_value(const ltr_cfg *c, ltr_setting s);
// One setter per command, each through ltr_mgt_set.
int ltr_mgt_set_suppress(uint16_t value);
int ltr_mgt_set_rpt_interval(uint16_t value);
int ltr_mgt_set_valid_period(uint16_t value);
int ltr_mgt_set_hold_time(uint8_t value);
int ltr_mgt_set_rssi_threshold(uint16_t value);

// Cycles a reading lives without a fresh value.
int ltr_rssi_life(ltr_mgt *m, ltr_rssi_entry *rssi);
