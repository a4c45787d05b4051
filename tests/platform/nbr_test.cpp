// Neighbour messaging: the envelope and its tag, drops, and delivery over loopback.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <thread>

#include "nbr_endpoint.h"
#include "qz_nbrcom.h"
#include "rt.h"

namespace {

using bytes = std::vector<uint8_t>;

uint32_t ip4(const char *s)
{
    uint32_t ip = 0;
    EXPECT_TRUE(nbr_parse_ipv4(s, &ip));
    return ip;
}

template <class F> bool wait_for(F pred)
{
    for (int i = 0; i < 400 && !pred(); i++)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return pred();
}

bytes seal(uint16_t module, const bytes &payload, const char *key)
{
    bytes d;
    EXPECT_TRUE(nbr_seal(module, payload.data(), payload.size(), key, d));
    return d;
}

// Sends raw bytes from src (bound first) to dst:port.
void send_raw(const char *src, const char *dst, uint16_t port, const bytes &b)
{
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = ip4(src);
    ASSERT_EQ(bind(fd, (sockaddr *)&a, sizeof a), 0);
    a.sin_port = htons(port);
    a.sin_addr.s_addr = ip4(dst);
    EXPECT_EQ(sendto(fd, b.data(), b.size(), 0, (sockaddr *)&a, sizeof a), (ssize_t)b.size());
    close(fd);
}

nbr_endpoint_ptr open_at(const char *addr, uint16_t port, const char *key = "",
                         std::vector<uint32_t> peers = {})
{
    std::string err;
    nbr_params p;
    p.bind_ip = ip4(addr);
    p.port = port;
    p.key = key;
    p.peers = peers;
    auto ep = nbr_endpoint_open(p, err);
    EXPECT_TRUE(ep) << err;
    return ep;
}

struct received {
    std::mutex mu;
    std::vector<bytes> msgs;
    std::vector<uint32_t> srcs;
    bool on_caller = false;
    size_t size()
    {
        std::lock_guard g(mu);
        return msgs.size();
    }
    nbr_recv_fn fn()
    {
        return [this, caller = std::this_thread::get_id()](uint32_t src, uint8_t *p, int len) {
            std::lock_guard g(mu);
            msgs.emplace_back(p, p + len);
            srcs.push_back(src);
            on_caller |= std::this_thread::get_id() == caller;
        };
    }
};

} // namespace

TEST(NbrEnvelope, LayoutTagChecksAndRefusals)
{
    bytes plain = seal(0x1234, {7, 8, 9}, ""), tagged = seal(52, {1, 2, 3, 4, 5}, "k1");
    EXPECT_EQ(plain, (bytes{'Q', 'Z', 'N', 'M', 1, 0, 0x12, 0x34, 7, 8, 9}));
    ASSERT_EQ(tagged.size(), 8u + 5 + NBR_TAG_LEN);
    EXPECT_EQ(tagged[5], NBR_FLAG_TAGGED);
    uint16_t m = 0;
    size_t off = 0, len = 0;
    // Exact-size heap copies let the sanitizer catch a read past the end.
    auto unseal = [&](const bytes &d, const char *key, size_t n = SIZE_MAX) {
        bytes cut(d.begin(), d.begin() + (long)std::min(n, d.size()));
        return nbr_unseal(cut.data(), cut.size(), key, &m, &off, &len);
    };
    EXPECT_EQ(unseal(tagged, "k1"), NBR_OK);
    EXPECT_EQ(m, 52);
    EXPECT_EQ(off, 8u);
    EXPECT_EQ(len, 5u);
    EXPECT_EQ(unseal(tagged, "k2"), NBR_BAD_TAG);
    EXPECT_EQ(unseal(plain, "k1"), NBR_UNTAGGED);
    EXPECT_EQ(unseal(tagged, ""), NBR_OK) << "a receiver without a key strips the tag";
    EXPECT_EQ(len, 5u);
    EXPECT_EQ(unseal(plain, ""), NBR_OK);
    EXPECT_EQ(len, 3u);
    auto magic = tagged, ver = tagged;
    magic[0] = 'X';
    ver[4] = 2;
    EXPECT_EQ(unseal(magic, "k1"), NBR_MAGIC);
    EXPECT_EQ(unseal(ver, "k1"), NBR_VERSION_BAD);
    for (size_t i = 0; i < tagged.size(); i++) { // any flipped bit fails tag or header
        auto bad = tagged;
        bad[i] ^= 0x40;
        EXPECT_NE(unseal(bad, "k1"), NBR_OK) << i;
    }
    for (size_t n = 0; n < tagged.size(); n++) { // every truncation, with or without a key
        EXPECT_EQ(unseal(tagged, "k1", n), n < 8 + NBR_TAG_LEN ? NBR_SHORT : NBR_BAD_TAG) << n;
        EXPECT_TRUE(n >= 8 + NBR_TAG_LEN || unseal(tagged, "", n) == NBR_SHORT) << n;
    }
}

