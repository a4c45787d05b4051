// One neighbour-messaging endpoint: a bound UDP socket received on the runtime's
// service loop, the module table, drop accounting; and the process's endpoint built
// from the configuration.
#include "nbr_endpoint.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>

#include "nbr_mac.h"
#include "rt.h"
#include "rt_config.h"
#include "rt_counter.h"
#include "rt_life.h"
#include "rt_log.h"
#include "rt_loop.h"
#include "rt_notify.h"
#include "rt_process.h"

namespace {

struct unique_fd {
    int fd = -1;
    unique_fd() = default;
    explicit unique_fd(int f) : fd(f) {}
    unique_fd(const unique_fd &) = delete;
    unique_fd &operator=(const unique_fd &) = delete;
    ~unique_fd()
    {
        if (fd >= 0)
            close(fd);
    }
};

} // namespace

constexpr size_t k_max_sources = 1024; // source addresses remembered per destination

struct nbr_endpoint {
    nbr_params params;
    unique_fd sock;
    uint16_t port = 0;
    std::atomic<uint64_t> counter{0};            // the last one sent
    std::mutex src_mu;                           // guards sources
    // Bound to any address: destination -> our source address and when it was looked up.
    std::map<uint32_t, std::pair<uint32_t, std::chrono::steady_clock::time_point>> sources;
    std::map<uint32_t, nbr_window> windows;      // sender -> window; receive thread only
    std::chrono::steady_clock::time_point saved; // windows last written to windows_file
    bool unsaved = false;
    std::mutex mu;                 // guards modules
    std::map<uint16_t, nbr_recv_fn> modules;
    std::mutex deliver_mu;         // held while a callback runs
    std::atomic<bool> receiving{false}; // the socket is on the service loop
    // One datagram at a time. Not zeroed: an idle daemon's receive buffer stays
    // untouched memory, and only what datagrams fill becomes resident.
    static constexpr size_t buf_size = 65536;
    std::unique_ptr<uint8_t[]> buf{new uint8_t[buf_size]};
    uint32_t overflow_seen = 0;    // the socket's drop count last seen
};

// Takes the socket off the service loop; once this returns nothing more is delivered
// (unless called from a delivery).
static void nbr_stop_rx(nbr_endpoint *ep)
{
    if (ep->receiving.exchange(false)) {
        rt_loop_remove(ep->sock.fd);
        // No handler runs any more (unless we are one): the windows are ours to write.
        if (ep->unsaved && !ep->params.windows_file.empty())
            nbr_windows_save(ep->params.windows_file, ep->windows);
        ep->unsaved = false;
    }
}

static void nbr_drop(const char *reason, uint32_t src, size_t len, const char *hint = "")
{
    std::string name = std::string("nbr.drop.") + reason;
    rt_counter(name.c_str())++;
    rt_log_ratelimited(name.c_str(), 10, LOG_WARNING,
                       "neighbour datagram from %i dropped: %s (%d bytes)%s", src, reason,
                       static_cast<int>(len), hint);
}

// With a key: the tagged sender must be where the datagram came from, and its
// (epoch, counter) new. False when dropped (counted and logged).
static bool nbr_fresh(nbr_endpoint *ep, const nbr_opened &o, uint32_t src, size_t len)
{
    if (o.from.sender != src) {
        nbr_drop("spoofed", src, len, ": sealed by another address");
        return false;
    }
    auto it = ep->windows.find(src);
    if (it == ep->windows.end()) {
        // A sender needs the key to get here, and configured peers bound them anyway.
        if (ep->windows.size() >= NBR_MAX_SENDERS) {
            nbr_drop("senders", src, len);
            return false;
        }
        it = ep->windows.emplace(src, nbr_window{}).first;
    }
    nbr_freshness f = nbr_window_check(it->second, o.from.epoch, o.from.counter);
    if (f == NBR_FRESH || f == NBR_RESTARTED) {
        ep->unsaved = true;
        // Written now and then: a crash forgets at most the last seconds' counters.
        auto now = std::chrono::steady_clock::now();
        if (!ep->params.windows_file.empty() && now - ep->saved >= std::chrono::seconds(2)) {
            nbr_windows_save(ep->params.windows_file, ep->windows);
            ep->saved = now;
            ep->unsaved = false;
        }
    }
    switch (f) {
    case NBR_FRESH:
        return true;
    case NBR_RESTARTED:
        rt_counter("nbr.restart")++;
        rt_log_ratelimited("nbr.restart", 10, LOG_INFO, "neighbour %i started again (epoch %llu)",
                           src, static_cast<unsigned long long>(o.from.epoch));
        return true;
    case NBR_REPLAYED:
        nbr_drop("replay", src, len);
        return false;
    case NBR_STALE_EPOCH:
        nbr_drop("stale_epoch", src, len,
                 ": sent before that access point's last start (a recording, or its clock "
                 "went back)");
        return false;
    }
    return false;
}

