// The owner service: local association, live peers, rendezvous, batching.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <string.h>

#include <map>
#include <mutex>
#include <set>
#include <thread>

#include "nbr_test_util.h"
#include "owner_service.h"
#include "rt_counter.h"
#include "rt_test_util.h"

namespace {

using mac_t = std::array<uint8_t, 6>;
using reply = std::map<mac_t, uint32_t>;
mac_t mac(int last, int mid = 0) { return {0x02, 0, 0, 0, (uint8_t)mid, (uint8_t)last}; }
mac_t to_mac(const uint8_t *m) { return {m[0], m[1], m[2], m[3], m[4], m[5]}; }

std::vector<uint8_t> query(const std::vector<mac_t> &macs, uint16_t code = QZ_OWNER_QUERY_CODE)
{
    auto n = (uint16_t)macs.size();
    std::vector<uint8_t> q(4 + 6 * n);
    memcpy(q.data(), &code, 2);
    memcpy(q.data() + 2, &n, 2);
    for (size_t i = 0; i < n; i++)
        memcpy(q.data() + 4 + 6 * i, macs[i].data(), 6);
    return q;
}

// One access point: its associated and heard stations (none listed: hears all),
// endpoint (port -1: none), service, replies.
struct ap {
    std::set<mac_t> assoc, heard;
    std::mutex mu;
    std::vector<reply> got;
    bool on_caller = false;
    nbr_endpoint_ptr ep;
    owner_service_ptr svc;
    uint32_t ip;
    const char *key = "site";

    uint16_t start(const char *addr, int port, std::vector<uint32_t> peers, int timeout_ms = 300)
    {
        ip = ip4(addr);
        if (port >= 0)
            ep = nbr_open_at(ip, (uint16_t)port, key, peers);
        auto caller = std::this_thread::get_id();
        owner_params p{ip, timeout_ms, 50, 1000, peers,
                       [this](const uint8_t *m) { return assoc.count(to_mac(m)) > 0; },
                       [this, caller](uint32_t id, const void *payload, int len) {
                           auto b = (const uint8_t *)payload;
                           uint16_t n;
                           ASSERT_EQ(id, QZ_EVT_OWNER_REPLY);
                           ASSERT_TRUE(len >= 2 && (memcpy(&n, b, 2), len == 2 + 10 * n)) << len;
                           std::lock_guard g(mu);
                           reply &r = got.emplace_back();
                           for (int i = 0; i < n; i++) {
                               qz_owner_rec rec;
                               memcpy(&rec, b + 2 + 10 * i, 10);
                               r[to_mac(rec.mac)] = rec.owner;
                           }
                           on_caller |= std::this_thread::get_id() == caller;
                       },
                       [this](const uint8_t *m) {
                           std::lock_guard g(mu);
                           return heard.empty() || heard.count(to_mac(m)) > 0;
                       }};
        svc = owner_service_open(p, ep.get());
        return ep ? nbr_endpoint_port(ep.get()) : 0;
    }
    // The first reply after the query that names all of macs (peers asking about the
    // same stations may bring unasked replies in between).
    reply ask(const std::vector<mac_t> &macs)
    {
        size_t base = (std::lock_guard(mu), got.size());
        auto q = query(macs);
        owner_service_query(svc.get(), q.data(), (int)q.size());
        reply out;
        auto names_all = [&] {
            std::lock_guard g(mu);
            for (size_t i = base; i < got.size(); i++)
                if (std::all_of(macs.begin(), macs.end(), [&](const mac_t &m) { return got[i].count(m); }))
                    return out = got[i], true;
            return false;
        };
        EXPECT_TRUE(rt_poll_until(names_all));
        return out;
    }
    // The owner of m in the newest reply that names it, 0 when none does.
    uint32_t latest(const mac_t &m)
    {
        std::lock_guard g(mu);
        for (auto it = got.rbegin(); it != got.rend(); ++it)
            if (auto f = it->find(m); f != it->end())
                return f->second;
        return 0;
    }
    void hear(std::set<mac_t> macs)
    {
        std::lock_guard g(mu);
        heard = std::move(macs);
    }
};

} // namespace

TEST(OwnerRendezvous, AgreesWhateverTheOrderAndSpreadsStations)
{
    std::vector<uint32_t> aps = {ip4("10.0.0.1"), ip4("10.0.0.2"), ip4("10.0.0.3")};
    std::vector<uint32_t> rev(aps.rbegin(), aps.rend()), less(aps.begin(), aps.end() - 1);
    std::map<uint32_t, int> share;
    for (int i = 0; i < 900; i++) {
        mac_t m = mac(i, i >> 8);
        uint32_t o = owner_rendezvous(m.data(), aps);
        EXPECT_EQ(o, owner_rendezvous(m.data(), rev));
        share[o]++;
        // Losing an access point moves only its own stations.
        EXPECT_TRUE(o == aps[2] || owner_rendezvous(m.data(), less) == o);
    }
    ASSERT_EQ(share.size(), 3u);
    for (auto &[ip, n] : share)
        EXPECT_GT(n, 200) << ip;
    EXPECT_EQ(owner_rendezvous(mac(1).data(), {aps[1]}), aps[1]);
    EXPECT_EQ(owner_rendezvous(mac(1).data(), {}), 0u);
}

