// Start-up order, start-up failures with their texts and exit statuses, and the
// debug categories.
#include "core_util.h"
#include "ltr_event.h"

using ::testing::ExitedWithCode;

namespace {

class CoreStart : public LtrTest {};

TEST_F(CoreStart, BringsSubsystemsUpAndDownInOrder)
{
    fake::set_radios({{"wifi0", 4}});
    fake::set_not_ready_polls(1);
    ASSERT_EQ(ltr_main(0, nullptr), 0);

    auto order = core_calls_among({"qz_daemonize", "qz_pmpt_timer_init", "qz_pthread_create",
                                   "qz_dcd_lib_init", "qz_dcd_get_mac_byname", "qz_shm_create",
                                   "qz_event_init", "qz_pthread_setschedparam", "qz_pm_init",
                                   "qz_add_cli_vector_initializer", "qz_start_cli_agent",
                                   "qz_pm_setstate", "qz_sys_ready", "qz_pm_cleanup",
                                   "qz_dcd_lib_cleanup", "qz_event_cleanup"});
    std::vector<std::string> want = {
        "qz_daemonize", "qz_pmpt_timer_init", "qz_pthread_create", "qz_dcd_lib_init",
        "qz_dcd_get_mac_byname", "qz_shm_create", "qz_event_init", "qz_pthread_setschedparam",
        "qz_pm_init", "qz_add_cli_vector_initializer", "qz_add_cli_vector_initializer",
        "qz_add_cli_vector_initializer", "qz_add_cli_vector_initializer", "qz_start_cli_agent",
        "qz_pm_setstate", "qz_sys_ready", "qz_sys_ready", "qz_pm_cleanup", "qz_dcd_lib_cleanup",
        "qz_event_cleanup"};
    EXPECT_EQ(order, want);

    EXPECT_EQ(fake::calls_of("qz_daemonize")[0].args, (std::vector<int64_t>{0, 1}));
    EXPECT_EQ(fake::calls_of("qz_pthread_setschedparam")[0].args, (std::vector<int64_t>{2, 5}));
    EXPECT_EQ(fake::calls_of("qz_start_cli_agent")[0].args, (std::vector<int64_t>{52, 1}));
    EXPECT_EQ(fake::calls_of("qz_pm_setstate")[0].args, (std::vector<int64_t>{52, 1}));
    EXPECT_TRUE(fake::subscribed(LTR_EVT_SRV_MSG_IN));
    EXPECT_TRUE(fake::subscribed(157));
    EXPECT_TRUE(fake::subscribed(LTR_EVT_MGT_IP));
    EXPECT_TRUE(fake::ksubscribed(LTR_KEVT_IF_CHANGE));
    // Tracking was not stored as enabled: nothing registered.
    EXPECT_EQ(fake::count("qz_hc_register"), 0u);
    EXPECT_TRUE(fake::logs().empty());
}

TEST_F(CoreStart, ThreadCreationFailureReturnsItsCode)
{
    fake::script("qz_pthread_create", 11);
    EXPECT_EQ(ltr_main(0, nullptr), 11);
    ASSERT_EQ(fake::logs().size(), 1u);
    EXPECT_EQ(fake::logs()[0].category, 6);
    EXPECT_EQ(fake::logs()[0].severity, 3);
    EXPECT_EQ(fake::logs()[0].text, "QZ_CHECK_RC failed, rc = 11");
    EXPECT_EQ(fake::count("qz_dcd_lib_init"), 0u);
}

TEST_F(CoreStart, TimerServiceFailureExitsSilently)
{
    fake::script("qz_pmpt_timer_init", -1);
    EXPECT_EXIT(
        {
            fake::echo_logs(true);
            ltr_main(0, nullptr);
        },
        ExitedWithCode(1), "^$");
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
            qz_ltr_main(nullptr);
        },
        ExitedWithCode(1), std::string("^") + GetParam().text + "$");
}

INSTANTIATE_TEST_SUITE_P(
    EveryStep, CoreStartFailure,
    ::testing::Values(start_failure{"qz_dcd_lib_init", "dcd lib init failed!\n"},
                      start_failure{"qz_dcd_get_mac_byname", "init ltd failed!\n"},
                      start_failure{"qz_event_init", "init event lib failed!\n"},
                      start_failure{"qz_pthread_setschedparam",
                                    "adjust ltd event thread priority failed!\n"},
                      start_failure{"qz_start_cli_agent", "start CLI agent failed!\n"}));

TEST_F(CoreStart, ProcessManagerFailuresDoNotStopStartUp)
{
    fake::script("qz_pm_init", -1);
    fake::script("qz_pm_setstate", -1);
    EXPECT_EQ(qz_ltr_main(nullptr), nullptr);
    EXPECT_EQ(fake::count("qz_event_cleanup"), 1u);
}

TEST_F(CoreStart, DebugCategoriesRegisterAndSwitch)
{
    ltr_register_debug_flags();
    std::vector<std::string> names;
    for (auto &f : fake::dbg_flags())
        names.push_back(f.name + (f.lib ? "(lib)" : ""));
    EXPECT_EQ(names, (std::vector<std::string>{"error", "event", "info", "packet", "all",
                                               "scdlib(lib)", "dcdlib(lib)", "alllib(lib)"}));
    for (auto &f : fake::dbg_flags()) {
        EXPECT_EQ(f.module, "ltr");
        EXPECT_EQ(f.word, f.lib ? &qz_lib_dbg : &ltr_debug_flags);
    }

    EXPECT_EQ(ltr_debug_flags, 0u);
    ASSERT_TRUE(fake::set_debug("ltr", "all", true));
    EXPECT_EQ(ltr_debug_flags, 0xFFFFFFFFu);
    fake::set_debug("ltr", "all", false);
    fake::set_debug("ltr", "event", true);
    EXPECT_EQ(ltr_debug_flags, LTR_DBG_EVENT);
}

TEST_F(CoreStart, DebugLinesOnlyForCategoriesSwitchedOn)
{
    static ltr_cfg cfg = core_defaults();
    mgt.cfg = &cfg;
    fake::set_radios({{"wifi0", 4}});

    ltr_handle_radio_up(4, 1); // an info line
    ltr_event_handler(LTR_EVT_MGT_IP, 24, fake::bytes(24).data()); // an event line
    EXPECT_TRUE(fake::dbgs().empty());

    ltr_debug_flags = LTR_DBG_INFO;
    ltr_handle_radio_up(4, 1);
    ltr_event_handler(LTR_EVT_MGT_IP, 24, fake::bytes(24).data());
    ASSERT_EQ(fake::dbgs().size(), 1u);
    EXPECT_EQ(fake::dbgs()[0].tag, "ltr_info");
    EXPECT_EQ(fake::dbgs()[0].text, "handle radio up event: access 1\n");
}

} // namespace
