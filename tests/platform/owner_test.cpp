// The owner service: associated here, associated at a live peer, rendezvous agreement.
#include <gtest/gtest.h>
#include <string.h>

#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <thread>

#include "owner_service.h"
#include "qz_event.h"
#include "rt_test_util.h"

namespace {

using mac_t = std::array<uint8_t, 6>;
using reply = std::map<mac_t, uint32_t>;
mac_t mac(int last, int mid = 0) { return {0x02, 0, 0, 0, (uint8_t)mid, (uint8_t)last}; }
mac_t to_mac(const uint8_t *m) { return {m[0], m[1], m[2], m[3], m[4], m[5]}; }

uint32_t ip4(const char *s)
{
    uint32_t ip = 0;
    EXPECT_TRUE(nbr_parse_ipv4(s, &ip));
    return ip;
}

template <class F> bool wait_for(F pred)
{
    for (int i = 0; i < 600 && !pred(); i++)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return pred();
}

std::vector<uint8_t> query(const std::vector<mac_t> &macs, uint16_t code = OWNER_QUERY_CODE)
{
    auto n = (uint16_t)macs.size();
    std::vector<uint8_t> q(4 + 6 * n);
    memcpy(q.data(), &code, 2);
    memcpy(q.data() + 2, &n, 2);
    for (size_t i = 0; i < n; i++)
        memcpy(q.data() + 4 + 6 * i, macs[i].data(), 6);
    return q;
}

// Parses an owner reply event payload; an empty optional when malformed.
std::optional<reply> parse_reply(const uint8_t *p, size_t len)
{
    uint16_t n;
    if (len < 2 || (memcpy(&n, p, 2), len != 2 + 10u * n))
        return {};
    reply r;
    for (size_t i = 0; i < n; i++) {
        owner_reply_rec rec;
        memcpy(&rec, p + 2 + 10 * i, 10);
        r[to_mac(rec.mac)] = rec.owner;
    }
    return r;
}

uint16_t free_port(const char *addr)
{
    std::string err;
    nbr_params p;
    p.bind_ip = ip4(addr);
    auto ep = nbr_endpoint_open(p, err);
    EXPECT_TRUE(ep) << err;
    return ep ? nbr_endpoint_port(ep.get()) : 0;
}

// One access point: its associated stations, endpoint (none: port 0), service, replies.
struct ap {
    std::set<mac_t> assoc;
    std::mutex mu;
    std::vector<reply> got;
    bool on_caller = false;
    nbr_endpoint_ptr ep;
    owner_service_ptr svc;
    uint32_t ip;

