// Operator commands: the sixteen handlers, the tracking-list operations they call, and
// the generator that turns the current settings back into commands.
#define LTR_UNIT "qz_ltr_common"
#include <string.h>

#include "ltr_bytes.h"
#include "ltr_cli.h"
#include "ltr_track.h"

uint32_t ltr_cli_arg_flags(const ltr_cli_arg *a) { return ltr_get_le32(a->flags_le); }
uint32_t ltr_cli_arg_value(const ltr_cli_arg *a) { return ltr_get_le32(a->arg); }

// ---- Tracking-list operations (entry points: each takes the lock) ----

int ltr_mgt_add_mac(const uint8_t *mac)
{
    LTR_CHECK(mac != LTR_NULL);
    ltr_lock(&mgt);
    int r = mgt.cfg->enabled ? ltr_apply_trackobj(mac, LTR_TRACK_MAC, 1) : LTR_ERR_DISABLED;
    ltr_unlock(&mgt);
    return r;
}

int ltr_mgt_del_mac(const uint8_t *mac)
{
    LTR_CHECK(mac != LTR_NULL);
    ltr_lock(&mgt);
    int r = ltr_apply_trackobj(mac, LTR_TRACK_MAC, 0);
    ltr_sta_del_bymac(&mgt.sta_tbl, mac);
    ltr_unlock(&mgt);
    return r;
}

int ltr_mgt_del_all_mac(void)
{
    ltr_lock(&mgt);
    ltr_track_list_foreach_safe(ltr_del_mac_cb, &mgt);
    ltr_unlock(&mgt);
    return 0;
}

// An OUI travels as its three bytes followed by three zero bytes.
static void oui_addr(const uint8_t *oui, uint8_t addr[6])
{
    memset(addr, 0, 6);
    memcpy(addr, oui, 3);
}

int ltr_mgt_add_oui(const uint8_t *oui)
{
    LTR_CHECK(oui != LTR_NULL);
    uint8_t addr[6];
    oui_addr(oui, addr);
    ltr_lock(&mgt);
    int r = mgt.cfg->enabled ? ltr_apply_trackobj(addr, LTR_TRACK_OUI, 1) : LTR_ERR_DISABLED;
    ltr_unlock(&mgt);
    return r;
}

int ltr_mgt_del_oui(const uint8_t *oui)
{
    LTR_CHECK(oui != LTR_NULL);
    uint8_t addr[6];
    oui_addr(oui, addr);
    ltr_lock(&mgt);
    int r = ltr_apply_trackobj(addr, LTR_TRACK_OUI, 0);
    ltr_purge_unmatched(&mgt);
    ltr_unlock(&mgt);
    return r;
}

int ltr_mgt_del_all_oui(void)
{
    ltr_lock(&mgt);
    if (!mgt.cfg->enabled) {
        ltr_unlock(&mgt);
        return LTR_ERR_DISABLED;
    }
    ltr_track_list_foreach_safe(ltr_del_oui_cb, nullptr);
    ltr_purge_unmatched(&mgt);
    ltr_unlock(&mgt);
    return 0;
}

int ltr_mgt_set_lmatch(uint32_t enable)
{
    ltr_lock(&mgt);
    int r = enable && !mgt.cfg->enabled ? LTR_ERR_DISABLED : ltr_set_lmatch(enable);
    ltr_unlock(&mgt);
    return r;
}

// ---- Handlers ----

static int fail(qz_cli_cmd *cmd, int r, const char *msg)
{
    if (r == 0)
        return 0;
    qz_cli_printf(cmd, msg);
    return -1;
}

// The list handlers name the refusal of a disabled tracker instead of their own line.
static int list_fail(qz_cli_cmd *cmd, int r, const char *msg)
{
    if (r == LTR_ERR_DISABLED)
        msg = "ERROR: Can't modify tracking list when tracking is disabled.\n";
    return fail(cmd, r, msg);
}

