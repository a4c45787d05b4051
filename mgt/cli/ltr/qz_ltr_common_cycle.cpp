// The RSSI cycle: collect the radios' report tables into the station table, then report
// due owned stations to the server and relay due foreign ones to their owners.
#define LTR_UNIT "qz_ltr_common"
#include <net/if.h>
#include <string.h>

#include <algorithm>

#include "ltr_engine.h"
#include "ltr_rssi.h"
#include "qz_dcd.h"
#include "qz_hw.h"

namespace {

// Working storage of the cycle and of the immediate report. Only used with the manager
// lock held, so one instance serves every caller and the cycle allocates nothing.
lta_rpt_entry rpt_buf[QZ_DCD_RPT_TBL_MAX];
alignas(4) uint8_t sta_buf[QZ_DCD_STA_BUF_LEN]; // associated-station record, then TLV scratch
static_assert(sizeof(rpt_buf) == 5120);
static_assert(sizeof(sta_buf) >= LTR_TLV_STA_LEN && sizeof(sta_buf) >= LTR_TLV_RSSI_LEN);

// Lives of an own and of a relayed reading in this cycle (ltr_rssi_life).
struct cycle_lives {
    int local, relayed;
};

bool ltr_owned(const ltr_mgt *m, const ltr_sta *sta)
{
    return m->my_ip != 0 && sta->ni_owner_ip == m->my_ip;
}

void ltr_add_sta_tlv(ltr_mgt *m, const ltr_sta *sta)
{
    int n = ltr_tlv_build_mac_list(sta_buf, sta->macaddr, 1);
    if (n > 0)
        m->engine->add_tlvs(m, 1, sta_buf, n);
}

void ltr_add_rssi_tlv(ltr_mgt *m, const ltr_rssi_entry *e)
{
    int n = ltr_tlv_build_rssi_data(sta_buf, &e->rssi_data);
    if (n > 0)
        m->engine->add_tlvs(m, 1, sta_buf, n);
}

// An owned station is reported on the band of the radio it is associated with: the
// driver may have heard it on the other band. Every record asks the radios afresh: an
// association can move between two records of one cycle.
void ltr_band_correct(const uint8_t *sta_mac, ltr_rssi_data *rd)
{
    for (int j = 0; j < qz_radio_count(); j++) {
        const char *name = qz_ifname_id2radio(j);
        if (!name)
            continue;
        int len = 0;
        if (qz_dcd_get_radio_one_sta((int)if_nametoindex(name), sta_mac, sta_buf,
                                     QZ_DCD_STA_BUF_LEN, &len) != 0)
            continue;
        if (len < 4) // no frequency in the record
            return;
        uint16_t fs;
        memcpy(&fs, sta_buf + 2, sizeof(fs));
        if ((fs <= LTR_BAND_BOUNDARY) == (rd->chan_freq > LTR_BAND_BOUNDARY))
            rd->chan_freq = fs;
        return;
    }
}

// One record of a radio's report table; full is set once the table refused a station.
void ltr_collect_record(ltr_mgt *m, const lta_rpt_entry *rec, bool *full)
{
    ltr_sta *sta = ltr_sta_find(&m->sta_tbl, rec->mac);
    if (!sta) {
        if (*full)
            return;
        sta = ltr_sta_add(&m->sta_tbl, rec->mac);
        if (!sta) {
            LTR_DBG(ERROR, "add %m to client table failed.\n", rec->mac);
            *full = true;
            return;
        }
        sta->rpt_age = 0;
        sta->sup_cnt = 0;
        sta->ni_owner_ip = 0;
        sta->need_report = 1;
        LTR_DBG(INFO, "new station %m found.\n", rec->mac);
        if (ltr_owner_query(rec->mac, 1) < 0)
            LTR_DBG(ERROR, "query station %m mac failed.\n", rec->mac);
    }

    ltr_rssi_data rd;
    memcpy(rd.ap_mac, m->my_mac, 6);
    rd.chan_freq = rec->chan_freq;
    rd.rssi = rec->rssi;
    rd.active = rec->active;
    if (ltr_owned(m, sta)) {
        rd.active = 1;
        ltr_band_correct(sta->macaddr, &rd);
    }

    // The driver's own flag counts here, not the one forced for owned stations.
    ltr_rssi_store(m, sta, &rd, true, rec->active == 0);
}

void ltr_collect(ltr_mgt *m)
{
    for (int i = 0; i < qz_radio_count(); i++) {
        const char *name = qz_ifname_id2radio(i);
        int ifindex = name ? (int)if_nametoindex(name) : 0;
        if (ifindex == 0)
            continue;
        int count = QZ_DCD_RPT_TBL_MAX;
        if (qz_dcd_get_lta_rpt_tbl(ifindex, rpt_buf, &count) != 0) {
            LTR_DBG(ERROR, "get radio %s rssi readings failed.\n", name);
            continue;
        }
        count = std::min(count, QZ_DCD_RPT_TBL_MAX);
        bool full = false;
        for (int k = 0; k < count; k++)
            ltr_collect_record(m, &rpt_buf[k], &full);
    }
}

// Ages one station's readings and reports or relays them when the station is due.
void ltr_report_sta(ltr_mgt *m, ltr_sta *sta, cycle_lives lives)
{
    ltr_sta_age(m->cfg, sta);
    bool owned = ltr_owned(m, sta);
    if (sta->need_report && owned)
        ltr_add_sta_tlv(m, sta);

    bool reported = false;
    for (ltr_rssi_entry *e = sta->rssi_list, *next; e; e = next) {
        next = e->link.next;
        if (!ltr_rssi_age_life(e, e->ni_local ? lives.local : lives.relayed)) {
            ltr_rssi_del(e);
            continue;
        }
        if (!sta->need_report || m->my_ip == 0)
            continue;
        LTR_DBG(INFO, "need report and myip %i, sta->ni_owner_ip %i, rssi->ni_local %d\n", m->my_ip,
                sta->ni_owner_ip, e->ni_local);
        if (owned)
            ltr_add_rssi_tlv(m, e);
        else if (sta->ni_owner_ip != 0 && e->ni_local)
            ltr_relay_rssi(sta->macaddr, &e->rssi_data, sta->ni_owner_ip);
        // Consumed even when nobody could be told (owner unknown).
        ltr_rssi_consume(e);
        reported = true;
    }
    if (reported)
        ltr_sta_consume(sta);
}

void ltr_add_sta_readings(ltr_mgt *m, ltr_sta *sta)
{
    ltr_add_sta_tlv(m, sta);
    for (ltr_rssi_entry *e = sta->rssi_list; e; e = e->link.next) {
        ltr_add_rssi_tlv(m, e);
        ltr_rssi_consume(e);
    }
}

} // namespace

