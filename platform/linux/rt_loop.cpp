// The runtime's service loop: an epoll set of registered descriptors and timerfds,
// one thread running their handlers. Each registration carries a generation so that
// an event read for a descriptor removed (and its number reused) in the same turn
// never reaches the new handler.
#include "rt_loop.h"

#include <errno.h>
#include <pthread.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>

#include "rt_counter.h"
#include "rt_life.h"
#include "rt_log.h"
#include "rt_process.h"
#include "rt_stop.h"

namespace {

struct loop_entry {
    rt_loop_fn fn;
    void *arg;
    uint32_t gen;
    bool timer; // a timerfd: its expiry count is read before fn runs
};

// Tags of the loop's own descriptors in the epoll data (registrations use gen >= 1).
constexpr uint64_t TAG_WAKE = 0, TAG_STOP = 1;
constexpr uint32_t FIRST_GEN = 2;

struct loop_state {
    std::mutex mu;
    std::condition_variable idle; // busy went back to -1
    std::map<int, loop_entry> entries;
    uint32_t next_gen = FIRST_GEN;
    int ep = -1;
    int wake = -1; // eventfd: quit
    bool running = false;
    bool quit = false;
    pthread_t thread{};
    int busy = -1; // fd whose handler runs now
};

loop_state &st()
{
    static loop_state *s = new loop_state; // the exit hook may stop it after statics go
    return *s;
}

uint64_t pack(int fd, uint32_t gen) { return uint64_t(gen) << 32 | uint32_t(fd); }

void *loop_thread(void *)
{
    loop_state &s = st();
    std::atomic<uint64_t> &wakes = rt_counter("wake.loop"); // turns, to spot ticking
    epoll_event ev[16];
    for (;;) {
        int n = epoll_wait(s.ep, ev, 16, -1);
        if (n < 0)
            continue; // EINTR
        wakes++;
        for (int i = 0; i < n; i++) {
            uint64_t tag = ev[i].data.u64;
            if (tag == TAG_STOP)
                return nullptr;
            std::unique_lock l(s.mu);
            if (tag == TAG_WAKE) {
                eventfd_t v;
                eventfd_read(s.wake, &v);
                if (s.quit)
                    return nullptr;
                continue;
            }
            int fd = int(uint32_t(tag));
            auto it = s.entries.find(fd);
            if (it == s.entries.end() || it->second.gen != uint32_t(tag >> 32))
                continue; // removed meanwhile
            loop_entry e = it->second;
            s.busy = fd;
            l.unlock();
            // A timer re-armed since it fired is not due (nothing to read).
            uint64_t expiries;
            if (!e.timer || read(fd, &expiries, sizeof expiries) == sizeof expiries)
                e.fn(e.arg, ev[i].events);
            l.lock();
            s.busy = -1;
            s.idle.notify_all();
        }
    }
}

void loop_stop()
{
    loop_state &s = st();
    {
        std::lock_guard l(s.mu);
        if (!s.running || pthread_equal(s.thread, pthread_self()))
            return;
        s.quit = true;
    }
    eventfd_write(s.wake, 1);
    pthread_join(s.thread, nullptr);
    std::lock_guard l(s.mu);
    s.running = false;
    s.quit = false;
}

// Creates the epoll set and starts the thread (s.mu held). False when it cannot.
bool start_locked(loop_state &s)
{
    if (s.ep < 0) {
        int ep = epoll_create1(EPOLL_CLOEXEC);
        int wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        epoll_event we{EPOLLIN, {.u64 = TAG_WAKE}}, se{EPOLLIN, {.u64 = TAG_STOP}};
        if (ep < 0 || wake < 0 || epoll_ctl(ep, EPOLL_CTL_ADD, wake, &we) != 0 ||
            epoll_ctl(ep, EPOLL_CTL_ADD, rt_stop_fd(), &se) != 0) {
            rt_log(LOG_ERR, "service loop: cannot create its epoll set: %s", strerror(errno));
            if (ep >= 0)
                close(ep);
            if (wake >= 0)
                close(wake);
            return false;
        }
        s.ep = ep;
        s.wake = wake;
    }
    if (s.running)
        return true;
    if (int rc = rt_thread_create(&s.thread, loop_thread, nullptr, "qz_loop", RT_STACK_DAEMON)) {
        rt_log(LOG_ERR, "service loop: cannot start its thread: %s", strerror(rc));
        return false;
    }
    s.running = true;
    return true;
}

} // namespace

namespace {

int add(int fd, uint32_t events, rt_loop_fn fn, void *arg, bool timer)
{
    loop_state &s = st();
    if (fd < 0 || !fn)
        return -1;
    {
        std::lock_guard l(s.mu);
        if (s.entries.count(fd) || !start_locked(s))
            return -1;
        uint32_t gen = s.next_gen++;
        if (s.next_gen == 0)
            s.next_gen = FIRST_GEN;
        epoll_event e{events, {.u64 = pack(fd, gen)}};
        if (epoll_ctl(s.ep, EPOLL_CTL_ADD, fd, &e) != 0)
            return -1;
        s.entries[fd] = {fn, arg, gen, timer};
    }
    rt_life_started("service loop", loop_stop); // recorded before the services on it
    return 0;
}

} // namespace

int rt_loop_add(int fd, uint32_t events, rt_loop_fn fn, void *arg)
{
    return add(fd, events, fn, arg, false);
}

int rt_loop_set(int fd, uint32_t events)
{
    loop_state &s = st();
    std::lock_guard l(s.mu);
    auto it = s.entries.find(fd);
    if (it == s.entries.end())
        return -1;
    epoll_event e{events, {.u64 = pack(fd, it->second.gen)}};
    return epoll_ctl(s.ep, EPOLL_CTL_MOD, fd, &e);
}

void rt_loop_remove(int fd)
{
    loop_state &s = st();
    std::unique_lock l(s.mu);
    if (!s.entries.erase(fd))
        return;
    epoll_ctl(s.ep, EPOLL_CTL_DEL, fd, nullptr);
    if (s.running && !pthread_equal(s.thread, pthread_self()))
        s.idle.wait(l, [&] { return s.busy != fd; });
}

bool rt_loop_on_thread()
{
    loop_state &s = st();
    std::lock_guard l(s.mu);
    return s.running && pthread_equal(s.thread, pthread_self());
}

int rt_loop_timer_open(rt_loop_fn fn, void *arg)
{
    int fd = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
    if (fd < 0) {
        rt_log(LOG_ERR, "service loop: timerfd: %s", strerror(errno));
        return -1;
    }
    if (add(fd, EPOLLIN, fn, arg, true) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

void rt_loop_timer_set(int timer, int64_t ms)
{
    if (timer < 0)
        return;
    itimerspec t{};
    if (ms >= 0) {
        // 0 would disarm: the earliest expiry is one nanosecond away.
        int64_t ns = ms > 0 ? ms * 1000000 : 1;
        t.it_value.tv_sec = time_t(ns / 1000000000);
        t.it_value.tv_nsec = long(ns % 1000000000);
    }
    // Setting it drops an expiry not yet read.
    timerfd_settime(timer, 0, &t, nullptr);
}

void rt_loop_timer_close(int timer)
{
    if (timer < 0)
        return;
    rt_loop_remove(timer);
    close(timer);
}
