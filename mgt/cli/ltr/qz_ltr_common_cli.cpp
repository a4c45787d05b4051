// Placeholder until this unit lands: every operation fails.
#include "ltr_cli.h"
uint32_t ltr_cli_arg_flags(const ltr_cli_arg *) { return 0; }
uint32_t ltr_cli_arg_value(const ltr_cli_arg *) { return 0; }
#define H(n) int n(qz_cli_cmd *, ltr_cli_arg *) { return -1; }
H(ltr_cli_track_enable) H(ltr_cli_suppress) H(ltr_cli_show_param) H(ltr_cli_track_mac)
H(ltr_cli_track_oui) H(ltr_cli_dump_track_list) H(ltr_cli_show_rssi) H(ltr_cli_show_rssi_bymac)
H(ltr_cli_show_rssi_byoui) H(ltr_cli_dump_state) H(ltr_cli_dump_drv_stats) H(ltr_cli_rpt_interval)
H(ltr_cli_rssi_threshold) H(ltr_cli_valid_period) H(ltr_cli_list_match) H(ltr_cli_hold_time)
int ltr_mgt_add_mac(const uint8_t *) { return -1; }
int ltr_mgt_del_mac(const uint8_t *) { return -1; }
int ltr_mgt_del_all_mac(void) { return -1; }
int ltr_mgt_add_oui(const uint8_t *) { return -1; }
int ltr_mgt_del_oui(const uint8_t *) { return -1; }
int ltr_mgt_del_all_oui(void) { return -1; }
int ltr_mgt_set_lmatch(uint32_t) { return -1; }
int ltr_cli_cfg_gen(void *) { return -1; }
