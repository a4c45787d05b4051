// Event library: one event thread delivers queued events, kernel events and the
// copies of sent events, in the order they were posted, each with its true length.
#include "qz_event.h"

#include <poll.h>
#include <string.h>
#include <sys/eventfd.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <vector>

#include "qz_evt_names.h"
#include "rt_counter.h"
#include "rt_event.h"
#include "rt_life.h"
#include "rt_log.h"
#include "rt_notify.h"
#include "rt_process.h"
#include "rt_stop.h"
#include "srvchan.h"

namespace {

enum delivery_kind : uint8_t { KIND_SEND, KIND_EVENT, KIND_KEVENT };

struct delivery {
    delivery_kind kind;
    uint32_t id;
    std::vector<uint8_t> data; // exactly the payload's bytes
};

// Bytes the queue may hold before outside sources hold back; each delivery also
// costs its bookkeeping, so a flood of empty payloads is bounded too.
constexpr size_t QUEUE_LIMIT = 1 << 20;
constexpr size_t DELIVERY_COST = 64;
size_t cost(const delivery &d) { return d.data.size() + DELIVERY_COST; }

struct event_lib {
    std::mutex mu;
    std::condition_variable cv;
    std::deque<delivery> queue;
    size_t queue_bytes = 0; // sum of cost() over the queue
    std::map<uint32_t, qz_event_handler> events, kevents;
    std::vector<rt_event_tap_fn> taps;
    // Radios up at open, delivered once the interface-change event has a subscriber:
    // posted earlier they would reach nobody, and a restarted daemon would never
    // re-apply its tracking list to radios that stay up across the restart.
    std::vector<qz_if_change> link_dump;
    int wake_fd = -1;
    int nl_fd = -1;
    int sock_fd = -1;
    pthread_t thread{};
    bool started = false; // thread created and not yet cleaned up
    bool running = false; // thread inside its loop
    bool quit = false;
};

event_lib &lib()
{
    static event_lib *l = new event_lib; // outlives static destruction
    return *l;
}

// eventfd signalled each time the queue drops below its bound, for a source that
// holds back while it is full; kept open for good (the server channel polls it).
int room_fd()
{
    static int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    return fd;
}

// After bytes left the queue (l.mu held): tells a held-back source it has room again.
void note_room(size_t before, size_t after)
{
    if (before >= QUEUE_LIMIT && after < QUEUE_LIMIT && room_fd() >= 0)
        eventfd_write(room_fd(), 1);
}

void wake(event_lib &l)
{
    if (l.wake_fd >= 0)
        eventfd_write(l.wake_fd, 1);
}

int post(delivery_kind kind, uint32_t id, const void *payload, int len)
{
    if (len < 0 || (len > 0 && !payload))
        return -1;
    event_lib &l = lib();
    delivery d{kind, id, {}};
    if (len > 0)
        d.data.assign((const uint8_t *)payload, (const uint8_t *)payload + len);
    {
        std::lock_guard g(l.mu);
        l.queue_bytes += cost(d);
        l.queue.push_back(std::move(d));
        rt_counter("event_queue_len") = l.queue.size();
        rt_counter("event_queue_bytes") = l.queue_bytes;
        wake(l);
    }
    return 0;
}

// Runs one delivery on the event thread, without the library's lock.
void deliver(event_lib &l, delivery &d)
{
    // A handler may write into the payload; a 0-byte one still gets a valid pointer.
    uint8_t empty = 0;
    void *p = d.data.empty() ? (void *)&empty : (void *)d.data.data();
    int len = (int)d.data.size();
    if (d.kind == KIND_SEND) {
        std::vector<rt_event_tap_fn> taps;
        {
            std::lock_guard g(l.mu);
            taps = l.taps;
        }
        for (rt_event_tap_fn tap : taps)
            tap(d.id, p, len);
        return;
    }
    qz_event_handler h = nullptr;
    {
        std::lock_guard g(l.mu);
        auto &subs = d.kind == KIND_EVENT ? l.events : l.kevents;
        auto it = subs.find(d.id);
        if (it != subs.end())
            h = it->second;
    }
    if (h)
        h(d.id, len, p);
    else
        rt_counter(d.kind == KIND_EVENT ? "event_unsubscribed" : "kevent_unsubscribed")++;
}

void *event_thread(void *)
{
    event_lib &l = lib();
    std::unique_lock lk(l.mu);
    l.running = true;
    pollfd fds[4];
    std::atomic<uint64_t> &wakes = rt_counter("wake.event"); // loop turns, to spot ticking
    // With a service manager's watchdog, the poll wakes twice per period to kick it.
    int64_t watchdog = rt_watchdog_period_ms();
    int poll_ms = watchdog > 0 ? (int)std::max<int64_t>(watchdog / 2, 1) : -1;
    for (;;) {
        wakes++;
        while (!l.queue.empty() && !l.quit && !rt_stopping()) {
            delivery d = std::move(l.queue.front());
            l.queue.pop_front();
            size_t before = l.queue_bytes;
            l.queue_bytes -= cost(d);
            note_room(before, l.queue_bytes);
            rt_counter("event_queue_len") = l.queue.size();
            rt_counter("event_queue_bytes") = l.queue_bytes;
            lk.unlock();
            deliver(l, d);
            rt_watchdog_kick(watchdog); // a queue that never empties must not starve it
            lk.lock();
        }
        if (l.quit || rt_stopping())
            break;
        int n = 0;
        fds[n++] = {l.wake_fd, POLLIN, 0};
        fds[n++] = {rt_stop_fd(), POLLIN, 0};
        int nl = l.nl_fd >= 0 ? n : -1;
        if (l.nl_fd >= 0)
            fds[n++] = {l.nl_fd, POLLIN, 0};
        int sk = l.sock_fd >= 0 ? n : -1;
        if (l.sock_fd >= 0)
            fds[n++] = {l.sock_fd, POLLIN, 0};
        lk.unlock();
        // Each turn tells the watchdog that this thread still runs the daemon's events.
        rt_watchdog_kick(watchdog);
        int rc = poll(fds, n, poll_ms);
        if (rc > 0) {
            if (fds[0].revents) {
                eventfd_t v;
                eventfd_read(l.wake_fd, &v);
            }
            // These read on this thread and post their deliveries behind the queue.
            if (nl >= 0 && fds[nl].revents)
                rt_netlink_readable();
            if (sk >= 0 && fds[sk].revents)
                rt_events_sock_readable();
        }
        lk.lock();
    }
    l.running = false;
    l.cv.notify_all();
    return nullptr;
}

// Drops whatever is still queued (under the library's lock).
void drop_queue(event_lib &l)
{
    l.queue.clear();
    note_room(l.queue_bytes, 0);
    l.queue_bytes = 0;
    rt_counter("event_queue_len") = 0;
    rt_counter("event_queue_bytes") = 0;
}

} // namespace

