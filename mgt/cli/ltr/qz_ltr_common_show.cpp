// Show and dump output: settings, tracking list, RSSI lists, engine state and the
// driver's per-radio counters.
#define LTR_UNIT "qz_ltr_common"
#include <net/if.h>
#include <string.h>

#include "ltr_cli.h"
#include "ltr_engine.h"
#include "qz.h"
#include "qz_dcd.h"
#include "qz_hw.h"

static const char *yes_no(uint32_t v) { return v ? "yes" : "no"; }
static const char *enabled_text(uint32_t v) { return v ? "enabled" : "disabled"; }

int ltr_show_param(qz_cli_cmd *cmd)
{
    LTR_CHECK(cmd != LTR_NULL);
    ltr_lock(&mgt);
    const ltr_cfg *c = mgt.cfg;
    qz_cli_printf(cmd, "%-40s%s\n", "Engine name:", "Quorvane");
    qz_cli_printf(cmd, "%-40s%s\n", "Status:", enabled_text(c->enabled));
    qz_cli_printf(cmd, "%-40s%s\n", "Track list match:", yes_no(c->lmatch));
    qz_cli_printf(cmd, "%-40s%d\n", "Report suppressing parameter:", (int)c->suppress);
    qz_cli_printf(cmd, "%-40s%d\n", "RSSI hold time:", (int)c->hold_time);
    qz_cli_printf(cmd, "%-40s%d\n", "Report interval:", (int)c->rpt_interval);
    qz_cli_printf(cmd, "%-40s%d\n", "Report valid period:", (int)c->valid_period);
    qz_cli_printf(cmd, "%-40s%d\n", "RSSI change update threshold:", (int)c->rssi_threshold);
    ltr_unlock(&mgt);
    return 0;
}

namespace {
struct track_row_ctx {
    qz_cli_cmd *cmd;
    int no;
};
} // namespace

static void track_row(void *arg, ltr_track_obj *obj)
{
    auto *t = (track_row_ctx *)arg;
    qz_cli_printf(t->cmd, "%-3d %-4s %m\n", ++t->no,
                  ltr_track_type_name(ltr_track_key_type(&obj->key)), obj->key.addr);
}

int ltr_dump_track_list(qz_cli_cmd *cmd)
{
    LTR_CHECK(cmd != LTR_NULL);
    ltr_lock(&mgt);
    qz_cli_printf(cmd, "Match track list enabled: %s\n", yes_no(mgt.cfg->lmatch));
    qz_cli_printf(cmd, "%-3s %-4s %s\n", "No.", "Type", "Address");
    qz_cli_printf(cmd, "%-3s %-4s %s\n", "---", "----", "----------------");
    track_row_ctx t{cmd, 0};
    ltr_track_list_foreach(track_row, &t);
    ltr_unlock(&mgt);
    return 0;
}

static bool filter_keeps(const ltr_rssi_filter *f, const uint8_t *mac)
{
    switch (f->type) {
    case LTR_FILTER_ALL:
        return true;
    case LTR_FILTER_MAC:
        return memcmp(mac, f->addr, 6) == 0;
    case LTR_FILTER_OUI:
        return memcmp(mac, f->addr, 3) == 0;
    default:
        return false;
    }
}

static void show_station(qz_cli_cmd *cmd, const ltr_sta *sta)
{
    static const char *row = "%-3s %-14s %-5s %-5s %-6s %-7s %-6s\n";
    qz_cli_printf(cmd, "Station: %m, Owner: %i, RptAge %d, SupCnt %d, RSSI list:\n", sta->macaddr,
                  sta->ni_owner_ip, (int)sta->rpt_age, (int)sta->sup_cnt);
    qz_cli_printf(cmd, row, "No.", "Reporter", "RSSI", "Freq", "Active", "LPwrRpt", "LifeCnt");
    qz_cli_printf(cmd, row, "---", "--------------", "-----", "-----", "------", "------",
                  "------");
    int no = 0;
    for (const ltr_rssi_entry *e = sta->rssi_list; e; e = e->link.next) {
        const ltr_rssi_data &d = e->rssi_data;
        qz_cli_printf(cmd, "%-3d %-14m %-5d %-5d %-6s %-7d %-6d\n", ++no, d.ap_mac, (int)d.rssi,
                      (int)d.chan_freq, d.active ? "yes" : "no", (int)e->last_pwr_rpt,
                      (int)e->life_cnt);
    }
    qz_cli_printf(cmd, "\n");
}