    void start(const char *addr, uint16_t port, std::vector<uint32_t> peers, int timeout_ms = 300)
    {
        ip = ip4(addr);
        if (port) {
            std::string err;
            nbr_params np;
            np.bind_ip = ip;
            np.port = port;
            np.peers = peers;
            np.key = "site";
            ep = nbr_endpoint_open(np, err);
            ASSERT_TRUE(ep) << err;
        }
        auto caller = std::this_thread::get_id();
        owner_params p{ip, timeout_ms, 50, 1000, peers,
                       [this](const uint8_t *m) { return assoc.count(to_mac(m)) > 0; },
                       [this, caller](uint32_t id, const void *payload, int len) {
                           EXPECT_EQ(id, OWNER_EVT_REPLY);
                           auto r = parse_reply((const uint8_t *)payload, (size_t)len);
                           ASSERT_TRUE(r) << "malformed reply of " << len << " bytes";
                           std::lock_guard g(mu);
                           got.push_back(*r);
                           on_caller |= std::this_thread::get_id() == caller;
                       }};
        svc = owner_service_open(p, ep.get());
    }
    size_t replies()
    {
        std::lock_guard g(mu);
        return got.size();
    }
    reply ask(const std::vector<mac_t> &macs)
    {
        size_t before = replies();
        auto q = query(macs);
        owner_service_query(svc.get(), q.data(), (int)q.size());
        EXPECT_TRUE(wait_for([&] { return replies() > before; }));
        std::lock_guard g(mu);
        return got.size() > before ? got[before] : reply{};
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
    a.start("10.0.0.1", 0, {});
    reply r = a.ask({mac(1), mac(2), mac(3)});
    EXPECT_EQ(r, (reply{{mac(1), a.ip}, {mac(2), a.ip}, {mac(3), a.ip}}));
    EXPECT_FALSE(a.on_caller);

    uint64_t dropped = rt_counter("owner.drop.query");
    auto bad_code = query({mac(1)}, 301), q2 = query({mac(1), mac(2)});
    owner_service_query(a.svc.get(), bad_code.data(), (int)bad_code.size());
    owner_service_query(a.svc.get(), q2.data(), (int)q2.size() - 1); // short of a MAC
    owner_service_query(a.svc.get(), q2.data(), 3);
    EXPECT_EQ(rt_counter("owner.drop.query"), dropped + 3);
    EXPECT_TRUE(a.ask({}).empty());
    EXPECT_EQ(a.replies(), 2u);
}

// b knows a, a knows nobody and learns b from its hello; both must then agree.
TEST(OwnerService, AssociatedHereThenAtAPeerThenRendezvous)
{
    uint16_t port = free_port("127.0.0.2");
    ap a, b;
    a.assoc = {mac(1)};
    b.assoc = {mac(2), mac(1)}; // both claim 1: the local association wins at a
    a.start("127.0.0.2", port, {}, 3000); // the wait ends as soon as the peer answers
    b.start("127.0.0.3", port, {ip4("127.0.0.2")}, 3000);
    ASSERT_TRUE(wait_for([&] {
        return owner_service_live(a.svc.get()) == std::vector{b.ip} &&
               owner_service_live(b.svc.get()) == std::vector{a.ip};
    }));
    std::vector<mac_t> all = {mac(1), mac(2)};
    for (int i = 3; i < 60; i++)
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
    uint16_t port = free_port("127.0.0.2");
    uint32_t ic = ip4("127.0.0.4");
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
    ASSERT_EQ(nbr_endpoint_send(c.get(), a.ip, NBR_MODULE_OWNER, &hello, sizeof hello), 0);
    ASSERT_TRUE(wait_for([&] { return owner_service_live(a.svc.get()).size() == 1; }));

    uint64_t timeouts = rt_counter("owner.peer_timeout");
    auto r = a.ask({mac(7), mac(8)});
    ASSERT_EQ(r.size(), 2u);
    EXPECT_EQ(r[mac(7)], owner_rendezvous(mac(7).data(), {a.ip, ic}));
    EXPECT_EQ(rt_counter("owner.peer_timeout"), timeouts + 1);

    uint64_t bad = rt_counter("owner.drop.malformed");
    owner_msg_hdr lying{OWNER_MSG_ANSWER, 0, {0, 5}, {0, 0, 0, 1}}; // 5 MACs announced, none sent
    ASSERT_EQ(nbr_endpoint_send(c.get(), a.ip, NBR_MODULE_OWNER, &lying, sizeof lying), 0);
    EXPECT_TRUE(wait_for([&] { return rt_counter("owner.drop.malformed") == bad + 1; }));
}

namespace {
std::mutex g_mu;
std::vector<uint8_t> g_reply;
bool g_on_caller;
pthread_t g_caller;
void on_reply(uint32_t, int len, void *p)
{
    std::lock_guard l(g_mu);
    g_reply.assign((uint8_t *)p, (uint8_t *)p + len);
    g_on_caller = pthread_equal(pthread_self(), g_caller);
}
} // namespace

TEST(OwnerProcess, EventLibraryCarriesQueriesAndReplies)
{
    rt_scratch s;
    rt_config c = rt_test_config(s);
    uint32_t me = ip4("127.0.0.9");
    c.mgt_ip = me;
    c.nb_port = free_port("127.0.0.9");
    rt_cfg_set(c);
    g_caller = pthread_self();
    pthread_t t;
    ASSERT_EQ(qz_event_init(52, &t), 0);
    ASSERT_EQ(qz_event_subscribe(OWNER_EVT_REPLY, on_reply), 0);
    auto q = query({mac(1), mac(2)});
    ASSERT_EQ(qz_event_send(OWNER_EVT_QUERY, (int)q.size(), q.data()), 0);
    ASSERT_TRUE(wait_for([] {
        std::lock_guard l(g_mu);
        return !g_reply.empty();
    }));
    {
        std::lock_guard l(g_mu);
        auto r = parse_reply(g_reply.data(), g_reply.size());
        ASSERT_TRUE(r);
        EXPECT_EQ(*r, (reply{{mac(1), me}, {mac(2), me}})); // a lone AP owns all
        EXPECT_FALSE(g_on_caller);
    }
    qz_event_cleanup();
    pthread_join(t, nullptr); // the daemon joins the event thread the same way
}
