// Radio I/O on the runtime's service loop, and the loop's own promises.
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "rt_counter.h"
#include "rt_loop.h"
#include "rt_test_util.h"

namespace {

struct pipe_fd {
    int fd[2];
    pipe_fd() { EXPECT_EQ(pipe(fd), 0); }
    ~pipe_fd() { close(fd[0]), close(fd[1]); }
    void put() { EXPECT_EQ(write(fd[1], "x", 1), 1); }
};

// Every test runs the loop with a quiet configuration of its own.
struct quiet : ::testing::Test {
    rt_scratch s;
    void SetUp() override { rt_cfg_set(rt_test_config(s)); }
};
using RadioIo = quiet;
using ServiceLoop = quiet;

// Counts and drains one byte per call; removes itself when asked to.
struct reader {
    pipe_fd p;
    std::mutex mu;
    std::condition_variable cv;
    std::atomic<int> calls{0};
    bool remove_self = false;
    static void on_readable(void *arg)
    {
        auto *r = static_cast<reader *>(arg);
        char c;
        EXPECT_EQ(read(r->p.fd[0], &c, 1), 1);
        if (r->remove_self)
            rt_io_remove(r->p.fd[0]);
        std::lock_guard l(r->mu);
        r->calls++;
        r->cv.notify_all();
    }
    bool wait_calls(int n) { return rt_wait_for(mu, cv, [&] { return calls >= n; }); }
};

} // namespace

TEST_F(RadioIo, HandlersRunPerReadableDescriptorUntilRemoved)
{
    reader a, b;
    ASSERT_EQ(rt_io_add(a.p.fd[0], reader::on_readable, &a), 0);
    EXPECT_LT(rt_io_add(a.p.fd[0], reader::on_readable, &a), 0) << "added twice";
    EXPECT_LT(rt_io_add(-1, reader::on_readable, &a), 0);
    a.p.put();
    ASSERT_TRUE(a.wait_calls(1));

    // A descriptor added while the thread sleeps in poll is served.
    ASSERT_EQ(rt_io_add(b.p.fd[0], reader::on_readable, &b), 0);
    b.p.put(), a.p.put();
    ASSERT_TRUE(b.wait_calls(1));
    ASSERT_TRUE(a.wait_calls(2));

    // After removal nothing runs for a; b, written after a, proves the thread went on.
    rt_io_remove(a.p.fd[0]);
    a.p.put(), b.p.put();
    ASSERT_TRUE(b.wait_calls(2));
    EXPECT_EQ(a.calls, 2);

    // A handler may remove its own descriptor without waiting for itself.
    b.remove_self = true;
    b.p.put();
    ASSERT_TRUE(b.wait_calls(3));
    ASSERT_EQ(rt_io_add(a.p.fd[0], reader::on_readable, &a), 0);
    b.p.put(), a.p.put(); // a readable again: the unread byte of before plus this one
    ASSERT_TRUE(a.wait_calls(3));
    EXPECT_EQ(b.calls, 3);
    rt_io_remove(a.p.fd[0]);
}

// Close frees what a handler uses: removal waits for a handler that is running.
TEST_F(RadioIo, RemovalWaitsForARunningHandler)
{
    pipe_fd p;
    std::atomic<int> state{0}; // 1: handler entered, 2: handler may leave, 3: it left
    auto slow = [](void *arg) {
        auto *st = static_cast<std::atomic<int> *>(arg);
        st->store(1);
        while (st->load() != 2)
            std::this_thread::yield();
        st->store(3);
    };
    ASSERT_EQ(rt_io_add(p.fd[0], slow, &state), 0);
    p.put();
    while (state.load() != 1)
        std::this_thread::yield();
    std::thread release([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        state.store(2);
    });
    rt_io_remove(p.fd[0]);
    EXPECT_EQ(state.load(), 3) << "remove returned while the handler ran";
    release.join();
}

// A timer fires once per arming, never when disarmed, and a re-arm replaces the
// deadline; an idle loop does not turn.
TEST_F(ServiceLoop, TimersFireOncePerArmingAndAnIdleLoopSleeps)
{
    std::atomic<int> fired{0};
    auto count = [](void *arg, uint32_t) { ++*static_cast<std::atomic<int> *>(arg); };
    int t = rt_loop_timer_open(count, &fired);
    ASSERT_GE(t, 0);
    rt_loop_timer_set(t, 0); // at once
    ASSERT_TRUE(rt_poll_until([&] { return fired == 1; }));
    rt_loop_timer_set(t, 40);
    rt_loop_timer_set(t, -1);
    uint64_t turns = rt_counter("wake.loop");
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    EXPECT_EQ(fired, 1) << "fired again, or after being disarmed";
    EXPECT_LE(rt_counter("wake.loop") - turns, 1u) << "the loop turns while idle";
    rt_loop_timer_set(t, 5000);
    rt_loop_timer_set(t, 20); // the later arming wins
    ASSERT_TRUE(rt_poll_until([&] { return fired == 2; }, 1000));
    rt_loop_timer_close(t);
}

namespace {

// Two readable pipes handled in one turn: whichever runs first removes the other and
// puts a fresh descriptor (never readable) under the same number with another handler.
struct swap_pair {
    pipe_fd p[2];
    std::atomic<int> ran{0}, stale{0};
    struct side {
        swap_pair *sp;
        int me;
    } sides[2] = {{this, 0}, {this, 1}};
    static void on_new(void *arg, uint32_t) { static_cast<swap_pair *>(arg)->stale++; }
    static void on_old(void *arg, uint32_t)
    {
        auto [sp, me] = *static_cast<side *>(arg);
        char c;
        EXPECT_EQ(read(sp->p[me].fd[0], &c, 1), 1);
        if (sp->ran++)
            return;
        int victim = sp->p[1 - me].fd[0];
        rt_loop_remove(victim);
        int fresh = eventfd(0, EFD_CLOEXEC);
        ASSERT_EQ(dup2(fresh, victim), victim);
        close(fresh);
        ASSERT_EQ(rt_loop_add(victim, EPOLLIN, on_new, sp), 0);
    }
};

} // namespace

TEST_F(ServiceLoop, AnEventOfARemovedDescriptorNeverReachesItsSuccessor)
{
    swap_pair sp;
    // A gate handler holds the loop while both pipes become readable, so that the
    // next wait returns both events in one batch.
    pipe_fd gate;
    std::atomic<int> gate_state{0};
    auto hold = [](void *arg, uint32_t) {
        auto *st = static_cast<std::atomic<int> *>(arg);
        st->store(1);
        while (st->load() != 2)
            std::this_thread::yield();
    };
    ASSERT_EQ(rt_loop_add(gate.fd[0], EPOLLIN, hold, &gate_state), 0);
    gate.put();
    ASSERT_TRUE(rt_poll_until([&] { return gate_state == 1; }));
    for (int i = 0; i < 2; i++)
        ASSERT_EQ(rt_loop_add(sp.p[i].fd[0], EPOLLIN, swap_pair::on_old, &sp.sides[i]), 0);
    sp.p[0].put(), sp.p[1].put();
    rt_loop_set(gate.fd[0], 0); // its byte stays unread
    gate_state = 2;
    ASSERT_TRUE(rt_poll_until([&] { return sp.ran >= 1; }));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(sp.ran, 1);
    EXPECT_EQ(sp.stale, 0) << "the removed descriptor's event went to its successor";
    for (int fd : {gate.fd[0], sp.p[0].fd[0], sp.p[1].fd[0]})
        rt_loop_remove(fd);
}
