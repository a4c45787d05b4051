// Owner resolution: associated here, else associated at a live peer (asked over
// neighbour messaging within a bound), else rendezvous hashing over the access points
// that hear the station, so that no station is owned where its relays would be dropped.
#include "owner_service.h"

#include <arpa/inet.h>
#include <string.h>
#include <syslog.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include "rt_counter.h"
#include "rt_log.h"
#include "rt_stop.h"

using owner_clock = std::chrono::steady_clock;
using owner_mac = std::array<uint8_t, 6>;

namespace {

// Pending stations: the daemon asks for at most its table (512) at a time, peers add
// only stations heard here; past this something is wrong, and it is said so.
constexpr size_t k_max_pending = 4096;
constexpr size_t k_max_known = 4096;     // hearer sets remembered
constexpr size_t k_ask_chunk = 1000;     // MACs per ask datagram
constexpr size_t k_max_learned = OWNER_MAX_LEARNED;

struct owner_ask {
    uint32_t seq = 0;
    std::set<uint32_t> waiting;                          // peers yet to answer
    std::map<owner_mac, uint32_t> claims;                // station -> claiming peer (lowest address)
    std::map<owner_mac, std::vector<uint32_t>> hearers;  // station -> peers that hear it
};

} // namespace

struct owner_service {
    owner_params p;
    nbr_endpoint *ep = nullptr;
    std::mutex mu;
    std::condition_variable cv;
    std::set<owner_mac> pending;                       // answered together next turn
    bool reply_due = false;                            // a query came, even an empty one
    // The hearers each station was last elected among: a peer that asks about a station
    // heard here without being one of them has just started hearing it, and the
    // station is elected again so that both sides agree.
    std::map<owner_mac, std::vector<uint32_t>> known;
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

// Sends a header and count records of rec_len bytes each (6: MACs; 7: answers).
static void owner_send(owner_service *s, uint32_t dst, uint8_t type, uint32_t seq,
                       const void *recs, size_t n, size_t rec_len = 6)
{
    if (!s->ep)
        return;
    std::vector<uint8_t> b(sizeof(owner_msg_hdr) + rec_len * n);
    owner_msg_hdr h{};
    h.type = type;
    put_be16(h.count, static_cast<uint16_t>(n));
    put_be32(h.seq, seq);
    memcpy(b.data(), &h, sizeof h);
    if (n)
        memcpy(b.data() + sizeof h, recs, rec_len * n);
    nbr_endpoint_send(s->ep, dst, NBR_MODULE_OWNER, b.data(), b.size());
}

static bool owner_associated_here(owner_service *s, const owner_mac &mac)
{
    return s->p.associated && s->p.associated(mac.data());
}

static bool owner_hears_here(owner_service *s, const owner_mac &mac)
{
    return !s->p.hears || s->p.hears(mac.data());
}

// Adds stations to the next batch; s->mu held. False (counted, logged) when full.
static bool owner_pend_locked(owner_service *s, const owner_mac &m)
{
    if (s->pending.size() >= k_max_pending && !s->pending.count(m)) {
        rt_counter("owner.drop.backlog")++;
        rt_log_ratelimited("owner.drop.backlog", 10, LOG_WARNING,
                           "owner query for %m dropped: %d stations already pending", m.data(),
                           static_cast<int>(s->pending.size()));
        return false;
    }
    s->pending.insert(m);
    return true;
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

// Whether as many unconfigured access points as we keep are heard already; s->mu held.
static bool owner_learned_full_locked(owner_service *s)
{
    size_t learned = 0;
    for (const auto &h : s->heard)
        learned += !s->configured.count(h.first);
    return learned >= k_max_learned;
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
    owner_msg msg;
    if (const char *why = owner_msg_parse(data, len, msg)) {
        owner_drop(why, src, len);
        return;
    }
    const owner_msg_hdr &h = msg.h;
    const size_t count = msg.macs.size();
    const std::vector<owner_mac> &macs = msg.macs;
    const std::vector<uint8_t> &flags = msg.flags;
    uint32_t seq = get_be32(h.seq);

    {
        std::lock_guard l(s->mu);
        if (!s->heard.count(src) && !s->configured.count(src) && owner_learned_full_locked(s)) {
            rt_counter("owner.drop.unknown")++;
            rt_log_ratelimited("owner.drop.unknown", 10, LOG_WARNING,
                               "owner message from %i ignored: %d unconfigured access points "
                               "known already",
                               src, static_cast<int>(k_max_learned));
            return;
        }
    }

    // Answer an ask before taking the lock: the driver is asked per station.
    std::vector<owner_answer_rec> answer;
    std::vector<owner_mac> newly_heard;
    if (h.type == OWNER_MSG_ASK) {
        for (const auto &m : macs) {
            owner_answer_rec rec{};
            memcpy(rec.mac, m.data(), 6);
            bool assoc = owner_associated_here(s, m);
            rec.flags = (assoc ? OWNER_ANS_ASSOC : 0) | (owner_hears_here(s, m) ? OWNER_ANS_HEARS : 0);
            if (rec.flags)
                answer.push_back(rec);
            if (!assoc && (rec.flags & OWNER_ANS_HEARS))
                newly_heard.push_back(m);
        }
    }

    bool greet = false;
    {
        std::lock_guard l(s->mu);
        auto it = s->heard.find(src);
        bool was_live = it != s->heard.end() &&
                        owner_clock::now() - it->second < std::chrono::milliseconds(s->p.live_ms);
        s->heard[src] = owner_clock::now();
        // A new voice: greet back at once so that both sides count each other.
        greet = !was_live && h.type == OWNER_MSG_HELLO;
        if (s->targets.size() < s->configured.size() + k_max_learned &&
            s->targets.insert(src).second && s->targets.size() == 1)
            s->cv.notify_all(); // the worker slept with nobody to greet
        if (h.type == OWNER_MSG_ANSWER && s->ask && s->ask->seq == seq &&
            s->ask->waiting.erase(src)) {
            for (size_t i = 0; i < count; i++) {
                const owner_mac &m = macs[i];
                if (flags[i] & OWNER_ANS_HEARS)
                    s->ask->hearers[m].push_back(src);
                if (!(flags[i] & OWNER_ANS_ASSOC))
                    continue;
                auto c = s->ask->claims.find(m);
                if (c == s->ask->claims.end() || ntohl(src) < ntohl(c->second))
                    s->ask->claims[m] = src;
            }
            s->cv.notify_all();
        }
        // The asker hears these too (it asks only about its own stations): where it was
        // not among their hearers here, elect again and tell the daemon unasked.
        bool more = false;
        for (const auto &m : newly_heard) {
            auto k = s->known.find(m);
            if (k != s->known.end() && std::find(k->second.begin(), k->second.end(), src) != k->second.end())
                continue;
            if (owner_pend_locked(s, m)) {
                // Counted at once: answers that keep coming late must not make two
                // access points trigger each other for ever.
                s->known[m].push_back(src);
                rt_counter("owner.reelect")++;
                more = true;
            }
        }
        if (more)
            s->cv.notify_all();
    }
    if (greet)
        owner_send(s, src, OWNER_MSG_HELLO, 0, nullptr, 0);
    if (h.type == OWNER_MSG_ASK)
        owner_send(s, src, OWNER_MSG_ANSWER, seq, answer.data(), answer.size(), sizeof(owner_answer_rec));
}

struct owner_views {
    std::map<owner_mac, uint32_t> claims;                // associated at that peer
    std::map<owner_mac, std::vector<uint32_t>> hearers;  // peers that hear the station
};

// Asks the live peers about macs; returns what they answered within the bound.
static owner_views owner_ask_peers(owner_service *s, const std::vector<owner_mac> &macs,
                                   const std::vector<uint32_t> &live)
{
    owner_views v;
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
        rt_counter("owner.ask") += live.size();
        std::unique_lock l(s->mu);
        s->cv.wait_for(l, std::chrono::milliseconds(s->p.peer_timeout_ms),
                       [&] { return ask.waiting.empty() || s->stop; });
        s->ask = nullptr;
        if (!ask.waiting.empty())
            rt_counter("owner.peer_timeout")++;
        for (const auto &[m, ip] : ask.claims)
            v.claims[m] = ip;
        for (auto &[m, ips] : ask.hearers)
            v.hearers[m] = std::move(ips);
    }
    return v;
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
    owner_views v;
    if (!rest.empty() && !live.empty())
        v = owner_ask_peers(s, rest, live);
    {
        std::lock_guard l(s->mu);
        if (s->known.size() + rest.size() > k_max_known)
            s->known.clear(); // only costs elections again when peers ask
    }
    for (size_t i = 0; i < macs.size(); i++) {
        if (owners[i])
            continue;
        auto c = v.claims.find(macs[i]);
        if (c != v.claims.end()) {
            owners[i] = c->second;
            continue;
        }
        std::vector<uint32_t> hearers = v.hearers[macs[i]];
        if (owner_hears_here(s, macs[i]))
            hearers.push_back(s->p.self_ip);
        std::sort(hearers.begin(), hearers.end());
        owners[i] = owner_rendezvous(macs[i].data(), hearers);
        if (!owners[i])
            rt_counter("owner.unheard")++;
        std::lock_guard l(s->mu);
        s->known[macs[i]] = std::move(hearers);
    }

    constexpr size_t hdr = sizeof(qz_owner_reply_evt);
    std::vector<uint8_t> reply(hdr + sizeof(qz_owner_rec) * macs.size());
    qz_owner_reply_evt h{static_cast<uint16_t>(macs.size())};
    memcpy(reply.data(), &h, hdr);
    for (size_t i = 0; i < macs.size(); i++) {
        qz_owner_rec rec;
        memcpy(rec.mac, macs[i].data(), 6);
        rec.owner = owners[i];
        memcpy(reply.data() + hdr + sizeof rec * i, &rec, sizeof rec);
    }
    rt_counter("owner.replies")++;
    if (s->p.post)
        s->p.post(QZ_EVT_OWNER_REPLY, reply.data(), static_cast<int>(reply.size()));
}

static void owner_worker(owner_service *s)
{
    auto next_hello = owner_clock::now();
    std::unique_lock l(s->mu);
    std::atomic<uint64_t> &wakes = rt_counter("wake.owner"); // loop turns, to spot ticking
    while (!s->stop && !rt_stopping()) {
        wakes++;
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
        if (!s->pending.empty() || s->reply_due) {
            // One batch per turn: everything asked for since the last one.
            std::vector<owner_mac> macs(s->pending.begin(), s->pending.end());
            s->pending.clear();
            s->reply_due = false;
            l.unlock();
            owner_answer(s, macs);
            l.lock();
            continue;
        }
        if (s->targets.empty() && s->heard.empty()) {
            // Nobody to greet or forget: sleep until a query, a peer or the stop.
            s->cv.wait(l);
            next_hello = owner_clock::now() + std::chrono::milliseconds(s->p.hello_ms);
        } else {
            s->cv.wait_until(l, next_hello);
        }
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
    constexpr int hdr = sizeof(qz_owner_query_evt);
    qz_owner_query_evt h{};
    if (b && len >= hdr)
        memcpy(&h, b, hdr);
    uint16_t code = h.code, count = h.count;
    if (!b || len < hdr || code != QZ_OWNER_QUERY_CODE || static_cast<size_t>(len) != hdr + 6 * size_t(count)) {
        rt_counter("owner.drop.query")++;
        rt_log_ratelimited("owner.drop.query", 10, LOG_WARNING,
                           "owner query dropped: %d bytes, code %d, count %d", len, code, count);
        return;
    }
    std::lock_guard l(s->mu);
    for (size_t i = 0; i < count; i++) {
        owner_mac m;
        memcpy(m.data(), b + hdr + 6 * i, 6);
        owner_pend_locked(s, m);
    }
    s->reply_due = true;
    s->cv.notify_all();
}

std::vector<uint32_t> owner_service_live(owner_service *s)
{
    std::lock_guard l(s->mu);
    return owner_live_locked(s);
}
