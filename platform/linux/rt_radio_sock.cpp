// radio.sock: the text control socket of the simulated radios (hear, forget, clear,
// assoc, disassoc, fail, state), one request per line, replies ending in ok or error.
#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <charconv>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>

#include "rt.h"
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
    ~sock_server()
    {
        if (th.joinable()) {
            stop = true;
            th.join();
            close(fd);
            unlink(path.c_str());
        }
    }
};

sock_server &srv()
{
    static sock_server s;
    return s;
}

void send_all(int fd, const std::string &s)
{
    size_t off = 0;
    while (off < s.size()) {
        ssize_t n = send(fd, s.data() + off, s.size() - off, MSG_NOSIGNAL);
        if (n <= 0)
            return;
        off += static_cast<size_t>(n);
    }
}

void serve(int lfd)
{
    std::map<int, std::string> clients; // fd -> partial line
    while (!srv().stop && !rt_stopping()) {
        std::vector<pollfd> p{{lfd, POLLIN, 0}};
        for (auto &[fd, _] : clients)
            p.push_back({fd, POLLIN, 0});
        if (poll(p.data(), p.size(), 200) <= 0)
            continue;
        if (p[0].revents & POLLIN) {
            int c = accept4(lfd, nullptr, nullptr, SOCK_CLOEXEC);
            if (c >= 0)
                clients[c];
        }
        for (size_t i = 1; i < p.size(); i++) {
            if (!p[i].revents)
                continue;
            int fd = p[i].fd;
            char buf[512];
            ssize_t n = recv(fd, buf, sizeof buf, 0);
            bool drop = n <= 0;
            std::string &pending = clients[fd];
            if (n > 0)
                pending.append(buf, static_cast<size_t>(n));
            size_t nl;
            while (!drop && (nl = pending.find('\n')) != std::string::npos) {
                std::string line = pending.substr(0, nl);
                pending.erase(0, nl + 1);
                send_all(fd, rt_radio_sock_command(line));
            }
            if (!drop && pending.size() > k_max_line) {
                rt_counter("radio_sock.long_line")++;
                rt_log_ratelimited("radio_sock.long_line", 10, LOG_WARNING,
                                   "radio.sock: request line over %d bytes, connection closed",
                                   static_cast<int>(k_max_line));
                send_all(fd, "error: line too long\n");
                drop = true;
            }
            if (drop) {
                close(fd);
                clients.erase(fd);
            }
        }
    }
    for (auto &[fd, _] : clients)
        close(fd);
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
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
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
    s.fd = fd;
    s.path = path;
    s.stop = false;
    s.th = std::thread(serve, fd);
}

void rt_radio_sock_stop()
{
    sock_server &s = srv();
    std::lock_guard l(s.mu);
    if (!s.th.joinable())
        return;
    s.stop = true;
    s.th.join();
    close(s.fd);
    unlink(s.path.c_str());
    s.fd = -1;
}
