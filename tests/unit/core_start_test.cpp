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

} // namespace
