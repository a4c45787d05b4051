// Operator commands: registration, the stubs' IPC check, handler error lines and the
// refusals of a disabled tracker, and the running-configuration generator.
#include <vector>

#include "ltr_cli.h"
#include "ltr_node.h"
#include "ltr_test.h"

namespace {

fake::bytes block(uint32_t flags, std::vector<uint8_t> arg = {}, size_t len = 12)
{
    fake::bytes b(len, 0);
    for (int i = 0; i < 4; i++)
        b[(size_t)i] = (uint8_t)(flags >> (8 * i));
    for (size_t i = 0; i < arg.size() && 12 + i < len; i++)
        b[12 + i] = arg[i];
    return b;
}

const fake::bytes MAC_BLOCK = block(1, {0x00, 0x11, 0x22, 0x33, 0x44, 0x55}, 20);
const fake::bytes OUI_BLOCK = block(1, {0x00, 0x11, 0x22}, 16);
const char *DISABLED = "ERROR: Can't modify tracking list when tracking is disabled.\n";

class CliCmd : public LtrTest {
  protected:
    ltr_cfg cfg{1, 0, 1, 0, 0, 3, 60, 60};
    void SetUp() override
    {
        LtrTest::SetUp();
        mgt.cfg = &cfg;
        ltr_reg_cmd_vectors();
        ltr_reg_cfg_generator();
        fake::clear_calls();
    }
};

} // namespace

TEST_F(CliCmd, RegistersTwentyThreeStubsInOrderAndTheGenerator)
{
    fake::reset();
    ltr_reg_cmd_vectors();
    ltr_reg_cfg_generator();
    const std::vector<int> order = {1882, 1883, 1893, 1894, 1895, 1897, 1896, 1885,
                                    1886, 1884, 1887, 1888, 1889, 1890, 1891, 1892,
                                    1883, 1893, 1894, 1895, 1897, 1885, 1886};
    EXPECT_EQ(fake::cmd_ids(), order);
    for (auto &c : fake::calls_of("qz_reg_cmd_vector"))
        EXPECT_EQ(c.args[0], 0);
    auto gen = fake::calls_of("qz_reg_cfg_generator");
    ASSERT_EQ(gen.size(), 1u);
    EXPECT_EQ(gen[0].args[0], 0); // null argument
}

TEST_F(CliCmd, StubRefusesAForeignIpcStructure)
{
    EXPECT_DEATH(fake::run_cmd(LTR_CMD_SHOW_PARAM, false, block(0), 0, 16),
                 "### Assertion \\(p->type==QZ_CLI_IPC_STRUCT_T\\) failed at "
                 "mgt/cli/ltr/qz_cli_agt_auto:[0-9]+");
    EXPECT_DEATH(fake::run_cmd(LTR_CMD_TRACK_MAC, true, MAC_BLOCK, 1, 0),
                 "p->type==QZ_CLI_IPC_STRUCT_T");
}

TEST_F(CliCmd, ListChangesAreRefusedWhileDisabledAndBothStubsAgree)
{
    for (int nth : {0, 1}) {
        fake::clear_text();
        EXPECT_EQ(fake::run_cmd(LTR_CMD_TRACK_MAC, false, MAC_BLOCK, nth), -1);
        EXPECT_EQ(fake::cli_text(), DISABLED);
        fake::clear_text();
        EXPECT_EQ(fake::run_cmd(LTR_CMD_TRACK_OUI, false, OUI_BLOCK, nth), -1);
        EXPECT_EQ(fake::cli_text(), DISABLED);
        // "no" without an OUI removes every OUI: refused as well.
        fake::clear_text();
        EXPECT_EQ(fake::run_cmd(LTR_CMD_TRACK_OUI, true, block(0), nth), -1);
        EXPECT_EQ(fake::cli_text(), DISABLED);
    }
    // Nothing reached the store or a radio.
    EXPECT_EQ(fake::count("qz_db_store"), 0u);
    EXPECT_EQ(fake::count("qz_dcd_set_lta_trackobj"), 0u);
    EXPECT_EQ(ltr_mgt_add_mac(MAC_BLOCK.data() + 12), LTR_ERR_DISABLED);
    EXPECT_EQ(ltr_mgt_add_oui(OUI_BLOCK.data() + 12), LTR_ERR_DISABLED);
    EXPECT_EQ(ltr_mgt_del_all_oui(), LTR_ERR_DISABLED);
}

