// Owner resolution: associated here, else associated at a live peer (asked over
// neighbour messaging within a bound), else rendezvous hashing over the access points
// that hear the station, so that no station is owned where its relays would be dropped.
// The service runs on the runtime's service loop: queries and peers' messages wake it,
// an ask in flight and the hello period are a timer; nothing in it blocks.
#include "owner_service.h"

#include <arpa/inet.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <set>

#include "rt_counter.h"
#include "rt_log.h"
#include "rt_loop.h"

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

// One batch of stations being answered: those associated elsewhere wait for the live
// peers' answers (one ask per chunk), up to a deadline.
struct owner_batch {
    std::vector<owner_mac> macs;
    std::vector<uint32_t> owners;  // this access point where associated here, else 0
    std::vector<owner_ask> asks;
    owner_clock::time_point deadline;
    bool answered() const
    {
        return std::all_of(asks.begin(), asks.end(),
                           [](const owner_ask &a) { return a.waiting.empty(); });
    }
};

} // namespace

struct owner_service {
    owner_params p;
    nbr_endpoint *ep = nullptr;
    std::mutex mu;
    int kick = -1;                                     // eventfd: a turn is wanted
    int timer = -1;                                    // the batch's deadline or the next hello
    std::set<owner_mac> pending;                       // answered together next turn
    bool reply_due = false;                            // a query came, even an empty one
    // The hearers each station was last elected among: a peer that asks about a station
    // heard here without being one of them has just started hearing it, and the
    // station is elected again so that both sides agree.
    std::map<owner_mac, std::vector<uint32_t>> known;
    std::map<uint32_t, owner_clock::time_point> heard; // peer -> last heard
    std::set<uint32_t> targets;                        // greeted every hello period
    std::set<uint32_t> configured;                     // never forgotten
    std::unique_ptr<owner_batch> batch;                // the batch in flight
    uint32_t next_seq = 1;
    owner_clock::time_point next_hello = owner_clock::now();
    bool greet_idle = false;                           // nobody to greet at the last turn
    bool stop = false;
};

// Asks for a turn of the service on the loop (from any thread).
static void owner_kick(owner_service *s)
{
    eventfd_write(s->kick, 1);
}

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

// Runs on the service loop (neighbour receive).
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
        bool turn = false;
        if (s->targets.size() < s->configured.size() + k_max_learned &&
            s->targets.insert(src).second && s->targets.size() == 1)
            turn = true; // the hello period starts
        owner_ask *ask = nullptr;
        if (h.type == OWNER_MSG_ANSWER && s->batch)
            for (owner_ask &a : s->batch->asks)
                if (a.seq == seq)
                    ask = &a;
        if (ask && ask->waiting.erase(src)) {
            for (size_t i = 0; i < count; i++) {
                const owner_mac &m = macs[i];
                if (flags[i] & OWNER_ANS_HEARS)
                    ask->hearers[m].push_back(src);
                if (!(flags[i] & OWNER_ANS_ASSOC))
                    continue;
                auto c = ask->claims.find(m);
                if (c == ask->claims.end() || ntohl(src) < ntohl(c->second))
                    ask->claims[m] = src;
            }
            turn |= s->batch->answered();
        }
        // The asker hears these too (it asks only about its own stations): where it was
        // not among their hearers here, elect again and tell the daemon unasked.
        for (const auto &m : newly_heard) {
            auto k = s->known.find(m);
            if (k != s->known.end() && std::find(k->second.begin(), k->second.end(), src) != k->second.end())
                continue;
            if (owner_pend_locked(s, m)) {
                // Counted at once: answers that keep coming late must not make two
                // access points trigger each other for ever.
                s->known[m].push_back(src);
                rt_counter("owner.reelect")++;
                turn = true;
            }
        }
        if (turn)
            owner_kick(s);
    }
    if (greet)
        owner_send(s, src, OWNER_MSG_HELLO, 0, nullptr, 0);
    if (h.type == OWNER_MSG_ASK)
        owner_send(s, src, OWNER_MSG_ANSWER, seq, answer.data(), answer.size(), sizeof(owner_answer_rec));
}

