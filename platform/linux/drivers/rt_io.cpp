// Radio I/O: one runtime thread polls the descriptors drivers add (a capture handle, a
// socket) and runs their handlers; it sleeps in poll until one of them, a change of
// the set or the stop has something.
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <vector>

#include "rt.h"
#include "rt_life.h"
#include "rt_log.h"
#include "rt_process.h"
#include "rt_stop.h"

namespace {

struct io_entry {
    int fd;
    void (*fn)(void *);
    void *arg;
};

struct io_state {
    std::mutex mu;
    std::condition_variable idle; // busy went back to -1
    std::vector<io_entry> entries;
    int wake = -1;                // eventfd: the set changed, or stop
    bool running = false;
    bool quit = false;
    pthread_t thread{};
    int busy = -1;                // fd whose handler runs now
};

io_state &st()
{
    static io_state s;
    return s;
}

void *io_thread(void *)
{
    io_state &s = st();
    std::vector<pollfd> p;
    for (;;) {
        {
            std::lock_guard l(s.mu);
            if (s.quit)
                break;
            p.assign({{rt_stop_fd(), POLLIN, 0}, {s.wake, POLLIN, 0}});
            for (const io_entry &e : s.entries)
                p.push_back({e.fd, POLLIN, 0});
        }
        if (poll(p.data(), p.size(), -1) < 0)
            continue; // EINTR
        if (p[0].revents)
            break;
        if (p[1].revents) {
            eventfd_t v;
            eventfd_read(s.wake, &v);
        }
        for (size_t i = 2; i < p.size(); i++) {
            if (!p[i].revents)
                continue;
            std::unique_lock l(s.mu);
            auto it = std::find_if(s.entries.begin(), s.entries.end(),
                                   [&](const io_entry &e) { return e.fd == p[i].fd; });
            if (it == s.entries.end())
                continue; // removed meanwhile
            io_entry e = *it;
            s.busy = e.fd;
            l.unlock();
            e.fn(e.arg);
            l.lock();
            s.busy = -1;
            s.idle.notify_all();
        }
    }
    return nullptr;
}

void io_stop()
{
    io_state &s = st();
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

} // namespace

int rt_io_add(int fd, void (*fn)(void *arg), void *arg)
{
    io_state &s = st();
    if (fd < 0 || !fn)
        return -1;
    {
        std::lock_guard l(s.mu);
        if (std::any_of(s.entries.begin(), s.entries.end(), [&](const io_entry &e) { return e.fd == fd; }))
            return -1;
        if (s.wake < 0 && (s.wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) < 0)
            return -1;
        s.entries.push_back({fd, fn, arg});
        if (!s.running) {
            if (rt_thread_create(&s.thread, io_thread, nullptr, "radio-io") != 0) {
                s.entries.pop_back();
                rt_log(LOG_ERR, "cannot start the radio I/O thread");
                return -1;
            }
            s.running = true;
        }
    }
    rt_life_started("radio I/O", io_stop);
    eventfd_write(s.wake, 1);
    return 0;
}

void rt_io_remove(int fd)
{
    io_state &s = st();
    std::unique_lock l(s.mu);
    std::erase_if(s.entries, [&](const io_entry &e) { return e.fd == fd; });
    if (!s.running)
        return;
    eventfd_write(s.wake, 1); // the thread stops polling fd
    if (!pthread_equal(s.thread, pthread_self()))
        s.idle.wait(l, [&] { return s.busy != fd; });
}
