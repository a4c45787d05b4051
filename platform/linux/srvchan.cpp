// Server channel thread: over a transport (TLS, or plain TCP when configured so),
// says HELLO, carries MESSAGE frames both ways, keeps the link alive and reconnects
// with back-off.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <deque>
#include <mutex>
#include <thread>

#include "qz_evt_srv_msg.h"
#include "rt_config.h"
#include "rt_counter.h"
#include "rt_event.h"
#include "rt_life.h"
#include "rt_log.h"
#include "rt_stop.h"
#include "srvchan.h"
#include "srvchan_transport.h"

namespace {

constexpr size_t OUT_HIGH_WATER = 1 << 16; // frames moved from the queue per round
constexpr int HOLD_POLL_MS = 20;       // how often a full event queue is looked at again

struct chan_state {
    std::mutex mu;                  // queue, queue_bytes, timing, thread
    std::deque<std::string> queue;  // payloads waiting for the link, oldest first
    size_t queue_bytes = 0;
    srvchan_timing timing;
    std::thread thread;
    std::atomic<int> wake_fd{-1};   // eventfd: new message or stop; kept open for good
    std::atomic<bool> stop{false};
    std::atomic<bool> connected{false};
    std::atomic<srvchan_deliver_fn> deliver{nullptr};
};

chan_state &st()
{
    static chan_state *s = new chan_state; // never destroyed: the thread may outlive main
    return *s;
}

using clock_type = std::chrono::steady_clock;
int64_t now_ms()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(clock_type::now().time_since_epoch())
        .count();
}

bool should_stop() { return st().stop.load() || rt_stopping(); }

void count(const char *name, uint64_t n = 1) { rt_counter(name) += n; }

// One turn of any of the channel's waits, to spot a loop that ticks.
void woke()
{
    static std::atomic<uint64_t> &wakes = rt_counter("wake.srvchan");
    wakes++;
}

void set_queue_gauge(size_t bytes) { rt_counter("srvchan.queue_bytes") = bytes; }

void wake_thread()
{
    uint64_t one = 1;
    int fd = st().wake_fd.load();
    if (fd >= 0 && ::write(fd, &one, sizeof one) < 0) {
        // The counter is saturated only if nobody reads it; the thread polls anyway.
    }
}

void drain_wake()
{
    uint64_t v;
    if (::read(st().wake_fd.load(), &v, sizeof v) < 0) {
        // EAGAIN: nothing pending.
    }
}

// Sleeps up to ms (negative: until the stop), returning early only when the channel
// must stop.
void pause_ms(int ms)
{
    int64_t end = now_ms() + ms;
    while (!should_stop()) {
        woke();
        int64_t left = -1;
        if (ms >= 0 && (left = end - now_ms()) <= 0)
            return;
        pollfd p[2] = {{st().wake_fd.load(), POLLIN, 0}, {rt_stop_fd(), POLLIN, 0}};
        if (::poll(p, 2, int(left)) > 0 && (p[0].revents & POLLIN))
            drain_wake(); // a new message does not shorten the back-off
    }
}

// Waits for the transport while it connects: a queued message only wakes the wait
// (looked at once connected), the stop ends it.
int connect_wait(int fd, short events, int ms)
{
    woke();
    pollfd p[3] = {{fd, events, 0}, {st().wake_fd.load(), POLLIN, 0}, {rt_stop_fd(), POLLIN, 0}};
    int ready = ::poll(p, 3, ms);
    if (ready > 0 && !p[0].revents) {
        if (p[1].revents & POLLIN)
            drain_wake();
        return 0;
    }
    return ready;
}

// Messages framed into the output stream and not yet fully written; put back at
// the front of the queue when the link breaks, so nothing half-sent is lost.
struct inflight {
    uint64_t end; // stream position just after the frame
    std::string payload;
};

void requeue(std::deque<inflight> &fl)
{
    if (fl.empty())
        return;
    chan_state &s = st();
    std::lock_guard g(s.mu);
    for (auto it = fl.rbegin(); it != fl.rend(); ++it) {
        s.queue_bytes += it->payload.size();
        s.queue.push_front(std::move(it->payload));
    }
    fl.clear();
    set_queue_gauge(s.queue_bytes);
}

// Why take_frames stopped.
enum take_result { TAKE_DONE, TAKE_HELD, TAKE_BAD };

// The protocol's state on one connection, whatever carries the bytes.
struct session_state {
    const srv_transport &tp;
    srv_conn *conn;
    const std::string &addr;
    srvchan_timing t;
    std::string out{};       // bytes to write, whole frames
    size_t out_off = 0;      // written part of out
    uint64_t stream_pos = 0; // total bytes written on this connection
    std::deque<inflight> fl{};
    std::vector<uint8_t> in{}; // received bytes not yet taken as frames
    int64_t last_rx = 0, last_ping = 0, last_tx = 0;
    bool healthy = false, held_out = false, held_in = false;

