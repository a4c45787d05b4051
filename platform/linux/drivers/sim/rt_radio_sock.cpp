// radio.sock: the text control socket of the simulated radios (hear, forget, clear,
// assoc, disassoc, fail, state), one request per line, replies ending in ok or error.
// Replies are written without blocking, so a client that does not read stalls only itself.
// The listener, the clients and their deadline timer are handled on the service loop.
#include <errno.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <list>
#include <atomic>
#include <charconv>
#include <map>
#include <mutex>
#include <sstream>

#include "rt_counter.h"
#include "rt_local_sock.h"
#include "rt_log.h"
#include "rt_loop.h"
#include "rt_process.h"
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
    rt_loop_remove(c.fd);
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
bool evict_idle(std::list<rclient> &clients)
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

struct sock_server {
    std::mutex mu;               // everything below; each handler holds it
    bool running = false;
    bool stopping = false;       // handlers that come late do nothing
    std::string path;
    rt_listener lst;
    int timer = -1;              // the next client deadline or the listener's rest
    std::list<rclient> clients;  // nodes stay put: the loop holds their address
    rt_sock_limits limits{16, 30000, 5000, 250};
};

sock_server &srv()
{
    static sock_server *s = new sock_server; // the exit hook stops it after statics go
    return *s;
}

void on_client(void *arg, uint32_t events);

void accept_one(sock_server &s)
{
    int fd = rt_accept(s.lst, "radio_sock", s.limits.accept_backoff_ms);
    if (fd == RT_ACCEPT_NO_FDS && evict_idle(s.clients))
        s.lst.rest_until = 0; // the freed descriptor lets the backlog move on at once
    if (fd < 0)
        return;
    if (s.clients.size() >= s.limits.max_clients && !evict_idle(s.clients)) {
        rt_counter("radio_sock.refused")++;
        rt_log_ratelimited("radio_sock.refused", 10, LOG_WARNING,
                           "radio.sock: %d clients busy, refusing one more",
                           static_cast<int>(s.clients.size()));
        close(fd);
        return;
    }
    s.clients.push_back(rclient{fd, {}, {}, rt_now_ms()});
    if (rt_loop_add(fd, EPOLLIN, on_client, &s.clients.back()) != 0) {
        close(fd);
        s.clients.pop_back();
    }
}

// After each handler: drops the clients past their deadline, waits on each for what
// it can do next, and arms the timer for the next deadline.
void settle(sock_server &s)
{
    const rt_sock_limits &lim = s.limits;
    int64_t now = rt_now_ms(), next = -1;
    for (auto &c : s.clients) {
        if (c.fd < 0)
            continue;
        int64_t due = c.last_ms + (c.busy() ? lim.stall_ms : lim.idle_ms);
        if (now >= due)
            drop(c, c.busy() ? "stalled in the middle of a line or not reading its replies"
                             : nullptr);
        else
            next = next < 0 ? due : std::min(next, due);
    }
    std::erase_if(s.clients, [](const rclient &c) { return c.fd < 0; });
    for (auto &c : s.clients)
        rt_loop_set(c.fd, (c.out.size() < k_max_out ? uint32_t(EPOLLIN) : 0) |
                              (c.out.empty() ? 0 : uint32_t(EPOLLOUT)));
    bool resting = rt_listener_poll_fd(s.lst, now) < 0;
    rt_loop_set(s.lst.fd, resting ? 0 : uint32_t(EPOLLIN));
    if (resting)
        next = next < 0 ? s.lst.rest_until : std::min(next, s.lst.rest_until);
    rt_loop_timer_set(s.timer, next < 0 ? -1 : next - now);
}

// One turn of the socket's loop: body runs under the lock, then the waits are set anew.
template <class Body> void turn(Body body)
{
    sock_server &s = srv();
    std::lock_guard l(s.mu);
    if (s.stopping)
        return;
    static std::atomic<uint64_t> &wakes = rt_counter("wake.radio_sock"); // turns
    wakes++;
    body(s);
    settle(s);
}

void on_client(void *arg, uint32_t re)
{
    turn([&](sock_server &) {
        rclient &c = *static_cast<rclient *>(arg);
        if (re & (EPOLLOUT | EPOLLERR)) {
            flush(c);
            run_lines(c); // lines held back while the replies were full
        }
        if (c.fd >= 0 && (re & (EPOLLIN | EPOLLHUP | EPOLLERR)))
            on_readable(c);
    });
}

void on_listener(void *, uint32_t) { turn(accept_one); }

void on_timer(void *, uint32_t)
{
    turn([](sock_server &) {});
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
    if (s.running)
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
    s.stopping = false;
    s.lst = {fd, 0};
    s.path = path;
    s.timer = rt_loop_timer_open(on_timer, nullptr);
    if (s.timer < 0 || rt_loop_add(fd, EPOLLIN, on_listener, nullptr) != 0) {
        rt_log(LOG_ERR, "radio.sock: cannot serve on the service loop");
        rt_loop_timer_close(s.timer);
        s.timer = -1;
        close(fd);
        unlink(path.c_str());
        return;
    }
    s.running = true;
}

void rt_radio_sock_stop()
{
    sock_server &s = srv();
    std::vector<int> fds;
    {
        std::lock_guard l(s.mu);
        if (!s.running)
            return;
        s.stopping = true;
        fds.push_back(s.lst.fd);
        for (const rclient &c : s.clients)
            fds.push_back(c.fd);
    }
    // Off the loop first (each waits out its handler), outside the lock they take.
    for (int fd : fds)
        rt_loop_remove(fd);
    rt_loop_timer_close(s.timer);
    std::lock_guard l(s.mu);
    for (const rclient &c : s.clients)
        close(c.fd);
    s.clients.clear();
    close(s.lst.fd);
    unlink(s.path.c_str());
    s.lst = {};
    s.timer = -1;
    s.running = false;
}
