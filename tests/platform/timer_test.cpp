// The timer service: one-shot expiries on the timer thread, re-arming, stopping, and
// deletion while an expiry is pending or running.
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <thread>

#include "qz_top.h"
#include "rt_test_util.h"

namespace {

struct probe {
    std::mutex mu;
    std::condition_variable cv;
    int fired = 0;
    pthread_t thread{};
    qz_pmpt_timer_t *seen = nullptr;
    void *arg = nullptr;
};

void on_fire(qz_pmpt_timer_t *t, void *arg)
{
    probe *p = (probe *)arg;
    std::lock_guard g(p->mu);
    p->fired++;
    p->thread = pthread_self();
    p->seen = t;
    p->arg = arg;
    p->cv.notify_all();
}

class Timer : public testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(qz_pmpt_timer_init(0), 0); }
    probe p;
};

} // namespace

TEST_F(Timer, FiresOnceOnTheTimerThreadWithItsArgument)
{
    qz_pmpt_timer_t *t = qz_pmpt_timer_create(on_fire, &p);
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(qz_pmpt_timer_time2fire(t), -1);
    ASSERT_EQ(qz_pmpt_timer_start(t, 0), 0);
    ASSERT_TRUE(rt_wait_for(p.mu, p.cv, [&] { return p.fired == 1; }));
    EXPECT_FALSE(pthread_equal(p.thread, pthread_self()));
    EXPECT_EQ(p.seen, t);
    EXPECT_EQ(p.arg, &p);
    // One-shot: not armed any more, and no second expiry.
    EXPECT_EQ(qz_pmpt_timer_time2fire(t), -1);
    EXPECT_FALSE(rt_wait_for(p.mu, p.cv, [&] { return p.fired > 1; }, 1200));
    EXPECT_EQ(qz_pmpt_timer_delete(t), 0);
}

TEST_F(Timer, StartReArmsWithTheNewPeriod)
{
    qz_pmpt_timer_t *t = qz_pmpt_timer_create(on_fire, &p);
    ASSERT_EQ(qz_pmpt_timer_start(t, 100), 0);
    EXPECT_EQ(qz_pmpt_timer_time2fire(t), 100);
    ASSERT_EQ(qz_pmpt_timer_start(t, 1), 0);
    EXPECT_EQ(qz_pmpt_timer_time2fire(t), 1);
    ASSERT_TRUE(rt_wait_for(p.mu, p.cv, [&] { return p.fired == 1; }));
    // The earlier 100-second arming is gone, not merely overtaken.
    ASSERT_EQ(qz_pmpt_timer_start(t, 0), 0);
    ASSERT_TRUE(rt_wait_for(p.mu, p.cv, [&] { return p.fired == 2; }));
    EXPECT_EQ(qz_pmpt_timer_time2fire(t), -1);
    qz_pmpt_timer_delete(t);
}

TEST_F(Timer, StopAndDeleteOfAPendingTimerPreventTheExpiry)
{
    probe q;
    qz_pmpt_timer_t *stopped = qz_pmpt_timer_create(on_fire, &p);
    qz_pmpt_timer_t *deleted = qz_pmpt_timer_create(on_fire, &q);
    ASSERT_EQ(qz_pmpt_timer_start(stopped, 1), 0);
    ASSERT_EQ(qz_pmpt_timer_start(deleted, 1), 0);
    EXPECT_EQ(qz_pmpt_timer_stop(stopped), 0);
    EXPECT_EQ(qz_pmpt_timer_time2fire(stopped), -1);
    EXPECT_EQ(qz_pmpt_timer_delete(deleted), 0);
    EXPECT_FALSE(rt_wait_for(p.mu, p.cv, [&] { return p.fired > 0; }, 1500));
    EXPECT_EQ(q.fired, 0);
    // A stopped timer can be armed again.
    ASSERT_EQ(qz_pmpt_timer_start(stopped, 0), 0);
    EXPECT_TRUE(rt_wait_for(p.mu, p.cv, [&] { return p.fired == 1; }));
    qz_pmpt_timer_delete(stopped);
}