void ltr_rssi_cycle(qz_pmpt_timer_t *t, void *param)
{
    LTR_CHECK(t != LTR_NULL && param != LTR_NULL);
    ltr_mgt *m = (ltr_mgt *)param;

    LTR_DBG(INFO, "rssi report timer timeout.\n");
    ltr_lock(m);
    // engine is cleared before enabled while tracking stops.
    if (!m->cfg->enabled || !m->engine) {
        ltr_unlock(m);
        return;
    }

    ltr_collect(m);

    if (m->engine->reset(m) >= 0) {
        ltr_rssi_entry probe{};
        probe.ni_local = 1;
        cycle_lives lives{ltr_rssi_life(m, &probe), 0};
        probe.ni_local = 0;
        lives.relayed = ltr_rssi_life(m, &probe);
        for (ltr_sta *sta = m->sta_tbl.sta_list.first, *next; sta; sta = next) {
            next = sta->list.next;
            ltr_report_sta(m, sta, lives);
            if (sta->rssi_cnt == 0)
                ltr_sta_del(sta);
        }
        m->engine->finish(m);
        if (m->engine->flush(m) < 0)
            LTR_DBG(ERROR, "send aggreated rssi readings failed.\n");
    }

    qz_pmpt_timer_start(m->rssi_fetch_timer, m->cfg->rpt_interval);
    ltr_unlock(m);
}

void ltr_set_rpt_interval(ltr_mgt *m, uint16_t interval)
{
    uint16_t old = m->cfg->rpt_interval;
    m->cfg->rpt_interval = interval;
    // A shorter period waits for the next re-arm; a longer one applies at once.
    if (old >= interval || !m->cfg->enabled)
        return;
    LTR_DBG(INFO, "restart rssi report timer.\n");
    qz_pmpt_timer_start(m->rssi_fetch_timer, interval);
}

int ltr_report_all(ltr_mgt *m)
{
    for (ltr_sta *sta = m->sta_tbl.sta_list.first; sta; sta = sta->list.next)
        if (ltr_owned(m, sta))
            ltr_add_sta_readings(m, sta);
    return 0;
}

int ltr_report_stations(ltr_mgt *mgt, const uint8_t *mlist, uint8_t nmac)
{
    LTR_CHECK(mgt != LTR_NULL && mlist != LTR_NULL);
    for (unsigned i = 0; i < nmac; i++) {
        ltr_sta *sta = ltr_sta_find(&mgt->sta_tbl, mlist + 6 * i);
        if (sta && ltr_owned(mgt, sta))
            ltr_add_sta_readings(mgt, sta);
    }
    return 0;
}
