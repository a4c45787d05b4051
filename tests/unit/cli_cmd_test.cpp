// Operator commands: registration, the stubs' IPC check, handler error lines and the
// refusals of a disabled tracker, and the running-configuration generator.
#include <vector>

#include "ltr_cli.h"
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