static void nbr_handle(nbr_endpoint *ep, const uint8_t *buf, size_t len, uint32_t src)
{
    rt_log_about about("PEER", src);
    const auto &peers = ep->params.peers;
    if (!peers.empty() && std::find(peers.begin(), peers.end(), src) == peers.end()) {
        nbr_drop("foreign", src, len);
        return;
    }
    nbr_opened o;
    nbr_verdict v = nbr_unseal(buf, len, ep->params.key, &o);
    if (v != NBR_OK) {
        nbr_drop(nbr_verdict_name(v), src, len);
        return;
    }
    // Without a key nothing is authenticated: sender, epoch and counter are advisory.
    if (o.tagged && !nbr_fresh(ep, o, src, len))
        return;
    uint16_t module = o.module;
    size_t off = o.off, plen = o.plen;
    std::lock_guard deliver(ep->deliver_mu);
    nbr_recv_fn fn;
    {
        std::lock_guard g(ep->mu);
        auto it = ep->modules.find(module);
        if (it != ep->modules.end())
            fn = it->second;
    }
    if (!fn) {
        nbr_drop("module", src, len);
        return;
    }
    static std::atomic<uint64_t> &rx = rt_counter("nbr.rx"); // looked up once: per datagram
    rx++;
    // A copy of exactly the payload: the receiver may write it and cannot read past it.
    // An empty payload still comes as a real pointer: receivers check it is not null.
    std::vector<uint8_t> payload(buf + off, buf + off + plen);
    payload.reserve(1);
    rt_watched_call watched("neighbour receive");
    fn(src, payload.data(), static_cast<int>(plen));
}

// Datagrams the kernel dropped because the socket buffer was full: the socket's
// running count arrives with each datagram (SO_RXQ_OVFL); the growth is counted.
static void nbr_note_overflow(const msghdr &mh, uint32_t &seen)
{
    for (cmsghdr *c = CMSG_FIRSTHDR(&mh); c; c = CMSG_NXTHDR(const_cast<msghdr *>(&mh), c)) {
        if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SO_RXQ_OVFL ||
            c->cmsg_len < CMSG_LEN(sizeof(uint32_t)))
            continue;
        uint32_t total;
        memcpy(&total, CMSG_DATA(c), sizeof total);
        if (total != seen) {
            rt_counter("nbr.drop.overflow") += total - seen;
            rt_log_ratelimited("nbr.drop.overflow", 10, LOG_WARNING,
                               "neighbour socket overflowed: %u datagrams lost so far", total);
            seen = total;
        }
    }
}

// Datagrams taken per turn of the loop before the other services get theirs.
constexpr int k_rx_batch = 64;

// The socket is readable: takes what is queued, up to a batch.
static void nbr_on_readable(void *arg, uint32_t)
{
    nbr_endpoint *ep = static_cast<nbr_endpoint *>(arg);
    static std::atomic<uint64_t> &wakes = rt_counter("wake.nbr_rx"); // turns, to spot ticking
    wakes++;
    alignas(cmsghdr) char ctrl[CMSG_SPACE(sizeof(uint32_t))];
    for (int i = 0; i < k_rx_batch && ep->receiving; i++) {
        sockaddr_in from{};
        iovec iov{ep->buf.get(), nbr_endpoint::buf_size};
        msghdr mh{};
        mh.msg_name = &from;
        mh.msg_namelen = sizeof from;
        mh.msg_iov = &iov;
        mh.msg_iovlen = 1;
        mh.msg_control = ctrl;
        mh.msg_controllen = sizeof ctrl;
        ssize_t n = recvmsg(ep->sock.fd, &mh, MSG_TRUNC | MSG_DONTWAIT);
        if (n < 0) {
            if (errno != EINTR && errno != EAGAIN)
                rt_log_ratelimited("nbr.recv", 10, LOG_ERR, "neighbour receive failed: %s",
                                   strerror(errno));
            return;
        }
        nbr_note_overflow(mh, ep->overflow_seen);
        if (static_cast<size_t>(n) > nbr_endpoint::buf_size) {
            nbr_drop("oversize", from.sin_addr.s_addr, static_cast<size_t>(n));
            continue;
        }
        nbr_handle(ep, ep->buf.get(), static_cast<size_t>(n), from.sin_addr.s_addr);
    }
}

void nbr_endpoint_deleter::operator()(nbr_endpoint *ep) const
{
    nbr_stop_rx(ep);
    delete ep;
}

