// Station owners: the platform is asked which AP owns a station (when it is first seen
// and every 300 seconds) and its answers are applied to the station table.
#define LTR_UNIT "qz_ltr_common"
#include <string.h>

#include "ltr_alloc.h"
#include "ltr_rssi.h"
#include "qz_event.h"

int ltr_owner_query(const uint8_t *sta_arr, uint16_t count)
{
    LTR_CHECK(sta_arr != LTR_NULL);
    int len = (int)sizeof(ltr_owner_query_evt) + 6 * count;
    uint8_t *evt = (uint8_t *)ltr_calloc((size_t)len);
    if (!evt) {
        LTR_DBG(ERROR, "no memory!\n");
        return -1;
    }
    if (LTR_DBG_ON(EVENT))
        for (unsigned i = 0; i < count; i++)
            LTR_DBG(EVENT, "query the owner of station %m.\n", sta_arr + 6 * i);

    ltr_owner_query_evt h{LTR_OWNER_QUERY_CODE, count};
    memcpy(evt, &h, sizeof(h));
    memcpy(evt + sizeof(h), sta_arr, 6 * (size_t)count);
    int r = qz_event_send(LTR_EVT_OWNER_QUERY, len, evt);
    if (r < 0)
        LTR_DBG(ERROR, "send station owner query event failed.\n");
    ltr_free(evt);
    return r;
}

void ltr_owner_check_timeout(qz_pmpt_timer_t *t, void *arg)
{
    LTR_CHECK(t != LTR_NULL && arg != LTR_NULL);
    ltr_mgt *m = (ltr_mgt *)arg;

    LTR_DBG(INFO, "station owner check timer timeout.\n");
    ltr_lock(m);
    // Every station is asked for, known owner or not, so owners are refreshed.
    int n = m->sta_tbl.sta_cnt;
    if (n > 0) {
        uint8_t *arr = (uint8_t *)ltr_calloc(6 * (size_t)n);
        if (!arr) {
            LTR_DBG(ERROR, "no memory.\n");
        } else {
            int i = 0;
            for (ltr_sta *sta = m->sta_tbl.sta_list.first; sta && i < n; sta = sta->list.next)
                memcpy(arr + 6 * i++, sta->macaddr, 6);
            ltr_owner_query(arr, (uint16_t)i);
            ltr_free(arr);
        }
    }
    qz_pmpt_timer_start(m->owner_flush_timer, LTR_OWNER_CHECK_PERIOD);
    ltr_unlock(m);
}

int ltr_handle_owner_reply(const ltr_owner_reply_evt *evt)
{
    LTR_CHECK(evt != LTR_NULL);
    ltr_lock(&mgt);
    if (!mgt.cfg->enabled || evt->count == 0) {
        ltr_unlock(&mgt);
        return 0;
    }
    const uint8_t *recs = (const uint8_t *)evt + sizeof(*evt);
    for (unsigned i = 0; i < evt->count; i++) {
        ltr_owner_rec rec;
        memcpy(&rec, recs + sizeof(rec) * i, sizeof(rec));
        ltr_sta *sta = ltr_sta_find(&mgt.sta_tbl, rec.mac);
        if (!sta)
            continue;
        uint32_t old = sta->ni_owner_ip;
        sta->ni_owner_ip = rec.owner;
        if (rec.owner == 0 || rec.owner == old || rec.owner == mgt.my_ip)
            continue;
        // Moved to another AP: hand it the newest reading now, whoever heard it, rather
        // than leave the new owner without one until our next cycle.
        ltr_rssi_entry *e = sta->rssi_list;
        if (!e)
            continue;
        ltr_relay_rssi(sta->macaddr, &e->rssi_data, rec.owner);
        ltr_rssi_consume(e);
        ltr_sta_consume(sta);
    }
    ltr_unlock(&mgt);
    return 0;
}
