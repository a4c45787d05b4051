// Station table: stations hashed by the last MAC byte and listed in insertion order,
// each with its readings (one per reporting access point), newest first.
#define LTR_UNIT "qz_ltr_node"
#include <string.h>

#include "ltr_alloc.h"
#include "ltr_mgt.h"

static_assert(LTR_STA_HASH_SIZE == 32, "bucket index is the last MAC byte & 0x1f");

static inline unsigned sta_bucket(const uint8_t *macaddr)
{
    return macaddr[5] & (LTR_STA_HASH_SIZE - 1);
}

void ltr_sta_tbl_init(ltr_sta_tbl *sta_tbl, uint32_t capacity)
{
    LTR_CHECK(sta_tbl != LTR_NULL);
    memset((void *)sta_tbl, 0, sizeof(*sta_tbl));
    ltr_tlist_init(sta_tbl->sta_list);
    sta_tbl->max_sta = (int32_t)capacity;
    sta_tbl->sta_cnt = 0;
}

void ltr_sta_tbl_flush(ltr_sta_tbl *sta_tbl)
{
    LTR_CHECK(sta_tbl != LTR_NULL);
    for (ltr_sta *sta = sta_tbl->sta_list.first, *next; sta; sta = next) {
        next = sta->list.next;
        ltr_sta_del(sta);
    }
}

ltr_sta *ltr_sta_find(ltr_sta_tbl *sta_tbl, const uint8_t *macaddr)
{
    LTR_CHECK(sta_tbl != LTR_NULL && macaddr != LTR_NULL);
    for (ltr_sta *sta = sta_tbl->hash[sta_bucket(macaddr)]; sta; sta = sta->hlink.next)
        if (ltr_mac_eq(sta->macaddr, macaddr))
            return sta;
    return nullptr;
}

ltr_sta *ltr_sta_add(ltr_sta_tbl *sta_tbl, const uint8_t *macaddr)
{
    LTR_CHECK(sta_tbl != LTR_NULL && macaddr != LTR_NULL);
    if (sta_tbl->sta_cnt >= sta_tbl->max_sta) {
        qz_log(0, 4, "the location node list is full (number: %d)\n", sta_tbl->max_sta);
        return nullptr;
    }
    ltr_sta *sta = ltr_new<ltr_sta>();
    if (!sta) {
        qz_log(0, 4, "no free memory!\n");
        return nullptr;
    }
    memcpy(sta->macaddr, macaddr, 6);
    sta->max_rssi_cnt = LTR_RSSI_MAX;
    sta->rssi_cnt = 0;
    sta->rssi_list = nullptr;
    sta->self = nullptr;
    ltr_tlist_append(sta_tbl->sta_list, sta, &ltr_sta::list);
    ltr_list_push_front(&sta_tbl->hash[sta_bucket(macaddr)], sta, &ltr_sta::hlink);
    sta->sta_tbl = sta_tbl;
    sta_tbl->sta_cnt++;
    return sta;
}

void ltr_sta_del(ltr_sta *sta)
{
    LTR_CHECK(sta != LTR_NULL);
    ltr_rssi_flush(sta);
    if (ltr_sta_tbl *tbl = sta->sta_tbl) {
        ltr_tlist_unlink(tbl->sta_list, sta, &ltr_sta::list);
        ltr_list_unlink(sta, &ltr_sta::hlink);
        tbl->sta_cnt--;
        sta->sta_tbl = nullptr;
    }
    ltr_delete(sta);
}

void ltr_sta_del_bymac(ltr_sta_tbl *sta_tbl, const uint8_t *macaddr)
{
    LTR_CHECK(sta_tbl != LTR_NULL && macaddr != LTR_NULL);
    if (ltr_sta *sta = ltr_sta_find(sta_tbl, macaddr))
        ltr_sta_del(sta);
}