TEST_F(CliCmd, RemovingAllMacsWhileDisabledIsNotRefused)
{
    EXPECT_EQ(fake::run_cmd(LTR_CMD_TRACK_MAC, true, block(0)), 0);
    EXPECT_EQ(fake::cli_text(), "");
}

TEST_F(CliCmd, ListMatchOnWhileDisabledPrintsItsOwnLine)
{
    EXPECT_EQ(ltr_mgt_set_lmatch(1), LTR_ERR_DISABLED);
    EXPECT_EQ(fake::run_cmd(LTR_CMD_LIST_MATCH, false, block(0)), -1);
    EXPECT_EQ(fake::cli_text(), "ERROR: Enable/disable location tracking list match failed.\n");
    EXPECT_EQ(cfg.lmatch, 1u);
    EXPECT_EQ(fake::count("qz_dcd_set_lta_lmatch_enable"), 0u);
}

TEST_F(CliCmd, GeneratorIsSilentForDefaultsWhileDisabled)
{
    EXPECT_TRUE(fake::run_cfg_gen().empty());
    // Objects and list match are only described while tracking is enabled.
    cfg.lmatch = 0;
    EXPECT_TRUE(fake::run_cfg_gen().empty());
}

TEST_F(CliCmd, GeneratorDescribesEverySettingAwayFromItsDefault)
{
    cfg = ltr_cfg{1, 0, 1, 7, 2, 9, 120, 30};
    auto out = fake::run_cfg_gen();
    ASSERT_EQ(out.size(), 5u);
    const int ids[] = {1883, 1893, 1894, 1895, 1897};
    const uint32_t vals[] = {7, 120, 9, 30, 2};
    for (size_t i = 0; i < 5; i++) {
        EXPECT_EQ(out[i].cmd_id, ids[i]);
        EXPECT_EQ(out[i].tag, 7);
        uint8_t v[4] = {(uint8_t)vals[i], (uint8_t)(vals[i] >> 8), 0, 0};
        EXPECT_EQ(out[i].block, block(1, {v[0], v[1], v[2], v[3]}, 16)) << ids[i];
    }
}

TEST_F(CliCmd, GeneratorPutsEnableFirstAndListMatchOffLast)
{
    cfg = ltr_cfg{1, 1, 0, 0, 0, 3, 61, 60};
    auto out = fake::run_cfg_gen();
    ASSERT_EQ(out.size(), 3u);
    EXPECT_EQ(out[0].cmd_id, 1882);
    EXPECT_EQ(out[0].block, block(0));
    EXPECT_EQ(out[1].cmd_id, 1893);
    EXPECT_EQ(out[2].cmd_id, 1896);
    EXPECT_EQ(out[2].block, fake::bytes({0, 0, 0, 0x80, 0, 0, 0, 0, 0, 0, 0, 0}));
}

// ---- With the real manager, tracking control and tracking list ----

namespace {

class CliLive : public LtrTest {
  protected:
    void SetUp() override
    {
        LtrTest::SetUp();
        fake::set_radios({{"wifi0", 4}, {"wifi1", 6}});
        ASSERT_EQ(ltr_mgt_init(), 0);
        ltr_reg_cmd_vectors();
        ltr_reg_cfg_generator();
    }
    int run(int id, bool neg, const fake::bytes &b, int nth = 0)
    {
        fake::clear_text();
        return fake::run_cmd(id, neg, b, nth);
    }
    fake::bytes value(uint32_t v)
    {
        return block(1, {(uint8_t)v, (uint8_t)(v >> 8), (uint8_t)(v >> 16), (uint8_t)(v >> 24)}, 16);
    }
};

} // namespace

