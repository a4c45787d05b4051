// The timer service, including deletion while an expiry is pending or running.
#include <gtest/gtest.h>
#include <pthread.h>

#include "qz_top.h"
#include "rt_test_util.h"

namespace {

// Counts expiries; re-arms `rearms` times and then deletes its own timer, or blocks
// until released when `hold` is set.
struct probe {
    std::mutex mu;
    std::condition_variable cv;
    int fired = 0, rearms = -1;
    bool hold = false, release = false, left = false;
    pthread_t thread{};
    bool wait(int n, int ms = 3000) { return rt_wait_for(mu, cv, [&] { return fired >= n; }, ms); }
};

void on_fire(qz_pmpt_timer_t *t, void *arg)
{
    probe *p = (probe *)arg;
    std::unique_lock l(p->mu);
    p->fired++;
    p->thread = pthread_self();
    if (p->rearms >= 0)
        p->fired <= p->rearms ? (void)qz_pmpt_timer_start(t, 0) : (void)qz_pmpt_timer_delete(t);
    p->cv.notify_all();
    p->cv.wait(l, [&] { return !p->hold || p->release; });
    p->left = true;
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
    probe p, q;
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
    // One-shot, and the earlier 100-second arming is gone, not merely overtaken.
    EXPECT_EQ(qz_pmpt_timer_time2fire(t), -1);
    EXPECT_FALSE(p.wait(2, 1200));
    EXPECT_EQ(qz_pmpt_timer_delete(t), 0);
}

TEST_F(Timer, StopAndDeleteOfAPendingTimerPreventTheExpiryAndOrderHolds)
{
    qz_pmpt_timer_t *stopped = qz_pmpt_timer_create(on_fire, &p), *deleted = qz_pmpt_timer_create(on_fire, &q);
    ASSERT_EQ(qz_pmpt_timer_start(stopped, 1), 0);
    ASSERT_EQ(qz_pmpt_timer_start(deleted, 1), 0);
    EXPECT_EQ(qz_pmpt_timer_stop(stopped), 0);
    EXPECT_EQ(qz_pmpt_timer_time2fire(stopped), -1);
    EXPECT_EQ(qz_pmpt_timer_delete(deleted), 0);
    EXPECT_FALSE(p.wait(1, 1500));
    EXPECT_EQ(q.fired, 0);
    // A stopped timer can be armed again; expiries come in deadline order.
    probe early;
    qz_pmpt_timer_t *e = qz_pmpt_timer_create(on_fire, &early);
    ASSERT_EQ(qz_pmpt_timer_start(stopped, 2), 0);
    ASSERT_EQ(qz_pmpt_timer_start(e, 1), 0);
    ASSERT_TRUE(early.wait(1));
    EXPECT_EQ(p.fired, 0);
    EXPECT_TRUE(p.wait(1));
    qz_pmpt_timer_delete(stopped);
    qz_pmpt_timer_delete(e);
}

TEST_F(Timer, CallbackReArmsAndDeletesItsOwnTimer)
{
    p.rearms = 3;
    ASSERT_EQ(qz_pmpt_timer_start(qz_pmpt_timer_create(on_fire, &p), 0), 0);
    ASSERT_TRUE(p.wait(4));
    EXPECT_FALSE(p.wait(5, 300));
    still_serves();
}

TEST_F(Timer, DeleteWhileTheCallbackRunsReturnsAtOnce)
{
    p.hold = true;
    qz_pmpt_timer_t *t = qz_pmpt_timer_create(on_fire, &p);
    qz_pmpt_timer_start(t, 0);
    ASSERT_TRUE(p.wait(1));
    // The caller may hold a lock the callback waits for: delete must not wait.
    EXPECT_EQ(qz_pmpt_timer_delete(t), 0);
    {
        std::lock_guard l(p.mu);
        EXPECT_FALSE(p.left);
        p.release = true;
    }
    p.cv.notify_all();
    ASSERT_TRUE(rt_wait_for(p.mu, p.cv, [&] { return p.left; }));
    still_serves(); // the record is freed by the timer thread
}
