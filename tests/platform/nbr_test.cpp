// Neighbour messaging: the envelope and its tag, drops, and delivery over loopback.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

#include "nbr_endpoint.h"
#include "qz_nbrcom.h"
#include "rt.h"

namespace {

uint32_t ip4(const char *s)
{
    uint32_t ip = 0;
    EXPECT_TRUE(nbr_parse_ipv4(s, &ip));
    return ip;
}

template <class F> bool wait_for(F pred, int ms = 2000)
{
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (std::chrono::steady_clock::now() < end) {
        if (pred())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return pred();
}

uint64_t count(const char *name) { return rt_counter(name).load(); }

// Sends raw bytes from src (bound first) to dst:port.
void send_raw(const char *src, const char *dst, uint16_t port, const std::vector<uint8_t> &b)
{
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_GE(fd, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = ip4(src);
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
    a.sin_port = htons(port);
    a.sin_addr.s_addr = ip4(dst);
    ASSERT_EQ(sendto(fd, b.data(), b.size(), 0, reinterpret_cast<sockaddr *>(&a), sizeof a),
              static_cast<ssize_t>(b.size()));
    close(fd);
}

struct received {
    std::mutex mu;
    std::vector<std::vector<uint8_t>> msgs;
    std::vector<uint32_t> srcs;
    std::thread::id thread;
    size_t size()
    {
        std::lock_guard g(mu);
        return msgs.size();
    }
    nbr_recv_fn fn()
    {
        return [this](uint32_t src, uint8_t *p, int len) {
            std::lock_guard g(mu);
            msgs.emplace_back(p, p + len);
            srcs.push_back(src);
            thread = std::this_thread::get_id();
        };
    }
};

} // namespace

TEST(NbrEnvelope, SealedDatagramLayout)
{
    std::vector<uint8_t> d;
    const uint8_t payload[3] = {7, 8, 9};
    ASSERT_TRUE(nbr_seal(0x1234, payload, 3, "", d));
    EXPECT_EQ(d, (std::vector<uint8_t>{'Q', 'Z', 'N', 'M', 1, 0, 0x12, 0x34, 7, 8, 9}));
    ASSERT_TRUE(nbr_seal(52, payload, 3, "site-key", d));
    ASSERT_EQ(d.size(), 8u + 3 + 16);
    EXPECT_EQ(d[5], NBR_FLAG_TAGGED);
    EXPECT_EQ(d[7], 52);
}

TEST(NbrEnvelope, TagChecksAndKeylessReceivers)
{
    const uint8_t payload[5] = {1, 2, 3, 4, 5};
    std::vector<uint8_t> tagged, plain;
    ASSERT_TRUE(nbr_seal(52, payload, 5, "k1", tagged));
    ASSERT_TRUE(nbr_seal(52, payload, 5, "", plain));
    uint16_t m = 0;
    size_t off = 0, len = 0;

    EXPECT_EQ(nbr_unseal(tagged.data(), tagged.size(), "k1", &m, &off, &len), NBR_OK);
    EXPECT_EQ(m, 52);
    EXPECT_EQ(off, 8u);
    EXPECT_EQ(len, 5u);
    EXPECT_EQ(nbr_unseal(tagged.data(), tagged.size(), "k2", &m, &off, &len), NBR_BAD_TAG);
    EXPECT_EQ(nbr_unseal(plain.data(), plain.size(), "k1", &m, &off, &len), NBR_UNTAGGED);
    // A receiver without a key takes both and strips the tag.
    EXPECT_EQ(nbr_unseal(tagged.data(), tagged.size(), "", &m, &off, &len), NBR_OK);
    EXPECT_EQ(len, 5u);
    EXPECT_EQ(nbr_unseal(plain.data(), plain.size(), "", &m, &off, &len), NBR_OK);
    EXPECT_EQ(len, 5u);

    // Any flipped bit in header, payload or tag fails the tag (or the header checks).
    for (size_t i = 0; i < tagged.size(); i++) {
        auto bad = tagged;
        bad[i] ^= 0x40;
        EXPECT_NE(nbr_unseal(bad.data(), bad.size(), "k1", &m, &off, &len), NBR_OK) << i;
    }
}

TEST(NbrEnvelope, MalformedAndTruncated)
{
    const uint8_t payload[4] = {9, 9, 9, 9};
    std::vector<uint8_t> d;
    ASSERT_TRUE(nbr_seal(52, payload, 4, "k", d));
    uint16_t m;
    size_t off, len;
    auto magic = d;
    magic[0] = 'X';
    EXPECT_EQ(nbr_unseal(magic.data(), magic.size(), "k", &m, &off, &len), NBR_MAGIC);
    auto ver = d;
    ver[4] = 2;
    EXPECT_EQ(nbr_unseal(ver.data(), ver.size(), "k", &m, &off, &len), NBR_VERSION_BAD);
    // Every truncation is refused, with or without a key; exact-size heap copies let
    // the sanitizer catch a read past the end.
    for (size_t n = 0; n < d.size(); n++) {
        std::vector<uint8_t> cut(d.begin(), d.begin() + static_cast<long>(n));
        EXPECT_EQ(nbr_unseal(cut.data(), n, "k", &m, &off, &len), n < 24 ? NBR_SHORT : NBR_BAD_TAG)
            << n;
        if (n < 24) {
            EXPECT_EQ(nbr_unseal(cut.data(), n, "", &m, &off, &len), NBR_SHORT) << n;
        }
    }
}

TEST(NbrEndpoint, DeliversTrueLengthOnItsOwnThreadAndDropsBadInput)
{
    std::string err;
    nbr_params pa;
    pa.bind_ip = ip4("127.0.0.2");
    pa.port = 0;
    pa.key = "site";
    auto a = nbr_endpoint_open(pa, err);
    ASSERT_TRUE(a) << err;
    uint16_t port = nbr_endpoint_port(a.get());
    nbr_params pb = pa;
    pb.bind_ip = ip4("127.0.0.3");
    pb.port = port;
    auto b = nbr_endpoint_open(pb, err);
    ASSERT_TRUE(b) << err;

    received got;
    nbr_endpoint_add(b.get(), 52, got.fn());
    const uint8_t msg[28] = {0, 0, 0, 0, 127, 0, 0, 2, 0, 16};
    ASSERT_EQ(nbr_endpoint_send(a.get(), ip4("127.0.0.3"), 52, msg, sizeof msg), 0);
    ASSERT_TRUE(wait_for([&] { return got.size() == 1; }));
    {
        std::lock_guard g(got.mu);
        EXPECT_EQ(got.msgs[0], std::vector<uint8_t>(msg, msg + 28));
        EXPECT_EQ(got.srcs[0], ip4("127.0.0.2"));
        EXPECT_NE(got.thread, std::this_thread::get_id());
    }

    // Bad datagrams: each counted under its reason, none delivered.
    uint64_t untagged = count("nbr.drop.untagged"), bad_tag = count("nbr.drop.bad_tag"),
             magic = count("nbr.drop.magic"), version = count("nbr.drop.version"),
             shrt = count("nbr.drop.short"), module = count("nbr.drop.module");
    std::vector<uint8_t> d;
    nbr_seal(52, msg, sizeof msg, "", d);
    send_raw("127.0.0.2", "127.0.0.3", port, d);
    nbr_seal(52, msg, sizeof msg, "other", d);
    send_raw("127.0.0.2", "127.0.0.3", port, d);
    send_raw("127.0.0.2", "127.0.0.3", port, {'Q', 'Z', 'N', 'X', 1, 1, 0, 52});
    send_raw("127.0.0.2", "127.0.0.3", port, {'Q', 'Z', 'N', 'M', 9, 1, 0, 52});
    send_raw("127.0.0.2", "127.0.0.3", port, {'Q', 'Z', 'N'});
    nbr_seal(53, msg, sizeof msg, "site", d);
    send_raw("127.0.0.2", "127.0.0.3", port, d);
    EXPECT_TRUE(wait_for([&] {
        return count("nbr.drop.untagged") == untagged + 1 && count("nbr.drop.bad_tag") == bad_tag + 1 &&
               count("nbr.drop.magic") == magic + 1 && count("nbr.drop.version") == version + 1 &&
               count("nbr.drop.short") == shrt + 1 && count("nbr.drop.module") == module + 1;
    }));
    EXPECT_EQ(got.size(), 1u);

    // An empty payload arrives as length 0.
    ASSERT_EQ(nbr_endpoint_send(a.get(), ip4("127.0.0.3"), 52, nullptr, 0), 0);
    ASSERT_TRUE(wait_for([&] { return got.size() == 2; }));
    std::lock_guard g(got.mu);
    EXPECT_TRUE(got.msgs[1].empty());
}

TEST(NbrEndpoint, PeersFilterSourcesAndRemovalStopsDelivery)
{
    std::string err;
    nbr_params pb;
    pb.bind_ip = ip4("127.0.0.3");
    pb.port = 0;
    pb.peers = {ip4("127.0.0.2")};
    auto b = nbr_endpoint_open(pb, err);
    ASSERT_TRUE(b) << err;
    uint16_t port = nbr_endpoint_port(b.get());
    received got;
    nbr_endpoint_add(b.get(), 52, got.fn());

    std::vector<uint8_t> d;
    const uint8_t one = 1;
    nbr_seal(52, &one, 1, "", d);
    uint64_t foreign = count("nbr.drop.foreign");
    send_raw("127.0.0.5", "127.0.0.3", port, d);
    ASSERT_TRUE(wait_for([&] { return count("nbr.drop.foreign") == foreign + 1; }));
    send_raw("127.0.0.2", "127.0.0.3", port, d);
    ASSERT_TRUE(wait_for([&] { return got.size() == 1; }));

    EXPECT_EQ(nbr_endpoint_remove(b.get(), 52), 0);
    EXPECT_EQ(nbr_endpoint_remove(b.get(), 52), -1);
    uint64_t module = count("nbr.drop.module");
    send_raw("127.0.0.2", "127.0.0.3", port, d);
    ASSERT_TRUE(wait_for([&] { return count("nbr.drop.module") == module + 1; }));
    EXPECT_EQ(got.size(), 1u);
}

namespace {
std::atomic<int> g_cb_len{-1};
std::atomic<void *> g_cb_ctx{nullptr};
std::atomic<int> g_cb_first{-1};
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
    // Find a free port on the address this "instance" binds.
    std::string err;
    nbr_params probe;
    probe.bind_ip = ip4("127.0.0.6");
    probe.port = 0;
    auto p = nbr_endpoint_open(probe, err);
    ASSERT_TRUE(p) << err;
    uint16_t port = nbr_endpoint_port(p.get());
    p.reset();

    rt_config c;
    c.nb_port = port;
    c.nb_bind = "127.0.0.6";
    rt_cfg_set(c);

    EXPECT_EQ(qz_hc3u_send(ip4("127.0.0.7"), (void *)"x", 1), -1); // nothing registered
    {
        qz_hc_reg bad{NBR_MODULE_OWNER, 6, 1, 0, hc_cb, nullptr};
        EXPECT_EQ(qz_hc_register(&bad), -1);
    }
    int marker = 0;
    {
        qz_hc_reg reg{52, 6, 1, 0, hc_cb, &marker};
        ASSERT_EQ(qz_hc_register(&reg), 0);
        memset(&reg, 0xab, sizeof reg); // the record is the caller's to reuse
    }

    // A neighbour at 127.0.0.7 talks to us, and we to it.
    nbr_params pn;
    pn.bind_ip = ip4("127.0.0.7");
    pn.port = port;
    auto n = nbr_endpoint_open(pn, err);
    ASSERT_TRUE(n) << err;
    received got;
    nbr_endpoint_add(n.get(), 52, got.fn());

    const uint8_t msg[3] = {42, 0, 1};
    ASSERT_EQ(nbr_endpoint_send(n.get(), ip4("127.0.0.6"), 52, msg, 3), 0);
    ASSERT_TRUE(wait_for([&] { return g_cb_len == 3; }));
    EXPECT_EQ(g_cb_first, 42);
    EXPECT_EQ(g_cb_ctx, &marker);

    uint8_t out[28] = {5};
    ASSERT_EQ(qz_hc3u_send(ip4("127.0.0.7"), out, 28), 0);
    ASSERT_TRUE(wait_for([&] { return got.size() == 1; }));
    EXPECT_EQ(got.msgs[0].size(), 28u);
    EXPECT_EQ(got.msgs[0][0], 5);

    EXPECT_EQ(qz_hc_unregister(), 0);
    EXPECT_EQ(qz_hc3u_send(ip4("127.0.0.7"), out, 28), -1);
}
