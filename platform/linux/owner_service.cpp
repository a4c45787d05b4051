// Owner resolution: associated here, else associated at a live peer (asked over
// neighbour messaging within a bound), else rendezvous hashing over the live APs.
#include "owner_service.h"

#include <arpa/inet.h>
#include <string.h>
#include <syslog.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <thread>

using owner_clock = std::chrono::steady_clock;
using owner_mac = std::array<uint8_t, 6>;

namespace {

constexpr size_t k_max_backlog = 64;     // queued queries; older ones are dropped
constexpr size_t k_ask_chunk = 1000;     // MACs per ask datagram
constexpr size_t k_max_learned = 256;    // access points greeted without being configured

struct owner_ask {
    uint32_t seq = 0;
    std::set<uint32_t> waiting;              // peers yet to answer
    std::map<owner_mac, uint32_t> claims;    // station -> claiming peer (lowest address)
};

} // namespace

struct owner_service {
    owner_params p;
    nbr_endpoint *ep = nullptr;
    std::mutex mu;
    std::condition_variable cv;
    std::deque<std::vector<owner_mac>> queue;
    std::map<uint32_t, owner_clock::time_point> heard; // peer -> last heard
    std::set<uint32_t> targets;                        // greeted every hello period
    std::set<uint32_t> configured;                     // never forgotten
    owner_ask *ask = nullptr;                          // the ask in flight
    uint32_t next_seq = 1;
    bool stop = false;
    std::thread worker;
};

static uint64_t mix64(uint64_t x)
{
    x += 0x9e3779b97f4a7c15ull;
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ull;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebull;
    return x ^ (x >> 31);
}

uint32_t owner_rendezvous(const uint8_t mac[6], const std::vector<uint32_t> &candidates)
{
    uint64_t m = 0;
    for (int i = 0; i < 6; i++)
        m = m << 8 | mac[i];
    uint32_t best = 0;
    uint64_t best_score = 0;
    for (uint32_t ip : candidates) {
        if (!ip)
            continue;
        uint64_t score = mix64(m ^ mix64(ntohl(ip)));
        if (!best || score > best_score || (score == best_score && ntohl(ip) > ntohl(best))) {
            best = ip;
            best_score = score;
        }
    }
    return best;
}

static void put_be16(uint8_t *b, uint16_t v)
{
    b[0] = static_cast<uint8_t>(v >> 8);
    b[1] = static_cast<uint8_t>(v);
}
static void put_be32(uint8_t *b, uint32_t v)
{
    for (int i = 0; i < 4; i++)
        b[i] = static_cast<uint8_t>(v >> (24 - 8 * i));
}
static uint32_t get_be32(const uint8_t *b)
{
    return uint32_t(b[0]) << 24 | uint32_t(b[1]) << 16 | uint32_t(b[2]) << 8 | b[3];
}

static void owner_send(owner_service *s, uint32_t dst, uint8_t type, uint32_t seq,
                       const owner_mac *macs, size_t n)
{
    if (!s->ep)
        return;
    std::vector<uint8_t> b(sizeof(owner_msg_hdr) + 6 * n);
    owner_msg_hdr h{};
    h.type = type;
    put_be16(h.count, static_cast<uint16_t>(n));
    put_be32(h.seq, seq);
    memcpy(b.data(), &h, sizeof h);
    for (size_t i = 0; i < n; i++)
        memcpy(b.data() + sizeof h + 6 * i, macs[i].data(), 6);
    nbr_endpoint_send(s->ep, dst, NBR_MODULE_OWNER, b.data(), b.size());
}

static bool owner_associated_here(owner_service *s, const owner_mac &mac)
{
    return s->p.associated && s->p.associated(mac.data());
}

static std::vector<uint32_t> owner_live_locked(owner_service *s)
{
    std::vector<uint32_t> live;
    auto now = owner_clock::now();
    for (const auto &[ip, t] : s->heard)
        if (now - t < std::chrono::milliseconds(s->p.live_ms))
            live.push_back(ip);
    return live;
}

static void owner_drop(const char *what, uint32_t src, int len)
{
    rt_counter("owner.drop.malformed")++;
    rt_log_ratelimited("owner.drop.malformed", 10, LOG_WARNING,
                       "owner message from %i dropped: %s (%d bytes)", src, what, len);
}