// Sends the asks of a batch's stations not associated here to the live peers.
static void owner_ask_peers(owner_service *s, owner_batch &b, const std::vector<owner_mac> &rest,
                            const std::vector<uint32_t> &live)
{
    {
        std::lock_guard l(s->mu);
        for (size_t off = 0; off < rest.size(); off += k_ask_chunk) {
            owner_ask &ask = b.asks.emplace_back();
            ask.seq = s->next_seq++;
            ask.waiting.insert(live.begin(), live.end());
        }
    }
    for (size_t i = 0; i < b.asks.size(); i++) {
        size_t off = i * k_ask_chunk, n = std::min(k_ask_chunk, rest.size() - off);
        for (uint32_t ip : live)
            owner_send(s, ip, OWNER_MSG_ASK, b.asks[i].seq, rest.data() + off, n);
        rt_counter("owner.ask") += live.size();
    }
}

// Starts answering macs: those associated here at once; the rest after the live
// peers' answers. Null when the batch is complete without asking anyone.
static std::unique_ptr<owner_batch> owner_begin(owner_service *s, std::vector<owner_mac> macs)
{
    auto b = std::make_unique<owner_batch>();
    b->owners.assign(macs.size(), 0);
    std::vector<owner_mac> rest;
    for (size_t i = 0; i < macs.size(); i++) {
        if (owner_associated_here(s, macs[i]))
            b->owners[i] = s->p.self_ip;
        else
            rest.push_back(macs[i]);
    }
    b->macs = std::move(macs);
    std::vector<uint32_t> live;
    {
        std::lock_guard l(s->mu);
        live = owner_live_locked(s);
    }
    b->deadline = owner_clock::now() + std::chrono::milliseconds(s->p.peer_timeout_ms);
    if (!rest.empty() && !live.empty())
        owner_ask_peers(s, *b, rest, live);
    return b;
}