    size_t pending() const { return out.size() - out_off; }
    void fail(const char *why) const
    {
        rt_log(4, "server channel: %s; closing the connection to %s\n", why, addr.c_str());
    }
};

void say_hello(session_state &ss)
{
    uint8_t mac[6] = {};
    uint32_t ip = 0;
    if (rt_mgt_mac(mac) < 0)
        memset(mac, 0, sizeof mac);
    if (rt_mgt_ip(&ip) < 0)
        ip = 0;
    std::string hello = srv_hello_payload(mac, ip, rt_cfg().instance);
    srv_frame_put(ss.out, SRV_FRAME_HELLO, hello.data(), hello.size());
}

// Moves queued messages into the output stream, a bounded amount at a time.
void fill_output(session_state &ss)
{
    if (ss.pending() >= OUT_HIGH_WATER)
        return;
    chan_state &s = st();
    std::lock_guard g(s.mu);
    while (!s.queue.empty() && ss.pending() < OUT_HIGH_WATER) {
        std::string p = std::move(s.queue.front());
        s.queue.pop_front();
        s.queue_bytes -= p.size();
        srv_frame_put(ss.out, SRV_FRAME_MESSAGE, p.data(), p.size());
        ss.fl.push_back({ss.stream_pos + ss.pending(), std::move(p)});
    }
    set_queue_gauge(s.queue_bytes);
}

// Takes the received frames while the output and the event queue have room; a
// frame left in `in` stays there (and nothing more is read) until they have.
take_result take_frames(session_state &ss)
{
    size_t used = 0;
    take_result r = TAKE_DONE;
    for (;;) {
        srv_frame_view f;
        auto rc = srv_frame_take(std::span(ss.in).subspan(used), f);
        if (rc == SRV_FRAME_NEED_MORE)
            break;
        if (rc == SRV_FRAME_TOO_LONG) {
            rt_log(4, "server channel: frame length %u over the limit of %u\n", f.length,
                   SRV_FRAME_MAX);
            r = TAKE_BAD;
            break;
        }
        if (rc == SRV_FRAME_EMPTY) {
            rt_log(4, "server channel: frame of length 0 has no type\n");
            r = TAKE_BAD;
            break;
        }
        if ((f.type == SRV_FRAME_MESSAGE && rt_event_queue_full()) ||
            (f.type == SRV_FRAME_PING && ss.pending() >= SRV_OUT_LIMIT)) {
            r = TAKE_HELD;
            break;
        }
        used += f.used;
        if (f.type == SRV_FRAME_MESSAGE) {
            auto fn = st().deliver.load();
            int len = int(f.payload.size());
            if (fn)
                fn(f.payload.data(), len);
            else
                rt_event_post(QZ_EVT_SRV_MSG_IN, f.payload.data(), len);
        } else if (f.type == SRV_FRAME_PING) {
            srv_frame_put(ss.out, SRV_FRAME_PONG, f.payload.data(), f.payload.size());
        } else if (f.type != SRV_FRAME_PONG) {
            rt_log(4, "server channel: unknown frame type %u (length %u)\n", f.type, f.length);
            r = TAKE_BAD;
            break;
        }
        count("srvchan.frames_in");
        ss.last_rx = now_ms();
        ss.healthy = true;
    }
    ss.in.erase(ss.in.begin(), ss.in.begin() + std::ptrdiff_t(used));
    return r;
}

// Keep-alive and the output bound after a round of frames: false when the
// connection must close; else the poll time-out until the next deadline.
bool keep_alive(session_state &ss, int &timeout)
{
    const srvchan_timing &t = ss.t;
    int64_t now = now_ms();
    if (ss.pending() == 0)
        ss.last_tx = now;
    if (ss.held_out) {
        if (now - ss.last_tx >= t.dead_ms) {
            count("srvchan.stalled");
            char why[128];
            snprintf(why, sizeof why, "the server reads nothing (%zu bytes waiting)",
                     ss.pending());
            ss.fail(why);
            return false;
        }
    } else if (ss.held_in) {
        ss.last_rx = ss.last_ping = now; // our own hold, not the server's silence
    } else if (now - ss.last_rx >= t.dead_ms) {
        ss.fail("no traffic from the server within the keep-alive time");
        return false;
    }
    if (!ss.held_out && now - ss.last_rx >= t.ping_idle_ms &&
        now - ss.last_ping >= t.ping_idle_ms) {
        srv_frame_put(ss.out, SRV_FRAME_PING, nullptr, 0);
        ss.last_ping = now;
    }
    int64_t next = ss.held_out ? ss.last_tx + t.dead_ms
                               : std::min(ss.last_rx + t.dead_ms,
                                          std::max(ss.last_rx, ss.last_ping) + t.ping_idle_ms);
    timeout = int(std::clamp<int64_t>(next - now, 0, ss.held_in ? HOLD_POLL_MS : INT32_MAX));
    return true;
}