int qz_event_init(int module_id, pthread_t *thread)
{
    event_lib &l = lib();
    {
        std::lock_guard g(l.mu);
        if (l.started) {
            if (thread)
                *thread = l.thread;
            return 0;
        }
        l.wake_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
        if (l.wake_fd < 0) {
            rt_log(LOG_ERR, "event library: eventfd: %s", strerror(errno));
            return -1;
        }
        // Without rtnetlink or events.sock the daemon still runs; the log says what
        // it misses.
        l.nl_fd = rt_netlink_open();
        l.link_dump.clear();
        if (l.nl_fd >= 0)
            l.link_dump = rt_netlink_up_radios();
        l.sock_fd = rt_events_sock_open();
        l.quit = false;
        // Listed by the status command from the start, not only after a first drop.
        for (const char *name : {"event_queue_len", "event_queue_bytes", "event_unsubscribed",
                                 "kevent_unsubscribed",
                                 "events_sock_injected", "events_sock_malformed",
                                 "events_sock_dropped", "events_sock_send_dropped",
                                 "netlink_overruns"})
            rt_counter(name);
        int rc = rt_thread_create(&l.thread, event_thread, nullptr, "qz_event", RT_STACK_DAEMON);
        if (rc != 0) {
            rt_log(LOG_ERR, "event library: cannot start the event thread: %s", strerror(rc));
            rt_events_sock_close();
            rt_netlink_close();
            close(l.wake_fd);
            l.wake_fd = l.nl_fd = l.sock_fd = -1;
            return -1;
        }
        l.started = true;
        if (thread)
            *thread = l.thread;
    }
    rt_event_add_send_tap(rt_events_sock_tap);
    rt_log(LOG_DEBUG, "event library opened for module %d", module_id);
    rt_life_started("event thread", [] { qz_event_cleanup(); });
    rt_srvchan_start();
    rt_life_started("server channel", srvchan_close);
    rt_owner_start();
    rt_life_started("owner service", rt_owner_stop);
    return 0;
}

