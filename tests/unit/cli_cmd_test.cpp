// Operator commands: refusals of a disabled tracker, handler error lines, the generator.
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

// The real manager, tracking control and tracking list on two radios.
class CliCmd : public LtrTest {
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
};

} // namespace

TEST_F(CliCmd, ListChangesAreRefusedWhileDisabledAndBothStubsAgree)
{
    const char *disabled = "ERROR: Can't modify tracking list when tracking is disabled.\n";
    for (int nth : {0, 1}) {
        EXPECT_EQ(run(LTR_CMD_TRACK_MAC, false, MAC_BLOCK, nth), -1);
        EXPECT_EQ(fake::cli_text(), disabled);
        EXPECT_EQ(run(LTR_CMD_TRACK_OUI, false, OUI_BLOCK, nth), -1);
        EXPECT_EQ(fake::cli_text(), disabled);
        // "no" without an OUI removes every OUI: refused as well.
        EXPECT_EQ(run(LTR_CMD_TRACK_OUI, true, block(0), nth), -1);
        EXPECT_EQ(fake::cli_text(), disabled);
    }
    EXPECT_EQ(fake::count("qz_db_store") + fake::count("qz_dcd_set_lta_trackobj"), 0u);
}

TEST_F(CliCmd, ListCommandsWhileEnabled)
{
    ASSERT_EQ(run(LTR_CMD_TRACK_ENABLE, false, block(0)), 0);
    EXPECT_EQ(run(LTR_CMD_TRACK_OUI, false, OUI_BLOCK), 0);
    // The OUI reached the radios as 3 bytes and three zero bytes.
    auto &objs = fake::radio_state(6).trackobjs;
    ASSERT_EQ(objs.size(), 1u);
    EXPECT_EQ(objs[0].is_oui, 1u);
    EXPECT_EQ(memcmp(objs[0].mac, "\x00\x11\x22\x00\x00\x00", 6), 0);
    // Removing a MAC that is not listed is no failure.
    EXPECT_EQ(run(LTR_CMD_TRACK_MAC, true, block(1, {0x0e, 0, 0, 0, 0, 1}, 20), 1), 0);
    EXPECT_EQ(fake::cli_text(), "");
    // A radio refusing the object: the handler's own line.
    fake::script("qz_dcd_set_lta_trackobj", -1);
    EXPECT_EQ(run(LTR_CMD_TRACK_MAC, false, block(1, {0x0e, 0, 0, 0, 0, 2}, 20)), -1);
    EXPECT_EQ(fake::cli_text(), "ERROR: Add/del mac to tracking list failed.\n");
}

TEST_F(CliCmd, GeneratorOutputReplaysToTheSameConfiguration)
{
    ASSERT_EQ(run(LTR_CMD_TRACK_ENABLE, false, block(0)), 0);
    ASSERT_EQ(run(LTR_CMD_TRACK_OUI, false, OUI_BLOCK), 0);
    ASSERT_EQ(run(LTR_CMD_TRACK_MAC, false, MAC_BLOCK), 0);
    ASSERT_EQ(run(LTR_CMD_HOLD_TIME, false, block(1, {4}, 16)), 0);
    auto first = fake::run_cfg_gen();
    std::vector<int> ids;
    for (auto &e : first)
        ids.push_back(e.cmd_id);
    EXPECT_EQ(ids, (std::vector<int>{1882, 1897, 1886, 1885})); // objects in list order
    EXPECT_EQ(first[2].block, OUI_BLOCK);
    TearDown();
    SetUp();
    for (auto &e : first)
        ASSERT_EQ(fake::run_cmd(e.cmd_id, (e.block[3] & 0x80) != 0, e.block), 0) << e.cmd_id;
    auto again = fake::run_cfg_gen();
    ASSERT_EQ(again.size(), first.size());
    for (size_t i = 0; i < first.size(); i++)
        EXPECT_EQ(again[i].block, first[i].block) << i;
}

TEST_F(CliCmd, SettingCommandsKeepTheirWidthTheNoFormRestoresTheDefault)
{
    const int ids[] = {1883, 1893, 1894, 1895, 1897}; // generator order
    auto settings = [] {
        const ltr_cfg *c = mgt.cfg;
        return std::vector<int>{c->suppress, c->rpt_interval, c->rssi_threshold, c->valid_period, c->hold_time};
    };
    for (int id : ids)
        ASSERT_EQ(run(id, false, block(1, {0x05, 0x01, 0x01, 0}, 16)), 0) << id;
    EXPECT_EQ(settings(), (std::vector<int>{0x105, 0x105, 5, 0x105, 5}));
    std::vector<int> gen;
    for (auto &e : fake::run_cfg_gen())
        gen.push_back(e.cmd_id), gen.push_back(e.block[12] | e.block[13] << 8);
    EXPECT_EQ(gen, (std::vector<int>{1883, 0x105, 1893, 0x105, 1894, 5, 1895, 0x105, 1897, 5}));

    for (int id : ids)
        ASSERT_EQ(run(id, true, block(0), 1), 0) << id;
    EXPECT_EQ(settings(), (std::vector<int>{0, 60, 3, 60, 0}));
    EXPECT_TRUE(fake::run_cfg_gen().empty());
}