namespace {

// Whether macaddr is this AP's own. The self links follow the AP's MAC: when it changed,
// they are pointed at the readings under the new one first.
bool rssi_is_self(ltr_sta *sta, const uint8_t *macaddr)
{
    ltr_sta_tbl *t = sta->sta_tbl;
    if (!t)
        return false;
    if (!ltr_mac_eq(t->self_mac, mgt.my_mac)) {
        memcpy(t->self_mac, mgt.my_mac, 6);
        for (ltr_sta *s = t->sta_list.first; s; s = s->list.next)
            s->self = ltr_rssi_idx_find(t, s, t->self_mac);
    }
    return ltr_mac_eq(macaddr, t->self_mac);
}

} // namespace

ltr_rssi_entry *ltr_rssi_find(ltr_sta *sta, const uint8_t *macaddr)
{
    LTR_CHECK(sta != LTR_NULL && macaddr != LTR_NULL);
    if (rssi_is_self(sta, macaddr))
        return sta->self;
    return sta->sta_tbl ? ltr_rssi_idx_find(sta->sta_tbl, sta, macaddr) : nullptr;
}

ltr_rssi_entry *ltr_rssi_add(ltr_sta *sta, const ltr_rssi_data *rssi_data)
{
    LTR_CHECK(sta != LTR_NULL && rssi_data != LTR_NULL && sta->sta_tbl != LTR_NULL);
    ltr_sta_tbl *t = sta->sta_tbl;
    if (sta->rssi_cnt >= sta->max_rssi_cnt) {
        qz_log(0, 4, "staion %m (max rssi cnt %d): no more node available for the rssi from ap %m!\n",
               sta->macaddr, sta->max_rssi_cnt, rssi_data->ap_mac);
        return nullptr;
    }
    ltr_rssi_entry *e = ltr_rssi_pool_get(&t->rssi_pool);
    if (!e) {
        qz_log(0, 4, "no free memory!\n");
        return nullptr;
    }
    memcpy(&e->rssi_data, rssi_data, sizeof(e->rssi_data));
    e->sta = sta;
    if (!ltr_rssi_idx_put(t, e)) {
        ltr_rssi_pool_put(&t->rssi_pool, e);
        qz_log(0, 4, "no free memory!\n");
        return nullptr;
    }
    ltr_list_push_front(&sta->rssi_list, e, &ltr_rssi_entry::link);
    sta->rssi_cnt++;
    if (rssi_is_self(sta, rssi_data->ap_mac))
        sta->self = e; // the newest
    return e;
}

void ltr_rssi_del(ltr_rssi_entry *rssi_entry)
{
    LTR_CHECK(rssi_entry != LTR_NULL && rssi_entry->sta != LTR_NULL);
    ltr_sta *sta = rssi_entry->sta;
    ltr_sta_tbl *t = sta->sta_tbl;
    LTR_CHECK(t != LTR_NULL);
    // The index holds the newest reading of a reporter: the next one under the same MAC,
    // if any, is older. Without shadowed readings there is none to look for.
    ltr_rssi_entry *heir = t->rssi_idx.shadowed ? rssi_entry->link.next : nullptr;
    while (heir && !ltr_mac_eq(heir->rssi_data.ap_mac, rssi_entry->rssi_data.ap_mac))
        heir = heir->link.next;
    ltr_rssi_idx_drop(t, rssi_entry, heir);
    if (sta->self == rssi_entry)
        sta->self = heir;
    ltr_list_unlink(rssi_entry, &ltr_rssi_entry::link);
    sta->rssi_cnt--;
    ltr_rssi_pool_put(&t->rssi_pool, rssi_entry);
}

void ltr_rssi_flush(ltr_sta *sta)
{
    LTR_CHECK(sta != LTR_NULL);
    for (ltr_rssi_entry *e = sta->rssi_list, *next; e; e = next) {
        next = e->link.next;
        ltr_rssi_del(e);
    }
}
