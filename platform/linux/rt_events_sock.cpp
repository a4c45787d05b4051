// events.sock: a datagram socket under runtime_dir through which outside programs
// inject deliveries and subscribe to copies of the events the daemon sends.
#include <arpa/inet.h>
#include <errno.h>
#include <stddef.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include "rt_counter.h"
#include "rt_event.h"
#include "rt_log.h"
#include "rt_process.h"

namespace {

constexpr size_t max_payload = 65536;
constexpr size_t max_subscribers = 16;
constexpr uint8_t KIND_EVENT = 1, KIND_KEVENT = 2, KIND_SUBSCRIBE = 3, KIND_UNSUBSCRIBE = 4;

struct subscriber {
    sockaddr_un addr;
    socklen_t len;
    bool operator==(const subscriber &o) const
    {
        return len == o.len && memcmp(&addr, &o.addr, len) == 0;
    }
};

std::mutex g_mu;
int g_fd = -1;
std::string g_path;
std::vector<subscriber> g_subs;

void malformed(const char *why, size_t len)
{
    rt_counter("events_sock_malformed")++;
    rt_log_ratelimited("events.sock", 10, LOG_WARNING,
                       "events.sock: %s (datagram of %d bytes), dropped", why, (int)len);
}

void subscribe(const subscriber &s, bool on)
{
    std::lock_guard g(g_mu);
    auto it = std::find(g_subs.begin(), g_subs.end(), s);
    if (!on) {
        if (it != g_subs.end())
            g_subs.erase(it);
        return;
    }
    if (it != g_subs.end())
        return;
    if (g_subs.size() >= max_subscribers) {
        rt_counter("events_sock_refused")++;
        rt_log_ratelimited("events.sock-full", 10, LOG_WARNING,
                           "events.sock: %d subscribers already, one more refused",
                           (int)max_subscribers);
        return;
    }
    g_subs.push_back(s);
    // Rate-limited: a client toggling its subscription must not flood the log.
    rt_log_ratelimited("events.sock-subscriber", 10, LOG_INFO, "events.sock: subscriber %s added",
                       s.addr.sun_path[0] ? s.addr.sun_path : "(abstract)");
}

} // namespace

int rt_events_sock_open()
{
    std::string path = rt_runtime_path("events.sock");
    sockaddr_un sa{};
    sa.sun_family = AF_UNIX;
    if (path.size() >= sizeof sa.sun_path) {
        rt_log(LOG_ERR, "events.sock: path %s too long", path.c_str());
        return -1;
    }
    strcpy(sa.sun_path, path.c_str());
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        rt_log(LOG_ERR, "events.sock: socket: %s", strerror(errno));
        return -1;
    }
    unlink(path.c_str()); // left by an earlier run
    if (bind(fd, (sockaddr *)&sa, sizeof sa) != 0 || chmod(path.c_str(), 0600) != 0) {
        rt_log(LOG_ERR, "events.sock: %s: %s", path.c_str(), strerror(errno));
        close(fd);
        return -1;
    }
    std::lock_guard g(g_mu);
    g_fd = fd;
    g_path = path;
    g_subs.clear();
    return fd;
}

void rt_events_sock_readable()
{
    static std::vector<uint8_t> buf(5 + max_payload);
    for (;;) {
        subscriber from{};
        from.len = sizeof from.addr;
        ssize_t n = recvfrom(g_fd, buf.data(), buf.size(), MSG_TRUNC, (sockaddr *)&from.addr,
                             &from.len);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            return;
        }
        size_t len = (size_t)n;
        if (len > buf.size()) {
            malformed("payload longer than 65536 bytes", len);
            continue;
        }
        if (len == 1 && (buf[0] == KIND_SUBSCRIBE || buf[0] == KIND_UNSUBSCRIBE)) {
            if (from.len <= offsetof(sockaddr_un, sun_path)) {
                malformed("subscription from an unbound address", len);
                continue;
            }
            subscribe(from, buf[0] == KIND_SUBSCRIBE);
            continue;
        }
        if (len < 5) {
            malformed("shorter than kind and id", len);
            continue;
        }
        if (buf[0] != KIND_EVENT && buf[0] != KIND_KEVENT) {
            malformed("unknown kind", len);
            continue;
        }
        uint32_t id;
        memcpy(&id, &buf[1], 4);
        id = ntohl(id);
        if (rt_event_queue_full()) {
            // A datagram may be lost anyway; holding back here would stall the event thread.
            rt_counter("events_sock_dropped")++;
            rt_log_ratelimited("events.sock-queue", 10, LOG_WARNING,
                               "events.sock: event queue full, delivery %u dropped", id);
            continue;
        }
        rt_counter("events_sock_injected")++;
        if (buf[0] == KIND_EVENT)
            rt_event_post(id, &buf[5], (int)len - 5);
        else
            rt_kevent_post(id, &buf[5], (int)len - 5);
    }
}

void rt_events_sock_tap(uint32_t id, const void *payload, int len)
{
    std::lock_guard g(g_mu);
    if (g_fd < 0 || g_subs.empty())
        return;
    std::vector<uint8_t> dgram(5 + (size_t)len);
    dgram[0] = KIND_EVENT;
    uint32_t be = htonl(id);
    memcpy(&dgram[1], &be, 4);
    if (len > 0)
        memcpy(&dgram[5], payload, (size_t)len);
    for (auto it = g_subs.begin(); it != g_subs.end();) {
        if (sendto(g_fd, dgram.data(), dgram.size(), MSG_DONTWAIT, (const sockaddr *)&it->addr,
                   it->len) >= 0) {
            ++it;
            continue;
        }
        if (errno == EAGAIN || errno == ENOBUFS) {
            rt_counter("events_sock_send_dropped")++;
            ++it;
            continue;
        }
        // The subscriber went away.
        rt_log_ratelimited("events.sock-gone", 10, LOG_INFO, "events.sock: subscriber %s gone (%s)",
                           it->addr.sun_path, strerror(errno));
        it = g_subs.erase(it);
    }
}

void rt_events_sock_close()
{
    std::lock_guard g(g_mu);
    if (g_fd >= 0) {
        close(g_fd);
        unlink(g_path.c_str());
    }
    g_fd = -1;
    g_subs.clear();
}
