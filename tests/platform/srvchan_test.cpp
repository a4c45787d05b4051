// Server channel against a real listener on loopback: HELLO, framing both ways,
// keep-alive, reconnect, the bounded queue and refusal of malformed frames.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "qz_capwap.h"
#include "rt.h"
#include "srvchan.h"

namespace {

using bytes = std::vector<uint8_t>;

struct fd_guard {
    int fd = -1;
    explicit fd_guard(int f = -1) : fd(f) {}
    fd_guard(fd_guard &&o) noexcept : fd(o.fd) { o.fd = -1; }
    fd_guard &operator=(fd_guard &&o) noexcept
    {
        std::swap(fd, o.fd);
        return *this;
    }
    ~fd_guard()
    {
        if (fd >= 0)
            close(fd);
    }
};

// A location server stand-in: one listening socket on 127.0.0.1.
struct listener {
    fd_guard ls;
    uint16_t port = 0;

    explicit listener(uint16_t want = 0)
    {
        ls = fd_guard(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        int one = 1;
        setsockopt(ls.fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        a.sin_port = htons(want);
        if (bind(ls.fd, reinterpret_cast<sockaddr *>(&a), sizeof a) != 0 || listen(ls.fd, 8) != 0)
            ADD_FAILURE() << "cannot listen on loopback";
        socklen_t al = sizeof a;
        getsockname(ls.fd, reinterpret_cast<sockaddr *>(&a), &al);
        port = ntohs(a.sin_port);
    }
    std::string address() const { return "127.0.0.1:" + std::to_string(port); }
    fd_guard accept_one(int timeout_ms = 3000)
    {
        pollfd p{ls.fd, POLLIN, 0};
        if (poll(&p, 1, timeout_ms) <= 0)
            return fd_guard();
        return fd_guard(accept4(ls.fd, nullptr, nullptr, SOCK_CLOEXEC));
    }
};

// Reads exactly n bytes; false on timeout or end of stream.
bool read_n(int fd, uint8_t *buf, size_t n, int timeout_ms = 3000)
{
    size_t got = 0;
    while (got < n) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, timeout_ms) <= 0)
            return false;
        ssize_t r = recv(fd, buf + got, n - got, 0);
        if (r <= 0)
            return false;
        got += size_t(r);
    }
    return true;
}

struct frame {
    uint8_t type = 0;
    bytes payload;
};

bool read_frame(int fd, frame &f, int timeout_ms = 3000)
{
    uint8_t h[5];
    if (!read_n(fd, h, 5, timeout_ms))
        return false;
    uint32_t n = uint32_t(h[0]) << 24 | uint32_t(h[1]) << 16 | uint32_t(h[2]) << 8 | h[3];
    f.type = h[4];
    f.payload.assign(n - 1, 0);
    return n == 1 || read_n(fd, f.payload.data(), n - 1, timeout_ms);
}

// True when the peer closes within the time (data before the close is skipped).
bool sees_close(int fd, int timeout_ms = 3000)
{
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    uint8_t buf[4096];
    while (std::chrono::steady_clock::now() < end) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, 50) > 0) {
            ssize_t r = recv(fd, buf, sizeof buf, 0);
            if (r <= 0)
                return true;
        }
    }
    return false;
}

void send_all(int fd, const bytes &b) { ASSERT_EQ(send(fd, b.data(), b.size(), MSG_NOSIGNAL), ssize_t(b.size())); }

bytes make_frame(uint8_t type, const bytes &payload)
{
    std::string s;
    srv_frame_put(s, type, payload.data(), payload.size());
    return bytes(s.begin(), s.end());
}

