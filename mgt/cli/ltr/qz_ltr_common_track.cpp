// Placeholder until this unit lands: every operation fails.
#include "ltr_track.h"
int ltr_set_track_enable(uint32_t) { return -1; }
int ltr_set_trackobj_radio(int, ltr_track_obj *) { return -1; }
int ltr_apply_trackobj(const uint8_t *, uint32_t, int) { return -1; }
void ltr_del_oui_cb(void *, ltr_track_obj *) {}
void ltr_del_mac_cb(void *, ltr_track_obj *) {}
void ltr_purge_unmatched(ltr_mgt *) {}
int ltr_set_lmatch(uint32_t) { return -1; }
int ltr_set_track_all(uint32_t) { return -1; }
