// The due rule in one place: how long a reading lives, how a fresh reading is stored
// and when it makes its station due, how a station falls due by time, and what a report
// or a hand-over consumes. The cycle, the relay receiver and the owner update call these.
#define LTR_UNIT "qz_ltr_common"
#include <algorithm>

#include "ltr_rssi.h"

namespace {

// An RSSI change beyond the threshold. The difference wraps in 8 bits and its absolute
// value stays signed, so a difference of 128 reads as -128 and never counts.
bool ltr_rssi_moved(int8_t last, int8_t now, uint8_t threshold)
{
    int8_t d = (int8_t)(uint8_t)(last - now);
    int8_t a = d < 0 ? (int8_t)(uint8_t)(-d) : d;
    return a > threshold;
}

} // namespace

// The parameter shadows the global on purpose: the check's text names it.
int ltr_rssi_life(ltr_mgt *mgt, ltr_rssi_entry *rssi)
{
    LTR_CHECK(mgt != LTR_NULL && rssi != LTR_NULL);
    if (mgt->my_ip != 0 && rssi->ni_local) {
        int q = mgt->cfg->rpt_interval ? LTR_LOCAL_HORIZON / mgt->cfg->rpt_interval : 0;
        return q ? q : 1;
    }
    return mgt->cfg->hold_time + 1;
}

bool ltr_rssi_age(ltr_mgt *m, ltr_rssi_entry *e) { return ltr_rssi_age_life(e, ltr_rssi_life(m, e)); }

bool ltr_rssi_age_life(ltr_rssi_entry *e, int life)
{
    if (life == e->life_start) {
        e->life_cnt--;
    } else {
        // A shorter life applies at once; a longer one never revives a reading.
        e->life_start = life;
        e->life_cnt = std::min(e->life_cnt, life) - 1;
    }
    return e->life_cnt >= 0;
}

ltr_rssi_entry *ltr_rssi_store(ltr_mgt *m, ltr_sta *sta, const ltr_rssi_data *rd, bool local,
                               bool due)
{
    ltr_rssi_entry *e = ltr_rssi_find(sta, rd->ap_mac);
    if (!e) {
        // A neighbour's inactive reading does not open an entry.
        if (!local && !rd->active)
            return nullptr;
        e = ltr_rssi_add(sta, rd);
        if (!e) {
            LTR_DBG(ERROR, "add rssi (sta %m, ap %m) failed.\n", sta->macaddr, rd->ap_mac);
            return nullptr;
        }
        sta->need_report = 1; // a new reporter is always due
        e->ni_local = local ? 1 : 0;
        e->last_pwr_rpt = rd->rssi;
        e->life_start = ltr_rssi_life(m, e);
    }
    if (due || ltr_rssi_moved(e->last_pwr_rpt, rd->rssi, m->cfg->rssi_threshold))
        sta->need_report = 1;
    e->rssi_data = *rd;
    e->life_cnt = e->life_start;
    return e;
}

void ltr_sta_age(const ltr_cfg *c, ltr_sta *sta)
{
    if (sta->need_report)
        return;
    sta->sup_cnt++;
    sta->rpt_age += c->rpt_interval;
    if (sta->sup_cnt > c->suppress || (uint32_t)sta->rpt_age + c->rpt_interval > c->valid_period)
        sta->need_report = 1;
}

void ltr_rssi_consume(ltr_rssi_entry *e) { e->last_pwr_rpt = e->rssi_data.rssi; }

void ltr_sta_consume(ltr_sta *sta)
{
    sta->rpt_age = 0;
    sta->sup_cnt = 0;
    sta->need_report = 0;
}
