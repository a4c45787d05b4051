// The event library, events.sock and the service manager's notifications.
#include <gtest/gtest.h>
#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include "qz_dcd.h"
#include "qz_event.h"
#include "qz_sys.h"
#include "rt_config.h"
#include "rt_counter.h"
#include "rt_event.h"
#include "rt_notify.h"
#include "rt_process.h"
#include "rt_stop.h"
#include "rt_svcmgr.h"
#include "rt_life.h"
#include "rt_test_util.h"

namespace {

using bytes = std::vector<uint8_t>;
struct seen {
    char kind; // 'e' event, 'k' kernel event, 't' send tap
    uint32_t id;
    bytes data;
    bool on_caller;
};

std::mutex g_mu;
std::condition_variable g_cv;
std::vector<seen> g_seen;
pthread_t g_caller;

void record(char kind, uint32_t id, int len, const void *p)
{
    std::lock_guard g(g_mu);
    // Copies exactly len bytes: ASan reports any delivery shorter than it claims.
    g_seen.push_back({kind, id, bytes((const uint8_t *)p, (const uint8_t *)p + len),
                      (bool)pthread_equal(pthread_self(), g_caller)});
    g_cv.notify_all();
}
void on_event(uint32_t id, int len, void *p) { record('e', id, len, p); }
void on_kevent(uint32_t id, int len, void *p) { record('k', id, len, p); }
void on_tap(uint32_t id, const void *p, int len) { record('t', id, len, p); }

bool wait_seen(size_t n, int ms = 3000) { return rt_wait_for(g_mu, g_cv, [&] { return g_seen.size() >= n; }, ms); }
bytes b(const std::string &s) { return {s.begin(), s.end()}; }
using trace_t = std::vector<std::tuple<char, uint32_t, bytes>>;
trace_t trace() // (kind, id, payload) of every delivery so far
{
    std::lock_guard g(g_mu);
    trace_t t;
    for (auto &v : g_seen)
        t.emplace_back(v.kind, v.id, v.data);
    return t;
}

class Event : public testing::Test {
  protected:
    void SetUp() override
    {
        rt_cfg_set(rt_test_config(s));
        g_caller = pthread_self();
        g_seen.clear();
        ASSERT_EQ(qz_event_init(52, &thread), 0);
        qz_event_subscribe(157, on_event);
        qz_event_subscribe(164, on_event);
        qz_kevent_subscribe(19, on_kevent);
        rt_event_add_send_tap(on_tap);
    }
    void TearDown() override
    {
        qz_event_cleanup(); // ends the loop; the thread is joined as the daemon would
        pthread_join(thread, nullptr);
    }
    rt_scratch s;
    pthread_t thread{};
};

// A datagram for events.sock: kind, id in network order, payload.
bytes inject(uint8_t kind, uint32_t id, const std::string &payload)
{
    uint32_t be = htonl(id);
    bytes d(5 + payload.size());
    d[0] = kind;
    memcpy(&d[1], &be, 4);
    memcpy(d.data() + 5, payload.data(), payload.size());
    return d;
}

struct client {
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un to{AF_UNIX, {}};
    explicit client(const std::string &bound_to = "")
    {
        sockaddr_un me{AF_UNIX, {}};
        strcpy(me.sun_path, bound_to.c_str());
        EXPECT_TRUE(bound_to.empty() || bind(fd, (sockaddr *)&me, sizeof me) == 0);
        strcpy(to.sun_path, rt_runtime_path("events.sock").c_str());
        timeval tv{3, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    }
    ~client() { close(fd); }
    void send(bytes d) { ASSERT_EQ(sendto(fd, d.data(), d.size(), 0, (sockaddr *)&to, sizeof to), (ssize_t)d.size()); }
};

} // namespace

TEST_F(Event, DeliveriesKeepOrderAndTrueLengthsOnTheEventThread)
{
    std::string big(3000, 'x');
    bytes buf = b("owner");
    rt_event_post(157, buf.data(), (int)buf.size());
    buf[0] = 'X'; // the post copied the payload
    rt_kevent_post(19, "ifc", 3);
    rt_event_post(164, nullptr, 0);
    rt_event_post(999, "nobody", 6); // no subscriber: dropped
    rt_event_post(164, big.data(), (int)big.size());
    rt_kevent_post(157, "k", 1); // kernel id space is separate: no subscriber
    ASSERT_TRUE(wait_seen(4));
    EXPECT_FALSE(wait_seen(5, 300));
    EXPECT_EQ(trace(), (trace_t{{'e', 157, b("owner")}, {'k', 19, b("ifc")}, {'e', 164, {}}, {'e', 164, b(big)}}));
    for (auto &v : g_seen)
        EXPECT_FALSE(v.on_caller);
}

TEST_F(Event, SendGoesToTheTapsNotToSubscribersAndUnsubscribeStopsDelivery)
{
    uint8_t q[12] = {1, 2, 3};
    ASSERT_EQ(qz_event_send(156, sizeof q, q), 0);
    memset(q, 0, sizeof q); // the caller frees its payload right after the call
    ASSERT_TRUE(wait_seen(1));
    EXPECT_EQ(trace(), (trace_t{{'t', 156, {1, 2, 3, 0, 0, 0, 0, 0, 0, 0, 0, 0}}}));
    EXPECT_FALSE(g_seen[0].on_caller);
    EXPECT_LT(qz_event_send(156, -1, q), 0);
    EXPECT_LT(qz_event_send(156, 4, nullptr), 0);
    // Unsubscribed ids are no longer delivered.
    EXPECT_EQ(qz_event_unsubscribe(157), 0);
    EXPECT_LT(qz_event_unsubscribe(157), 0);
    EXPECT_LT(qz_event_subscribe(1, nullptr), 0);
    rt_event_post(157, "a", 1);
    rt_event_post(164, "b", 1);
    ASSERT_TRUE(wait_seen(2));
    EXPECT_FALSE(wait_seen(3, 300));
    EXPECT_EQ(g_seen[1].id, 164u);
}

TEST_F(Event, ReadyOnceDriversAreOpenAndTheEventThreadServes)
{
    ASSERT_EQ(qz_dcd_lib_init(), 0); // no radios configured: nothing to open
    rt_event_post(164, "x", 1);
    ASSERT_TRUE(wait_seen(1)); // the thread is in its loop
    EXPECT_NE(qz_sys_ready(), 0);
    qz_dcd_lib_cleanup();
    EXPECT_EQ(qz_sys_ready(), 0);
    EXPECT_NE(rt_read_file(s.path("log")).find("first readiness poll"), std::string::npos);
}

TEST(EventStop, AStopRequestEndsTheEventThread)
{
    auto child = [] {
        rt_scratch s;
        rt_cfg_set(rt_test_config(s));
        pthread_t t;
        if (qz_event_init(52, &t) != 0)
            _exit(2);
        rt_request_stop();
        pthread_join(t, nullptr); // hangs (and times out) if the loop ignores the stop
        if (rt_event_running())
            _exit(3);
        // A stop before readiness must end the daemon's wait for it, or it never exits.
        int status = qz_sys_ready() ? 0 : 4;
        rt_life_stop_all(); // joins the threads that ended on the stop, as the daemon does
        _exit(status);
    };
    EXPECT_EXIT(child(), testing::ExitedWithCode(0), "");
}

TEST_F(Event, EventsSockInjectsAndDropsMalformedDatagrams)
{
    struct stat st;
    ASSERT_EQ(stat(rt_runtime_path("events.sock").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    uint64_t before = rt_counter("events_sock_malformed");
    client c;
    c.send(inject(1, 157, std::string("\0\1", 2)));
    c.send({1, 0, 0});             // shorter than kind and id
    c.send(inject(7, 164, "x"));   // unknown kind
    c.send({3});                   // subscription from an unbound address
    c.send(bytes(70000, 1));       // longer than any payload
    c.send(inject(2, 19, "if"));
    c.send(inject(1, 164, ""));
    ASSERT_TRUE(wait_seen(3));
    EXPECT_FALSE(wait_seen(4, 200));
    EXPECT_EQ(trace(), (trace_t{{'e', 157, {0, 1}}, {'k', 19, b("if")}, {'e', 164, {}}}));
    EXPECT_EQ(rt_counter("events_sock_malformed") - before, 4u);
    EXPECT_NE(rt_read_file(s.path("log")).find("events.sock: "), std::string::npos);
}

TEST_F(Event, EventsSockSubscribersReceiveCopiesOfSentEvents)
{
    client c(s.path("client.sock"));
    c.send({3});
    c.send({3}); // twice: still one copy per event
    // Subscriptions are handled on the event thread; a marker behind them says when.
    c.send(inject(1, 164, "m"));
    ASSERT_TRUE(wait_seen(1));
    uint8_t query[10] = {0, 1, 0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff, 0, 0};
    ASSERT_EQ(qz_event_send(156, sizeof query, query), 0);
    uint8_t buf[64];
    ssize_t n = recv(c.fd, buf, sizeof buf, 0);
    ASSERT_EQ(n, 15);
    EXPECT_EQ(bytes(buf, buf + n), inject(1, 156, std::string((char *)query, 10)));
    EXPECT_LT(recv(c.fd, buf, sizeof buf, MSG_DONTWAIT), 0) << "one copy only";
    // Unsubscribed: no more copies.
    c.send({4});
    c.send(inject(1, 164, "m"));
    ASSERT_TRUE(wait_seen(3)); // the tap's own copy of 156 and the marker
    qz_event_send(156, sizeof query, query);
    ASSERT_TRUE(wait_seen(4));
    EXPECT_LT(recv(c.fd, buf, sizeof buf, MSG_DONTWAIT), 0);
}

// Over the queue's bound an injected datagram is dropped and counted, not queued;
// here no event thread empties the queue, and events.sock is read by hand.
TEST(EventQueue, EventsSockDropsWhileTheQueueIsFull)
{
    rt_scratch s;
    rt_cfg_set(rt_test_config(s));
    ASSERT_GE(rt_events_sock_open(), 0);
    const std::string big(65536, 'x');
    for (int i = 0; !rt_event_queue_full() && i < 100; i++)
        rt_event_post(164, big.data(), (int)big.size());
    ASSERT_TRUE(rt_event_queue_full());
    uint64_t dropped = rt_counter("events_sock_dropped"), injected = rt_counter("events_sock_injected");
    client c;
    c.send(inject(1, 164, "m"));
    rt_events_sock_readable();
    EXPECT_EQ(rt_counter("events_sock_dropped") - dropped, 1u);
    EXPECT_EQ(rt_counter("events_sock_injected"), injected);
    qz_event_cleanup(); // empties the queue
    c.send(inject(1, 164, "m"));
    rt_events_sock_readable();
    EXPECT_EQ(rt_counter("events_sock_injected") - injected, 1u);
    qz_event_cleanup();
    rt_events_sock_close();
}

// ---- Service manager notification ----

namespace {
// The service manager's end: a datagram socket the daemon finds in NOTIFY_SOCKET.
struct notify_sock {
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    explicit notify_sock(const std::string &path)
    {
        sockaddr_un a{AF_UNIX, {}};
        strcpy(a.sun_path, path.c_str());
        EXPECT_EQ(bind(fd, (sockaddr *)&a, sizeof a), 0);
        setenv("NOTIFY_SOCKET", path.c_str(), 1);
    }
    ~notify_sock()
    {
        unsetenv("NOTIFY_SOCKET");
        close(fd);
    }
    // The next message, "" when none came within ms.
    std::string next(int ms)
    {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, ms) != 1)
            return "";
        char buf[512];
        ssize_t n = recv(fd, buf, sizeof buf, 0);
        return n > 0 ? std::string(buf, n) : "";
    }
    // Waits up to ms for a message equal to want, dropping others on the way.
    bool wait_for(const std::string &want, int ms)
    {
        for (int i = 0; i < ms / 50; i++)
            if (next(50) == want)
                return true;
        return false;
    }
    void drain()
    {
        while (!next(0).empty()) {
        }
    }
};

#ifdef LTR_HAVE_SYSTEMD
std::mutex g_hang_mu;
std::condition_variable g_hang_cv;
bool g_hanging, g_release;
void hanging_handler(uint32_t, int, void *)
{
    std::unique_lock l(g_hang_mu);
    g_hanging = true;
    g_hang_cv.notify_all();
    g_hang_cv.wait(l, [] { return g_release; });
    g_hanging = false;
}
#endif
} // namespace

#ifdef LTR_HAVE_SYSTEMD
TEST(Notify, ReadyOnlyOnceServingThenTheWatchdogFollowsTheEventThread)
{
    rt_scratch s;
    rt_cfg_set(rt_test_config(s));
    notify_sock n(s.path("notify"));
    setenv("WATCHDOG_USEC", "200000", 1); // 200 ms: kicks every 100 ms
    setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);

