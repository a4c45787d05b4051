// Placeholder until this unit lands: every operation fails.
#include "ltr_node.h"
ltr_track_list ltr_tl;
ltr_track_key ltr_track_key_make(const uint8_t *, uint32_t) { return {}; }
uint32_t ltr_track_key_type(const ltr_track_key *) { return 0; }
const char *ltr_track_type_name(uint32_t) { return "n/a"; }
int ltr_track_list_init(void) { return -1; }
void ltr_track_list_load_cb(qz_db_t *, const void *, int) {}
ltr_track_obj *ltr_track_obj_find(const ltr_track_key *) { return nullptr; }
int ltr_track_obj_add(const ltr_track_key *) { return -1; }
int ltr_track_obj_del(const ltr_track_key *) { return -1; }
int ltr_track_obj_unstore(const ltr_track_key *) { return -1; }
void ltr_track_list_cleanup(void) {}
void ltr_track_list_foreach(ltr_track_walk_fn, void *) {}
void ltr_track_list_foreach_safe(ltr_track_walk_fn, void *) {}
int ltr_track_list_match(const uint8_t *) { return 0; }
