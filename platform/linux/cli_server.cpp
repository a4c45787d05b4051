// The CLI agent's socket server: one thread polls cli.sock and its clients, reads
// whole frames and handles them one at a time; replies are written without blocking.
// Idle clients time out or make room for new ones, so none can lock the others out.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <vector>

#include "cli_agent.h"
#include "cli_proto.h"
#include "rt_counter.h"
#include "rt_local_sock.h"
#include "rt_log.h"
#include "rt_notify.h"
#include "rt_process.h"
#include "rt_stop.h"

using namespace cli_proto;

namespace {

struct client {
    int fd;
    std::vector<uint8_t> in;
    std::vector<uint8_t> out;
    size_t out_off = 0;
    int64_t last_ms;
    // In the middle of a request or a reply: the stall limit applies, not the idle one.
    bool busy() const { return !in.empty() || !out.empty(); }
};

struct server {
    rt_listener lst;
    int wake_fd = -1; // eventfd: cli_server_stop
    std::string path;
    std::vector<client> clients;
    rt_sock_limits limits{32, 30000, 5000, 250};
    pthread_t thread{};
    bool running = false;
    std::atomic<bool> stop{false};
};

server g_srv;

void drop(client &c, const char *why)
{
    if (why) {
        rt_log_ratelimited("cli.closed_bad", 10, 4, "cli: closing client: %s\n", why);
        rt_counter("cli.closed_bad")++;
    }
    close(c.fd);
    c.fd = -1;
}

// Handles every whole frame in the buffer while no reply is pending (keeps order and
// bounds what one client can queue: one reply, and input is not read meanwhile).
void process(client &c)
{
    while (c.fd >= 0 && c.out.empty() && c.in.size() >= 4) {
        uint32_t len = get_u32(c.in.data());
        if (len > MAX_REQUEST) {
            drop(c, "request frame over the size limit");
            return;
        }
        if (c.in.size() < 4 + (size_t)len)
            return;
        std::vector<uint8_t> body(c.in.begin() + 4, c.in.begin() + 4 + len);
        c.in.erase(c.in.begin(), c.in.begin() + 4 + len);
        rt_counter("cli.requests")++;
        rt_watched_call watched("CLI agent");
        c.out = frame(cli_handle_request(body));
        c.out_off = 0;
    }
}

void on_readable(client &c)
{
    uint8_t buf[4096];
    ssize_t n = read(c.fd, buf, sizeof(buf));
    if (n == 0) {
        if (!c.in.empty()) {
            rt_log_ratelimited("cli.truncated", 10, 4,
                               "cli: client closed in the middle of a frame (%d bytes)\n",
                               (int)c.in.size());
            rt_counter("cli.truncated")++;
        }
        drop(c, nullptr);
        return;
    }
    if (n < 0) {
        if (errno != EAGAIN && errno != EINTR)
            drop(c, strerror(errno));
        return;
    }
    c.in.insert(c.in.end(), buf, buf + n);
    c.last_ms = rt_now_ms();
    process(c);
}

void on_writable(client &c)
{
    ssize_t n = send(c.fd, c.out.data() + c.out_off, c.out.size() - c.out_off, MSG_NOSIGNAL);
    if (n < 0) {
        if (errno != EAGAIN && errno != EINTR)
            drop(c, strerror(errno));
        return;
    }
    c.out_off += (size_t)n;
    c.last_ms = rt_now_ms();
    if (c.out_off == c.out.size()) {
        c.out.clear();
        c.out_off = 0;
        process(c);
    }
}

// Closes the client that has been idle longest, so that idle connections can never
// lock a new one out. False when every client is in the middle of something.
bool evict_idle()
{
    client *victim = nullptr;
    for (auto &c : g_srv.clients)
        if (c.fd >= 0 && !c.busy() && (!victim || c.last_ms < victim->last_ms))
            victim = &c;
    if (!victim)
        return false;
    rt_counter("cli.evicted")++;
    rt_log_ratelimited("cli.evicted", 10, 4, "cli: no room for a new client, closing the longest idle one\n");
    drop(*victim, nullptr);
    return true;
}

void accept_one()
{
    int fd = rt_accept(g_srv.lst, "cli", g_srv.limits.accept_backoff_ms);
    if (fd == RT_ACCEPT_NO_FDS) {
        // An idle client's descriptor lets the backlog move on at once; with none to
        // free, the listener rests.
        if (evict_idle())
            g_srv.lst.rest_until = 0;
        return;
    }
    if (fd < 0)
        return;
    size_t live = 0;
    for (auto &c : g_srv.clients)
        live += c.fd >= 0;
    if (live >= g_srv.limits.max_clients && !evict_idle()) {
        rt_log_ratelimited("cli.too_many", 10, 4, "cli: %d clients busy, refusing one more\n",
                           (int)live);
        rt_counter("cli.refused")++;
        close(fd);
        return;
    }
    g_srv.clients.push_back(client{fd, {}, {}, 0, rt_now_ms()});
}

// Closes the clients past their idle or stall limit; returns the next deadline
// (-1: none).
int64_t expire(int64_t now)
{
    int64_t next = -1;
    for (auto &c : g_srv.clients) {
        if (c.fd < 0)
            continue;
        int64_t due = c.last_ms + (c.busy() ? g_srv.limits.stall_ms : g_srv.limits.idle_ms);
        if (now >= due) {
            if (c.busy()) {
                drop(c, c.out.empty() ? "stalled in the middle of a frame"
                                      : "does not read its reply");
            } else {
                rt_counter("cli.idle_closed")++;
                drop(c, nullptr);
            }
            continue;
        }
        next = next < 0 ? due : std::min(next, due);
    }
    return next;
}

void *serve(void *)
{
    std::vector<pollfd> pfds;
    constexpr size_t FIXED = 3; // listener, wake, stop
    std::atomic<uint64_t> &wakes = rt_counter("wake.cli"); // loop turns, to spot ticking
    while (!rt_stopping() && !g_srv.stop) {
        wakes++;
        int64_t now = rt_now_ms();
        int64_t next = expire(now);
        std::erase_if(g_srv.clients, [](const client &c) { return c.fd < 0; });
        int lfd = rt_listener_poll_fd(g_srv.lst, now);
        if (lfd < 0)
            next = next < 0 ? g_srv.lst.rest_until : std::min(next, g_srv.lst.rest_until);
        pfds.clear();
        pfds.push_back({lfd, POLLIN, 0});
        pfds.push_back({g_srv.wake_fd, POLLIN, 0});
        pfds.push_back({rt_stop_fd(), POLLIN, 0});
        for (auto &c : g_srv.clients)
            pfds.push_back({c.fd, (short)(c.out.empty() ? POLLIN : POLLOUT), 0});
        int timeout = next < 0 ? -1 : (int)std::clamp<int64_t>(next - now, 0, INT32_MAX);
        int n = poll(pfds.data(), pfds.size(), timeout);
        if (n < 0 && errno != EINTR) {
            rt_log(3, "cli: poll: %s\n", strerror(errno));
            break;
        }
        if (n <= 0)
            continue;
        for (size_t i = 0; i < g_srv.clients.size(); i++) {
            client &c = g_srv.clients[i];
            short re = pfds[i + FIXED].revents;
            if (re & POLLOUT)
                on_writable(c);
            else if (re & (POLLIN | POLLHUP | POLLERR))
                on_readable(c);
        }
        std::erase_if(g_srv.clients, [](const client &c) { return c.fd < 0; });
        if (pfds[0].revents & POLLIN)
            accept_one();
    }
    for (auto &c : g_srv.clients)
        close(c.fd);
    g_srv.clients.clear();
    close(g_srv.lst.fd);
    g_srv.lst = {};
    unlink(g_srv.path.c_str());
    return nullptr; // the wake fd stays for cli_server_stop, which may be writing to it
}

// Creates the runtime directory (and its parents) owner-only when it is missing.
int make_dirs(const std::string &dir)
{
    for (size_t i = 1; i <= dir.size(); i++) {
        if (i < dir.size() && dir[i] != '/')
            continue;
        std::string part = dir.substr(0, i);
        if (mkdir(part.c_str(), 0700) < 0 && errno != EEXIST)
            return -1;
    }
    return 0;
}

} // namespace