TEST(OwnerService, LoneApOwnsEverythingOffTheCallersThreadAndDropsBadQueries)
{
    ap a;
    a.start("10.0.0.1", -1, {});
    reply r = a.ask({mac(1), mac(2), mac(3)});
    EXPECT_EQ(r, (reply{{mac(1), a.ip}, {mac(2), a.ip}, {mac(3), a.ip}}));
    EXPECT_FALSE(a.on_caller);

    uint64_t dropped = rt_counter("owner.drop.query");
    auto bad_code = query({mac(1)}, 301), q2 = query({mac(1), mac(2)});
    owner_service_query(a.svc.get(), bad_code.data(), (int)bad_code.size());
    owner_service_query(a.svc.get(), q2.data(), (int)q2.size() - 1); // short of a MAC
    owner_service_query(a.svc.get(), q2.data(), 3);
    EXPECT_EQ(rt_counter("owner.drop.query"), dropped + 3);
    EXPECT_TRUE(a.ask({}).empty()) << "an empty query still gets its (empty) reply";
}

// Idle, the receive thread and a lone service wait for work instead of ticking; a
// peer learned later is still greeted every hello period.
TEST(OwnerService, IdleThreadsSleepUntilThereIsWork)
{
    ap a, b;
    uint16_t port = a.start("127.0.0.2", 0, {});
    uint64_t rx = rt_counter("wake.nbr_rx"), worker = rt_counter("wake.owner");
    std::this_thread::sleep_for(std::chrono::milliseconds(1000));
    EXPECT_LE(rt_counter("wake.nbr_rx") - rx, 1u);
    EXPECT_LE(rt_counter("wake.owner") - worker, 1u);
    b.start("127.0.0.3", port, {a.ip});
    EXPECT_TRUE(rt_poll_until([&] { return owner_service_live(a.svc.get()).size() == 1; }));
    // a stays live for b past b's live time only through a's periodic hellos.
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    EXPECT_EQ(owner_service_live(b.svc.get()), std::vector<uint32_t>{a.ip});
}

// b knows a, a knows nobody and learns b from its hello; both must then agree.
TEST(OwnerService, AssociatedHereThenAtAPeerThenRendezvous)
{
    ap a, b;
    a.assoc = {mac(1)};
    b.assoc = {mac(2), mac(1)}; // both claim 1: the local association wins at a
    uint16_t port = a.start("127.0.0.2", 0, {}, 3000); // the wait ends when the peer answers
    b.start("127.0.0.3", port, {a.ip}, 3000);
    ASSERT_TRUE(rt_poll_until([&] {
        return owner_service_live(a.svc.get()) == std::vector{b.ip} &&
               owner_service_live(b.svc.get()) == std::vector{a.ip};
    }));
    std::vector<mac_t> all;
    for (int i = 1; i < 60; i++)
        all.push_back(mac(i));
    auto ra = a.ask(all), rb = b.ask(all);
    EXPECT_EQ(ra[mac(1)], a.ip);
    EXPECT_EQ(ra[mac(2)], b.ip);
    EXPECT_EQ(rb[mac(2)], b.ip);
    std::set<uint32_t> owners; // associated nowhere: the same owner, both APs get some
    for (size_t i = 2; i < all.size(); i++) {
        EXPECT_EQ(ra[all[i]], rb[all[i]]);
        EXPECT_EQ(ra[all[i]], owner_rendezvous(all[i].data(), {a.ip, b.ip}));
        owners.insert(ra[all[i]]);
    }
    EXPECT_EQ(owners, (std::set<uint32_t>{a.ip, b.ip}));
}

TEST(OwnerService, SilentPeerCostsOnlyTheBoundAndBadMessagesAreDropped)
{
    uint32_t ic = ip4("127.0.0.4");
    ap a;
    auto c = nbr_open_at(ic, a.start("127.0.0.2", 0, {ic}, 100), "site"); // says hello, never answers
    ASSERT_TRUE(c);
    owner_msg_hdr hello{OWNER_MSG_HELLO, 0, {0, 0}, {0, 0, 0, 0}};
    ASSERT_EQ(nbr_endpoint_send(c.get(), a.ip, NBR_MODULE_OWNER, &hello, sizeof hello), 0);
    ASSERT_TRUE(rt_poll_until([&] { return owner_service_live(a.svc.get()).size() == 1; }));

    uint64_t timeouts = rt_counter("owner.peer_timeout");
    auto r = a.ask({mac(7), mac(8)});
    ASSERT_EQ(r.size(), 2u);
    EXPECT_EQ(r, (reply{{mac(7), a.ip}, {mac(8), a.ip}})) << "a silent peer hears nothing";
    EXPECT_EQ(rt_counter("owner.peer_timeout"), timeouts + 1);

    // A cycle's worth of new stations, one query each, while every turn waits for the
    // silent peer: none is dropped, they are answered in a few batches.
    uint64_t backlog = rt_counter("owner.drop.backlog");
    size_t before = (std::lock_guard(a.mu), a.got.size());
    for (int i = 0; i < 512; i++) {
        auto q = query({mac(i, 1)});
        owner_service_query(a.svc.get(), q.data(), (int)q.size());
    }
    EXPECT_TRUE(rt_poll_until([&] {
        for (int i = 0; i < 512; i++)
            if (a.latest(mac(i, 1)) != a.ip)
                return false;
        return true;
    }));
    EXPECT_EQ(rt_counter("owner.drop.backlog"), backlog);
    EXPECT_LE((std::lock_guard(a.mu), a.got.size()) - before, 4u);

    uint64_t bad = rt_counter("owner.drop.malformed");
    owner_msg_hdr lying{OWNER_MSG_ANSWER, 0, {0, 5}, {0, 0, 0, 1}}; // 5 MACs announced, none sent
    ASSERT_EQ(nbr_endpoint_send(c.get(), a.ip, NBR_MODULE_OWNER, &lying, sizeof lying), 0);
    EXPECT_TRUE(rt_poll_until([&] { return rt_counter("owner.drop.malformed") == bad + 1; }));
}

