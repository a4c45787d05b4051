// Driver tracking control: the tracking switch, tracked objects and list match on
// every radio, and dropping the stations the tracking list no longer matches.
#define LTR_UNIT "qz_ltr_common"
#include <net/if.h>
#include <string.h>

#include "ltr_mgt.h"
#include "ltr_track.h"
#include "qz_dcd.h"
#include "qz_hw.h"

// Runs op(ifindex, name) on every radio that has an interface; the first failure
// ends the walk (radios already changed stay changed).
template <class F> static int ltr_radio_walk(F op)
{
    for (int i = 0; i < qz_radio_count(); i++) {
        const char *name = qz_ifname_id2radio(i);
        unsigned ifindex = name ? if_nametoindex(name) : 0;
        if (ifindex == 0)
            continue;
        if (op((int)ifindex, name) < 0)
            return -1;
    }
    return 0;
}

int ltr_set_track_enable(uint32_t enable)
{
    return ltr_radio_walk([enable](int ifindex, const char *name) {
        if (qz_dcd_set_lta_track_enable(ifindex, (int)enable) < 0) {
            LTR_DBG(ERROR, "%s track to interface %s failed.\n", enable ? "enable" : "disable",
                    name);
            return -1;
        }
        return 0;
    });
}

int ltr_set_trackobj_radio(int ifindex, ltr_track_obj *obj)
{
    uint32_t type = ltr_track_key_type(&obj->key);
    lta_trackobj rec{};
    memcpy(rec.mac, obj->key.addr, sizeof(rec.mac));
    rec.is_oui = type != LTR_TRACK_MAC;
    rec.del = 0;
    int r = qz_dcd_set_lta_trackobj(ifindex, &rec);
    if (r < 0)
        LTR_DBG(ERROR, "set track (%s %m) to radio %d failed.\n", ltr_track_type_name(type),
                obj->key.addr, ifindex);
    return r;
}

int ltr_apply_trackobj(const uint8_t *mac, uint32_t type, int add)
{
    LTR_CHECK(mac != LTR_NULL);
    ltr_track_key key = ltr_track_key_make(mac, type);

    // The store decides: a duplicate, a full list or an absent object never
    // reaches the radios.
    int out = (add ? ltr_track_obj_add(&key) : ltr_track_obj_del(&key)) == 0 ? 0 : -1;
    if (out == 0) {
        lta_trackobj rec{};
        memcpy(rec.mac, mac, sizeof(rec.mac));
        rec.is_oui = type != LTR_TRACK_MAC;
        rec.del = add ? 0 : 1;
        out = ltr_radio_walk([&](int ifindex, const char *name) {
            if (qz_dcd_set_lta_trackobj(ifindex, &rec) < 0) {
                LTR_DBG(ERROR, "aplly mac %m to interface %s failed.\n", mac, name);
                return -1;
            }
            return 0;
        });
    }
    LTR_DBG(INFO, "%s %s %m %s.\n", add ? "add" : "del", ltr_track_type_name(type), mac,
            out == 0 ? "ok" : "fail");
    return out;
}

// The delete frees obj, so the callbacks work on a copy of its address.
void ltr_del_oui_cb(void *, ltr_track_obj *obj)
{
    if (ltr_track_key_type(&obj->key) != LTR_TRACK_OUI)
        return;
    uint8_t addr[6];
    memcpy(addr, obj->key.addr, sizeof(addr));
    if (ltr_apply_trackobj(addr, LTR_TRACK_OUI, 0) < 0)
        LTR_DBG(ERROR, "del oui %m failed.\n", addr);
}

void ltr_del_mac_cb(void *mgt_arg, ltr_track_obj *obj)
{
    if (ltr_track_key_type(&obj->key) != LTR_TRACK_MAC)
        return;
    auto *m = (ltr_mgt *)mgt_arg;
    uint8_t addr[6];
    memcpy(addr, obj->key.addr, sizeof(addr));
    if (ltr_apply_trackobj(addr, LTR_TRACK_MAC, 0) < 0)
        LTR_DBG(ERROR, "del mac %m failed.\n", addr);
    // The station goes even when a radio kept the object.
    ltr_sta_del_bymac(&m->sta_tbl, addr);
}

void ltr_purge_unmatched(ltr_mgt *m)
{
    for (ltr_sta *sta = m->sta_tbl.sta_list.first, *next; sta && m->cfg->lmatch; sta = next) {
        next = sta->list.next;
        if (!ltr_track_list_match(sta->macaddr))
            ltr_sta_del(sta);
    }
}

int ltr_set_lmatch(uint32_t value)
{
    int r = ltr_radio_walk([value](int ifindex, const char *name) {
        if (qz_dcd_set_lta_lmatch_enable(ifindex, (int)value) < 0) {
            LTR_DBG(ERROR, "set track all to interface %s failed.\n", name);
            return -1;
        }
        return 0;
    });
    if (r < 0)
        return -1;
    mgt.cfg->lmatch = value;
    if (value)
        ltr_purge_unmatched(&mgt);
    return 0;
}

int ltr_set_track_all(uint32_t on)
{
    if (on)
        return ltr_set_lmatch(1);
    ltr_set_track_enable(0);
    ltr_sta_tbl_flush(&mgt.sta_tbl);
    ltr_track_list_cleanup();
    return 0;
}