// The command and the error line of each numeric setting.
struct ltr_cli_setting {
    int cmd_id;
    const char *err;
};
static constexpr ltr_cli_setting cli_settings[LTR_SET_COUNT] = {
    {LTR_CMD_SUPPRESS, "ERROR: Set/unset location tracking suppress parameter failed.\n"},
    {LTR_CMD_RPT_INTERVAL, "ERROR: Set/unset RSSI report interval failed.\n"},
    {LTR_CMD_RSSI_THRESHOLD, "ERROR: Set/unset RSSI change update threshold failed.\n"},
    {LTR_CMD_VALID_PERIOD, "ERROR: Set/unset RSSI valid time period failed.\n"},
    {LTR_CMD_HOLD_TIME, "ERROR: Set/unset RSSI hold time failed.\n"},
};
static_assert(cli_settings[LTR_SET_RPT_INTERVAL].cmd_id == LTR_CMD_RPT_INTERVAL);
static_assert(cli_settings[LTR_SET_HOLD_TIME].cmd_id == LTR_CMD_HOLD_TIME);

// Plain form: the value of the block; "no" form: the setting's default.
static int set_value(qz_cli_cmd *cmd, const ltr_cli_arg *arg, ltr_setting s)
{
    LTR_CHECK(cmd != LTR_NULL && arg != LTR_NULL);
    uint32_t v = cmd->negated ? ltr_setting_default(s) : ltr_cli_arg_value(arg);
    return fail(cmd, ltr_mgt_set(s, v), cli_settings[s].err);
}

int ltr_cli_track_enable(qz_cli_cmd *cmd, ltr_cli_arg *)
{
    LTR_CHECK(cmd != LTR_NULL);
    return fail(cmd, ltr_set_enabled(cmd->negated ? 0 : 1),
                "ERROR: Enable/disable location tracking failed.\n");
}

int ltr_cli_suppress(qz_cli_cmd *cmd, ltr_cli_arg *arg)
{
    return set_value(cmd, arg, LTR_SET_SUPPRESS);
}

int ltr_cli_rpt_interval(qz_cli_cmd *cmd, ltr_cli_arg *arg)
{
    return set_value(cmd, arg, LTR_SET_RPT_INTERVAL);
}

int ltr_cli_rssi_threshold(qz_cli_cmd *cmd, ltr_cli_arg *arg)
{
    return set_value(cmd, arg, LTR_SET_RSSI_THRESHOLD);
}

int ltr_cli_valid_period(qz_cli_cmd *cmd, ltr_cli_arg *arg)
{
    return set_value(cmd, arg, LTR_SET_VALID_PERIOD);
}

int ltr_cli_hold_time(qz_cli_cmd *cmd, ltr_cli_arg *arg)
{
    return set_value(cmd, arg, LTR_SET_HOLD_TIME);
}

int ltr_cli_list_match(qz_cli_cmd *cmd, ltr_cli_arg *)
{
    LTR_CHECK(cmd != LTR_NULL);
    return fail(cmd, ltr_mgt_set_lmatch(cmd->negated ? 0 : 1),
                "ERROR: Enable/disable location tracking list match failed.\n");
}

int ltr_cli_track_mac(qz_cli_cmd *cmd, ltr_cli_arg *arg)
{
    LTR_CHECK(cmd != LTR_NULL && arg != LTR_NULL);
    int r;
    if (!cmd->negated)
        r = ltr_mgt_add_mac(arg->arg);
    else if (ltr_cli_arg_flags(arg) & LTR_CLI_FLAG_ARG)
        r = ltr_mgt_del_mac(arg->arg);
    else
        r = ltr_mgt_del_all_mac();
    return list_fail(cmd, r, "ERROR: Add/del mac to tracking list failed.\n");
}

int ltr_cli_track_oui(qz_cli_cmd *cmd, ltr_cli_arg *arg)
{
    LTR_CHECK(cmd != LTR_NULL && arg != LTR_NULL);
    int r;
    if (!cmd->negated)
        r = ltr_mgt_add_oui(arg->arg);
    else if (ltr_cli_arg_flags(arg) & LTR_CLI_FLAG_ARG)
        r = ltr_mgt_del_oui(arg->arg);
    else
        r = ltr_mgt_del_all_oui();
    return list_fail(cmd, r, "ERROR: Add/del oui to tracking list failed.\n");
}

int ltr_cli_show_param(qz_cli_cmd *cmd, ltr_cli_arg *)
{
    return fail(cmd, ltr_show_param(cmd),
                "ERROR: Show location tracking parameters and status failed.\n");
}

