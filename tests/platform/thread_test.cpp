// Threads and stopping: created threads leave SIGTERM/SIGINT to the signal thread,
// scheduling requests degrade gracefully, and a signal turns into a stop request.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>

#include "qz_sys.h"
#include "qz_tpa.h"
#include "rt_config.h"
#include "rt_stop.h"
#include "rt_test_util.h"

namespace {
void *report_mask(void *arg)
{
    sigset_t cur;
    pthread_sigmask(SIG_SETMASK, nullptr, &cur);
    *(int *)arg = sigismember(&cur, SIGTERM) && sigismember(&cur, SIGINT);
    return nullptr;
}
} // namespace

TEST(Thread, CreatedThreadsRunWithStopSignalsBlockedAndSchedulingDegrades)
{
    rt_scratch s;
    rt_cfg_set(rt_test_config(s));
    // With a stack size and a real-time request: still created (with a warning where
    // real-time scheduling is not permitted).
    for (int prio : {0, 5}) {
        int blocked = -1;
        pthread_t t;
        ASSERT_EQ(qz_pthread_create(&t, report_mask, &blocked, prio, prio ? SCHED_RR : 0, prio * 64 * 1024), 0);
        pthread_join(t, nullptr);
        EXPECT_EQ(blocked, 1);
    }
    EXPECT_NE(qz_pthread_create(nullptr, report_mask, nullptr, 0, 0, 0), 0);
    EXPECT_EQ(qz_pthread_setschedparam(pthread_self(), SCHED_RR, 5), 0);
    EXPECT_LT(qz_pthread_setschedparam(pthread_self(), 12345, 5), 0);
    sched_param sp{};
    pthread_setschedparam(pthread_self(), SCHED_OTHER, &sp);
}

TEST(Stop, SigtermBecomesAStopRequestAndWakesPollers)
{
    auto child = [] {
        rt_scratch s;
        rt_cfg_set(rt_test_config(s));
        rt_signals_init();
        if (rt_stopping() || rt_wait_stop(50))
            _exit(2);
        kill(getpid(), SIGTERM);
        if (!rt_wait_stop(3000))
            _exit(3);
        pollfd p{rt_stop_fd(), POLLIN, 0};
        _exit(poll(&p, 1, 0) == 1 ? 0 : 4);
    };
    EXPECT_EXIT(child(), testing::ExitedWithCode(0), "");
}
