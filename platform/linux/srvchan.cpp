// Server channel thread: connects to the location server, says HELLO, carries
// MESSAGE frames both ways, keeps the link alive and reconnects with back-off.
#include <errno.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>

#include "qz_evt_srv_msg.h"
#include "rt.h"
#include "rt_config.h"
#include "rt_counter.h"
#include "rt_event.h"
#include "rt_life.h"
#include "rt_log.h"
#include "rt_stop.h"
#include "srvchan.h"

namespace {

constexpr size_t OUT_HIGH_WATER = 1 << 16; // frames moved from the queue per round
constexpr int HOLD_POLL_MS = 20;       // how often a full event queue is looked at again

struct unique_fd {
    int fd = -1;
    unique_fd() = default;
    explicit unique_fd(int f) : fd(f) {}
    unique_fd(unique_fd &&o) noexcept : fd(o.fd) { o.fd = -1; }
    unique_fd &operator=(unique_fd &&o) noexcept
    {
        if (this != &o) {
            reset();
            fd = o.fd;
            o.fd = -1;
        }
        return *this;
    }
    unique_fd(const unique_fd &) = delete;
    unique_fd &operator=(const unique_fd &) = delete;
    ~unique_fd() { reset(); }
    void reset()
    {
        if (fd >= 0)
            ::close(fd);
        fd = -1;
    }
    explicit operator bool() const { return fd >= 0; }
};

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

// Sleeps up to ms, returning early only when the channel must stop.
void pause_ms(int ms)
{
    int64_t end = now_ms() + ms;
    while (!should_stop()) {
        int64_t left = end - now_ms();
        if (left <= 0)
            return;
        pollfd p[2] = {{st().wake_fd.load(), POLLIN, 0}, {rt_stop_fd(), POLLIN, 0}};
        if (::poll(p, 2, int(left)) > 0 && (p[0].revents & POLLIN))
            drain_wake(); // a new message does not shorten the back-off
    }
}

unique_fd connect_to(const std::string &addr, int timeout_ms)
{
    std::string host, port;
    if (!srv_split_address(addr, host, port)) {
        rt_log_ratelimited("srvchan.addr", 300, 3,
                           "server channel: bad server.address \"%s\" (want host:port)\n",
                           addr.c_str());
        return {};
    }
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo *res = nullptr;
    int rc = ::getaddrinfo(host.c_str(), port.c_str(), &hints, &res);
    if (rc != 0) {
        rt_log_ratelimited("srvchan.resolve", 300, 4, "server channel: cannot resolve %s: %s\n",
                           addr.c_str(), gai_strerror(rc));
        return {};
    }
    std::unique_ptr<addrinfo, void (*)(addrinfo *)> guard(res, ::freeaddrinfo);
    int last_err = 0;
    for (addrinfo *ai = res; ai && !should_stop(); ai = ai->ai_next) {
        unique_fd s(::socket(ai->ai_family, ai->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC,
                             ai->ai_protocol));
        if (!s) {
            last_err = errno;
            continue;
        }
        if (::connect(s.fd, ai->ai_addr, ai->ai_addrlen) == 0)
            return s;
        if (errno != EINPROGRESS) {
            last_err = errno;
            continue;
        }
        int64_t end = now_ms() + timeout_ms;
        int ready = 0;
        for (int64_t left; !should_stop() && (left = end - now_ms()) > 0;) {
            pollfd p[3] = {{s.fd, POLLOUT, 0}, {st().wake_fd.load(), POLLIN, 0},
                           {rt_stop_fd(), POLLIN, 0}};
            ready = ::poll(p, 3, int(left));
            if (ready > 0 && !p[0].revents) {
                if (p[1].revents & POLLIN)
                    drain_wake(); // a queued message, or srvchan_close: looked at above
                ready = 0;
                continue;
            }
            if (ready != 0)
                break;
        }
        if (ready <= 0) {
            last_err = ETIMEDOUT;
            continue;
        }
        int err = 0;
        socklen_t el = sizeof err;
        ::getsockopt(s.fd, SOL_SOCKET, SO_ERROR, &err, &el);
        if (err == 0)
            return s;
        last_err = err;
    }
    if (!should_stop())
        rt_log_ratelimited("srvchan.connect", 300, 4, "server channel: cannot connect to %s: %s\n",
                           addr.c_str(), strerror(last_err ? last_err : ECONNREFUSED));
    return {};
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

// One connected session. Returns true when the server sent at least one valid
// frame (the link worked, so the back-off starts over).
bool session(unique_fd &sock, const std::string &addr)
{
    chan_state &s = st();
    srvchan_timing t;
    {
        std::lock_guard g(s.mu);
        t = s.timing;
    }
    uint8_t mac[6] = {};
    uint32_t ip = 0;
    if (rt_mgt_mac(mac) < 0)
        memset(mac, 0, sizeof mac);
    if (rt_mgt_ip(&ip) < 0)
        ip = 0;
    std::string out;      // bytes to write, whole frames
    size_t out_off = 0;   // written part of out
    uint64_t stream_pos = 0; // total bytes written on this connection
    std::deque<inflight> fl;
    std::string hello = srv_hello_payload(mac, ip, rt_cfg().instance);
    srv_frame_put(out, SRV_FRAME_HELLO, hello.data(), hello.size());
    auto pending = [&] { return out.size() - out_off; };
    std::atomic<uint64_t> &out_gauge = rt_counter("srvchan.out_bytes"); // set every round

    std::vector<uint8_t> in; // received bytes not yet taken as frames
    int64_t last_rx = now_ms(), last_ping = last_rx, last_tx = last_rx;
    bool healthy = false, held_out = false, held_in = false;
    s.connected = true;
    rt_counter("srvchan.connected") = 1;
    rt_log(5, "server channel: connected to %s\n", addr.c_str());

    auto fail = [&](const char *why) {
        rt_log(4, "server channel: %s; closing the connection to %s\n", why, addr.c_str());
    };

    // Takes the received frames while the output and the event queue have room; a
    // frame left in `in` stays there (and nothing more is read) until they have.
    auto take_frames = [&]() -> take_result {
        size_t used = 0;
        take_result r = TAKE_DONE;
        for (;;) {
            srv_frame_view f;
            auto rc = srv_frame_take(std::span(in).subspan(used), f);
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
            if (f.type == SRV_FRAME_MESSAGE && rt_event_queue_full()) {
                r = TAKE_HELD;
                break;
            }
            if (f.type == SRV_FRAME_PING && pending() >= SRV_OUT_LIMIT) {
                r = TAKE_HELD;
                break;
            }
            used += f.used;
            if (f.type == SRV_FRAME_MESSAGE) {
                auto fn = s.deliver.load();
                int len = int(f.payload.size());
                if (fn)
                    fn(f.payload.data(), len);
                else
                    rt_event_post(QZ_EVT_SRV_MSG_IN, f.payload.data(), len);
            } else if (f.type == SRV_FRAME_PING) {
                srv_frame_put(out, SRV_FRAME_PONG, f.payload.data(), f.payload.size());
            } else if (f.type != SRV_FRAME_PONG) {
                rt_log(4, "server channel: unknown frame type %u (length %u)\n", f.type,
                       f.length);
                r = TAKE_BAD;
                break;
            }
            count("srvchan.frames_in");
            last_rx = now_ms();
            healthy = true;
        }
        in.erase(in.begin(), in.begin() + std::ptrdiff_t(used));
        return r;
    };

    while (!should_stop()) {
        // Move queued messages into the output stream.
        if (pending() < OUT_HIGH_WATER) {
            std::lock_guard g(s.mu);
            while (!s.queue.empty() && pending() < OUT_HIGH_WATER) {
                std::string p = std::move(s.queue.front());
                s.queue.pop_front();
                s.queue_bytes -= p.size();
                srv_frame_put(out, SRV_FRAME_MESSAGE, p.data(), p.size());
                fl.push_back({stream_pos + pending(), std::move(p)});
            }
            set_queue_gauge(s.queue_bytes);
        }

        take_result tr = take_frames();
        if (tr == TAKE_BAD) {
            count("srvchan.bad_frames");
            fail("malformed frame");
            break;
        }
        // Held back: the server's next frames wait in its socket, not in our memory.
        bool out_full = pending() >= SRV_OUT_LIMIT;
        bool in_full = tr == TAKE_HELD && !out_full;
        if (out_full && !held_out)
            count("srvchan.held_output");
        if (in_full && !held_in) {
            count("srvchan.held_inbound");
            rt_log_ratelimited("srvchan.held_inbound", 60, 5,
                               "server channel: event queue full, reading from the server "
                               "paused\n");
        }
        held_out = out_full;
        held_in = in_full;

        int64_t now = now_ms();
        if (pending() == 0)
            last_tx = now;
        if (out_full) {
            if (now - last_tx >= t.dead_ms) {
                count("srvchan.stalled");
                char why[128];
                snprintf(why, sizeof why, "the server reads nothing (%zu bytes waiting)",
                         pending());
                fail(why);
                break;
            }
        } else if (in_full) {
            last_rx = last_ping = now; // our own hold, not the server's silence
        } else if (now - last_rx >= t.dead_ms) {
            fail("no traffic from the server within the keep-alive time");
            break;
        }
        if (!out_full && now - last_rx >= t.ping_idle_ms && now - last_ping >= t.ping_idle_ms) {
            srv_frame_put(out, SRV_FRAME_PING, nullptr, 0);
            last_ping = now;
        }
        int64_t next = out_full ? last_tx + t.dead_ms
                                : std::min(last_rx + t.dead_ms,
                                           std::max(last_rx, last_ping) + t.ping_idle_ms);
        int timeout = int(std::clamp<int64_t>(next - now, 0, in_full ? HOLD_POLL_MS : INT32_MAX));

        bool reading = !out_full && !in_full;
        short want = short((reading ? POLLIN : 0) | (pending() ? POLLOUT : 0));
        out_gauge = pending();
        pollfd p[3] = {{want ? sock.fd : -1, want, 0},
                       {s.wake_fd.load(), POLLIN, 0},
                       {rt_stop_fd(), POLLIN, 0}};
        if (::poll(p, 3, timeout) < 0) {
            if (errno == EINTR)
                continue;
            fail("poll failed");
            break;
        }
        if (p[1].revents & POLLIN)
            drain_wake();

        if (p[0].revents & (POLLOUT | POLLERR)) {
            ssize_t n = ::send(sock.fd, out.data() + out_off, pending(), MSG_NOSIGNAL);
            if (n < 0 && errno != EAGAIN && errno != EINTR) {
                fail(strerror(errno));
                break;
            }
            if (n > 0) {
                out_off += size_t(n);
                stream_pos += uint64_t(n);
                last_tx = now_ms();
                count("srvchan.bytes_out", uint64_t(n));
                while (!fl.empty() && fl.front().end <= stream_pos) {
                    fl.pop_front();
                    count("srvchan.frames_out");
                }
                if (out_off == out.size()) {
                    out.clear();
                    out_off = 0;
                }
            }
        }

        if (reading && (p[0].revents & (POLLIN | POLLHUP | POLLERR))) {
            uint8_t buf[16384];
            ssize_t n = ::recv(sock.fd, buf, sizeof buf, 0);
            if (n == 0) {
                if (!in.empty())
                    fail("truncated frame at end of stream");
                else
                    rt_log(4, "server channel: the server at %s closed the connection\n",
                           addr.c_str());
                break;
            }
            if (n < 0) {
                if (errno == EAGAIN || errno == EINTR)
                    continue;
                fail(strerror(errno));
                break;
            }
            count("srvchan.bytes_in", uint64_t(n));
            in.insert(in.end(), buf, buf + n);
        }
    }
    s.connected = false;
    rt_counter("srvchan.connected") = 0;
    out_gauge = 0;
    requeue(fl);
    return healthy;
}

void channel_main()
{
    chan_state &s = st();
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
            pause_ms(1000); // no server configured: messages only queue
            continue;
        }
        unique_fd sock = connect_to(addr, t.connect_timeout_ms);
        if (sock) {
            if (ever)
                count("srvchan.reconnects");
            ever = true;
            if (session(sock, addr))
                backoff = t.backoff_first_ms;
        }
        sock.reset();
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
