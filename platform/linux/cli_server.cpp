// The CLI agent's socket server: one thread polls cli.sock and its clients, reads
// whole frames and handles them one at a time; replies are written without blocking.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <vector>

#include "cli_agent.h"
#include "cli_proto.h"
#include "rt.h"

using namespace cli_proto;

namespace {

constexpr size_t MAX_CLIENTS = 32;
constexpr int PARTIAL_IDLE_MS = 5000; // a client that stops halfway through a frame

struct client {
    int fd;
    std::vector<uint8_t> in;
    std::vector<uint8_t> out;
    size_t out_off = 0;
    int64_t last_ms;
};

struct server {
    int lfd = -1;
    std::string path;
    std::vector<client> clients;
    pthread_t thread{};
    bool running = false;
    std::atomic<bool> stop{false};
};

server g_srv;

int64_t now_ms()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (int64_t)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

void drop(client &c, const char *why)
{
    if (why) {
        rt_log(4, "cli: closing client: %s\n", why);
        rt_counter("cli.closed_bad")++;
    }
    close(c.fd);
    c.fd = -1;
}

// Handles every whole frame in the buffer while no reply is pending (keeps order and
// bounds what one client can queue).
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
            rt_log(4, "cli: client closed in the middle of a frame (%d bytes)\n", (int)c.in.size());
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
    c.last_ms = now_ms();
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
    c.last_ms = now_ms();
    if (c.out_off == c.out.size()) {
        c.out.clear();
        c.out_off = 0;
        process(c);
    }
}

void accept_one()
{
    int fd = accept4(g_srv.lfd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0)
        return;
    if (g_srv.clients.size() >= MAX_CLIENTS) {
        rt_log_ratelimited("cli.too_many", 10, 4, "cli: too many clients, refusing one\n");
        rt_counter("cli.refused")++;
        close(fd);
        return;
    }
    g_srv.clients.push_back(client{fd, {}, {}, 0, now_ms()});
}

void *serve(void *)
{
    std::vector<pollfd> pfds;
    while (!rt_stopping() && !g_srv.stop) {
        pfds.clear();
        pfds.push_back({g_srv.lfd, POLLIN, 0});
        for (auto &c : g_srv.clients)
            pfds.push_back({c.fd, (short)(c.out.empty() ? POLLIN : POLLOUT), 0});
        int n = poll(pfds.data(), pfds.size(), 200);
        if (n < 0 && errno != EINTR) {
            rt_log(3, "cli: poll: %s\n", strerror(errno));
            break;
        }
        int64_t now = now_ms();
        for (size_t i = 0; i < g_srv.clients.size(); i++) {
            client &c = g_srv.clients[i];
            short re = pfds[i + 1].revents;
            if (re & POLLOUT)
                on_writable(c);
            else if (re & (POLLIN | POLLHUP | POLLERR))
                on_readable(c);
            else if (c.fd >= 0 && (!c.in.empty() || !c.out.empty()) &&
                     now - c.last_ms > PARTIAL_IDLE_MS)
                drop(c, "stalled in the middle of a frame");
        }
        std::erase_if(g_srv.clients, [](const client &c) { return c.fd < 0; });
        if (pfds[0].revents & POLLIN)
            accept_one();
    }
    for (auto &c : g_srv.clients)
        close(c.fd);
    g_srv.clients.clear();
    close(g_srv.lfd);
    g_srv.lfd = -1;
    unlink(g_srv.path.c_str());
    return nullptr;
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
    g_srv.lfd = fd;
    g_srv.path = path;
    g_srv.stop = false;
    pthread_t t;
    if (pthread_create(&t, nullptr, serve, nullptr) != 0) {
        rt_log(3, "cli: cannot start the agent thread\n");
        close(fd);
        g_srv.lfd = -1;
        unlink(path.c_str());
        return -1;
    }
    g_srv.thread = t;
    g_srv.running = true;
    if (thread)
        *thread = t;
    return 0;
}

void cli_server_stop()
{
    if (!g_srv.running)
        return;
    g_srv.stop = true;
    pthread_join(g_srv.thread, nullptr);
    g_srv.running = false;
}
