// Neighbour messaging: the envelope and its tag, drops, and delivery over loopback.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <mutex>
#include <thread>

#include "nbr_endpoint.h"
#include "nbr_mac.h"
#include "nbr_test_util.h"
#include "rt_counter.h"
#include "rt_test_util.h"

namespace {

using bytes = std::vector<uint8_t>;

bytes seal(uint16_t module, const bytes &payload, const char *key, const char *sender = "127.0.0.2")
{
    return nbr_sealed(module, payload, key, ip4(sender));
}

void send_raw(const char *src, const char *dst, uint16_t port, const bytes &b)
{
    nbr_send_raw(ip4(src), ip4(dst), port, b);
}

nbr_endpoint_ptr open_at(const char *addr, uint16_t port, const char *key = "",
                         std::vector<uint32_t> peers = {}, const std::string &windows = "")
{
    return nbr_open_at(ip4(addr), port, key, std::move(peers), windows);
}

// An endpoint b that records what module 52 delivers to it.
struct sink {
    nbr_endpoint_ptr ep;
    std::mutex mu;
    std::vector<std::pair<bytes, uint32_t>> got; // payload, source
    void open(const char *addr, uint16_t port, const char *key, std::vector<uint32_t> peers = {},
              const std::string &windows = "")
    {
        ep = open_at(addr, port, key, peers, windows);
        ASSERT_TRUE(ep);
        nbr_endpoint_add(ep.get(), 52, [this](uint32_t src, uint8_t *p, int len) {
            EXPECT_NE(p, nullptr) << "the daemon's receiver refuses a null payload";
            std::lock_guard g(mu);
            got.emplace_back(bytes(p, p + len), src);
        });
    }
    size_t count() { return std::lock_guard(mu), got.size(); }
};

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
    constexpr size_t H = sizeof(nbr_hdr);
    bytes plain = nbr_sealed(0x1234, {7, 8, 9}, "", ip4("10.1.2.3"), 0x0102030405060708, 0x1112131415161718);
    bytes tagged = seal(52, {1, 2, 3, 4, 5}, "k1");
    EXPECT_EQ(plain, (bytes{'Q', 'Z', 'N', 'M', 2, 0, 0x12, 0x34, 10, 1, 2, 3, 1, 2, 3, 4, 5, 6, 7, 8,
                            0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18, 7, 8, 9}));
    ASSERT_EQ(tagged.size(), H + 5 + NBR_TAG_LEN);
    EXPECT_EQ(tagged[5], NBR_FLAG_TAGGED);
    nbr_opened o;
    // Exact-size heap copies let the sanitizer catch a read past the end.
    auto unseal = [&](const bytes &d, const char *key, size_t n = SIZE_MAX) {
        bytes cut(d.begin(), d.begin() + (long)std::min(n, d.size()));
        o = {};
        return nbr_unseal(cut.data(), cut.size(), key, &o);
    };
    EXPECT_EQ(unseal(plain, ""), NBR_OK);
    EXPECT_EQ(std::tuple(o.from.sender, o.from.epoch, o.from.counter, o.tagged, o.plen),
              std::tuple(ip4("10.1.2.3"), 0x0102030405060708u, 0x1112131415161718u, false, size_t(3)));
    EXPECT_EQ(unseal(tagged, "k1"), NBR_OK);
    EXPECT_EQ(std::tuple(o.tagged, +o.module, size_t(o.off), size_t(o.plen)), std::tuple(true, 52, H, size_t(5)));
    EXPECT_EQ(unseal(tagged, "k2"), NBR_BAD_TAG);
    EXPECT_EQ(unseal(plain, "k1"), NBR_UNTAGGED);
    EXPECT_EQ(unseal(tagged, ""), NBR_OK) << "a receiver without a key strips the tag";
    EXPECT_FALSE(o.tagged) << "and vouches for nothing in it";
    EXPECT_EQ(o.plen, 5u);
    // What an old sender sends: the version tells it apart, whatever its length.
    EXPECT_EQ(unseal({'Q', 'Z', 'N', 'M', 1, 0, 0, 52, 9}, ""), NBR_VERSION_BAD);
    for (size_t i = 0; i < tagged.size(); i++) { // any flipped bit fails tag or header
        auto bad = tagged;
        bad[i] ^= 0x40;
        EXPECT_NE(unseal(bad, "k1"), NBR_OK) << i;
    }
    for (size_t n = 0; n < tagged.size(); n++) { // every truncation, with or without a key
        EXPECT_EQ(unseal(tagged, "k1", n), n < H + NBR_TAG_LEN ? NBR_SHORT : NBR_BAD_TAG) << n;
        EXPECT_TRUE(n >= H + NBR_TAG_LEN || unseal(tagged, "", n) == NBR_SHORT) << n;
    }
}