// Ends a batch with what the peers answered in time, and posts the reply.
static void owner_finish(owner_service *s, owner_batch &b)
{
    std::map<owner_mac, uint32_t> claims;                // associated at that peer
    std::map<owner_mac, std::vector<uint32_t>> hearers;  // peers that hear the station
    size_t rest = 0;
    for (owner_ask &ask : b.asks) {
        if (!ask.waiting.empty())
            rt_counter("owner.peer_timeout")++;
        for (const auto &[m, ip] : ask.claims)
            claims[m] = ip;
        for (auto &[m, ips] : ask.hearers)
            hearers[m] = std::move(ips);
    }
    for (uint32_t o : b.owners)
        rest += o == 0;
    {
        std::lock_guard l(s->mu);
        if (s->known.size() + rest > k_max_known)
            s->known.clear(); // only costs elections again when peers ask
    }
    const std::vector<owner_mac> &macs = b.macs;
    std::vector<uint32_t> &owners = b.owners;
    for (size_t i = 0; i < macs.size(); i++) {
        if (owners[i])
            continue;
        auto c = claims.find(macs[i]);
        if (c != claims.end()) {
            owners[i] = c->second;
            continue;
        }
        std::vector<uint32_t> heard_by = hearers[macs[i]];
        if (owner_hears_here(s, macs[i]))
            heard_by.push_back(s->p.self_ip);
        std::sort(heard_by.begin(), heard_by.end());
        owners[i] = owner_rendezvous(macs[i].data(), heard_by);
        if (!owners[i])
            rt_counter("owner.unheard")++;
        std::lock_guard l(s->mu);
        s->known[macs[i]] = std::move(heard_by);
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

// One turn on the loop: ends a batch that is answered or out of time, greets the peers
// when the hello period is over, starts the next batch, and sets the timer for the
// next of those deadlines.
static void owner_turn(owner_service *s)
{
    static std::atomic<uint64_t> &wakes = rt_counter("wake.owner"); // turns, to spot ticking
    wakes++;
    std::unique_lock l(s->mu);
    for (bool again = true; again && !s->stop;) {
        again = false;
        auto now = owner_clock::now();
        if (s->batch && (s->batch->answered() || now >= s->batch->deadline)) {
            std::unique_ptr<owner_batch> done = std::move(s->batch);
            l.unlock();
            owner_finish(s, *done);
            l.lock();
        }
        bool anyone = !s->targets.empty() || !s->heard.empty();
        if (!anyone) {
            s->greet_idle = true; // sleep until a query, a peer or the stop
        } else if (s->greet_idle) {
            s->greet_idle = false;
            s->next_hello = now + std::chrono::milliseconds(s->p.hello_ms);
        }
        if (anyone && now >= s->next_hello) {
            // Forget access points silent for long; configured peers stay greeted.
            auto stale = now - 10 * std::chrono::milliseconds(s->p.live_ms);
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
            s->next_hello = owner_clock::now() + std::chrono::milliseconds(s->p.hello_ms);
        }
        if (!s->batch && (!s->pending.empty() || s->reply_due)) {
            // One batch per turn: everything asked for since the last one.
            std::vector<owner_mac> macs(s->pending.begin(), s->pending.end());
            s->pending.clear();
            s->reply_due = false;
            l.unlock();
            std::unique_ptr<owner_batch> b = owner_begin(s, std::move(macs));
            l.lock();
            s->batch = std::move(b);
            again = s->batch->asks.empty(); // nobody to ask: answered now
        }
    }
    if (s->stop)
        return;
    auto now = owner_clock::now();
    auto next = owner_clock::time_point::max();
    if (s->batch)
        next = s->batch->deadline;
    if (!s->greet_idle && (!s->targets.empty() || !s->heard.empty()))
        next = std::min(next, s->next_hello);
    int64_t ms = -1; // rounded up: never before the deadline
    if (next != owner_clock::time_point::max())
        ms = std::max<int64_t>(
            0, std::chrono::duration_cast<std::chrono::milliseconds>(next - now).count() + 1);
    rt_loop_timer_set(s->timer, ms);
}

static void owner_on_kick(void *arg, uint32_t)
{
    auto *s = static_cast<owner_service *>(arg);
    eventfd_t v;
    eventfd_read(s->kick, &v);
    owner_turn(s);
}

static void owner_on_timer(void *arg, uint32_t) { owner_turn(static_cast<owner_service *>(arg)); }

owner_service_ptr owner_service_open(const owner_params &p, nbr_endpoint *ep)
{
    owner_service_ptr s(new owner_service);
    s->p = p;
    s->ep = ep;
    s->targets.insert(p.peers.begin(), p.peers.end());
    s->configured = s->targets;
    s->kick = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (s->kick < 0 || rt_loop_add(s->kick, EPOLLIN, owner_on_kick, s.get()) != 0) {
        rt_log(LOG_ERR, "owner service: cannot run on the service loop");
        if (s->kick >= 0)
            close(s->kick);
        s->kick = -1;
        return nullptr;
    }
    s->timer = rt_loop_timer_open(owner_on_timer, s.get());
    if (ep) {
        owner_service *raw = s.get();
        nbr_endpoint_add(ep, NBR_MODULE_OWNER, [raw](uint32_t src, uint8_t *data, int len) {
            owner_recv(raw, src, data, len);
        });
    }
    owner_kick(s.get()); // the first turn greets the configured peers
    return s;
}

void owner_service_deleter::operator()(owner_service *s) const
{
    if (s->ep)
        nbr_endpoint_remove(s->ep, NBR_MODULE_OWNER);
    {
        std::lock_guard l(s->mu);
        s->stop = true;
    }
    // Each waits out a turn in progress.
    if (s->kick >= 0) {
        rt_loop_remove(s->kick);
        close(s->kick);
    }
    rt_loop_timer_close(s->timer);
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
    owner_kick(s);
}

std::vector<uint32_t> owner_service_live(owner_service *s)
{
    std::lock_guard l(s->mu);
    return owner_live_locked(s);
}