TEST_F(CliLive, ValueCommandsSetAndTheirNoFormsRestoreDefaults)
{
    EXPECT_EQ(run(LTR_CMD_SUPPRESS, false, value(0x12345)), 0); // low 16 bits
    EXPECT_EQ(mgt.cfg->suppress, 0x2345);
    EXPECT_EQ(run(LTR_CMD_RPT_INTERVAL, false, value(30)), 0);
    EXPECT_EQ(mgt.cfg->rpt_interval, 30);
    EXPECT_EQ(run(LTR_CMD_RSSI_THRESHOLD, false, value(0x0105)), 0); // the setter keeps 8 bits
    EXPECT_EQ(mgt.cfg->rssi_threshold, 5);
    EXPECT_EQ(run(LTR_CMD_VALID_PERIOD, false, value(600)), 0);
    EXPECT_EQ(mgt.cfg->valid_period, 600);
    EXPECT_EQ(run(LTR_CMD_HOLD_TIME, false, value(0x1ff)), 0); // low 8 bits
    EXPECT_EQ(mgt.cfg->hold_time, 0xff);
    EXPECT_EQ(fake::cli_text(), "");

    // The negated forms ignore whatever value the block carries; either stub serves.
    for (int id : {LTR_CMD_SUPPRESS, LTR_CMD_RPT_INTERVAL, LTR_CMD_RSSI_THRESHOLD,
                   LTR_CMD_VALID_PERIOD, LTR_CMD_HOLD_TIME})
        EXPECT_EQ(run(id, true, value(77), 1), 0);
    EXPECT_EQ(mgt.cfg->suppress, 0);
    EXPECT_EQ(mgt.cfg->rpt_interval, 60);
    EXPECT_EQ(mgt.cfg->rssi_threshold, 3);
    EXPECT_EQ(mgt.cfg->valid_period, 60);
    EXPECT_EQ(mgt.cfg->hold_time, 0);
}

TEST_F(CliLive, EnableFailurePrintsItsLine)
{
    fake::script("qz_hc_register", -1);
    EXPECT_EQ(run(LTR_CMD_TRACK_ENABLE, false, block(0)), -1);
    EXPECT_EQ(fake::cli_text(), "ERROR: Enable/disable location tracking failed.\n");
    EXPECT_EQ(mgt.cfg->enabled, 0u);
    EXPECT_EQ(run(LTR_CMD_TRACK_ENABLE, false, block(0)), 0);
    EXPECT_EQ(mgt.cfg->enabled, 1u);
    EXPECT_EQ(run(LTR_CMD_TRACK_ENABLE, true, block(0)), 0);
    EXPECT_EQ(mgt.cfg->enabled, 0u);
}

TEST_F(CliLive, ListCommandsWhileEnabled)
{
    ASSERT_EQ(run(LTR_CMD_TRACK_ENABLE, false, block(0)), 0);
    EXPECT_EQ(run(LTR_CMD_TRACK_MAC, false, MAC_BLOCK), 0);
    EXPECT_EQ(run(LTR_CMD_TRACK_OUI, false, OUI_BLOCK), 0);
    EXPECT_EQ(ltr_tl.obj_cnt, 2);
    // The OUI reached the radios as 3 bytes and three zero bytes.
    auto &objs = fake::radio_state(6).trackobjs;
    ASSERT_EQ(objs.size(), 2u);
    EXPECT_EQ(objs[1].is_oui, 1u);
    EXPECT_EQ(memcmp(objs[1].mac, "\x00\x11\x22\x00\x00\x00", 6), 0);

    // Removing a MAC that is not listed is no failure.
    EXPECT_EQ(run(LTR_CMD_TRACK_MAC, true, block(1, {0x0e, 0, 0, 0, 0, 1}, 20), 1), 0);
    EXPECT_EQ(fake::cli_text(), "");

    // A radio refusing the object: the handler's own line.
    fake::script("qz_dcd_set_lta_trackobj", -1);
    EXPECT_EQ(run(LTR_CMD_TRACK_MAC, false, block(1, {0x0e, 0, 0, 0, 0, 2}, 20)), -1);
    EXPECT_EQ(fake::cli_text(), "ERROR: Add/del mac to tracking list failed.\n");
    fake::script("qz_dcd_set_lta_trackobj", -1);
    EXPECT_EQ(run(LTR_CMD_TRACK_OUI, false, block(1, {0x0e, 0, 0}, 16)), -1);
    EXPECT_EQ(fake::cli_text(), "ERROR: Add/del oui to tracking list failed.\n");
}

