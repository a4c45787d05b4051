// Command line: numbered commands, their argument blocks, tracking-list operations,
// the running-configuration generator, and the shows.
#pragma once
#include <stddef.h>
#include <stdint.h>

#include "ltr_mgt.h"
#include "qz_cli.h"

enum ltr_cli_cmd_id {
    LTR_CMD_TRACK_ENABLE = 1882,
    LTR_CMD_SUPPRESS = 1883,
    LTR_CMD_SHOW_PARAM = 1884,
    LTR_CMD_TRACK_MAC = 1885,
    LTR_CMD_TRACK_OUI = 1886,
    LTR_CMD_DUMP_TRACK_LIST = 1887,
    LTR_CMD_SHOW_RSSI = 1888,
    LTR_CMD_SHOW_RSSI_BYMAC = 1889,
    LTR_CMD_SHOW_RSSI_BYOUI = 1890,
    LTR_CMD_DUMP_STATE = 1891,
    LTR_CMD_DUMP_DRV_STATS = 1892,
    LTR_CMD_RPT_INTERVAL = 1893,
    LTR_CMD_RSSI_THRESHOLD = 1894,
    LTR_CMD_VALID_PERIOD = 1895,
    LTR_CMD_LIST_MATCH = 1896,
    LTR_CMD_HOLD_TIME = 1897,
};

#define LTR_CLI_FLAG_ARG 0x1u
#define LTR_CLI_FLAG_NEG 0x80000000u
#define LTR_CLI_CFG_TAG 7

// Argument block; flags little-endian.
struct ltr_cli_arg {
    uint8_t flags_le[4];
    uint8_t zero[8];
    uint8_t arg[8]; // u32 value (little-endian), OUI (3 bytes) or MAC (6 bytes)
};
static_assert(sizeof(ltr_cli_arg) == 20);
#define LTR_CLI_BLOCK_NOARG 12
#define LTR_CLI_BLOCK_VALUE 16
#define LTR_CLI_BLOCK_MAC 20

uint32_t ltr_cli_arg_flags(const ltr_cli_arg *a);
uint32_t ltr_cli_arg_value(const ltr_cli_arg *a);

// Handlers.
int ltr_cli_track_enable(qz_cli_cmd *cmd, ltr_cli_arg *arg);
int ltr_cli_suppress(qz_cli_cmd *cmd, ltr_cli_arg *arg);
int ltr_cli_show_param(qz_cli_cmd *cmd, ltr_cli_arg *arg);
int ltr_cli_track_mac(qz_cli_cmd *cmd, ltr_cli_arg *arg);
int ltr_cli_track_oui(qz_cli_cmd *cmd, ltr_cli_arg *arg);
int ltr_cli_dump_track_list(qz_cli_cmd *cmd, ltr_cli_arg *arg);
int ltr_cli_show_rssi(qz_cli_cmd *cmd, ltr_cli_arg *arg);
int ltr_cli_show_rssi_bymac(qz_cli_cmd *cmd, ltr_cli_arg *arg);
int ltr_cli_show_rssi_byoui(qz_cli_cmd *cmd, ltr_cli_arg *arg);
int ltr_cli_dump_state(qz_cli_cmd *cmd, ltr_cli_arg *arg);
int ltr_cli_dump_drv_stats(qz_cli_cmd *cmd, ltr_cli_arg *arg);
int ltr_cli_rpt_interval(qz_cli_cmd *cmd, ltr_cli_arg *arg);
int ltr_cli_rssi_threshold(qz_cli_cmd *cmd, ltr_cli_arg *arg);
int ltr_cli_valid_period(qz_cli_cmd *cmd, ltr_cli_arg *arg);
int ltr_cli_list_match(qz_cli_cmd *cmd, ltr_cli_arg *arg);
int ltr_cli_hold_time(qz_cli_cmd *cmd, ltr_cli_arg *arg);

// Tracking-list operations; each takes the lock.
int ltr_mgt_add_mac(const uint8_t *mac);
int ltr_mgt_del_mac(const uint8_t *mac);
int ltr_mgt_del_all_mac(void);
int ltr_mgt_add_oui(const uint8_t *oui);
int ltr_mgt_del_oui(const uint8_t *oui);
int ltr_mgt_del_all_oui(void);
int ltr_mgt_set_lmatch(uint32_t enable);

int ltr_cli_cfg_gen(void *ctx);

// Shows.
enum { LTR_FILTER_ALL = 0, LTR_FILTER_MAC = 1, LTR_FILTER_OUI = 2 };
struct ltr_rssi_filter {
    uint32_t type;
    uint8_t addr[6];
    uint8_t zero[2];
};
static_assert(sizeof(ltr_rssi_filter) == 12);

int ltr_show_param(qz_cli_cmd *cmd);
int ltr_dump_track_list(qz_cli_cmd *cmd);
int ltr_show_rssi(qz_cli_cmd *cmd, const ltr_rssi_filter *obj);
int ltr_dump_state(qz_cli_cmd *cmd);
int ltr_dump_drv_stats(qz_cli_cmd *cmd);