namespace {
struct self_ctl {
    std::mutex mu;
    std::condition_variable cv;
    int runs = 0;
    int rearms = 0; // re-arm this many times, then delete itself
    bool done = false;
};

void self_managing(qz_pmpt_timer_t *t, void *arg)
{
    self_ctl *s = (self_ctl *)arg;
    std::lock_guard g(s->mu);
    s->runs++;
    if (s->runs <= s->rearms) {
        qz_pmpt_timer_start(t, 0);
        return;
    }
    qz_pmpt_timer_delete(t);
    s->done = true;
    s->cv.notify_all();
}
} // namespace

TEST_F(Timer, CallbackReArmsAndDeletesItsOwnTimer)
{
    self_ctl s;
    s.rearms = 3;
    qz_pmpt_timer_t *t = qz_pmpt_timer_create(self_managing, &s);
    ASSERT_EQ(qz_pmpt_timer_start(t, 0), 0);
    ASSERT_TRUE(rt_wait_for(s.mu, s.cv, [&] { return s.done; }));
    EXPECT_EQ(s.runs, 4);
    // Other timers keep working after a self-deletion (the service did not trip).
    qz_pmpt_timer_t *u = qz_pmpt_timer_create(on_fire, &p);
    qz_pmpt_timer_start(u, 0);
    EXPECT_TRUE(rt_wait_for(p.mu, p.cv, [&] { return p.fired == 1; }));
    qz_pmpt_timer_delete(u);
}

namespace {
struct gate {
    std::mutex mu;
    std::condition_variable cv;
    bool inside = false, release = false, left = false;
};

void blocking(qz_pmpt_timer_t *, void *arg)
{
    gate *g = (gate *)arg;
    std::unique_lock l(g->mu);
    g->inside = true;
    g->cv.notify_all();
    g->cv.wait(l, [&] { return g->release; });
    g->left = true;
    g->cv.notify_all();
}
} // namespace

TEST_F(Timer, DeleteWhileTheCallbackRunsReturnsAtOnce)
{
    gate g;
    qz_pmpt_timer_t *t = qz_pmpt_timer_create(blocking, &g);
    qz_pmpt_timer_start(t, 0);
    ASSERT_TRUE(rt_wait_for(g.mu, g.cv, [&] { return g.inside; }));
    // The caller may hold a lock the callback waits for: delete must not wait.
    EXPECT_EQ(qz_pmpt_timer_delete(t), 0);
    {
        std::lock_guard l(g.mu);
        EXPECT_FALSE(g.left);
        g.release = true;
    }
    g.cv.notify_all();
    ASSERT_TRUE(rt_wait_for(g.mu, g.cv, [&] { return g.left; }));
    // The record is freed by the timer thread; the service keeps serving.
    qz_pmpt_timer_t *u = qz_pmpt_timer_create(on_fire, &p);
    qz_pmpt_timer_start(u, 0);
    EXPECT_TRUE(rt_wait_for(p.mu, p.cv, [&] { return p.fired == 1; }));
    qz_pmpt_timer_delete(u);
}

TEST_F(Timer, ExpiriesComeInDeadlineOrder)
{
    static std::mutex mu;
    static std::condition_variable cv;
    static std::vector<int> order;
    auto cb = [](qz_pmpt_timer_t *, void *arg) {
        std::lock_guard g(mu);
        order.push_back((int)(intptr_t)arg);
        cv.notify_all();
    };
    qz_pmpt_timer_t *late = qz_pmpt_timer_create(cb, (void *)2);
    qz_pmpt_timer_t *early = qz_pmpt_timer_create(cb, (void *)1);
    qz_pmpt_timer_start(late, 2);
    qz_pmpt_timer_start(early, 1);
    ASSERT_TRUE(rt_wait_for(mu, cv, [&] { return order.size() == 2; }, 5000));
    EXPECT_EQ(order, (std::vector<int>{1, 2}));
    qz_pmpt_timer_delete(late);
    qz_pmpt_timer_delete(early);
}