TEST_F(CliLive, RemovingAnOuiDropsTheStationsItMatched)
{
    ASSERT_EQ(ltr_set_enabled(1), 0);
    ASSERT_EQ(run(LTR_CMD_TRACK_OUI, false, OUI_BLOCK), 0);
    ASSERT_EQ(run(LTR_CMD_TRACK_MAC, false, block(1, {0x66, 0, 0, 0, 0, 1}, 20)), 0);
    const uint8_t in_oui[6] = {0x00, 0x11, 0x22, 9, 9, 9}, listed[6] = {0x66, 0, 0, 0, 0, 1};
    ltr_sta_add(&mgt.sta_tbl, in_oui);
    ltr_sta_add(&mgt.sta_tbl, listed);
    EXPECT_EQ(run(LTR_CMD_TRACK_OUI, true, OUI_BLOCK, 1), 0);
    EXPECT_EQ(ltr_sta_find(&mgt.sta_tbl, in_oui), nullptr);
    EXPECT_NE(ltr_sta_find(&mgt.sta_tbl, listed), nullptr);
    // "no" without a MAC removes every MAC object and its station; OUIs stay.
    ASSERT_EQ(run(LTR_CMD_TRACK_OUI, false, OUI_BLOCK), 0);
    EXPECT_EQ(run(LTR_CMD_TRACK_MAC, true, block(0)), 0);
    EXPECT_EQ(ltr_sta_find(&mgt.sta_tbl, listed), nullptr);
    EXPECT_EQ(ltr_tl.obj_cnt, 1);
}

TEST_F(CliLive, GeneratorListsObjectsInListOrderAfterEnable)
{
    ASSERT_EQ(run(LTR_CMD_TRACK_ENABLE, false, block(0)), 0);
    ASSERT_EQ(run(LTR_CMD_TRACK_OUI, false, OUI_BLOCK), 0);
    ASSERT_EQ(run(LTR_CMD_TRACK_MAC, false, MAC_BLOCK), 0);
    ASSERT_EQ(run(LTR_CMD_HOLD_TIME, false, value(4)), 0);
    auto out = fake::run_cfg_gen();
    ASSERT_EQ(out.size(), 4u);
    EXPECT_EQ(out[0].cmd_id, 1882);
    EXPECT_EQ(out[1].cmd_id, 1897);
    EXPECT_EQ(out[2].cmd_id, 1886);
    EXPECT_EQ(out[2].block, OUI_BLOCK);
    EXPECT_EQ(out[3].cmd_id, 1885);
    EXPECT_EQ(out[3].block, MAC_BLOCK);

    // Replaying the blocks on a fresh daemon gives the same configuration back.
    auto first = out;
    TearDown();
    SetUp();
    for (auto &e : first)
        ASSERT_EQ(fake::run_cmd(e.cmd_id, (e.block[3] & 0x80) != 0, e.block), 0) << e.cmd_id;
    auto again = fake::run_cfg_gen();
    ASSERT_EQ(again.size(), first.size());
    for (size_t i = 0; i < first.size(); i++)
        EXPECT_EQ(again[i].block, first[i].block) << i;
}

TEST_F(CliLive, ListMatchOffAndOnWhileEnabled)
{
    ASSERT_EQ(ltr_set_enabled(1), 0);
    EXPECT_EQ(run(LTR_CMD_LIST_MATCH, true, block(0)), 0);
    EXPECT_EQ(mgt.cfg->lmatch, 0u);
    EXPECT_EQ(fake::radio_state(4).lmatch, 0);
    auto out = fake::run_cfg_gen();
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(out[1].cmd_id, 1896);
    fake::script("qz_dcd_set_lta_lmatch_enable", -1);
    EXPECT_EQ(run(LTR_CMD_LIST_MATCH, false, block(0)), -1);
    EXPECT_EQ(fake::cli_text(), "ERROR: Enable/disable location tracking list match failed.\n");
    EXPECT_EQ(run(LTR_CMD_LIST_MATCH, false, block(0)), 0);
    EXPECT_EQ(mgt.cfg->lmatch, 1u);
}