int ltr_show_rssi(qz_cli_cmd *cmd, const ltr_rssi_filter *obj)
{
    LTR_CHECK(cmd != LTR_NULL && obj != LTR_NULL);
    qz_cli_printf(cmd, "RSSI=received signal strength in dBm; Freq=channel frequence in MHZ; "
                       "RptAge=report age;\n");
    qz_cli_printf(cmd, "SupCnt=suppress count; LPwrRpt=last power reported; LifeCnt=life counter\n");
    ltr_lock(&mgt);
    qz_cli_printf(cmd, "Number of stations in tracking: %d\n", (int)mgt.sta_tbl.sta_cnt);
    for (const ltr_sta *sta = mgt.sta_tbl.sta_list.first; sta; sta = sta->list.next)
        if (filter_keeps(obj, sta->macaddr))
            show_station(cmd, sta);
    ltr_unlock(&mgt);
    return 0;
}

static void print_time2fire(qz_cli_cmd *cmd, const char *label, qz_pmpt_timer_t *t)
{
    char text[32];
    memset(text, 0, sizeof(text));
    int s = qz_pmpt_timer_time2fire(t);
    if (s < 0)
        qz_snprintf(text, sizeof(text) - 1, "%s", "not started");
    else
        qz_snprintf(text, sizeof(text) - 1, "%ds", s);
    qz_cli_printf(cmd, "%-40s%s\n", label, text);
}

int ltr_dump_state(qz_cli_cmd *cmd)
{
    LTR_CHECK(cmd != LTR_NULL);
    ltr_lock(&mgt);
    qz_cli_printf(cmd, "%-40s%s\n", "Engine Status:", enabled_text(mgt.cfg->enabled));
    qz_cli_printf(cmd, "%-40s%d\n", "Shared memory ID:", (int)mgt.shm_id);
    qz_cli_printf(cmd, "%-40s%m\n", "My MAC (mgt0):", mgt.my_mac);
    qz_cli_printf(cmd, "%-40s%i\n", "My IP (mgt):", mgt.my_ip);
    print_time2fire(cmd, "RSSI fetch time to fire:", mgt.rssi_fetch_timer);
    print_time2fire(cmd, "Station owner flush time to fire:", mgt.owner_flush_timer);
    if (mgt.omsg)
        ltr_omsg_show(cmd, mgt.omsg);
    ltr_unlock(&mgt);
    return 0;
}

// Reads only the driver, so it runs without the manager lock.
int ltr_dump_drv_stats(qz_cli_cmd *cmd)
{
    LTR_CHECK(cmd != LTR_NULL);
    for (int i = 0; i < qz_radio_count(); i++) {
        const char *name = qz_ifname_id2radio(i);
        int ifindex = name ? (int)if_nametoindex(name) : 0;
        if (ifindex == 0)
            continue;
        lta_stats st;
        memset(&st, 0, sizeof(st));
        if (qz_dcd_get_lta_stats(ifindex, &st) < 0)
            LTR_DBG(ERROR, "get ltr statistics to interface failed");
        qz_cli_printf(cmd, "ltr statistics counter for %s:\n", name);
        qz_cli_printf(cmd, "%-40s%d\n", "number of reported rssi readings:", (int)st.rpt_cnt);
        qz_cli_printf(cmd, "%-40s%d\n", "station list no node:", (int)st.sta_no_node);
        qz_cli_printf(cmd, "%-40s%d\n", "oui list no node:", (int)st.oui_no_node);
        qz_cli_printf(cmd, "%-40s%d\n", "station list no memory:", (int)st.sta_no_mem);
        qz_cli_printf(cmd, "%-40s%d\n", "oui list no memory:", (int)st.oui_no_mem);
        qz_cli_printf(cmd, "\n");
    }
    return 0;
}