// Runs on the neighbour endpoint's receive thread.
static void owner_recv(owner_service *s, uint32_t src, const uint8_t *data, int len)
{
    owner_msg_hdr h;
    if (len < static_cast<int>(sizeof h)) {
        owner_drop("too short", src, len);
        return;
    }
    memcpy(&h, data, sizeof h);
    size_t count = static_cast<size_t>(h.count[0] << 8 | h.count[1]);
    if (static_cast<size_t>(len) != sizeof h + 6 * count) {
        owner_drop("count does not match the length", src, len);
        return;
    }
    if (h.type < OWNER_MSG_HELLO || h.type > OWNER_MSG_ANSWER) {
        owner_drop("unknown type", src, len);
        return;
    }
    std::vector<owner_mac> macs(count);
    for (size_t i = 0; i < count; i++)
        memcpy(macs[i].data(), data + sizeof h + 6 * i, 6);
    uint32_t seq = get_be32(h.seq);

    bool greet = false;
    {
        std::lock_guard l(s->mu);
        auto it = s->heard.find(src);
        bool was_live = it != s->heard.end() &&
                        owner_clock::now() - it->second < std::chrono::milliseconds(s->p.live_ms);
        s->heard[src] = owner_clock::now();
        // A new voice: greet back at once so that both sides count each other.
        greet = !was_live && h.type == OWNER_MSG_HELLO;
        if (s->targets.size() < s->configured.size() + k_max_learned)
            s->targets.insert(src);
        if (h.type == OWNER_MSG_ANSWER && s->ask && s->ask->seq == seq &&
            s->ask->waiting.erase(src)) {
            for (const auto &m : macs) {
                auto c = s->ask->claims.find(m);
                if (c == s->ask->claims.end() || ntohl(src) < ntohl(c->second))
                    s->ask->claims[m] = src;
            }
            s->cv.notify_all();
        }
    }
    if (greet)
        owner_send(s, src, OWNER_MSG_HELLO, 0, nullptr, 0);
    if (h.type == OWNER_MSG_ASK) {
        std::vector<owner_mac> mine;
        for (const auto &m : macs)
            if (owner_associated_here(s, m))
                mine.push_back(m);
        owner_send(s, src, OWNER_MSG_ANSWER, seq, mine.data(), mine.size());
    }
}

// Asks the live peers about macs; returns the claims received within the bound.
static std::map<owner_mac, uint32_t> owner_ask_peers(owner_service *s, const std::vector<owner_mac> &macs,
                                                     const std::vector<uint32_t> &live)
{
    std::map<owner_mac, uint32_t> claims;
    for (size_t off = 0; off < macs.size(); off += k_ask_chunk) {
        size_t n = std::min(k_ask_chunk, macs.size() - off);
        owner_ask ask;
        {
            std::lock_guard l(s->mu);
            ask.seq = s->next_seq++;
            ask.waiting.insert(live.begin(), live.end());
            s->ask = &ask;
        }
        for (uint32_t ip : live)
            owner_send(s, ip, OWNER_MSG_ASK, ask.seq, macs.data() + off, n);
        std::unique_lock l(s->mu);
        s->cv.wait_for(l, std::chrono::milliseconds(s->p.peer_timeout_ms),
                       [&] { return ask.waiting.empty() || s->stop; });
        s->ask = nullptr;
        if (!ask.waiting.empty())
            rt_counter("owner.peer_timeout")++;
        for (const auto &[m, ip] : ask.claims)
            claims[m] = ip;
    }
    return claims;
}

static void owner_answer(owner_service *s, const std::vector<owner_mac> &macs)
{
    std::vector<uint32_t> owners(macs.size(), 0);
    std::vector<owner_mac> rest;
    for (size_t i = 0; i < macs.size(); i++) {
        if (owner_associated_here(s, macs[i]))
            owners[i] = s->p.self_ip;
        else
            rest.push_back(macs[i]);
    }
    std::vector<uint32_t> live;
    {
        std::lock_guard l(s->mu);
        live = owner_live_locked(s);
    }
    std::map<owner_mac, uint32_t> claims;
    if (!rest.empty() && !live.empty())
        claims = owner_ask_peers(s, rest, live);
    std::vector<uint32_t> candidates = live;
    candidates.push_back(s->p.self_ip);
    for (size_t i = 0; i < macs.size(); i++) {
        if (owners[i])
            continue;
        auto c = claims.find(macs[i]);
        owners[i] = c != claims.end() ? c->second : owner_rendezvous(macs[i].data(), candidates);
    }

    std::vector<uint8_t> reply(2 + sizeof(owner_reply_rec) * macs.size());
    auto count = static_cast<uint16_t>(macs.size());
    memcpy(reply.data(), &count, 2);
    for (size_t i = 0; i < macs.size(); i++) {
        owner_reply_rec rec;
        memcpy(rec.mac, macs[i].data(), 6);
        rec.owner = owners[i];
        memcpy(reply.data() + 2 + sizeof rec * i, &rec, sizeof rec);
    }
    rt_counter("owner.replies")++;
    if (s->p.post)
        s->p.post(OWNER_EVT_REPLY, reply.data(), static_cast<int>(reply.size()));
}