// Stations heard by a and b only: c, though live, never owns them (its relays would be
// dropped); a station heard by a alone is a's, and moves when b starts hearing it.
TEST(OwnerService, OwnerIsElectedAmongTheApsThatHearTheStation)
{
    ap a, b, c;
    uint32_t ia = ip4("127.0.0.2"), ib = ip4("127.0.0.3"), ic = ip4("127.0.0.4");
    uint16_t port = a.start("127.0.0.2", 0, {ib, ic}, 3000);
    b.start("127.0.0.3", port, {ia, ic}, 3000);
    c.start("127.0.0.4", port, {ia, ib}, 3000);
    ASSERT_TRUE(rt_poll_until([&] {
        return owner_service_live(a.svc.get()).size() == 2 && owner_service_live(b.svc.get()).size() == 2 &&
               owner_service_live(c.svc.get()).size() == 2;
    }));
    // Stations that hashing over all three would give to c; and one that a and b
    // would give to b.
    std::vector<mac_t> both;
    mac_t moving{};
    for (int i = 0; both.size() < 8 || moving == mac_t{}; i++) {
        mac_t m = mac(i, 2);
        if (owner_rendezvous(m.data(), {ia, ib, ic}) == ic && both.size() < 8)
            both.push_back(m);
        else if (owner_rendezvous(m.data(), {ia, ib}) == ib && moving == mac_t{})
            moving = m;
    }
    std::set<mac_t> heard(both.begin(), both.end());
    c.hear({mac(0, 9)});
    b.hear(heard);
    heard.insert(moving);
    a.hear(heard);

    auto ra = a.ask(both), rb = b.ask(both);
    for (const mac_t &m : both) {
        EXPECT_EQ(ra[m], owner_rendezvous(m.data(), {ia, ib}));
        EXPECT_EQ(rb[m], ra[m]);
    }
    EXPECT_EQ(a.ask({moving})[moving], ia);

    b.hear({moving});
    EXPECT_EQ(b.ask({moving})[moving], ib);
    EXPECT_TRUE(rt_poll_until([&] { return a.latest(moving) == ib; })) << "a learns b hears it too";
    EXPECT_EQ(c.ask({mac(1, 9)})[mac(1, 9)], 0u) << "heard by nobody: no owner";
    EXPECT_FALSE(a.on_caller || b.on_caller || c.on_caller);
}

// An open site (no key, no peers): any host can claim to be an access point, and each
// one heard costs an ask per station every turn. Hellos from 100 addresses must not
// turn the service into a reflector.
TEST(OwnerService, FloodOfHellosFromNewAddressesIsHeardOnlyUpToTheBound)
{
    ap a;
    a.key = "";
    uint16_t port = a.start("127.0.0.2", 0, {}, 50);
    uint64_t ignored = rt_counter("owner.drop.unknown"), asks = rt_counter("owner.ask");
    owner_msg_hdr hello{OWNER_MSG_HELLO, 0, {0, 0}, {0, 0, 0, 0}};
    std::vector<uint8_t> hb((uint8_t *)&hello, (uint8_t *)&hello + sizeof hello);
    for (int i = 1; i <= 100; i++) {
        uint32_t src = htonl(ntohl(ip4("127.0.1.0")) + (uint32_t)i);
        nbr_send_raw(src, a.ip, port, nbr_sealed(NBR_MODULE_OWNER, hb, "", src));
    }
    EXPECT_TRUE(rt_poll_until([&] { return rt_counter("owner.drop.unknown") == ignored + 100 - OWNER_MAX_LEARNED; }));
    EXPECT_EQ(owner_service_live(a.svc.get()).size(), OWNER_MAX_LEARNED);
    std::vector<mac_t> stations;
    for (int i = 0; i < 20; i++)
        stations.push_back(mac(i, 3));
    EXPECT_EQ(a.ask(stations).size(), 20u);
    EXPECT_EQ(rt_counter("owner.ask") - asks, OWNER_MAX_LEARNED) << "one ask per heard address";
}
