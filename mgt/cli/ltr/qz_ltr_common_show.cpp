// Placeholder until this unit lands: every operation fails.
#include "ltr_cli.h"
int ltr_show_param(qz_cli_cmd *) { return -1; }
int ltr_dump_track_list(qz_cli_cmd *) { return -1; }
int ltr_show_rssi(qz_cli_cmd *, const ltr_rssi_filter *) { return -1; }
int ltr_dump_state(qz_cli_cmd *) { return -1; }
int ltr_dump_drv_stats(qz_cli_cmd *) { return -1; }
