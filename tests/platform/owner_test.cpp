// The owner service: associated here, associated at a live peer, rendezvous agreement.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <string.h>

#include <chrono>
#include <mutex>
#include <set>
#include <thread>

#include "owner_service.h"
#include "qz_event.h"
#include "rt_test_util.h"

namespace {

uint32_t ip4(const char *s)
{
    uint32_t ip = 0;
    EXPECT_TRUE(nbr_parse_ipv4(s, &ip));
    return ip;
}

template <class F> bool wait_for(F pred, int ms = 3000)
{
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (std::chrono::steady_clock::now() < end) {
        if (pred())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return pred();
}

using mac_t = std::array<uint8_t, 6>;
mac_t mac(uint8_t last, uint8_t mid = 0) { return {0x02, 0, 0, 0, mid, last}; }

// The stations this access point's radios have associated (set before the service runs).
struct assoc_radio {
    std::set<mac_t> macs;
    std::function<bool(const uint8_t *)> fn()
    {
        return [this](const uint8_t *m) {
            mac_t k;
            memcpy(k.data(), m, 6);
            return macs.count(k) > 0;
        };
    }
};

// Collects the owner replies a service posts.
struct replies {
    std::mutex mu;
    std::vector<std::map<mac_t, uint32_t>> got;
    std::vector<std::thread::id> threads;
    std::function<void(uint32_t, const void *, int)> post()
    {
        return [this](uint32_t id, const void *p, int len) {
            EXPECT_EQ(id, OWNER_EVT_REPLY);
            uint16_t n;
            ASSERT_GE(len, 2);
            memcpy(&n, p, 2);
            ASSERT_EQ(len, 2 + 10 * n);
            std::map<mac_t, uint32_t> m;
            for (int i = 0; i < n; i++) {
                owner_reply_rec rec;
                memcpy(&rec, static_cast<const uint8_t *>(p) + 2 + 10 * i, 10);
                mac_t k;
                memcpy(k.data(), rec.mac, 6);
                m[k] = rec.owner;
            }
            std::lock_guard g(mu);
            got.push_back(m);
            threads.push_back(std::this_thread::get_id());
        };
    }
    size_t size()
    {
        std::lock_guard g(mu);
        return got.size();
    }
    std::map<mac_t, uint32_t> at(size_t i)
    {
        std::lock_guard g(mu);
        return got.at(i);
    }
};

std::vector<uint8_t> query(const std::vector<mac_t> &macs, uint16_t code = OWNER_QUERY_CODE)
{
    std::vector<uint8_t> q(4 + 6 * macs.size());
    auto n = static_cast<uint16_t>(macs.size());
    memcpy(q.data(), &code, 2);
    memcpy(q.data() + 2, &n, 2);
    for (size_t i = 0; i < macs.size(); i++)
        memcpy(q.data() + 4 + 6 * i, macs[i].data(), 6);
    return q;
}

// One access point: endpoint, radio, service, collected replies.
struct ap {
    nbr_endpoint_ptr ep;
    assoc_radio radio;
    replies out;
    owner_service_ptr svc;
    void start(const char *addr, uint16_t port, std::vector<uint32_t> peers, int timeout_ms = 300)
    {
        std::string err;
        nbr_params np;
        np.bind_ip = ip4(addr);
        np.port = port;
        np.peers = peers;
        np.key = "site";
        ep = nbr_endpoint_open(np, err);
        ASSERT_TRUE(ep) << err;
        owner_params p;
        p.self_ip = ip4(addr);
        p.peers = peers;
        p.hello_ms = 50;
        p.live_ms = 1000;
        p.peer_timeout_ms = timeout_ms;
        p.associated = radio.fn();
        p.post = out.post();
        svc = owner_service_open(p, ep.get());
    }
    std::map<mac_t, uint32_t> ask(const std::vector<mac_t> &macs)
    {
        size_t before = out.size();
        auto q = query(macs);
        owner_service_query(svc.get(), q.data(), static_cast<int>(q.size()));
        EXPECT_TRUE(wait_for([&] { return out.size() > before; }));
        return out.size() > before ? out.at(before) : std::map<mac_t, uint32_t>{};
    }
};

uint16_t free_port(const char *addr)
{
    std::string err;
    nbr_params p;
    p.bind_ip = ip4(addr);
    p.port = 0;
    auto ep = nbr_endpoint_open(p, err);
    EXPECT_TRUE(ep) << err;
    return ep ? nbr_endpoint_port(ep.get()) : 0;
}

} // namespace

TEST(OwnerRendezvous, AgreesWhateverTheOrderAndSpreadsStations)
{
    std::vector<uint32_t> aps = {ip4("10.0.0.1"), ip4("10.0.0.2"), ip4("10.0.0.3")};
    std::vector<uint32_t> rev(aps.rbegin(), aps.rend());
    std::map<uint32_t, int> share;
    for (int i = 0; i < 900; i++) {
        mac_t m = mac(static_cast<uint8_t>(i), static_cast<uint8_t>(i >> 8));
        uint32_t o = owner_rendezvous(m.data(), aps);
        EXPECT_EQ(o, owner_rendezvous(m.data(), rev));
        share[o]++;
        // Losing an access point moves only its own stations.
        std::vector<uint32_t> less;
        for (uint32_t a : aps)
            if (a != aps[2])
                less.push_back(a);
        if (o != aps[2]) {
            EXPECT_EQ(owner_rendezvous(m.data(), less), o);
        }
    }
    ASSERT_EQ(share.size(), 3u);
    for (auto &[ip, n] : share)
        EXPECT_GT(n, 200) << ip;
    mac_t m = mac(1);
    EXPECT_EQ(owner_rendezvous(m.data(), {aps[1]}), aps[1]);
    EXPECT_EQ(owner_rendezvous(m.data(), {}), 0u);
}

TEST(OwnerService, LoneApOwnsEverythingAnsweringOnItsOwnThread)
{
    replies out;
    assoc_radio radio;
    owner_params p;
    p.self_ip = ip4("10.0.0.1");
    p.associated = radio.fn();
    p.post = out.post();
    auto svc = owner_service_open(p, nullptr);

    auto q = query({mac(1), mac(2), mac(3)});
    owner_service_query(svc.get(), q.data(), static_cast<int>(q.size()));
    ASSERT_TRUE(wait_for([&] { return out.size() == 1; }));
    auto r = out.at(0);
    ASSERT_EQ(r.size(), 3u);
    for (auto &[m, owner] : r)
        EXPECT_EQ(owner, p.self_ip);
    EXPECT_NE(out.threads[0], std::this_thread::get_id());

    // Malformed queries: counted and dropped, no reply.
    uint64_t dropped = rt_counter("owner.drop.query");
    auto bad_code = query({mac(1)}, 301);
    owner_service_query(svc.get(), bad_code.data(), static_cast<int>(bad_code.size()));
    auto q2 = query({mac(1), mac(2)});
    owner_service_query(svc.get(), q2.data(), static_cast<int>(q2.size()) - 1); // short of a MAC
    owner_service_query(svc.get(), q2.data(), 3);
    EXPECT_EQ(rt_counter("owner.drop.query"), dropped + 3);
    auto empty = query({});
    owner_service_query(svc.get(), empty.data(), 4);
    ASSERT_TRUE(wait_for([&] { return out.size() == 2; }));
    EXPECT_TRUE(out.at(1).empty());
}

TEST(OwnerService, AssociatedHereThenAtAPeerThenRendezvous)
{
    uint16_t port = free_port("127.0.0.2");
    ap a, b;
    uint32_t ia = ip4("127.0.0.2"), ib = ip4("127.0.0.3");
    a.radio.macs = {mac(1)};
    b.radio.macs = {mac(2), mac(1)}; // both claim 1: the local association wins at a
    // A generous bound: the wait ends as soon as the peer answers.
    a.start("127.0.0.2", port, {ib}, 3000);
    b.start("127.0.0.3", port, {ia}, 3000);
    ASSERT_TRUE(wait_for([&] {
        return owner_service_live(a.svc.get()).size() == 1 && owner_service_live(b.svc.get()).size() == 1;
    }));
    std::vector<mac_t> many;
    for (int i = 3; i < 60; i++)
        many.push_back(mac(static_cast<uint8_t>(i)));
    std::vector<mac_t> all = {mac(1), mac(2)};
    all.insert(all.end(), many.begin(), many.end());

    auto ra = a.ask(all);
    EXPECT_EQ(ra[mac(1)], ia);
    EXPECT_EQ(ra[mac(2)], ib);
    auto rb = b.ask(all);
    EXPECT_EQ(rb[mac(2)], ib);
    // Stations associated nowhere: both compute the same owner, and both APs get some.
    std::set<uint32_t> owners;
    for (const auto &m : many) {
        EXPECT_EQ(ra[m], rb[m]);
        EXPECT_EQ(ra[m], owner_rendezvous(m.data(), {ia, ib}));
        owners.insert(ra[m]);
    }
    EXPECT_EQ(owners, (std::set<uint32_t>{ia, ib}));
}

TEST(OwnerService, SilentPeerCostsOnlyTheBound)
{
    uint16_t port = free_port("127.0.0.2");
    uint32_t ia = ip4("127.0.0.2"), ic = ip4("127.0.0.4");
    ap a;
    a.start("127.0.0.2", port, {ic}, 100);
    // 127.0.0.4 says hello but never answers an ask.
    std::string err;
    nbr_params np;
    np.bind_ip = ic;
    np.port = port;
    np.key = "site";
    auto c = nbr_endpoint_open(np, err);
    ASSERT_TRUE(c) << err;
    owner_msg_hdr hello{OWNER_MSG_HELLO, 0, {0, 0}, {0, 0, 0, 0}};
    ASSERT_EQ(nbr_endpoint_send(c.get(), ia, NBR_MODULE_OWNER, &hello, sizeof hello), 0);
    ASSERT_TRUE(wait_for([&] { return owner_service_live(a.svc.get()).size() == 1; }));

    uint64_t timeouts = rt_counter("owner.peer_timeout");
    auto r = a.ask({mac(7), mac(8)});
    ASSERT_EQ(r.size(), 2u);
    EXPECT_EQ(r[mac(7)], owner_rendezvous(mac(7).data(), {ia, ic}));
    EXPECT_EQ(rt_counter("owner.peer_timeout"), timeouts + 1);

    // A malformed owner message from the peer is counted and changes nothing.
    uint64_t bad = rt_counter("owner.drop.malformed");
    owner_msg_hdr lying{OWNER_MSG_ANSWER, 0, {0, 5}, {0, 0, 0, 1}};
    ASSERT_EQ(nbr_endpoint_send(c.get(), ia, NBR_MODULE_OWNER, &lying, sizeof lying), 0);
    EXPECT_TRUE(wait_for([&] { return rt_counter("owner.drop.malformed") == bad + 1; }));
}

TEST(OwnerService, GreetingIsReturnedSoBothSidesAgree)
{
    // Only b knows a; a learns b from its hello, so both count the same two APs.
    uint16_t port = free_port("127.0.0.2");
    uint32_t ia = ip4("127.0.0.2"), ib = ip4("127.0.0.3");
    ap a, b;
    a.start("127.0.0.2", port, {});
    b.start("127.0.0.3", port, {ia});
    ASSERT_TRUE(wait_for([&] {
        return owner_service_live(a.svc.get()) == std::vector<uint32_t>{ib} &&
               owner_service_live(b.svc.get()) == std::vector<uint32_t>{ia};
    }));
    std::vector<mac_t> macs;
    for (int i = 0; i < 20; i++)
        macs.push_back(mac(static_cast<uint8_t>(i), 9));
    EXPECT_EQ(a.ask(macs), b.ask(macs));
}

namespace {
std::mutex g_mu;
std::condition_variable g_cv;
std::vector<std::vector<uint8_t>> g_replies;
pthread_t g_caller;
bool g_on_caller;
void on_reply(uint32_t, int len, void *p)
{
    std::lock_guard l(g_mu);
    g_replies.emplace_back(static_cast<uint8_t *>(p), static_cast<uint8_t *>(p) + len);
    g_on_caller = g_on_caller || pthread_equal(pthread_self(), g_caller);
    g_cv.notify_all();
}
} // namespace

TEST(OwnerProcess, EventLibraryCarriesQueriesAndReplies)
{
    rt_scratch s;
    rt_config c = rt_test_config(s);
    c.mgt_ip = ip4("127.0.0.9");
    c.nb_port = free_port("127.0.0.9");
    rt_cfg_set(c);
    g_caller = pthread_self();
    pthread_t t;
    ASSERT_EQ(qz_event_init(52, &t), 0);
    ASSERT_EQ(qz_event_subscribe(OWNER_EVT_REPLY, on_reply), 0);

    auto q = query({mac(1), mac(2)});
    ASSERT_EQ(qz_event_send(OWNER_EVT_QUERY, static_cast<int>(q.size()), q.data()), 0);
    ASSERT_TRUE(rt_wait_for(g_mu, g_cv, [] { return !g_replies.empty(); }));
    {
        std::lock_guard l(g_mu);
        ASSERT_EQ(g_replies[0].size(), 2u + 2 * 10);
        owner_reply_rec rec;
        memcpy(&rec, g_replies[0].data() + 12, 10);
        EXPECT_EQ(rec.mac[5], 2);
        EXPECT_EQ(rec.owner, ip4("127.0.0.9")); // a lone AP owns what it hears
        EXPECT_FALSE(g_on_caller);
    }
    qz_event_cleanup();
    pthread_join(t, nullptr); // the daemon joins the event thread the same way
}
