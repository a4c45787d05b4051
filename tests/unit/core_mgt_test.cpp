// The manager and start-up: subsystem order, start-up failures with their exit
// statuses, restoring tracking, initialisation failures and reading life.
#include "core_util.h"
#include "ltr_engine.h"
#include "ltr_event.h"

namespace {

class CoreMgt : public LtrTest {
  protected:
    // A daemon restart: platform state gone except the shared segment and the store.
    void restart()
    {
        ltr_test_reset_core();
        fake::reset_keep_shm();
        ltr_debug_flags = LTR_DBG_ERROR;
    }
};

TEST_F(CoreMgt, StoredEnabledRestartsTrackingBeforeAnyThread)
{
    fake::set_radios({{"wifi0", 4}});
    ASSERT_EQ(ltr_mgt_init(), 0);
    mgt.cfg->enabled = 1;
    restart();
    fake::set_radios({{"wifi0", 4}});
    ASSERT_EQ(ltr_mgt_init(), 0);
    EXPECT_EQ(mgt.engine, &ltr_engine_ops);
    EXPECT_TRUE(fake::hc_registered());
    EXPECT_EQ(fake::radio_state(4).track_enable, 1);
    EXPECT_TRUE(fake::timer_state(mgt.rssi_fetch_timer).armed);

    // The start fails: still up, still reading enabled.
    restart();
    fake::script("qz_hc_register", -1);
    ASSERT_EQ(ltr_mgt_init(), 0);
    EXPECT_TRUE(fake::dbg_has("start tracking setting failed.\n"));
    EXPECT_EQ(mgt.engine, nullptr);
    EXPECT_EQ(mgt.cfg->enabled, 1u);
}

TEST_F(CoreMgt, InitFailures)
{
    struct {
        const char *fn;
        int skip; // calls of fn that succeed first
        const char *text;
        int want;
    } cases[] = {
        {"qz_dcd_get_mac_byname", 0, "get mgt0 mac failed.\n", -1},
        {"qz_pmpt_timer_create", 0, "create rssi fetch timer failed.\n", -1},
        {"qz_pmpt_timer_create", 1, "create station owner ip check timer failed.\n", -1},
        {"qz_shm_create", 0, "attach shared settings failed.\n", -1},
        {"qz_dcd_get_addr_byname", 0, "get mgt0 ip failed.\n", 0},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.text);
        fake::reset();
        restart();
        fake::script(c.fn, 0, c.skip);
        fake::script(c.fn, -1);
        EXPECT_EQ(ltr_mgt_init(), c.want);
        EXPECT_TRUE(fake::dbg_has(c.text));
        EXPECT_EQ(ltr_mgt_inited, c.want == 0);
    }
    EXPECT_EQ(mgt.my_ip, 0u); // the address comes later by event
}

} // namespace

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