static void owner_worker(owner_service *s)
{
    auto next_hello = owner_clock::now();
    std::unique_lock l(s->mu);
    while (!s->stop && !rt_stopping()) {
        if (owner_clock::now() >= next_hello) {
            // Forget access points silent for long; configured peers stay greeted.
            auto stale = owner_clock::now() - 10 * std::chrono::milliseconds(s->p.live_ms);
            std::erase_if(s->heard, [&](const auto &h) {
                if (h.second >= stale)
                    return false;
                if (!s->configured.count(h.first))
                    s->targets.erase(h.first);
                return true;
            });
            std::vector<uint32_t> to(s->targets.begin(), s->targets.end());
            l.unlock();
            for (uint32_t ip : to)
                owner_send(s, ip, OWNER_MSG_HELLO, 0, nullptr, 0);
            l.lock();
            next_hello = owner_clock::now() + std::chrono::milliseconds(s->p.hello_ms);
        }
        if (!s->queue.empty()) {
            std::vector<owner_mac> macs = std::move(s->queue.front());
            s->queue.pop_front();
            l.unlock();
            owner_answer(s, macs);
            l.lock();
            continue;
        }
        auto until = std::min(next_hello, owner_clock::now() + std::chrono::milliseconds(200));
        s->cv.wait_until(l, until);
    }
}

owner_service_ptr owner_service_open(const owner_params &p, nbr_endpoint *ep)
{
    owner_service_ptr s(new owner_service);
    s->p = p;
    s->ep = ep;
    s->targets.insert(p.peers.begin(), p.peers.end());
    s->configured = s->targets;
    if (ep) {
        owner_service *raw = s.get();
        nbr_endpoint_add(ep, NBR_MODULE_OWNER, [raw](uint32_t src, uint8_t *data, int len) {
            owner_recv(raw, src, data, len);
        });
    }
    s->worker = std::thread(owner_worker, s.get());
    return s;
}

void owner_service_deleter::operator()(owner_service *s) const
{
    if (s->ep)
        nbr_endpoint_remove(s->ep, NBR_MODULE_OWNER);
    {
        std::lock_guard l(s->mu);
        s->stop = true;
        s->cv.notify_all();
    }
    if (s->worker.joinable())
        s->worker.join();
    delete s;
}

void owner_service_query(owner_service *s, const void *payload, int len)
{
    const auto *b = static_cast<const uint8_t *>(payload);
    uint16_t code = 0, count = 0;
    if (b && len >= 4) {
        memcpy(&code, b, 2);
        memcpy(&count, b + 2, 2);
    }
    if (!b || len < 4 || code != OWNER_QUERY_CODE || static_cast<size_t>(len) != 4 + 6 * size_t(count)) {
        rt_counter("owner.drop.query")++;
        rt_log_ratelimited("owner.drop.query", 10, LOG_WARNING,
                           "owner query dropped: %d bytes, code %d, count %d", len, code, count);
        return;
    }
    std::vector<owner_mac> macs(count);
    for (size_t i = 0; i < count; i++)
        memcpy(macs[i].data(), b + 4 + 6 * i, 6);
    std::lock_guard l(s->mu);
    if (s->queue.size() >= k_max_backlog) {
        s->queue.pop_front();
        rt_counter("owner.drop.backlog")++;
    }
    s->queue.push_back(std::move(macs));
    s->cv.notify_all();
}

std::vector<uint32_t> owner_service_live(owner_service *s)
{
    std::lock_guard l(s->mu);
    return owner_live_locked(s);
}
