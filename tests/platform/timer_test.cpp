// The timer service: one-shot expiries on the timer thread, re-arming, stopping, and
// deletion while an expiry is pending or running.
#include <gtest/gtest.h>
#include <pthread.h>

#include "qz_top.h"
#include "rt_test_util.h"

namespace {

// Counts expiries; re-arms `rearms` times, then deletes its own timer when asked to.
struct probe {
    std::mutex mu;
    std::condition_variable cv;
    int fired = 0, rearms = -1;
    pthread_t thread{};
    qz_pmpt_timer_t *seen = nullptr;
    bool wait(int n, int ms = 3000) { return rt_wait_for(mu, cv, [&] { return fired >= n; }, ms); }
};

void on_fire(qz_pmpt_timer_t *t, void *arg)
{
    probe *p = (probe *)arg;
    std::lock_guard g(p->mu);
    p->fired++;
    p->thread = pthread_self();
    p->seen = t;
    if (p->rearms >= 0)
        p->fired <= p->rearms ? (void)qz_pmpt_timer_start(t, 0) : (void)qz_pmpt_timer_delete(t);
    p->cv.notify_all();
}

class Timer : public testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(qz_pmpt_timer_init(0), 0); }
    // The service still serves (a self-deletion or a busy delete did not trip it).
    void still_serves()
    {
        probe q;
        qz_pmpt_timer_t *u = qz_pmpt_timer_create(on_fire, &q);
        qz_pmpt_timer_start(u, 0);
        EXPECT_TRUE(q.wait(1));
        qz_pmpt_timer_delete(u);
    }
    probe p;
};

} // namespace

TEST_F(Timer, FiresOnceOnTheTimerThreadAndReArmsWithTheNewPeriod)
{
    qz_pmpt_timer_t *t = qz_pmpt_timer_create(on_fire, &p);
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(qz_pmpt_timer_time2fire(t), -1);
    ASSERT_EQ(qz_pmpt_timer_start(t, 100), 0);
    EXPECT_EQ(qz_pmpt_timer_time2fire(t), 100);
    ASSERT_EQ(qz_pmpt_timer_start(t, 0), 0);
    ASSERT_TRUE(p.wait(1));
    EXPECT_FALSE(pthread_equal(p.thread, pthread_self()));
    EXPECT_EQ(p.seen, t);
    // One-shot, and the earlier 100-second arming is gone, not merely overtaken.
    EXPECT_EQ(qz_pmpt_timer_time2fire(t), -1);
    EXPECT_FALSE(p.wait(2, 1200));
    ASSERT_EQ(qz_pmpt_timer_start(t, 1), 0);
    EXPECT_EQ(qz_pmpt_timer_time2fire(t), 1);
    EXPECT_TRUE(p.wait(2));
    EXPECT_EQ(qz_pmpt_timer_delete(t), 0);
}

TEST_F(Timer, StopAndDeleteOfAPendingTimerPreventTheExpiry)
{
    probe q;
    qz_pmpt_timer_t *stopped = qz_pmpt_timer_create(on_fire, &p), *deleted = qz_pmpt_timer_create(on_fire, &q);
    ASSERT_EQ(qz_pmpt_timer_start(stopped, 1), 0);
    ASSERT_EQ(qz_pmpt_timer_start(deleted, 1), 0);
    EXPECT_EQ(qz_pmpt_timer_stop(stopped), 0);
    EXPECT_EQ(qz_pmpt_timer_time2fire(stopped), -1);
    EXPECT_EQ(qz_pmpt_timer_delete(deleted), 0);
    EXPECT_FALSE(p.wait(1, 1500));
    EXPECT_EQ(q.fired, 0);
    ASSERT_EQ(qz_pmpt_timer_start(stopped, 0), 0); // a stopped timer can be armed again
    EXPECT_TRUE(p.wait(1));
    qz_pmpt_timer_delete(stopped);
}

TEST_F(Timer, CallbackReArmsAndDeletesItsOwnTimer)
{
    p.rearms = 3;
    ASSERT_EQ(qz_pmpt_timer_start(qz_pmpt_timer_create(on_fire, &p), 0), 0);
    ASSERT_TRUE(p.wait(4));
    EXPECT_FALSE(p.wait(5, 300));
    still_serves();
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
    still_serves(); // the record is freed by the timer thread
}

TEST_F(Timer, ExpiriesComeInDeadlineOrder)
{
    probe late, early;
    qz_pmpt_timer_t *tl = qz_pmpt_timer_create(on_fire, &late), *te = qz_pmpt_timer_create(on_fire, &early);
    qz_pmpt_timer_start(tl, 2);
    qz_pmpt_timer_start(te, 1);
    ASSERT_TRUE(early.wait(1));
    EXPECT_EQ(late.fired, 0);
    ASSERT_TRUE(late.wait(1));
    qz_pmpt_timer_delete(tl);
    qz_pmpt_timer_delete(te);
}
