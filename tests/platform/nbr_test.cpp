// Neighbour messaging: the envelope and its tag, drops, and delivery over loopback.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <mutex>
#include <thread>

#include "nbr_endpoint.h"
#include "nbr_mac.h"
#include "rt_counter.h"
#include "rt_test_util.h"

namespace {

using bytes = std::vector<uint8_t>;

uint32_t ip4(const char *s) { return inet_addr(s); }

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

} // namespace

// The tag is HMAC-SHA256 (RFC 4231, case 2); a key is set up once, not per datagram,
// and a change of key is never answered with the previous key's context.
TEST(NbrMac, KeyedOncePerKeyAndRightAcrossKeyChanges)
{
    const std::string data = "what do ya want for nothing?";
    auto mac = [&](const char *key) {
        uint8_t out[NBR_MAC_LEN];
        EXPECT_TRUE(nbr_mac(key, (const uint8_t *)data.data(), data.size(), out));
        return bytes(out, out + NBR_MAC_LEN);
    };
    const bytes jefe = {0x5b, 0xdc, 0xc1, 0x46, 0xbf, 0x60, 0x75, 0x4e, 0x6a, 0x04, 0x24,
                        0x26, 0x08, 0x95, 0x75, 0xc7, 0x5a, 0x00, 0x3f, 0x08, 0x9d, 0x27,
                        0x39, 0x83, 0x9d, 0xec, 0x58, 0xb9, 0x64, 0xec, 0x38, 0x43};
    uint64_t keyed = rt_counter("nbr.mac_keyed");
    for (int i = 0; i < 100; i++)
        ASSERT_EQ(mac("Jefe"), jefe);
    EXPECT_LE(rt_counter("nbr.mac_keyed") - keyed, 1u) << "keyed per datagram";
    bytes other = mac("Jeff");
    EXPECT_NE(other, jefe);
    EXPECT_EQ(mac("Jefe"), jefe) << "answered with the previous key";
    EXPECT_EQ(mac("Jeff"), other);
}

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

TEST(NbrEndpoint, DeliversTrueLengthAndSourceAndDropsBadInput)
{
    auto a = open_at("127.0.0.2", 0, "site");
    ASSERT_TRUE(a);
    uint16_t port = nbr_endpoint_port(a.get());
    auto b = open_at("127.0.0.3", port, "site", {ip4("127.0.0.2")});
    ASSERT_TRUE(b);
    std::mutex mu;
    std::vector<std::pair<bytes, uint32_t>> got; // payload, source
    nbr_endpoint_add(b.get(), 52, [&](uint32_t src, uint8_t *p, int len) {
        std::lock_guard g(mu);
        got.emplace_back(bytes(p, p + len), src);
    });
    const bytes msg = {0, 0, 0, 0, 127, 0, 0, 2, 0, 16, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 9};
    ASSERT_EQ(nbr_endpoint_send(a.get(), ip4("127.0.0.3"), 52, msg.data(), (int)msg.size()), 0);
    ASSERT_EQ(nbr_endpoint_send(a.get(), ip4("127.0.0.3"), 52, nullptr, 0), 0);
    ASSERT_TRUE(rt_poll_until([&] { return std::lock_guard(mu), got.size() == 2; }));

    // Bad datagrams: each counted under its reason, none delivered.
    struct {
        const char *counter, *src;
        bytes d;
    } bad[] = {
        {"nbr.drop.untagged", "127.0.0.2", seal(52, msg, "")},
        {"nbr.drop.bad_tag", "127.0.0.2", seal(52, msg, "other")},
        {"nbr.drop.magic", "127.0.0.2", {'Q', 'Z', 'N', 'X', 1, 1, 0, 52}},
        {"nbr.drop.version", "127.0.0.2", {'Q', 'Z', 'N', 'M', 9, 1, 0, 52}},
        {"nbr.drop.short", "127.0.0.2", {'Q', 'Z', 'N'}},
        {"nbr.drop.module", "127.0.0.2", seal(53, msg, "site")},
        {"nbr.drop.foreign", "127.0.0.5", seal(52, msg, "site")}, // not a peer
    };
    std::vector<uint64_t> before;
    for (auto &[counter, src, d] : bad) {
        before.push_back(rt_counter(counter));
        send_raw(src, "127.0.0.3", port, d);
    }
    for (size_t i = 0; i < std::size(bad); i++)
        EXPECT_TRUE(rt_poll_until([&] { return rt_counter(bad[i].counter) == before[i] + 1; }))
            << bad[i].counter;
    // Once removed, the module's datagrams are dropped too.
    EXPECT_EQ(nbr_endpoint_remove(b.get(), 52), 0);
    EXPECT_EQ(nbr_endpoint_remove(b.get(), 52), -1);
    send_raw("127.0.0.2", "127.0.0.3", port, seal(52, msg, "site"));
    EXPECT_TRUE(rt_poll_until([&] { return rt_counter("nbr.drop.module") == before[5] + 2; }));
    std::lock_guard g(mu);
    EXPECT_EQ(got, (decltype(got){{msg, ip4("127.0.0.2")}, {{}, ip4("127.0.0.2")}}));
}