int qz_event_cleanup(void)
{
    event_lib &l = lib();
    std::unique_lock lk(l.mu);
    if (!l.started) {
        drop_queue(l); // posts made without an event thread
        return 0;
    }
    l.quit = true;
    wake(l);
    // Called from a handler, the thread ends after it returns; nobody waits then.
    if (!pthread_equal(pthread_self(), l.thread))
        l.cv.wait(lk, [&] { return !l.running; });
    rt_events_sock_close();
    rt_netlink_close();
    close(l.wake_fd);
    l.wake_fd = l.nl_fd = l.sock_fd = -1;
    l.events.clear();
    l.kevents.clear();
    drop_queue(l);
    l.link_dump.clear();
    l.started = false;
    return 0;
}

bool rt_event_queue_full()
{
    event_lib &l = lib();
    std::lock_guard g(l.mu);
    return l.queue_bytes >= QUEUE_LIMIT;
}

int rt_event_room_fd() { return room_fd(); }

bool rt_event_running()
{
    event_lib &l = lib();
    std::lock_guard g(l.mu);
    return l.running;
}

int qz_event_subscribe(uint32_t id, qz_event_handler handler)
{
    if (!handler)
        return -1;
    event_lib &l = lib();
    std::lock_guard g(l.mu);
    l.events[id] = handler;
    return 0;
}

int qz_kevent_subscribe(uint32_t id, qz_event_handler handler)
{
    if (!handler)
        return -1;
    event_lib &l = lib();
    std::vector<qz_if_change> dump;
    {
        std::lock_guard g(l.mu);
        l.kevents[id] = handler;
        if (id == QZ_KEVT_IF_CHANGE)
            dump.swap(l.link_dump);
    }
    for (const qz_if_change &c : dump)
        rt_kevent_post(QZ_KEVT_IF_CHANGE, &c, sizeof c);
    return 0;
}

int qz_event_unsubscribe(uint32_t id)
{
    event_lib &l = lib();
    std::lock_guard g(l.mu);
    return l.events.erase(id) ? 0 : -1;
}

int qz_kevent_unsubscribe(uint32_t id)
{
    event_lib &l = lib();
    std::lock_guard g(l.mu);
    return l.kevents.erase(id) ? 0 : -1;
}

int qz_event_send(uint32_t id, int len, void *payload)
{
    // Copied now: the caller frees its payload right after the call.
    return post(KIND_SEND, id, payload, len);
}

void rt_event_post(uint32_t id, const void *payload, int len)
{
    if (post(KIND_EVENT, id, payload, len) != 0)
        rt_log(LOG_ERR, "event %u: bad payload (length %d) not posted", id, len);
}

void rt_kevent_post(uint32_t id, const void *payload, int len)
{
    if (post(KIND_KEVENT, id, payload, len) != 0)
        rt_log(LOG_ERR, "kernel event %u: bad payload (length %d) not posted", id, len);
}

void rt_event_add_send_tap(rt_event_tap_fn fn)
{
    if (!fn)
        return;
    event_lib &l = lib();
    std::lock_guard g(l.mu);
    for (rt_event_tap_fn t : l.taps)
        if (t == fn)
            return;
    l.taps.push_back(fn);
}

const char *qz_eventid_to_name(uint32_t id)
{
    return qz_evt_name(id);
}