// Holds back reading while the output or the event queue is full: the server's
// next frames then wait in its socket, not in our memory.
void note_holds(session_state &ss, take_result tr)
{
    bool out_full = ss.pending() >= SRV_OUT_LIMIT;
    bool in_full = tr == TAKE_HELD && !out_full;
    if (out_full && !ss.held_out)
        count("srvchan.held_output");
    if (in_full && !ss.held_in) {
        count("srvchan.held_inbound");
        rt_log_ratelimited("srvchan.held_inbound", 60, 5,
                           "server channel: event queue full, reading from the server "
                           "paused\n");
    }
    ss.held_out = out_full;
    ss.held_in = in_full;
}

// Writes what the transport takes; false when the connection broke.
bool write_some(session_state &ss)
{
    ssize_t n = ss.tp.write(ss.conn, ss.out.data() + ss.out_off, ss.pending());
    if (n < 0 && errno != EAGAIN && errno != EINTR) {
        ss.fail(strerror(errno));
        return false;
    }
    if (n <= 0)
        return true;
    ss.out_off += size_t(n);
    ss.stream_pos += uint64_t(n);
    ss.last_tx = now_ms();
    count("srvchan.bytes_out", uint64_t(n));
    while (!ss.fl.empty() && ss.fl.front().end <= ss.stream_pos) {
        ss.fl.pop_front();
        count("srvchan.frames_out");
    }
    if (ss.out_off == ss.out.size()) {
        ss.out.clear();
        ss.out_off = 0;
    }
    return true;
}

// Reads what arrived; false when the connection ended or broke.
bool read_some(session_state &ss)
{
    uint8_t buf[16384];
    ssize_t n = ss.tp.read(ss.conn, buf, sizeof buf);
    if (n == 0) {
        if (!ss.in.empty())
            ss.fail("truncated frame at end of stream");
        else
            rt_log(4, "server channel: the server at %s closed the connection\n",
                   ss.addr.c_str());
        return false;
    }
    if (n < 0) {
        if (errno == EAGAIN || errno == EINTR)
            return true;
        ss.fail(strerror(errno));
        return false;
    }
    count("srvchan.bytes_in", uint64_t(n));
    ss.in.insert(ss.in.end(), buf, buf + n);
    return true;
}

// One connected session. Returns true when the server sent at least one valid
// frame (the link worked, so the back-off starts over).
bool session(const srv_transport &tp, srv_conn *conn, const std::string &addr)
{
    chan_state &s = st();
    session_state ss{tp, conn, addr, {}};
    {
        std::lock_guard g(s.mu);
        ss.t = s.timing;
    }
    say_hello(ss);
    std::atomic<uint64_t> &out_gauge = rt_counter("srvchan.out_bytes"); // set every round
    ss.last_rx = ss.last_ping = ss.last_tx = now_ms();
    s.connected = true;
    rt_counter("srvchan.connected") = 1;
    rt_log(5, "server channel: connected to %s\n", addr.c_str());

    while (!should_stop()) {
        woke();
        fill_output(ss);
        take_result tr = take_frames(ss);
        if (tr == TAKE_BAD) {
            count("srvchan.bad_frames");
            ss.fail("malformed frame");
            break;
        }
        note_holds(ss, tr);
        int timeout = 0;
        if (!keep_alive(ss, timeout))
            break;

        bool reading = !ss.held_out && !ss.held_in;
        bool buffered = reading && tp.buffered(conn);
        if (buffered)
            timeout = 0;
        short want = tp.poll_events(conn, reading, ss.pending() > 0);
        out_gauge = ss.pending();
        pollfd p[3] = {{want ? tp.poll_fd(conn) : -1, want, 0},
                       {s.wake_fd.load(), POLLIN, 0},
                       {rt_stop_fd(), POLLIN, 0}};
        if (::poll(p, 3, timeout) < 0) {
            if (errno == EINTR)
                continue;
            ss.fail("poll failed");
            break;
        }
        if (p[1].revents & POLLIN)
            drain_wake();
        // Any readiness tries both ways: under TLS a read may wait for output room
        // and a write for input.
        bool ready = p[0].revents != 0;
        if (ready && ss.pending() > 0 && !write_some(ss))
            break;
        if (reading && (ready || buffered) && !read_some(ss))
            break;
    }
    s.connected = false;
    rt_counter("srvchan.connected") = 0;
    out_gauge = 0;
    requeue(ss.fl);
    return ss.healthy;
}