    EXPECT_EQ(qz_sys_ready(), 0); // nothing serves yet: the manager hears nothing
    EXPECT_EQ(n.next(100), "");
    pthread_t t;
    ASSERT_EQ(qz_event_init(52, &t), 0);
    qz_event_subscribe(164, hanging_handler);
    ASSERT_EQ(qz_dcd_lib_init(), 0);
    ASSERT_TRUE(rt_poll_until([] { return rt_event_running(); }));
    EXPECT_NE(qz_sys_ready(), 0);
    EXPECT_TRUE(n.wait_for("READY=1\nSTATUS=tracking off, server not connected", 3000));
    EXPECT_NE(qz_sys_ready(), 0);
    EXPECT_TRUE(n.wait_for("WATCHDOG=1", 3000)); // idle, the event thread still wakes to kick
    EXPECT_TRUE(n.wait_for("WATCHDOG=1", 3000));

    // A handler that hangs holds the event thread: no more kicks until it returns.
    rt_event_post(164, "x", 1);
    ASSERT_TRUE(rt_wait_for(g_hang_mu, g_hang_cv, [] { return g_hanging; }));
    n.drain();
    EXPECT_EQ(n.next(800), "");
    {
        std::lock_guard g(g_hang_mu);
        g_release = true;
    }
    g_hang_cv.notify_all();
    EXPECT_TRUE(n.wait_for("WATCHDOG=1", 3000));