// Late and reordered counters pass once within the window; copies, counters that fell
// out of it and older epochs never; a later epoch starts afresh.
TEST(NbrWindow, AcceptsEachCounterOnceAndOnlyTheNewestEpoch)
{
    nbr_window w;
    EXPECT_EQ(nbr_window_check(w, 5, 0), NBR_REPLAYED) << "counters start at 1";
    EXPECT_EQ(nbr_window_check(w, 5, 10), NBR_FRESH);
    for (uint64_t c : {12, 11, 7, 1})
        EXPECT_EQ(nbr_window_check(w, 5, c), NBR_FRESH) << c;
    for (uint64_t c : {12, 11, 10, 7, 1})
        EXPECT_EQ(nbr_window_check(w, 5, c), NBR_REPLAYED) << c;
    // Slide by less than the window: what was seen stays seen, the gap is open.
    uint64_t top = 12 + NBR_WINDOW_BITS - 2;
    EXPECT_EQ(nbr_window_check(w, 5, top), NBR_FRESH);
    EXPECT_EQ(nbr_window_check(w, 5, 12), NBR_REPLAYED);
    EXPECT_EQ(nbr_window_check(w, 5, 13), NBR_FRESH);
    EXPECT_EQ(nbr_window_check(w, 5, top - 1), NBR_FRESH);
    EXPECT_EQ(nbr_window_check(w, 5, 7), NBR_REPLAYED) << "fell out of the window";
    // A jump beyond the window forgets everything below it.
    top += 5 * NBR_WINDOW_BITS;
    EXPECT_EQ(nbr_window_check(w, 5, top), NBR_FRESH);
    EXPECT_EQ(nbr_window_check(w, 5, top - 1), NBR_FRESH);
    EXPECT_EQ(nbr_window_check(w, 5, top - NBR_WINDOW_BITS), NBR_REPLAYED);
    EXPECT_EQ(nbr_window_check(w, 5, top), NBR_REPLAYED);

    EXPECT_EQ(nbr_window_check(w, 4, top + 1), NBR_STALE_EPOCH);
    EXPECT_EQ(nbr_window_check(w, 6, 1), NBR_RESTARTED);
    EXPECT_EQ(nbr_window_check(w, 6, 1), NBR_REPLAYED);
    EXPECT_EQ(nbr_window_check(w, 5, top + 1), NBR_STALE_EPOCH);
    EXPECT_EQ(w.top, 1u);
}