// Which transport the configuration asks for; plain TCP says at start what it costs.
const srv_transport &pick_transport()
{
    const rt_config &c = rt_cfg();
    if (rt_server_tls(c))
        return srv_tls_transport;
    if (!c.server_address.empty())
        rt_log(4, "server channel: plain TCP to %s%s: location data and the server's requests "
                  "travel unencrypted and unauthenticated\n",
               c.server_address.c_str(),
               c.server_tls ? " (server.tls = false)" : " (no server.tls in the configuration)");
    return srv_tcp_transport;
}

void channel_main()
{
    chan_state &s = st();
    const srv_transport &tp = pick_transport();
    int backoff = 0;
    bool ever = false;
    while (!should_stop()) {
        srvchan_timing t;
        {
            std::lock_guard g(s.mu);
            t = s.timing;
        }
        if (backoff == 0)
            backoff = t.backoff_first_ms;
        const std::string addr = rt_cfg().server_address;
        if (addr.empty()) {
            pause_ms(-1); // no server configured: messages only queue, until the stop
            continue;
        }
        srv_connect_ctl ctl;
        ctl.timeout_ms = t.connect_timeout_ms;
        ctl.wait = connect_wait;
        ctl.stop = should_stop;
        if (srv_conn *conn = tp.connect(addr, ctl)) {
            if (ever)
                count("srvchan.reconnects");
            ever = true;
            bool worked = session(tp, conn, addr);
            tp.close(conn);
            if (worked)
                backoff = t.backoff_first_ms;
        }
        if (should_stop())
            break;
        pause_ms(backoff);
        backoff = std::min(backoff * 2, t.backoff_max_ms);
    }
}

} // namespace

int srvchan_send(const void *payload, int len)
{
    if (len < 0 || (len > 0 && !payload))
        return -1;
    if (uint32_t(len) + 1 > SRV_FRAME_MAX) {
        rt_log(3, "server channel: message of %d bytes does not fit in one frame\n", len);
        return -1;
    }
    chan_state &s = st();
    size_t limit = rt_cfg().server_queue_limit;
    {
        std::lock_guard g(s.mu);
        size_t dropped = 0;
        if (size_t(len) > limit) {
            dropped = 1; // larger than the whole queue: it can only be dropped itself
        } else {
            while (s.queue_bytes + size_t(len) > limit && !s.queue.empty()) {
                s.queue_bytes -= s.queue.front().size();
                s.queue.pop_front();
                ++dropped;
            }
            s.queue.emplace_back(static_cast<const char *>(payload), size_t(len));
            s.queue_bytes += size_t(len);
        }
        set_queue_gauge(s.queue_bytes);
        if (dropped) {
            count("srvchan.queue_drops", dropped);
            rt_log_ratelimited("srvchan.drop", 60, 4,
                               "server channel: queue limit of %zu bytes reached, dropped %zu "
                               "message(s)\n",
                               limit, dropped);
        }
    }
    wake_thread();
    return 0;
}

void srvchan_open()
{
    chan_state &s = st();
    std::lock_guard g(s.mu);
    if (s.thread.joinable() || rt_stopping())
        return;
    if (s.wake_fd < 0) {
        int fd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
        if (fd < 0) {
            rt_log(3, "server channel: eventfd: %s\n", strerror(errno));
            return;
        }
        s.wake_fd = fd;
    }
    s.stop = false;
    s.thread = std::thread(channel_main);
}

void srvchan_close()
{
    chan_state &s = st();
    std::thread th;
    {
        std::lock_guard g(s.mu);
        th = std::move(s.thread);
        s.stop = true;
    }
    wake_thread();
    if (th.joinable())
        th.join();
    std::lock_guard g(s.mu);
    s.queue.clear();
    s.queue_bytes = 0;
    set_queue_gauge(0);
    drain_wake();
    s.stop = false;
}

bool srvchan_connected() { return st().connected; }

size_t srvchan_queue_bytes()
{
    std::lock_guard g(st().mu);
    return st().queue_bytes;
}

void srvchan_set_timing(const srvchan_timing &t)
{
    std::lock_guard g(st().mu);
    st().timing = t;
}

void srvchan_set_deliver(srvchan_deliver_fn fn) { st().deliver = fn; }

void rt_srvchan_start() { srvchan_open(); }
