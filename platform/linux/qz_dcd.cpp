// Placeholder until this service lands: every call fails.
#include "rt.h"
int qz_dcd_lib_init(void) { return -1; }
int qz_dcd_lib_cleanup(void) { return -1; }
int qz_dcd_set_lta_track_enable(int, int) { return -1; }
int qz_dcd_set_lta_lmatch_enable(int, int) { return -1; }
int qz_dcd_set_lta_trackobj(int, lta_trackobj *) { return -1; }
int qz_dcd_get_lta_rpt_tbl(int, lta_rpt_entry *, int *) { return -1; }
int qz_dcd_get_radio_one_sta(int, const uint8_t *, void *, int, int *) { return -1; }
int qz_dcd_get_lta_stats(int, lta_stats *) { return -1; }
int qz_dcd_get_mac_byname(const char *, uint8_t *) { return -1; }
int qz_dcd_get_addr_byname(const char *, uint32_t *, uint32_t *) { return -1; }
std::vector<rt_radio *> rt_radios() { return {}; }
rt_radio *rt_radio_by_ifindex(int) { return nullptr; }
rt_radio *rt_radio_by_name(const std::string &) { return nullptr; }
const rt_driver_ops *rt_driver_find(const std::string &) { return nullptr; }
int rt_mgt_mac(uint8_t *) { return -1; }
int rt_mgt_ip(uint32_t *) { return -1; }