TEST(NbrEndpoint, DeliversTrueLengthAndSourceAndDropsBadInput)
{
    auto a = open_at("127.0.0.2", 0, "site");
    ASSERT_TRUE(a);
    uint16_t port = nbr_endpoint_port(a.get());
    sink b;
    b.open("127.0.0.3", port, "site", {ip4("127.0.0.2")});
    const bytes msg = {0, 0, 0, 0, 127, 0, 0, 2, 0, 16, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 9};
    ASSERT_EQ(nbr_endpoint_send(a.get(), ip4("127.0.0.3"), 52, msg.data(), (int)msg.size()), 0);
    ASSERT_EQ(nbr_endpoint_send(a.get(), ip4("127.0.0.3"), 52, nullptr, 0), 0);
    ASSERT_TRUE(rt_poll_until([&] { return b.count() == 2; }));

    // Bad datagrams: each counted under its reason, none delivered. Good ones come as a
    // later start of a, each its own counter.
    uint64_t n = 0, later = uint64_t(1) << 62;
    auto fresh = [&](uint16_t module) { return nbr_sealed(module, msg, "site", ip4("127.0.0.2"), later, ++n); };
    struct {
        const char *counter, *src;
        bytes d;
    } bad[] = {
        {"nbr.drop.untagged", "127.0.0.2", seal(52, msg, "")},
        {"nbr.drop.bad_tag", "127.0.0.2", seal(52, msg, "other")},
        {"nbr.drop.magic", "127.0.0.2", {'Q', 'Z', 'N', 'X', 2, 1, 0, 52}},
        {"nbr.drop.version", "127.0.0.2", {'Q', 'Z', 'N', 'M', 9, 1, 0, 52}},
        {"nbr.drop.version", "127.0.0.2", {'Q', 'Z', 'N', 'M', 1, 0, 0, 52, 1, 2}}, // an old sender
        {"nbr.drop.short", "127.0.0.2", {'Q', 'Z', 'N'}},
        {"nbr.drop.module", "127.0.0.2", fresh(53)},
        {"nbr.drop.foreign", "127.0.0.5", fresh(52)}, // not a peer
    };
    std::map<std::string, uint64_t> want;
    for (auto &[counter, src, d] : bad) {
        want.try_emplace(counter, rt_counter(counter));
        want[counter]++;
        send_raw(src, "127.0.0.3", port, d);
    }
    for (auto &[counter, value] : want)
        EXPECT_TRUE(rt_poll_until([&] { return rt_counter(counter.c_str()) == value; })) << counter;
    // Once removed, the module's datagrams are dropped too.
    EXPECT_EQ(nbr_endpoint_remove(b.ep.get(), 52), 0);
    EXPECT_EQ(nbr_endpoint_remove(b.ep.get(), 52), -1);
    send_raw("127.0.0.2", "127.0.0.3", port, fresh(52));
    EXPECT_TRUE(rt_poll_until([&] { return rt_counter("nbr.drop.module") == want["nbr.drop.module"] + 1; }));
    std::lock_guard g(b.mu);
    EXPECT_EQ(b.got, (decltype(b.got){{msg, ip4("127.0.0.2")}, {{}, ip4("127.0.0.2")}}));
}

// What an attacker on the site's network can do without the key: record datagrams of
// a, play them back later, as a or from an address of its own.
TEST(NbrEndpoint, ReplaysAndSpoofsDroppedReorderingAndRestartAccepted)
{
    int tap = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in ta{};
    ta.sin_family = AF_INET;
    ta.sin_addr.s_addr = ip4("127.0.0.9");
    socklen_t tl = sizeof ta;
    ASSERT_EQ(bind(tap, (sockaddr *)&ta, sizeof ta), 0);
    ASSERT_EQ(getsockname(tap, (sockaddr *)&ta, &tl), 0);
    timeval tv{3, 0};
    setsockopt(tap, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);

    auto a = open_at("127.0.0.2", 0, "site");
    ASSERT_TRUE(a);
    sink b;
    b.open("127.0.0.3", 0, "site"); // no peers: any key holder may speak
    uint16_t port = nbr_endpoint_port(b.ep.get());
    std::vector<bytes> cap; // four datagrams of a, as the tap saw them
    for (uint8_t i = 0; i < 4; i++) {
        ASSERT_EQ(nbr_endpoint_send_to(a.get(), ta.sin_addr.s_addr, ntohs(ta.sin_port), 52, &i, 1), 0);
        bytes d(256);
        ssize_t got = recv(tap, d.data(), d.size(), 0);
        ASSERT_GT(got, 0);
        d.resize((size_t)got);
        cap.push_back(d);
    }
    close(tap);
    auto delivered = [&](size_t count, const char *what) {
        EXPECT_TRUE(rt_poll_until([&] { return b.count() == count; })) << what;
    };
    auto dropped = [&](const char *counter, uint64_t before, const char *what) {
        EXPECT_TRUE(rt_poll_until([&] { return rt_counter(counter) == before + 1; })) << what;
    };

    uint64_t replays = rt_counter("nbr.drop.replay"), spoofs = rt_counter("nbr.drop.spoofed");
    send_raw("127.0.0.2", "127.0.0.3", port, cap[0]);
    delivered(1, "the original");
    send_raw("127.0.0.2", "127.0.0.3", port, cap[0]);
    dropped("nbr.drop.replay", replays, "played back as a");
    send_raw("127.0.0.7", "127.0.0.3", port, cap[3]);
    dropped("nbr.drop.spoofed", spoofs, "played back from another address");
    send_raw("127.0.0.2", "127.0.0.3", port, cap[3]);
    send_raw("127.0.0.2", "127.0.0.3", port, cap[1]); // late, still inside the window
    send_raw("127.0.0.2", "127.0.0.3", port, cap[2]);
    delivered(4, "reordered inside the window");

    // a starts again: it is heard at once, and its earlier life no more.
    uint64_t restarts = rt_counter("nbr.restart"), stale = rt_counter("nbr.drop.stale_epoch");
    a.reset();
    a = open_at("127.0.0.2", 0, "site");
    ASSERT_TRUE(a);
    uint8_t z = 9;
    ASSERT_EQ(nbr_endpoint_send_to(a.get(), ip4("127.0.0.3"), port, 52, &z, 1), 0);
    delivered(5, "the restarted sender");
    EXPECT_EQ(rt_counter("nbr.restart"), restarts + 1);
    send_raw("127.0.0.2", "127.0.0.3", port, cap[1]);
    dropped("nbr.drop.stale_epoch", stale, "a datagram of the earlier start");
    // Bound to every address, a sender names the address the route gives its datagrams.
    auto any = open_at("0.0.0.0", 0, "site");
    ASSERT_TRUE(any);
    z = 10;
    ASSERT_EQ(nbr_endpoint_send_to(any.get(), ip4("127.0.0.3"), port, 52, &z, 1), 0);
    delivered(6, "a sender bound to every address");
    std::lock_guard g(b.mu);
    std::vector<uint8_t> order;
    for (auto &[p, src] : b.got)
        order.push_back(p.at(0));
    EXPECT_EQ(order, (bytes{0, 3, 1, 2, 9, 10}));
}

