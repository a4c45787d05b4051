// What every radio driver builds on: the radio I/O thread that serves its descriptors.
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "rt_test_util.h"

namespace {

struct pipe_fd {
    int fd[2];
    pipe_fd() { EXPECT_EQ(pipe(fd), 0); }
    ~pipe_fd() { close(fd[0]), close(fd[1]); }
    void put() { EXPECT_EQ(write(fd[1], "x", 1), 1); }
};

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

TEST(RadioIo, HandlersRunPerReadableDescriptorUntilRemoved)
{
    rt_scratch s;
    rt_cfg_set(rt_test_config(s));
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
TEST(RadioIo, RemovalWaitsForARunningHandler)
{
    rt_scratch s;
    rt_cfg_set(rt_test_config(s));
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
