// Driver tracking control: the tracking switch, tracked objects and list match on
// every radio, and keeping the station table in step. Lock held by every caller.
#pragma once
#include <stdint.h>

#include "ltr_mgt.h"

int ltr_set_track_enable(uint32_t enable);
int ltr_set_trackobj_radio(int ifindex, ltr_track_obj *obj);
int ltr_apply_trackobj(const uint8_t *mac, uint32_t type, int add);
void ltr_del_oui_cb(void *arg, ltr_track_obj *obj);
void ltr_del_mac_cb(void *mgt_arg, ltr_track_obj *obj);
void ltr_purge_unmatched(ltr_mgt *m);
int ltr_set_lmatch(uint32_t value);
int ltr_set_track_all(uint32_t on);