int ltr_cli_dump_track_list(qz_cli_cmd *cmd, ltr_cli_arg *)
{
    return fail(cmd, ltr_dump_track_list(cmd), "ERROR: Dump tracking list failed.\n");
}

int ltr_cli_show_rssi(qz_cli_cmd *cmd, ltr_cli_arg *)
{
    ltr_rssi_filter f{};
    f.type = LTR_FILTER_ALL;
    return fail(cmd, ltr_show_rssi(cmd, &f), "ERROR: Show RSSI list failed.\n");
}

int ltr_cli_show_rssi_bymac(qz_cli_cmd *cmd, ltr_cli_arg *arg)
{
    LTR_CHECK(cmd != LTR_NULL && arg != LTR_NULL);
    ltr_rssi_filter f{};
    f.type = LTR_FILTER_MAC;
    memcpy(f.addr, arg->arg, 6);
    return fail(cmd, ltr_show_rssi(cmd, &f), "ERROR: Show RSSI list by MAC failed.\n");
}

int ltr_cli_show_rssi_byoui(qz_cli_cmd *cmd, ltr_cli_arg *arg)
{
    LTR_CHECK(cmd != LTR_NULL && arg != LTR_NULL);
    ltr_rssi_filter f{};
    f.type = LTR_FILTER_OUI;
    memcpy(f.addr, arg->arg, 3);
    return fail(cmd, ltr_show_rssi(cmd, &f), "ERROR: Show RSSI list by OUI failed.\n");
}

int ltr_cli_dump_state(qz_cli_cmd *cmd, ltr_cli_arg *)
{
    return fail(cmd, ltr_dump_state(cmd), "ERROR: Dump state failed.\n");
}

int ltr_cli_dump_drv_stats(qz_cli_cmd *cmd, ltr_cli_arg *)
{
    return fail(cmd, ltr_dump_drv_stats(cmd), "ERROR: Dump driver stats failed.\n");
}

// ---- Running configuration ----

static void gen_block(void *ctx, int cmd_id, uint32_t flags, const uint8_t *arg, int arg_len,
                      int len)
{
    ltr_cli_arg b{};
    ltr_put_le32(b.flags_le, flags);
    if (arg_len)
        memcpy(b.arg, arg, (size_t)arg_len);
    qz_cli_agent_add_tlv(ctx, cmd_id, &b, len, LTR_CLI_CFG_TAG);
}

static void gen_value(void *ctx, int cmd_id, uint32_t value)
{
    uint8_t v[4];
    ltr_put_le32(v, value);
    gen_block(ctx, cmd_id, LTR_CLI_FLAG_ARG, v, 4, LTR_CLI_BLOCK_VALUE);
}

static void gen_track_obj(void *ctx, ltr_track_obj *obj)
{
    uint32_t type = ltr_track_key_type(&obj->key);
    if (type == LTR_TRACK_MAC)
        gen_block(ctx, LTR_CMD_TRACK_MAC, LTR_CLI_FLAG_ARG, obj->key.addr, 6, LTR_CLI_BLOCK_MAC);
    else if (type == LTR_TRACK_OUI)
        gen_block(ctx, LTR_CMD_TRACK_OUI, LTR_CLI_FLAG_ARG, obj->key.addr, 3, LTR_CLI_BLOCK_VALUE);
}

// Enable comes first: the list commands are refused while tracking is disabled.
int ltr_cli_cfg_gen(void *ctx)
{
    ltr_lock(&mgt);
    const ltr_cfg *c = mgt.cfg;
    if (c->enabled)
        gen_block(ctx, LTR_CMD_TRACK_ENABLE, 0, nullptr, 0, LTR_CLI_BLOCK_NOARG);
    for (int i = 0; i < LTR_SET_COUNT; i++) {
        ltr_setting s = (ltr_setting)i;
        uint32_t v = ltr_setting_value(c, s);
        if (v != ltr_setting_default(s))
            gen_value(ctx, cli_settings[s].cmd_id, v);
    }
    if (c->enabled) {
        ltr_track_list_foreach(gen_track_obj, ctx);
        if (c->lmatch != 1)
            gen_block(ctx, LTR_CMD_LIST_MATCH, LTR_CLI_FLAG_NEG, nullptr, 0, LTR_CLI_BLOCK_NOARG);
    }
    ltr_unlock(&mgt);
    return 0;
}