// A receiver that restarts still refuses what it accepted before (a stopped access
// point's recording must not pass again); a sender whose clock went back across its
// restart still starts a later epoch.
TEST(NbrEndpoint, AcceptedCountersAndTheLastEpochOutliveARestart)
{
    rt_scratch dir;
    std::string windows = dir.path("windows");
    auto from_a = [](uint64_t epoch, uint64_t counter) {
        return nbr_sealed(52, {uint8_t(counter)}, "site", ip4("127.0.0.2"), epoch, counter);
    };
    uint16_t port;
    {
        sink b;
        b.open("127.0.0.3", 0, "site", {}, windows);
        port = nbr_endpoint_port(b.ep.get());
        send_raw("127.0.0.2", "127.0.0.3", port, from_a(5000, 1));
        send_raw("127.0.0.2", "127.0.0.3", port, from_a(5000, 2));
        ASSERT_TRUE(rt_poll_until([&] { return b.count() == 2; }));
    }
    {
        std::ofstream f(windows, std::ios::app);
        f << "127.0.0.9 notanumber 1\n"; // a damaged line costs only itself
    }
    sink b;
    b.open("127.0.0.3", port, "site", {}, windows);
    uint64_t replays = rt_counter("nbr.drop.replay"), stale = rt_counter("nbr.drop.stale_epoch");
    send_raw("127.0.0.2", "127.0.0.3", port, from_a(5000, 2));
    send_raw("127.0.0.2", "127.0.0.3", port, from_a(5000, 1));
    send_raw("127.0.0.2", "127.0.0.3", port, from_a(4999, 7));
    send_raw("127.0.0.2", "127.0.0.3", port, from_a(5000, 3));
    ASSERT_TRUE(rt_poll_until([&] { return b.count() == 1; }));
    EXPECT_EQ(rt_counter("nbr.drop.replay"), replays + 2);
    EXPECT_EQ(rt_counter("nbr.drop.stale_epoch"), stale + 1);
    EXPECT_EQ((std::lock_guard(b.mu), b.got[0].first), bytes{3});

    std::string epoch = dir.path("epoch");
    EXPECT_EQ(nbr_next_epoch(epoch, 100), 100u);
    EXPECT_EQ(nbr_next_epoch(epoch, 50), 101u) << "the clock went back";
    EXPECT_EQ(nbr_next_epoch(epoch, 500), 500u);
}