TEST(NbrEndpoint, DeliversTrueLengthOnItsOwnThreadAndDropsBadInput)
{
    auto a = open_at("127.0.0.2", 0, "site");
    ASSERT_TRUE(a);
    uint16_t port = nbr_endpoint_port(a.get());
    auto b = open_at("127.0.0.3", port, "site");
    ASSERT_TRUE(b);
    received got;
    nbr_endpoint_add(b.get(), 52, got.fn());
    const bytes msg = {0, 0, 0, 0, 127, 0, 0, 2, 0, 16, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 9};
    ASSERT_EQ(nbr_endpoint_send(a.get(), ip4("127.0.0.3"), 52, msg.data(), (int)msg.size()), 0);
    ASSERT_TRUE(wait_for([&] { return got.size() == 1; }));
    {
        std::lock_guard g(got.mu);
        EXPECT_EQ(got.msgs[0], msg);
        EXPECT_EQ(got.srcs[0], ip4("127.0.0.2"));
        EXPECT_FALSE(got.on_caller);
    }

    // Bad datagrams: each counted under its reason, none delivered.
    const std::pair<const char *, bytes> bad[] = {
        {"nbr.drop.untagged", seal(52, msg, "")},
        {"nbr.drop.bad_tag", seal(52, msg, "other")},
        {"nbr.drop.magic", {'Q', 'Z', 'N', 'X', 1, 1, 0, 52}},
        {"nbr.drop.version", {'Q', 'Z', 'N', 'M', 9, 1, 0, 52}},
        {"nbr.drop.short", {'Q', 'Z', 'N'}},
        {"nbr.drop.module", seal(53, msg, "site")},
    };
    std::vector<uint64_t> before;
    for (auto &[counter, d] : bad) {
        before.push_back(rt_counter(counter));
        send_raw("127.0.0.2", "127.0.0.3", port, d);
    }
    for (size_t i = 0; i < std::size(bad); i++)
        EXPECT_TRUE(wait_for([&] { return rt_counter(bad[i].first) == before[i] + 1; }))
            << bad[i].first;
    EXPECT_EQ(got.size(), 1u);

    ASSERT_EQ(nbr_endpoint_send(a.get(), ip4("127.0.0.3"), 52, nullptr, 0), 0);
    ASSERT_TRUE(wait_for([&] { return got.size() == 2; }));
    std::lock_guard g(got.mu);
    EXPECT_TRUE(got.msgs[1].empty()) << "an empty payload arrives as length 0";
}

TEST(NbrEndpoint, PeersFilterSourcesAndRemovalStopsDelivery)
{
    auto b = open_at("127.0.0.3", 0, "", {ip4("127.0.0.2")});
    ASSERT_TRUE(b);
    uint16_t port = nbr_endpoint_port(b.get());
    received got;
    nbr_endpoint_add(b.get(), 52, got.fn());
    bytes d = seal(52, {1}, "");
    uint64_t foreign = rt_counter("nbr.drop.foreign");
    send_raw("127.0.0.5", "127.0.0.3", port, d);
    ASSERT_TRUE(wait_for([&] { return rt_counter("nbr.drop.foreign") == foreign + 1; }));
    send_raw("127.0.0.2", "127.0.0.3", port, d);
    ASSERT_TRUE(wait_for([&] { return got.size() == 1; }));

    EXPECT_EQ(nbr_endpoint_remove(b.get(), 52), 0);
    EXPECT_EQ(nbr_endpoint_remove(b.get(), 52), -1);
    uint64_t module = rt_counter("nbr.drop.module");
    send_raw("127.0.0.2", "127.0.0.3", port, d);
    ASSERT_TRUE(wait_for([&] { return rt_counter("nbr.drop.module") == module + 1; }));
    EXPECT_EQ(got.size(), 1u);
}

namespace {
std::atomic<int> g_cb_len{-1}, g_cb_first{-1};
std::atomic<void *> g_cb_ctx{nullptr};
int hc_cb(void *ctx, int len, void *data)
{
    g_cb_ctx = ctx;
    g_cb_first = len ? static_cast<uint8_t *>(data)[0] : -1;
    g_cb_len = len;
    return 0;
}
} // namespace

TEST(NbrDaemonApi, RegisterCopiesTheRecordAndSendUsesItsModule)
{
    uint16_t port = nbr_endpoint_port(open_at("127.0.0.6", 0).get()); // a free port
    rt_config c;
    c.nb_port = port;
    c.nb_bind = "127.0.0.6";
    rt_cfg_set(c);

    uint8_t out[28] = {5};
    EXPECT_EQ(qz_hc3u_send(ip4("127.0.0.7"), out, 1), -1); // nothing registered
    qz_hc_reg bad{NBR_MODULE_OWNER, 6, 1, 0, hc_cb, nullptr};
    EXPECT_EQ(qz_hc_register(&bad), -1) << "the runtime's own module";
    int marker = 0;
    qz_hc_reg reg{52, 6, 1, 0, hc_cb, &marker};
    ASSERT_EQ(qz_hc_register(&reg), 0);
    memset(&reg, 0xab, sizeof reg); // the record is the caller's to reuse

    auto n = open_at("127.0.0.7", port); // a neighbour talks to us, and we to it
    ASSERT_TRUE(n);
    received got;
    nbr_endpoint_add(n.get(), 52, got.fn());
    const uint8_t msg[3] = {42, 0, 1};
    ASSERT_EQ(nbr_endpoint_send(n.get(), ip4("127.0.0.6"), 52, msg, 3), 0);
    ASSERT_TRUE(wait_for([&] { return g_cb_len == 3; }));
    EXPECT_EQ(g_cb_first, 42);
    EXPECT_EQ(g_cb_ctx, &marker);
    ASSERT_EQ(qz_hc3u_send(ip4("127.0.0.7"), out, 28), 0);
    ASSERT_TRUE(wait_for([&] { return got.size() == 1; }));
    EXPECT_EQ(got.msgs[0], bytes(out, out + 28));
    EXPECT_EQ(qz_hc_unregister(), 0);
    EXPECT_EQ(qz_hc3u_send(ip4("127.0.0.7"), out, 28), -1);
}
