// The tracking manager: its one instance, initialisation from the shared settings
// segment, release and the locked setters.
#define LTR_UNIT "qz_ltr_common"
#include "ltr_mgt.h"
#include "ltr_rssi.h"
#include "qz.h"
#include "qz_dcd.h"
#include "ltr_track.h"

constinit ltr_mgt mgt = {
    .lock = PTHREAD_MUTEX_INITIALIZER,
    .shm_id = -1,
    .cfg = nullptr,
    .engine = nullptr,
    .sta_tbl = {},
    .rssi_fetch_timer = nullptr,
    .owner_flush_timer = nullptr,
    .my_mac = {},
    .my_ip = 0,
    .omsg = nullptr,
    .lta_handler = {LTR_LTA_RSSI_RELAY, ltr_relay_rssi_recv},
};
int ltr_mgt_inited;

static void ltr_cfg_defaults(ltr_cfg *cfg)
{
    cfg->inited = 1;
    cfg->enabled = 0;
    cfg->lmatch = LTR_DEF_LMATCH;
    cfg->suppress = LTR_DEF_SUPPRESS;
    cfg->hold_time = LTR_DEF_HOLD_TIME;
    cfg->rpt_interval = LTR_DEF_RPT_INTERVAL;
    cfg->rssi_threshold = LTR_DEF_RSSI_THRESHOLD;
    cfg->valid_period = LTR_DEF_VALID_PERIOD;
}

int ltr_mgt_init(void)
{
    if (ltr_mgt_inited)
        return 0;

    if (ltr_track_list_init() < 0) {
        LTR_DBG(ERROR, "init track list failed.\n");
        return -1;
    }
    if (qz_dcd_get_mac_byname("mgt0", mgt.my_mac) < 0) {
        LTR_DBG(ERROR, "get mgt0 mac failed.\n");
        return -1;
    }
    uint32_t mask = 0;
    if (qz_dcd_get_addr_byname("mgt0", &mgt.my_ip, &mask) < 0) {
        // The address may arrive later with the management address event.
        LTR_DBG(ERROR, "get mgt0 ip failed.\n");
        mgt.my_ip = 0;
    }
    ltr_sta_tbl_init(&mgt.sta_tbl, LTR_STA_MAX);

    mgt.rssi_fetch_timer = qz_pmpt_timer_create(ltr_rssi_cycle, &mgt);
    if (!mgt.rssi_fetch_timer) {
        LTR_DBG(ERROR, "create rssi fetch timer failed.\n");
        return -1;
    }
    mgt.owner_flush_timer = qz_pmpt_timer_create(ltr_owner_check_timeout, &mgt);
    if (!mgt.owner_flush_timer) {
        LTR_DBG(ERROR, "create station owner ip check timer failed.\n");
        return -1;
    }
    mgt.cfg = (ltr_cfg *)qz_shm_create(&mgt.shm_id, LTR_SHM_KEY, sizeof(ltr_cfg));
    if (!mgt.cfg) {
        // Without the segment there are no settings to run with.
        LTR_DBG(ERROR, "attach shared settings failed.\n");
        return -1;
    }
    if (pthread_mutex_init(&mgt.lock, nullptr) != 0) {
        LTR_DBG(ERROR, "init mutex failed.\n");
        return -1;
    }
    if (!mgt.cfg->inited)
        ltr_cfg_defaults(mgt.cfg);

    // Nothing else runs yet, so no lock; a failed start leaves enabled as stored.
    if (mgt.cfg->enabled && !mgt.engine && ltr_start_tracking() < 0)
        LTR_DBG(ERROR, "start tracking setting failed.\n");

    ltr_mgt_inited = 1;
    return 0;
}

// The counterpart of ltr_mgt_init for a caller that tears the manager down in process.
// Nothing in the daemon calls it, and nothing should on shutdown: it destroys the
// settings segment, which must outlive a restart.
int ltr_mgt_cleanup(void)
{
    if (mgt.owner_flush_timer)
        qz_pmpt_timer_delete(mgt.owner_flush_timer);
    if (mgt.rssi_fetch_timer)
        qz_pmpt_timer_delete(mgt.rssi_fetch_timer);
    if (mgt.cfg)
        qz_shm_destroy(mgt.shm_id, mgt.cfg);
    pthread_mutex_destroy(&mgt.lock);
    ltr_mgt_inited = 0;
    return 0;
}

namespace {

// How each setting is stored (lock held) and read back, and its default.
struct ltr_setting_ops {
    uint32_t def;
    void (*set)(ltr_mgt *m, uint32_t v);
    uint32_t (*get)(const ltr_cfg *c);
};

constexpr ltr_setting_ops ltr_settings[LTR_SET_COUNT] = {
    {LTR_DEF_SUPPRESS, [](ltr_mgt *m, uint32_t v) { m->cfg->suppress = (uint16_t)v; },
     [](const ltr_cfg *c) -> uint32_t { return c->suppress; }},
    // The only setting with a side effect: a longer interval restarts the timer.
    {LTR_DEF_RPT_INTERVAL, [](ltr_mgt *m, uint32_t v) { ltr_set_rpt_interval(m, (uint16_t)v); },
     [](const ltr_cfg *c) -> uint32_t { return c->rpt_interval; }},
    {LTR_DEF_RSSI_THRESHOLD, [](ltr_mgt *m, uint32_t v) { m->cfg->rssi_threshold = (uint8_t)v; },
     [](const ltr_cfg *c) -> uint32_t { return c->rssi_threshold; }},
    {LTR_DEF_VALID_PERIOD, [](ltr_mgt *m, uint32_t v) { m->cfg->valid_period = (uint16_t)v; },
     [](const ltr_cfg *c) -> uint32_t { return c->valid_period; }},
    {LTR_DEF_HOLD_TIME, [](ltr_mgt *m, uint32_t v) { m->cfg->hold_time = (uint8_t)v; },
     [](const ltr_cfg *c) -> uint32_t { return c->hold_time; }},
};
static_assert(ltr_settings[LTR_SET_RPT_INTERVAL].def == LTR_DEF_RPT_INTERVAL);
static_assert(ltr_settings[LTR_SET_HOLD_TIME].def == LTR_DEF_HOLD_TIME);

} // namespace

int ltr_mgt_set(ltr_setting s, uint32_t value)
{
    LTR_CHECK(s < LTR_SET_COUNT);
    ltr_lock(&mgt);
    ltr_settings[s].set(&mgt, value);
    ltr_unlock(&mgt);
    return 0;
}

uint32_t ltr_setting_default(ltr_setting s) { return s < LTR_SET_COUNT ? ltr_settings[s].def : 0; }

uint32_t ltr_setting_value(const ltr_cfg *c, ltr_setting s)
{
    return s < LTR_SET_COUNT ? ltr_settings[s].get(c) : 0;
}

int ltr_mgt_set_suppress(uint16_t value) { return ltr_mgt_set(LTR_SET_SUPPRESS, value); }
int ltr_mgt_set_rpt_interval(uint16_t value) { return ltr_mgt_set(LTR_SET_RPT_INTERVAL, value); }
int ltr_mgt_set_valid_period(uint16_t value) { return ltr_mgt_set(LTR_SET_VALID_PERIOD, value); }
int ltr_mgt_set_hold_time(uint8_t value) { return ltr_mgt_set(LTR_SET_HOLD_TIME, value); }
int ltr_mgt_set_rssi_threshold(uint16_t value)
{
    return ltr_mgt_set(LTR_SET_RSSI_THRESHOLD, value);
}
