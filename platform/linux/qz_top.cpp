// Timer service: one thread runs the expiries of one-shot timers in deadline order.
// Callbacks run on that thread only, never on the thread that arms a timer.
#include "qz_top.h"

#include <pthread.h>
#include <syslog.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>
#include <utility>

#include "rt_counter.h"
#include "rt_life.h"
#include "rt_log.h"
#include "rt_notify.h"
#include "rt_process.h"

using steady = std::chrono::steady_clock;

struct qz_pmpt_timer {
    qz_pmpt_timer_cb cb;
    void *arg;
    bool armed;
    bool running; // its callback runs now
    bool deleted; // freed by the timer thread once the callback returns
    steady::time_point due;
};

namespace {

struct timer_service {
    std::mutex mu;
    std::condition_variable cv;
    std::set<std::pair<steady::time_point, qz_pmpt_timer *>> queue;
    bool started = false;
    bool quit = false; // the thread leaves after the callback it runs, if any
    pthread_t thread{};
};

timer_service &svc()
{
    static timer_service *s = new timer_service; // outlives static destruction
    return *s;
}

void *timer_thread(void *)
{
    timer_service &s = svc();
    std::unique_lock l(s.mu);
    std::atomic<uint64_t> &wakes = rt_counter("wake.timer"); // loop turns, to spot ticking
    while (!s.quit) {
        wakes++;
        if (s.queue.empty()) {
            s.cv.wait(l);
            continue;
        }
        auto [due, t] = *s.queue.begin();
        if (steady::now() < due) {
            s.cv.wait_until(l, due);
            continue;
        }
        s.queue.erase(s.queue.begin());
        t->armed = false;
        t->running = true;
        qz_pmpt_timer_cb cb = t->cb;
        void *arg = t->arg;
        l.unlock();
        {
            rt_watched_call watched("timer");
            cb(t, arg);
        }
        l.lock();
        t->running = false;
        if (t->deleted)
            delete t;
    }
    return nullptr;
}

int start_service_locked(timer_service &s)
{
    if (s.started)
        return 0;
    s.quit = false;
    int rc = rt_thread_create(&s.thread, timer_thread, nullptr, "qz_timer", RT_STACK_DAEMON);
    if (rc != 0) {
        rt_log(LOG_ERR, "timer service: cannot start its thread");
        return -1;
    }
    s.started = true;
    rt_life_started("timer service", rt_timer_service_stop);
    return 0;
}

void disarm_locked(timer_service &s, qz_pmpt_timer *t)
{
    if (t->armed)
        s.queue.erase({t->due, t});
    t->armed = false;
}

} // namespace

void rt_timer_service_stop()
{
    timer_service &s = svc();
    pthread_t th;
    {
        std::lock_guard g(s.mu);
        if (!s.started)
            return;
        s.quit = true;
        s.started = false;
        th = s.thread;
    }
    s.cv.notify_all();
    // A callback that ends the process leaves its own thread to the exit.
    if (!pthread_equal(th, pthread_self()))
        pthread_join(th, nullptr);
}

int qz_pmpt_timer_init(int)
{
    timer_service &s = svc();
    std::lock_guard g(s.mu);
    return start_service_locked(s);
}

qz_pmpt_timer_t *qz_pmpt_timer_create(qz_pmpt_timer_cb cb, void *arg)
{
    if (!cb)
        return nullptr;
    timer_service &s = svc();
    std::lock_guard g(s.mu);
    if (start_service_locked(s) != 0)
        return nullptr;
    return new qz_pmpt_timer{cb, arg, false, false, false, {}};
}

int qz_pmpt_timer_start(qz_pmpt_timer_t *t, unsigned int seconds)
{
    if (!t)
        return -1;
    timer_service &s = svc();
    {
        std::lock_guard g(s.mu);
        if (t->deleted)
            return -1;
        disarm_locked(s, t);
        // Ten years is "never" for this service and keeps the clock arithmetic sane.
        unsigned int secs = seconds < 315360000u ? seconds : 315360000u;
        t->due = steady::now() + std::chrono::seconds(secs);
        t->armed = true;
        s.queue.insert({t->due, t});
    }
    s.cv.notify_one();
    return 0;
}

namespace {

int stop_timer(qz_pmpt_timer_t *t, bool and_delete)
{
    if (!t)
        return -1;
    timer_service &s = svc();
    std::lock_guard g(s.mu);
    if (t->deleted)
        return -1;
    disarm_locked(s, t);
    if (!and_delete)
        return 0;
    // A running callback (perhaps the caller itself) still uses the record: the timer
    // thread frees it when the callback returns. Never waits, so no lock order arises.
    if (t->running)
        t->deleted = true;
    else
        delete t;
    return 0;
}

} // namespace

int qz_pmpt_timer_stop(qz_pmpt_timer_t *t) { return stop_timer(t, false); }

int qz_pmpt_timer_delete(qz_pmpt_timer_t *t) { return stop_timer(t, true); }

int qz_pmpt_timer_time2fire(qz_pmpt_timer_t *t)
{
    if (!t)
        return -1;
    timer_service &s = svc();
    std::lock_guard g(s.mu);
    if (!t->armed)
        return -1;
    auto left = t->due - steady::now();
    if (left <= steady::duration::zero())
        return 0;
    // Rounded up: a timer just armed for 60 s shows 60.
    return (int)std::chrono::ceil<std::chrono::seconds>(left).count();
}