int cli_server_start(const std::string &path, pthread_t *thread)
{
    sockaddr_un sa{};
    if (path.size() >= sizeof(sa.sun_path)) {
        rt_log(3, "cli: socket path too long: %s\n", path.c_str());
        return -1;
    }
    auto slash = path.rfind('/');
    if (slash != std::string::npos && slash > 0 && make_dirs(path.substr(0, slash)) < 0) {
        rt_log(3, "cli: cannot create %s: %s\n", path.substr(0, slash).c_str(), strerror(errno));
        return -1;
    }
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        rt_log(3, "cli: socket: %s\n", strerror(errno));
        return -1;
    }
    sa.sun_family = AF_UNIX;
    memcpy(sa.sun_path, path.c_str(), path.size());
    unlink(path.c_str()); // a stale socket of an earlier run
    // Bound with a restrictive umask so the socket is never reachable by others.
    mode_t old = umask(0177);
    int r = bind(fd, (sockaddr *)&sa, sizeof(sa));
    umask(old);
    if (r < 0 || chmod(path.c_str(), 0600) < 0 || listen(fd, 16) < 0) {
        rt_log(3, "cli: cannot serve %s: %s\n", path.c_str(), strerror(errno));
        close(fd);
        return -1;
    }
    int wake = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (wake < 0) {
        rt_log(3, "cli: eventfd: %s\n", strerror(errno));
        close(fd);
        return -1;
    }
    g_srv.lst = {fd, 0};
    g_srv.wake_fd = wake;
    g_srv.path = path;
    g_srv.stop = false;
    pthread_t t;
    if (rt_thread_create(&t, serve, nullptr, "qz_cli", RT_STACK_DAEMON) != 0) {
        rt_log(3, "cli: cannot start the agent thread\n");
        close(fd);
        close(wake);
        g_srv.lst = {};
        g_srv.wake_fd = -1;
        unlink(path.c_str());
        return -1;
    }
    g_srv.thread = t;
    g_srv.running = true;
    if (thread)
        *thread = t;
    return 0;
}

void cli_server_set_limits(const rt_sock_limits &l) { g_srv.limits = l; }

void cli_server_stop()
{
    if (!g_srv.running)
        return;
    g_srv.stop = true;
    eventfd_write(g_srv.wake_fd, 1);
    pthread_join(g_srv.thread, nullptr);
    close(g_srv.wake_fd);
    g_srv.wake_fd = -1;
    g_srv.running = false;
}
