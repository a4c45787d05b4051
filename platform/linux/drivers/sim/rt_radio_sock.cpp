// radio.sock: the text control socket of the simulated radios (hear, forget, clear,
// assoc, disassoc, fail, state), one request per line, replies ending in ok or error.
// Replies are written without blocking, so a client that does not read stalls only itself.
#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>

#include "rt_counter.h"
#include "rt_local_sock.h"
#include "rt_log.h"
#include "rt_process.h"
#include "rt_stop.h"
#include "sim_radio.h"

namespace {

constexpr size_t k_max_line = 1024;

bool to_int(const std::string &s, long lo, long hi, long *out)
{
    long v = 0;
    auto [p, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
    if (ec != std::errc() || p != s.data() + s.size() || v < lo || v > hi)
        return false;
    *out = v;
    return true;
}

// Runs one request; returns "" or the reason it failed. Output lines go to out.
std::string run(const std::vector<std::string> &w, std::string &out)
{
    static const std::map<std::string, std::pair<size_t, const char *>> usage = {
        {"hear", {6, "hear <radio> <mac> <rssi> <active> <freq>"}},
        {"forget", {3, "forget <radio> <mac>"}},
        {"clear", {2, "clear <radio>"}},
        {"assoc", {4, "assoc <radio> <mac> <freq>"}},
        {"disassoc", {3, "disassoc <radio> <mac>"}},
        {"fail", {3, "fail <op> <count>"}},
        {"state", {2, "state <radio>"}},
    };
    if (w.empty())
        return "empty request";
    auto u = usage.find(w[0]);
    if (u == usage.end())
        return "unknown command " + w[0];
    if (w.size() != u->second.first)
        return std::string("usage: ") + u->second.second;
    long n;
    if (w[0] == "fail") {
        if (!to_int(w[2], 0, 1000000, &n))
            return "bad count " + w[2];
        return sim_fail(w[1], static_cast<int>(n));
    }
    std::shared_ptr<sim_radio> sp = sim_radio_find(w[1]);
    sim_radio *r = sp.get();
    if (!r)
        return "no simulated radio " + w[1];
    if (w[0] == "clear") {
        sim_clear(r);
        return {};
    }
    if (w[0] == "state") {
        out += sim_state_text(r);
        return {};
    }
    sim_mac mac;
    if (!sim_parse_hex(w[2], mac.data(), 6))
        return "bad mac " + w[2];
    if (w[0] == "forget")
        return sim_forget(r, mac);
    if (w[0] == "disassoc")
        return sim_disassoc(r, mac);
    long freq;
    if (!to_int(w.back(), 1, 65535, &freq))
        return "bad frequency " + w.back();
    if (w[0] == "assoc")
        return sim_assoc(r, mac, static_cast<uint16_t>(freq));
    sim_heard h;
    h.mac = mac;
    long rssi, active;
    if (!to_int(w[3], -128, 127, &rssi))
        return "bad rssi " + w[3];
    if (!to_int(w[4], 0, 1, &active))
        return "bad active flag " + w[4];
    h.rssi = static_cast<int8_t>(rssi);
    h.active = static_cast<uint8_t>(active);
    h.freq = static_cast<uint16_t>(freq);
    return sim_hear(r, h);
}

struct sock_server {
    std::mutex mu;
    std::thread th;
    std::atomic<bool> stop{false};
    std::string path;
    int fd = -1;
    int wake_fd = -1; // eventfd: rt_radio_sock_stop
    rt_sock_limits limits{16, 30000, 5000, 250};
    ~sock_server()
    {
        if (th.joinable()) {
            stop = true;
            eventfd_write(wake_fd, 1);
            th.join();
            close(fd);
            close(wake_fd);
            unlink(path.c_str());
        }
    }
};

sock_server &srv()
{
    static sock_server s;
    return s;
}

// Replies held for one client; past this its further requests wait unread, so a
// client that never reads costs a bounded buffer and blocks nobody else.
constexpr size_t k_max_out = 64 << 10;

struct rclient {
    int fd;
    std::string in;  // bytes after the last whole line
    std::string out; // replies not yet written
    int64_t last_ms;
    bool busy() const { return !in.empty() || !out.empty(); }
};

void drop(rclient &c, const char *why)
{
    if (why) {
        rt_counter("radio_sock.closed_bad")++;
        rt_log_ratelimited("radio_sock.closed_bad", 10, LOG_WARNING,
                           "radio.sock: closing a client: %s", why);
    }
    close(c.fd);
    c.fd = -1;
}

void flush(rclient &c)
{
    if (c.out.empty())
        return;
    ssize_t n = send(c.fd, c.out.data(), c.out.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n < 0) {
        if (errno != EAGAIN && errno != EINTR)
            drop(c, strerror(errno));
        return;
    }
    c.out.erase(0, static_cast<size_t>(n));
    c.last_ms = rt_now_ms();
}

// Runs the whole lines received while the client's replies have room.
void run_lines(rclient &c)
{
    size_t nl;
    while (c.fd >= 0 && c.out.size() < k_max_out && (nl = c.in.find('\n')) != std::string::npos) {
        std::string line = c.in.substr(0, nl);
        c.in.erase(0, nl + 1);
        c.out += rt_radio_sock_command(line);
    }
    if (c.fd >= 0 && c.in.size() > k_max_line && c.in.find('\n') == std::string::npos) {
        rt_counter("radio_sock.long_line")++;
        rt_log_ratelimited("radio_sock.long_line", 10, LOG_WARNING,
                           "radio.sock: request line over %d bytes, connection closed",
                           static_cast<int>(k_max_line));
        c.out += "error: line too long\n";
        flush(c); // best effort: the client is going anyway
        if (c.fd >= 0)
            drop(c, nullptr);
    }
}

void on_readable(rclient &c)
{
    char buf[512];
    ssize_t n = recv(c.fd, buf, sizeof buf, MSG_DONTWAIT);
    if (n < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    if (n <= 0) {
        drop(c, nullptr);
        return;
    }
    c.in.append(buf, static_cast<size_t>(n));
    c.last_ms = rt_now_ms();
    run_lines(c);
}

// The longest idle client makes room for a new one; false when all are busy.
bool evict_idle(std::vector<rclient> &clients)
{
    rclient *victim = nullptr;
    for (auto &c : clients)
        if (c.fd >= 0 && !c.busy() && (!victim || c.last_ms < victim->last_ms))
            victim = &c;
    if (!victim)
        return false;
    rt_counter("radio_sock.evicted")++;
    drop(*victim, nullptr);
    return true;
}

void accept_one(rt_listener &l, std::vector<rclient> &clients, const rt_sock_limits &lim)
{
    int fd = rt_accept(l, "radio_sock", lim.accept_backoff_ms);
    if (fd == RT_ACCEPT_NO_FDS && evict_idle(clients))
        l.rest_until = 0; // the freed descriptor lets the backlog move on at once
    if (fd < 0)
        return;
    if (clients.size() >= lim.max_clients && !evict_idle(clients)) {
        rt_counter("radio_sock.refused")++;
        rt_log_ratelimited("radio_sock.refused", 10, LOG_WARNING,
                           "radio.sock: %d clients busy, refusing one more",
                           static_cast<int>(clients.size()));
        close(fd);
        return;
    }
    clients.push_back(rclient{fd, {}, {}, rt_now_ms()});
}

void serve(int lfd, int wake_fd, rt_sock_limits lim)
{
    std::vector<rclient> clients;
    rt_listener l{lfd, 0};
    std::vector<pollfd> p;
    constexpr size_t FIXED = 3; // listener, wake, stop
    std::atomic<uint64_t> &wakes = rt_counter("wake.radio_sock"); // loop turns
    while (!srv().stop && !rt_stopping()) {
        wakes++;
        int64_t now = rt_now_ms(), next = -1;
        for (auto &c : clients) {
            int64_t due = c.last_ms + (c.busy() ? lim.stall_ms : lim.idle_ms);
            if (now >= due)
                drop(c, c.busy() ? "stalled in the middle of a line or not reading its replies"
                                 : nullptr);
            else
                next = next < 0 ? due : std::min(next, due);
        }
        std::erase_if(clients, [](const rclient &c) { return c.fd < 0; });
        int lpoll = rt_listener_poll_fd(l, now);
        if (lpoll < 0)
            next = next < 0 ? l.rest_until : std::min(next, l.rest_until);
        p.assign({{lpoll, POLLIN, 0}, {wake_fd, POLLIN, 0}, {rt_stop_fd(), POLLIN, 0}});
        for (auto &c : clients)
            p.push_back({c.fd, static_cast<short>((c.out.size() < k_max_out ? POLLIN : 0) |
                                                  (c.out.empty() ? 0 : POLLOUT)),
                         0});
        int timeout = next < 0 ? -1 : static_cast<int>(std::min<int64_t>(next - now, INT32_MAX));
        if (poll(p.data(), p.size(), timeout) <= 0)
            continue;
        for (size_t i = 0; i < clients.size(); i++) {
            rclient &c = clients[i];
            short re = p[i + FIXED].revents;
            if (re & (POLLOUT | POLLERR)) {
                flush(c);
                run_lines(c); // lines held back while the replies were full
            }
            if (c.fd >= 0 && (re & (POLLIN | POLLHUP | POLLERR)))
                on_readable(c);
        }
        std::erase_if(clients, [](const rclient &c) { return c.fd < 0; });
        if (p[0].revents & POLLIN)
            accept_one(l, clients, lim);
    }
    for (auto &c : clients)
        close(c.fd);
}

} // namespace

std::string rt_radio_sock_command(const std::string &line)
{
    std::istringstream in(line);
    std::vector<std::string> w;
    for (std::string s; in >> s;)
        w.push_back(s);
    std::string out;
    std::string err = run(w, out);
    return err.empty() ? out + "ok\n" : "error: " + err + "\n";
}

void rt_radio_sock_start()
{
    sock_server &s = srv();
    std::lock_guard l(s.mu);
    if (s.th.joinable())
        return;
    std::string path = rt_runtime_path("radio.sock");
    std::string dir = path.substr(0, path.rfind('/'));
    for (size_t i = 1; i <= dir.size(); i++)
        if (i == dir.size() || dir[i] == '/')
            mkdir(dir.substr(0, i).c_str(), 0700);
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    if (path.size() >= sizeof a.sun_path) {
        rt_log(LOG_ERR, "radio.sock: path too long: %s", path.c_str());
        return;
    }
    memcpy(a.sun_path, path.c_str(), path.size() + 1);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        rt_log(LOG_ERR, "radio.sock: socket: %s", strerror(errno));
        return;
    }
    unlink(path.c_str());
    if (bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) < 0 || chmod(path.c_str(), 0600) < 0 ||
        listen(fd, 8) < 0) {
        rt_log(LOG_ERR, "radio.sock: %s: %s", path.c_str(), strerror(errno));
        close(fd);
        return;
    }
    int wake = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (wake < 0) {
        rt_log(LOG_ERR, "radio.sock: eventfd: %s", strerror(errno));
        close(fd);
        return;
    }
    s.fd = fd;
    s.wake_fd = wake;
    s.path = path;
    s.stop = false;
    s.th = std::thread(serve, fd, wake, s.limits);
}

void rt_radio_sock_stop()
{
    sock_server &s = srv();
    std::lock_guard l(s.mu);
    if (!s.th.joinable())
        return;
    s.stop = true;
    eventfd_write(s.wake_fd, 1);
    s.th.join();
    close(s.fd);
    close(s.wake_fd);
    unlink(s.path.c_str());
    s.fd = s.wake_fd = -1;
}
