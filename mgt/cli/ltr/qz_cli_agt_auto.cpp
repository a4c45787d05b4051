// Agent stubs between the command-line agent and the handlers: each checks the IPC
// structure and hands the argument block on. Registration of commands and generator.
#define LTR_UNIT "mgt/cli/ltr/qz_cli_agt_auto"
#include "ltr_cli.h"

// The check spells the macro name, not its value, in the assertion text: use the
// non-expanding form of the check.
#define LTR_CLI_STUB(name, handler)                                                            \
    static int name(qz_cli_cmd *cmd, qz_cli_ipc *p)                                            \
    {                                                                                          \
        LTR_CHECK_(p->type==QZ_CLI_IPC_STRUCT_T);                                              \
        return handler(cmd, (ltr_cli_arg *)((uint8_t *)p + 8));                                \
    }

LTR_CLI_STUB(stub_track_enable, ltr_cli_track_enable)
LTR_CLI_STUB(stub_suppress, ltr_cli_suppress)
LTR_CLI_STUB(stub_rpt_interval, ltr_cli_rpt_interval)
LTR_CLI_STUB(stub_rssi_threshold, ltr_cli_rssi_threshold)
LTR_CLI_STUB(stub_valid_period, ltr_cli_valid_period)
LTR_CLI_STUB(stub_hold_time, ltr_cli_hold_time)
LTR_CLI_STUB(stub_list_match, ltr_cli_list_match)
LTR_CLI_STUB(stub_track_mac, ltr_cli_track_mac)
LTR_CLI_STUB(stub_track_oui, ltr_cli_track_oui)
LTR_CLI_STUB(stub_show_param, ltr_cli_show_param)
LTR_CLI_STUB(stub_dump_track_list, ltr_cli_dump_track_list)
LTR_CLI_STUB(stub_show_rssi, ltr_cli_show_rssi)
LTR_CLI_STUB(stub_show_rssi_bymac, ltr_cli_show_rssi_bymac)
LTR_CLI_STUB(stub_show_rssi_byoui, ltr_cli_show_rssi_byoui)
LTR_CLI_STUB(stub_dump_state, ltr_cli_dump_state)
LTR_CLI_STUB(stub_dump_drv_stats, ltr_cli_dump_drv_stats)
// Second registrations: the negated forms of the commands that take an argument.
LTR_CLI_STUB(stub_no_suppress, ltr_cli_suppress)
LTR_CLI_STUB(stub_no_rpt_interval, ltr_cli_rpt_interval)
LTR_CLI_STUB(stub_no_rssi_threshold, ltr_cli_rssi_threshold)
LTR_CLI_STUB(stub_no_valid_period, ltr_cli_valid_period)
LTR_CLI_STUB(stub_no_hold_time, ltr_cli_hold_time)
LTR_CLI_STUB(stub_no_track_mac, ltr_cli_track_mac)
LTR_CLI_STUB(stub_no_track_oui, ltr_cli_track_oui)

namespace {
struct cmd_vector {
    int cmd_id;
    qz_cli_cmd_fn fn;
};
} // namespace

static constexpr cmd_vector cmd_vectors[] = {
    {LTR_CMD_TRACK_ENABLE, stub_track_enable},
    {LTR_CMD_SUPPRESS, stub_suppress},
    {LTR_CMD_RPT_INTERVAL, stub_rpt_interval},
    {LTR_CMD_RSSI_THRESHOLD, stub_rssi_threshold},
    {LTR_CMD_VALID_PERIOD, stub_valid_period},
    {LTR_CMD_HOLD_TIME, stub_hold_time},
    {LTR_CMD_LIST_MATCH, stub_list_match},
    {LTR_CMD_TRACK_MAC, stub_track_mac},
    {LTR_CMD_TRACK_OUI, stub_track_oui},
    {LTR_CMD_SHOW_PARAM, stub_show_param},
    {LTR_CMD_DUMP_TRACK_LIST, stub_dump_track_list},
    {LTR_CMD_SHOW_RSSI, stub_show_rssi},
    {LTR_CMD_SHOW_RSSI_BYMAC, stub_show_rssi_bymac},
    {LTR_CMD_SHOW_RSSI_BYOUI, stub_show_rssi_byoui},
    {LTR_CMD_DUMP_STATE, stub_dump_state},
    {LTR_CMD_DUMP_DRV_STATS, stub_dump_drv_stats},
    {LTR_CMD_SUPPRESS, stub_no_suppress},
    {LTR_CMD_RPT_INTERVAL, stub_no_rpt_interval},
    {LTR_CMD_RSSI_THRESHOLD, stub_no_rssi_threshold},
    {LTR_CMD_VALID_PERIOD, stub_no_valid_period},
    {LTR_CMD_HOLD_TIME, stub_no_hold_time},
    {LTR_CMD_TRACK_MAC, stub_no_track_mac},
    {LTR_CMD_TRACK_OUI, stub_no_track_oui},
};
static_assert(sizeof(cmd_vectors) / sizeof(cmd_vectors[0]) == 23);

int ltr_reg_cmd_vectors(void)
{
    for (const cmd_vector &v : cmd_vectors)
        qz_reg_cmd_vector(0, v.cmd_id, v.fn);
    return 0;
}

int ltr_reg_cfg_generator(void)
{
    qz_reg_cfg_generator(ltr_cli_cfg_gen, nullptr);
    return 0;
}
