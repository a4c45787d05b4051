// Threads, stop signals and the allocator's return of large buffers.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "qz_sys.h"
#include "qz_tpa.h"
#include "rt_config.h"
#include "rt_malloc.h"
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

// A show at full load builds megabytes of text on the CLI agent's thread. Once freed,
// they go back to the system, the second time as the first (glibc would otherwise
// raise its mmap threshold after the first such free and keep later ones in a heap).
TEST(Memory, MegabyteBuffersGoBackToTheSystemWhenFreed)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "the sanitizer has its own allocator";
#endif
    rt_malloc_setup();
    auto resident_kib = [] {
        long pages = 0, rss = 0;
        FILE *f = fopen("/proc/self/statm", "r");
        EXPECT_TRUE(f && fscanf(f, "%ld %ld", &pages, &rss) == 2);
        if (f)
            fclose(f);
        return rss * (sysconf(_SC_PAGESIZE) / 1024);
    };
    auto show = [] { // a reply grown line by line, then framed into a copy
        std::string text;
        for (int i = 0; i < 40000; i++)
            text += "12  02fd.0000.0001 -60   2412  yes    -60     3     \n";
        std::vector<uint8_t> reply(text.begin(), text.end());
        EXPECT_EQ(reply.size(), 40000u * 53);
    };
    std::thread(show).join();
    long before = resident_kib();
    for (int i = 0; i < 3; i++)
        std::thread(show).join();
    EXPECT_LT(resident_kib() - before, 512) << "KiB kept after the buffers were freed";
}