nbr_endpoint_ptr nbr_endpoint_open(const nbr_params &p, std::string &err)
{
    nbr_endpoint_ptr ep(new nbr_endpoint);
    ep->params = p;
    if (!ep->params.epoch) {
        // Later on every start, as long as the clock does not go back across a restart.
        timespec ts{};
        clock_gettime(CLOCK_REALTIME, &ts);
        ep->params.epoch = static_cast<uint64_t>(ts.tv_sec) * 1000000 +
                           static_cast<uint64_t>(ts.tv_nsec) / 1000;
        if (!p.epoch_file.empty())
            ep->params.epoch = nbr_next_epoch(p.epoch_file, ep->params.epoch);
    }
    ep->sock.fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (ep->sock.fd < 0) {
        err = std::string("socket: ") + strerror(errno);
        return nullptr;
    }
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(p.port);
    a.sin_addr.s_addr = p.bind_ip;
    if (bind(ep->sock.fd, reinterpret_cast<sockaddr *>(&a), sizeof a) < 0) {
        char ip[INET_ADDRSTRLEN];
        inet_ntop(AF_INET, &p.bind_ip, ip, sizeof ip);
        err = std::string("bind ") + ip + ":" + std::to_string(p.port) + ": " + strerror(errno);
        return nullptr;
    }
    socklen_t al = sizeof a;
    getsockname(ep->sock.fd, reinterpret_cast<sockaddr *>(&a), &al);
    // Room for bursts of relays while the daemon's cycle holds its lock; beyond the
    // system's limit only with the privilege to force it. Losses are counted.
    int want = 4 << 20, on = 1;
    if (setsockopt(ep->sock.fd, SOL_SOCKET, SO_RCVBUFFORCE, &want, sizeof want) != 0)
        setsockopt(ep->sock.fd, SOL_SOCKET, SO_RCVBUF, &want, sizeof want);
    setsockopt(ep->sock.fd, SOL_SOCKET, SO_RXQ_OVFL, &on, sizeof on);
    ep->port = ntohs(a.sin_port);
    if (!p.key.empty())
        nbr_mac_init(p.key); // the receive loop copies it
    if (!p.windows_file.empty())
        nbr_windows_load(p.windows_file, ep->windows);
    if (rt_loop_add(ep->sock.fd, EPOLLIN, nbr_on_readable, ep.get()) != 0) {
        err = "cannot receive on the service loop";
        return nullptr;
    }
    ep->receiving = true;
    return ep;
}

uint16_t nbr_endpoint_port(const nbr_endpoint *ep) { return ep->port; }
uint32_t nbr_endpoint_addr(const nbr_endpoint *ep) { return ep->params.bind_ip; }

int nbr_endpoint_add(nbr_endpoint *ep, uint16_t module, nbr_recv_fn fn)
{
    std::lock_guard g(ep->mu);
    ep->modules[module] = std::move(fn);
    return 0;
}

int nbr_endpoint_remove(nbr_endpoint *ep, uint16_t module)
{
    {
        std::lock_guard g(ep->mu);
        if (ep->modules.erase(module) == 0)
            return -1;
    }
    // Wait out a delivery in flight, unless we are that delivery (or another handler
    // on the same loop, which cannot run beside it).
    if (!rt_loop_on_thread()) {
        std::lock_guard deliver(ep->deliver_mu);
    }
    return 0;
}