    // Another thread stuck in a call into the daemon (on its lock, say) for a whole
    // period stops the kicks too, with a line naming it.
    {
        rt_watched_call stuck("timer");
        std::this_thread::sleep_for(std::chrono::milliseconds(400));
        n.drain();
        EXPECT_EQ(n.next(800), "");
    }
    EXPECT_TRUE(n.wait_for("WATCHDOG=1", 3000));
    EXPECT_NE(rt_read_file(s.path("log")).find("watchdog: the timer thread has been in one call"),
              std::string::npos);

    qz_dcd_lib_cleanup();
    qz_event_cleanup();
    pthread_join(t, nullptr);
    unsetenv("WATCHDOG_USEC");
    unsetenv("WATCHDOG_PID");
}
#endif

// NOTIFY_SOCKET names a path or, with '@', an abstract socket; WATCHDOG_USEC asks a
// period of the process WATCHDOG_PID names (any, without it).
TEST(Notify, AbstractSocketsAndTheWatchdogOfThisProcessOnly)
{
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    std::string name = "@ltrd-notify-test-" + std::to_string(getpid());
    sockaddr_un a{AF_UNIX, {}};
    memcpy(a.sun_path + 1, name.data() + 1, name.size() - 1);
    ASSERT_EQ(bind(fd, (sockaddr *)&a, socklen_t(offsetof(sockaddr_un, sun_path) + name.size())), 0);
    setenv("NOTIFY_SOCKET", name.c_str(), 1);
    EXPECT_EQ(rt_sd_notify("STATUS=x\nWATCHDOG=1"), 0);
    char buf[64];
    ssize_t n = recv(fd, buf, sizeof buf, MSG_DONTWAIT);
    EXPECT_EQ(std::string(buf, size_t(n > 0 ? n : 0)), "STATUS=x\nWATCHDOG=1");
    setenv("NOTIFY_SOCKET", "relative/notify", 1);
    EXPECT_EQ(rt_sd_notify("READY=1"), -EINVAL);
    unsetenv("NOTIFY_SOCKET");
    EXPECT_EQ(rt_sd_notify("READY=1"), 0); // no one asked
    close(fd);

    setenv("WATCHDOG_USEC", "30000000", 1);
    EXPECT_EQ(rt_sd_watchdog_usec(), 30000000u);
    setenv("WATCHDOG_PID", std::to_string(getpid() + 1).c_str(), 1); // our parent's, say
    EXPECT_EQ(rt_sd_watchdog_usec(), 0u);
    setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);
    setenv("WATCHDOG_USEC", "30s", 1);
    EXPECT_EQ(rt_sd_watchdog_usec(), 0u);
    unsetenv("WATCHDOG_USEC");
    unsetenv("WATCHDOG_PID");
}

// Without NOTIFY_SOCKET nothing is sent and the event thread never wakes on its own.
TEST_F(Event, WithoutAServiceManagerTheEventThreadSleeps)
{
    setenv("WATCHDOG_USEC", "20000", 1); // a stale variable alone asks for nothing
    EXPECT_EQ(rt_watchdog_period_ms(), 0);
    unsetenv("WATCHDOG_USEC");
    rt_notify_ready(); // harmless
    rt_event_post(164, "x", 1);
    ASSERT_TRUE(wait_seen(1)); // the thread has started and settled in its loop
    uint64_t before = rt_counter("wake.event");
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(rt_counter("wake.event"), before);
}