// Inbound deliveries captured through the test seam.
std::mutex g_mu;
std::vector<bytes> g_delivered;
void capture(const void *p, int len)
{
    std::lock_guard g(g_mu);
    auto *b = static_cast<const uint8_t *>(p);
    g_delivered.emplace_back(b, b + len);
}
std::vector<bytes> delivered_after(int timeout_ms, size_t want)
{
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    for (;;) {
        {
            std::lock_guard g(g_mu);
            if (g_delivered.size() >= want || std::chrono::steady_clock::now() >= end)
                return g_delivered;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

uint64_t counter(const char *n) { return rt_counter(n).load(); }

class SrvChan : public ::testing::Test {
protected:
    void SetUp() override
    {
        g_delivered.clear();
        srvchan_timing t;
        t.backoff_first_ms = 50;
        t.backoff_max_ms = 200;
        srvchan_set_timing(t);
        srvchan_set_deliver(capture);
    }
    void TearDown() override
    {
        srvchan_close();
        srvchan_set_deliver(nullptr);
    }
    void configure(const std::string &addr, uint32_t queue_limit = 1 << 20)
    {
        rt_config c;
        c.instance = "ap-test-7";
        c.server_address = addr;
        c.server_queue_limit = queue_limit;
        c.mgt_mac = std::array<uint8_t, 6>{0x02, 0x11, 0x22, 0x33, 0x44, 0x55};
        c.mgt_ip = htonl(0x7f000105);
        rt_cfg_set(c);
    }
    // Accepts the channel's next connection and checks that it opens with HELLO.
    fd_guard accept_hello(listener &l)
    {
        fd_guard c = l.accept_one();
        EXPECT_GE(c.fd, 0) << "the channel did not connect";
        frame f;
        EXPECT_TRUE(c.fd >= 0 && read_frame(c.fd, f));
        EXPECT_EQ(f.type, SRV_FRAME_HELLO);
        return c;
    }
};

TEST(SrvFrame, CutsFramesAndRefusesBadLengthsEarly)
{
    srv_frame_view f;
    const uint8_t three[] = {0, 0, 0};
    EXPECT_EQ(srv_frame_take(three, f), SRV_FRAME_NEED_MORE);

    // An oversized claim is refused from its length field alone.
    const uint8_t huge[] = {0, 1, 0, 1};
    EXPECT_EQ(srv_frame_take(huge, f), SRV_FRAME_TOO_LONG);
    EXPECT_EQ(f.length, 65537u);
    const uint8_t zero[] = {0, 0, 0, 0, 9};
    EXPECT_EQ(srv_frame_take(zero, f), SRV_FRAME_EMPTY);

    bytes max(4 + 65536, 0xab);
    max[0] = 0, max[1] = 1, max[2] = 0, max[3] = 0, max[4] = SRV_FRAME_MESSAGE;
    ASSERT_EQ(srv_frame_take(std::span(max).first(max.size() - 1), f), SRV_FRAME_NEED_MORE);
    ASSERT_EQ(srv_frame_take(max, f), SRV_FRAME_OK);
    EXPECT_EQ(f.payload.size(), 65535u);
    EXPECT_EQ(f.used, max.size());

    // Two frames back to back: the first is taken alone.
    bytes two = make_frame(SRV_FRAME_PING, {});
    bytes m = make_frame(SRV_FRAME_MESSAGE, {1, 2, 3});
    EXPECT_EQ(two, (bytes{0, 0, 0, 1, 3}));
    two.insert(two.end(), m.begin(), m.end());
    ASSERT_EQ(srv_frame_take(two, f), SRV_FRAME_OK);
    EXPECT_EQ(f.type, SRV_FRAME_PING);
    EXPECT_EQ(f.used, 5u);
    ASSERT_EQ(srv_frame_take(std::span(two).subspan(5), f), SRV_FRAME_OK);
    EXPECT_EQ(bytes(f.payload.begin(), f.payload.end()), (bytes{1, 2, 3}));
}

TEST(SrvFrame, ServerAddressParsing)
{
    std::string h, p;
    EXPECT_TRUE(srv_split_address("127.0.0.1:7420", h, p));
    EXPECT_EQ(h, "127.0.0.1");
    EXPECT_EQ(p, "7420");
    EXPECT_TRUE(srv_split_address("[::1]:80", h, p));
    EXPECT_EQ(h, "::1");
    for (const char *bad : {"", "host", "host:", ":80", "h:0", "h:65536", "h:8x", "::1:80", "[::1]80"})
        EXPECT_FALSE(srv_split_address(bad, h, p)) << bad;
}

TEST_F(SrvChan, HelloThenMessagesBothWays)
{
    listener l;
    configure(l.address());
    EXPECT_LT(qz_capwap_send_event(164, 3, (void *)"abc"), 0);
    uint8_t msg[] = {0, 2, 0xde, 0xad, 0xbe, 0xef, 0, 0, 0, 6, 0, 5, 0, 6, 0, 0};
    ASSERT_EQ(qz_capwap_send_event(165, sizeof msg, msg), 0); // starts the channel lazily

    fd_guard c = l.accept_one();
    ASSERT_GE(c.fd, 0);
    frame f;
    ASSERT_TRUE(read_frame(c.fd, f));
    ASSERT_EQ(f.type, SRV_FRAME_HELLO);
    uint8_t mac[6] = {};
    uint32_t ip = 0;
    // Configured addresses win over the interface's; without them, zeros.
    if (rt_mgt_mac(mac) == 0)
        EXPECT_EQ(mac[5], 0x55);
    else
        memset(mac, 0, 6);
    if (rt_mgt_ip(&ip) == 0)
        EXPECT_EQ(ip, htonl(0x7f000105));
    else
        ip = 0;
    bytes want(mac, mac + 6);
    want.insert(want.end(), reinterpret_cast<uint8_t *>(&ip), reinterpret_cast<uint8_t *>(&ip) + 4);
    for (char ch : std::string("ap-test-7"))
        want.push_back(uint8_t(ch));
    EXPECT_EQ(f.payload, want);

    ASSERT_TRUE(read_frame(c.fd, f));
    EXPECT_EQ(f.type, SRV_FRAME_MESSAGE);
    EXPECT_EQ(f.payload, bytes(msg, msg + sizeof msg));

    // Inbound: one frame dribbled byte by byte, then two frames and a PING in one write.
    bytes a = make_frame(SRV_FRAME_MESSAGE, {0, 2, 1, 2, 3, 4, 0, 0, 0, 0, 6, 0, 4, 0, 6, 0, 0});
    for (uint8_t byte : a) {
        send_all(c.fd, {byte});
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    bytes burst = make_frame(SRV_FRAME_MESSAGE, {7});
    bytes b2 = make_frame(SRV_FRAME_MESSAGE, {});
    bytes ping = make_frame(SRV_FRAME_PING, {'k', '1'});
    burst.insert(burst.end(), b2.begin(), b2.end());
    burst.insert(burst.end(), ping.begin(), ping.end());
    send_all(c.fd, burst);

    ASSERT_TRUE(read_frame(c.fd, f));
    EXPECT_EQ(f.type, SRV_FRAME_PONG);
    EXPECT_EQ(f.payload, (bytes{'k', '1'}));
    auto got = delivered_after(2000, 3);
    ASSERT_EQ(got.size(), 3u);
    EXPECT_EQ(got[0], bytes(a.begin() + 5, a.end()));
    EXPECT_EQ(got[1], bytes{7});
    EXPECT_TRUE(got[2].empty());
    EXPECT_TRUE(srvchan_connected());
}

TEST_F(SrvChan, KeepAlivePingsAndGivesUpOnSilentServer)
{
    srvchan_timing t;
    t.ping_idle_ms = 100;
    t.dead_ms = 400;
    t.backoff_first_ms = 50;
    srvchan_set_timing(t);
    listener l;
    configure(l.address());
    srvchan_open();

    // Answering every PING keeps the link up well past the dead time.
    fd_guard c = accept_hello(l);
    auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(1000);
    int pings = 0;
    frame f;
    while (std::chrono::steady_clock::now() < until && read_frame(c.fd, f, 500)) {
        ASSERT_EQ(f.type, SRV_FRAME_PING);
        ++pings;
        send_all(c.fd, make_frame(SRV_FRAME_PONG, f.payload));
    }
    EXPECT_GE(pings, 4);
    EXPECT_TRUE(srvchan_connected());

    // A server that stops answering is dropped, and the channel comes back.
    EXPECT_TRUE(sees_close(c.fd, 2000));
    fd_guard c2 = accept_hello(l);
    EXPECT_GE(c2.fd, 0);
}

TEST_F(SrvChan, ReconnectsAfterServerCloseAndDeliversInOrder)
{
    listener l;
    configure(l.address());
    uint64_t reconnects = counter("srvchan.reconnects");
    srvchan_open();
    {
        fd_guard c = accept_hello(l);
    } // closed by the server
    // Bytes written after the server closed but before the channel noticed are
    // lost with the connection; queue only once the channel knows it is down.
    for (int i = 0; i < 300 && srvchan_connected(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    ASSERT_FALSE(srvchan_connected());
    for (uint8_t i = 0; i < 20; ++i)
        ASSERT_EQ(srvchan_send(&i, 1), 0);
    fd_guard c = accept_hello(l);
    for (uint8_t i = 0; i < 20; ++i) {
        frame f;
        ASSERT_TRUE(read_frame(c.fd, f));
        ASSERT_EQ(f.type, SRV_FRAME_MESSAGE);
        ASSERT_EQ(f.payload, bytes{i});
    }
    EXPECT_EQ(counter("srvchan.reconnects"), reconnects + 1);
}

TEST_F(SrvChan, QueueWhileDownKeepsNewestWithinBound)
{
    uint16_t port;
    {
        listener gone;
        port = gone.port;
    } // nobody listens there now: every attempt is refused
    configure("127.0.0.1:" + std::to_string(port), 100);
    uint64_t drops = counter("srvchan.queue_drops");
    srvchan_open();
    for (uint8_t i = 0; i < 5; ++i) {
        bytes m(30, i);
        ASSERT_EQ(srvchan_send(m.data(), int(m.size())), 0); // succeeds even when dropping
    }
    bytes big(101, 0xee);
    EXPECT_EQ(srvchan_send(big.data(), int(big.size())), 0);
    EXPECT_EQ(counter("srvchan.queue_drops"), drops + 3);
    EXPECT_EQ(srvchan_queue_bytes(), 90u);
    EXPECT_EQ(counter("srvchan.queue_bytes"), 90u);
    EXPECT_FALSE(srvchan_connected());

    bytes too_big(65536, 0);
    EXPECT_LT(srvchan_send(too_big.data(), int(too_big.size())), 0);

    listener l(port);
    fd_guard c = accept_hello(l);
    for (uint8_t i = 2; i < 5; ++i) {
        frame f;
        ASSERT_TRUE(read_frame(c.fd, f));
        EXPECT_EQ(f.payload, bytes(30, i));
    }
}

TEST_F(SrvChan, MalformedFramesCloseAndReconnect)
{
    listener l;
    configure(l.address());
    srvchan_open();
    struct bad_case {
        const char *what;
        bytes wire;
    };
    bytes hello = make_frame(SRV_FRAME_HELLO, bytes(10, 0));
    const bad_case cases[] = {
        {"over 65536", {0, 1, 0, 1, SRV_FRAME_MESSAGE, 0, 0}},
        {"unknown type", make_frame(9, {1})},
        {"hello from server", hello},
        {"zero length", {0, 0, 0, 0}},
    };
    uint64_t bad = counter("srvchan.bad_frames");
    for (const auto &bc : cases) {
        fd_guard c = accept_hello(l);
        send_all(c.fd, bc.wire);
        EXPECT_TRUE(sees_close(c.fd)) << bc.what;
    }
    EXPECT_EQ(counter("srvchan.bad_frames"), bad + 4);

    // A frame cut short by the end of the stream is not delivered.
    {
        fd_guard c = accept_hello(l);
        send_all(c.fd, {0, 0, 0, 10, SRV_FRAME_MESSAGE, 1, 2});
    }
    fd_guard c = accept_hello(l);
    send_all(c.fd, make_frame(SRV_FRAME_MESSAGE, {42}));
    auto got = delivered_after(2000, 1);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0], bytes{42});
}

TEST_F(SrvChan, RuntimeStopEndsTheChannel)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    listener l;
    configure(l.address());
    EXPECT_EXIT(
        {
            rt_srvchan_start();
            fd_guard c = l.accept_one();
            if (c.fd < 0)
                _exit(2);
            rt_request_stop();
            bool closed = sees_close(c.fd);
            srvchan_close(); // joins the thread, which has already left
            _exit(closed ? 0 : 3);
        },
        ::testing::ExitedWithCode(0), "");
}

} // namespace