// The address our datagrams to dst leave from: the bound one, else the one the
// kernel's route picks (the receiver checks it against the source).
static uint32_t nbr_source_for(nbr_endpoint *ep, uint32_t dst_ip, uint16_t port)
{
    if (ep->params.bind_ip)
        return ep->params.bind_ip;
    auto now = std::chrono::steady_clock::now();
    std::lock_guard g(ep->src_mu);
    auto it = ep->sources.find(dst_ip);
    if (it != ep->sources.end() && now - it->second.second < std::chrono::seconds(10))
        return it->second.first; // looked up again now and then: addresses and routes change
    uint32_t src = 0;
    unique_fd probe(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port ? port : 7421);
    a.sin_addr.s_addr = dst_ip;
    socklen_t al = sizeof a;
    if (probe.fd >= 0 && connect(probe.fd, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0 &&
        getsockname(probe.fd, reinterpret_cast<sockaddr *>(&a), &al) == 0)
        src = a.sin_addr.s_addr;
    if (ep->sources.size() >= k_max_sources)
        ep->sources.clear();
    if (src)
        ep->sources[dst_ip] = {src, now};
    else
        rt_log_ratelimited("nbr.send.source", 60, LOG_WARNING,
                           "no source address towards %i: keyed peers will drop our datagrams "
                           "as spoofed (set neighbours.bind)",
                           dst_ip);
    return src;
}

int nbr_endpoint_send_to(nbr_endpoint *ep, uint32_t dst_ip, uint16_t port, uint16_t module,
                         const void *payload, size_t len)
{
    std::vector<uint8_t> dgram;
    nbr_origin from{nbr_source_for(ep, dst_ip, port), ep->params.epoch, ++ep->counter};
    if (!nbr_seal(module, payload, len, ep->params.key, from, dgram)) {
        rt_counter("nbr.tx_error")++;
        rt_log_ratelimited("nbr.send.size", 10, LOG_ERR,
                           "neighbour message to %i too large: %d bytes", dst_ip,
                           static_cast<int>(len));
        return -1;
    }
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = dst_ip;
    ssize_t n = sendto(ep->sock.fd, dgram.data(), dgram.size(), 0,
                       reinterpret_cast<sockaddr *>(&a), sizeof a);
    if (n != static_cast<ssize_t>(dgram.size())) {
        rt_counter("nbr.tx_error")++;
        rt_log_ratelimited("nbr.send", 10, LOG_ERR, "neighbour send to %i failed: %s", dst_ip,
                           strerror(errno));
        return -1;
    }
    rt_counter("nbr.tx")++;
    return 0;
}

int nbr_endpoint_send(nbr_endpoint *ep, uint32_t dst_ip, uint16_t module, const void *payload,
                      size_t len)
{
    return nbr_endpoint_send_to(ep, dst_ip, ep->port, module, payload, len);
}

bool nbr_parse_ipv4(const std::string &text, uint32_t *ip)
{
    in_addr a{};
    if (inet_pton(AF_INET, text.c_str(), &a) != 1)
        return false;
    *ip = a.s_addr;
    return true;
}

// The site key: the file's bytes, without a trailing line end.
static bool nbr_read_key(const std::string &path, std::string &key, std::string &err)
{
    std::string why;
    if (!rt_read_key(path, key, why)) {
        err = "neighbours.key_file " + path + ": " + why;
        return false;
    }
    return true;
}

static bool nbr_params_from_cfg(nbr_params &p, std::string &err)
{
    const rt_config &c = rt_cfg();
    p.port = c.nb_port;
    if (!c.nb_bind.empty()) {
        if (!nbr_parse_ipv4(c.nb_bind, &p.bind_ip)) {
            err = "neighbours.bind: not an IPv4 address: " + c.nb_bind;
            return false;
        }
    } else if (rt_mgt_ip(&p.bind_ip) < 0 || p.bind_ip == 0) {
        // A lone access point still works; instances sharing a host must set an address.
        p.bind_ip = 0;
        rt_log(LOG_WARNING, "neighbours.bind unset and the management IPv4 unknown: "
                            "listening on every address");
    }
    for (const auto &s : c.nb_peers) {
        uint32_t ip;
        if (!nbr_parse_ipv4(s, &ip)) {
            err = "neighbours.peers: not an IPv4 address: " + s;
            return false;
        }
        p.peers.push_back(ip);
    }
    if (!c.nb_key_file.empty() && !nbr_read_key(c.nb_key_file, p.key, err))
        return false;
    if (!p.key.empty()) { // without a key nobody checks
        p.windows_file = rt_runtime_path("nbr_windows");
        p.epoch_file = rt_runtime_path("nbr_epoch");
    }
    return true;
}

static nbr_endpoint *g_global_ep;

// Ends receiving only: the endpoint stays for senders until process exit.
static void nbr_global_stop_rx()
{
    nbr_endpoint *ep = g_global_ep;
    if (!ep)
        return;
    nbr_stop_rx(ep);
}

nbr_endpoint *nbr_global()
{
    static std::mutex mu;
    static nbr_endpoint_ptr ep;
    std::lock_guard g(mu);
    if (ep)
        return ep.get();
    nbr_params p;
    std::string err;
    if (nbr_params_from_cfg(p, err))
        ep = nbr_endpoint_open(p, err);
    if (!ep) {
        rt_counter("nbr.open_error")++;
        rt_log_ratelimited("nbr.open", 10, LOG_ERR, "neighbour messaging unavailable: %s",
                           err.c_str());
        return nullptr;
    }
    rt_log(LOG_INFO, "neighbour messaging on %i:%d%s", p.bind_ip, static_cast<int>(ep->port),
           p.key.empty() ? "" : " (authenticated)");
    if (p.key.empty() && p.peers.empty())
        rt_log(LOG_WARNING, "NEIGHBOUR MESSAGING IS OPEN: no neighbours.key_file and no "
                            "neighbours.peers, so any host that reaches port %d can inject "
                            "readings and owner messages; set both",
               static_cast<int>(ep->port));
    else if (p.key.empty())
        rt_log(LOG_WARNING, "neighbour messaging is not authenticated (no neighbours.key_file): "
                            "datagrams are trusted by their source address alone");
    else if (p.peers.empty())
        rt_log(LOG_NOTICE, "neighbours.peers is empty: a holder of the site key is heard "
                           "from any address");
    g_global_ep = ep.get();
    rt_life_started("neighbour receive", nbr_global_stop_rx);
    return ep.get();
}
