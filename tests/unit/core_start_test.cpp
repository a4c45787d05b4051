// Start-up order, start-up failures with their texts and exit statuses, and the
// debug categories.
#include "core_util.h"
#include "ltr_event.h"

using ::testing::ExitedWithCode;
using strs = std::vector<std::string>;

namespace {

class CoreStart : public LtrTest {};

TEST_F(CoreStart, BringsSubsystemsUpAndDownInOrder)
{
    fake::set_not_ready_polls(1);
    fake::script("qz_pm_init", -1); // not examined
    ASSERT_EQ(ltr_main(0, nullptr), 0);
    strs init4(4, "qz_add_cli_vector_initializer");
    strs want = {"qz_daemonize", "qz_pmpt_timer_init", "qz_pthread_create", "qz_dcd_lib_init",
                 "qz_shm_create", "qz_event_init", "qz_pthread_setschedparam", "qz_pm_init"};
    want.insert(want.end(), init4.begin(), init4.end());
    for (auto *s : {"qz_start_cli_agent", "qz_pm_setstate", "qz_sys_ready", "qz_sys_ready",
                    "qz_pm_cleanup", "qz_dcd_lib_cleanup", "qz_event_cleanup"})
        want.push_back(s);
    EXPECT_EQ(core_calls_among(want), want);
    EXPECT_EQ(fake::calls_of("qz_daemonize")[0].args, (std::vector<int64_t>{0, 1}));
    EXPECT_EQ(fake::calls_of("qz_pthread_setschedparam")[0].args, (std::vector<int64_t>{2, 5}));
    EXPECT_EQ(fake::calls_of("qz_start_cli_agent")[0].args, (std::vector<int64_t>{52, 1}));
    EXPECT_EQ(fake::count("qz_hc_register"), 0u); // not stored as enabled
    EXPECT_TRUE(fake::logs().empty());
}

TEST_F(CoreStart, ThreadCreationFailureReturnsItsCode)
{
    fake::script("qz_pthread_create", 11);
    EXPECT_EQ(ltr_main(0, nullptr), 11);
    ASSERT_EQ(fake::logs().size(), 1u);
    EXPECT_EQ(fake::logs()[0].category, 6);
    EXPECT_EQ(fake::logs()[0].text, "QZ_CHECK_RC failed, rc = 11");
}

struct start_failure {
    const char *fn;
    const char *text;
};
class CoreStartFailure : public LtrTest, public ::testing::WithParamInterface<start_failure> {};

TEST_P(CoreStartFailure, LogsAndExitsWithOne)
{
    fake::script(GetParam().fn, -1);
    EXPECT_EXIT(
        {
            fake::echo_logs(true);
            ltr_main(0, nullptr);
        },
        ExitedWithCode(1), std::string("^") + GetParam().text + "$");
}

INSTANTIATE_TEST_SUITE_P(
    EveryStep, CoreStartFailure,
    ::testing::Values(start_failure{"qz_pmpt_timer_init", ""},
                      start_failure{"qz_dcd_lib_init", "dcd lib init failed!\n"},
                      start_failure{"qz_dcd_get_mac_byname", "init ltd failed!\n"},
                      start_failure{"qz_event_init", "init event lib failed!\n"},
                      start_failure{"qz_pthread_setschedparam",
                                    "adjust ltd event thread priority failed!\n"},
                      start_failure{"qz_start_cli_agent", "start CLI agent failed!\n"}));

TEST_F(CoreStart, DebugCategories)
{
    ltr_register_debug_flags();
    strs names;
    for (auto &f : fake::dbg_flags()) {
        names.push_back(f.name);
        EXPECT_EQ(f.word, f.lib ? &qz_lib_dbg : &ltr_debug_flags);
    }
    EXPECT_EQ(names, (strs{"error", "event", "info", "packet", "all", "scdlib", "dcdlib", "alllib"}));
    ASSERT_TRUE(fake::set_debug("ltr", "all", true));
    EXPECT_EQ(ltr_debug_flags, 0xFFFFFFFFu);

    // Off: not a line. On: only its own category.
    static ltr_cfg cfg = core_defaults();
    mgt.cfg = &cfg;
    fake::bytes ip(24);
    ltr_debug_flags = 0;
    ltr_handle_radio_up(4, 1);
    ltr_event_handler(LTR_EVT_MGT_IP, 24, ip.data());
    EXPECT_TRUE(fake::dbgs().empty());
    fake::set_debug("ltr", "info", true);
    ltr_handle_radio_up(4, 1);
    ltr_event_handler(LTR_EVT_MGT_IP, 24, ip.data());
    ASSERT_EQ(fake::dbgs().size(), 1u);
    EXPECT_EQ(fake::dbgs()[0].tag, "ltr_info");
    EXPECT_EQ(fake::dbgs()[0].text, "handle radio up event: access 1\n");
}

} // namespace
