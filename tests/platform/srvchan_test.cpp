// Server channel against a real listener on loopback, plain and over TLS.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <chrono>
#include <condition_variable>
#include <fstream>
#include <optional>
#include <mutex>
#include <thread>
#include <vector>

#include "qz_capwap.h"
#include "qz_event.h"
#include "rt_config.h"
#include "rt_counter.h"
#include "rt_test_util.h"
#include "srvchan.h"
#include "test_certs.h"

namespace {

using bytes = std::vector<uint8_t>;
using clk = std::chrono::steady_clock;
using ms = std::chrono::milliseconds;

// A location server stand-in: one listening socket on 127.0.0.1.
struct listener {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    uint16_t port = 0;
    explicit listener(uint16_t want = 0)
    {
        int one = 1;
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
        sockaddr_in a{AF_INET, htons(want), {htonl(INADDR_LOOPBACK)}, {}};
        socklen_t al = sizeof a;
        EXPECT_EQ(bind(fd, (sockaddr *)&a, sizeof a) | listen(fd, 8), 0);
        getsockname(fd, (sockaddr *)&a, &al);
        port = ntohs(a.sin_port);
    }
    ~listener() { close(fd); }
    std::string address() const { return "127.0.0.1:" + std::to_string(port); }
    // The channel's next connection, -1 when none came within 3 s.
    int take() const
    {
        pollfd p{fd, POLLIN, 0};
        return poll(&p, 1, 3000) > 0 ? accept4(fd, nullptr, nullptr, SOCK_CLOEXEC) : -1;
    }
};

struct frame {
    uint8_t type = 0;
    bytes payload;
};

// One frame through read_n(buf, n), over TCP or TLS alike.
template <typename R> bool read_frame_by(R read_n, frame &f)
{
    uint8_t h[5];
    if (!read_n(h, 5))
        return false;
    f.type = h[4];
    f.payload.assign((uint32_t(h[0]) << 24 | uint32_t(h[1]) << 16 | uint32_t(h[2]) << 8 | h[3]) - 1, 0);
    return read_n(f.payload.data(), f.payload.size());
}
bool read_frame(int fd, frame &f, int timeout_ms = 3000)
{
    return read_frame_by([&](uint8_t *b, size_t n) { return rt_read_n(fd, b, n, timeout_ms); }, f);
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
    g_delivered.emplace_back((const uint8_t *)p, (const uint8_t *)p + len);
}
std::vector<bytes> delivered_after(size_t want)
{
    for (auto end = clk::now() + ms(2000);; std::this_thread::sleep_for(ms(10))) {
        std::lock_guard g(g_mu);
        if (g_delivered.size() >= want || clk::now() >= end)
            return g_delivered;
    }
}

uint64_t counter(const char *n) { return rt_counter(n).load(); }

// Writes frame up to times over fd, never reading; stops early once the peer has
// taken nothing for half a second. Returns the whole frames written.
size_t flood(int fd, const bytes &frame, size_t times)
{
    size_t sent = 0, off = 0;
    while (sent < times) {
        pollfd p{fd, POLLOUT, 0};
        if (poll(&p, 1, 500) <= 0)
            break;
        ssize_t n = send(fd, frame.data() + off, frame.size() - off, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0 && errno != EAGAIN)
            break;
        off += size_t(std::max<ssize_t>(n, 0));
        if (off == frame.size())
            off = 0, ++sent;
    }
    return sent;
}

// Waits (bounded) until counter n has moved past before.
bool counter_moves(const char *n, uint64_t before, int timeout_ms = 10000)
{
    return rt_poll_until([&] { return counter(n) > before; }, timeout_ms);
}

class SrvChan : public ::testing::Test {
protected:
    void SetUp() override { g_delivered.clear(), timing(0, 0), srvchan_set_deliver(capture); }
    void TearDown() override { srvchan_close(), srvchan_set_deliver(nullptr), qz_event_cleanup(); }
    static void timing(uint32_t ping_idle, uint32_t dead)
    {
        srvchan_timing t;
        t.backoff_first_ms = 50;
        t.backoff_max_ms = 200;
        if (ping_idle)
            t.ping_idle_ms = ping_idle, t.dead_ms = dead;
        srvchan_set_timing(t);
    }
    rt_scratch dir;
    rt_config base(const std::string &addr)
    {
        rt_config c = rt_test_config(dir, "ap-test-7");
        c.server_address = addr;
        c.mgt_mac = std::array<uint8_t, 6>{0x02, 0x11, 0x22, 0x33, 0x44, 0x55}, c.mgt_ip = htonl(0x7f000105);
        return c;
    }
    void configure(const std::string &addr, uint32_t queue_limit = 1 << 20)
    {
        rt_config c = base(addr);
        c.server_queue_limit = queue_limit;
        rt_cfg_set(c);
    }
    // Accepts the channel's next connection and checks that it opens with HELLO.
    int accept_hello(listener &l, frame *hello = nullptr)
    {
        int c = l.take();
        frame f;
        EXPECT_TRUE(c >= 0 && read_frame(c, f)) << "the channel did not connect";
        EXPECT_EQ(f.type, SRV_FRAME_HELLO);
        if (hello)
            *hello = f;
        return c;
    }
};

// Frames are cut over the socket below; here only the exact size limit.
TEST(SrvFrame, TakesTheLargestFrameAndRefusesOneByteMoreFromTheLengthAlone)
{
    srv_frame_view f;
    bytes max(4 + 65536, 0xab);
    max[0] = 0, max[1] = 1, max[2] = 0, max[3] = 0;
    ASSERT_EQ(srv_frame_take(std::span(max).first(max.size() - 1), f), SRV_FRAME_NEED_MORE);
    ASSERT_EQ(srv_frame_take(max, f), SRV_FRAME_OK);
    EXPECT_EQ(f.payload.size(), 65535u);
    EXPECT_EQ(srv_frame_take(bytes{0, 1, 0, 1}, f), SRV_FRAME_TOO_LONG);
}

TEST(SrvFrame, ServerAddressParsing)
{
    std::string h, p;
    EXPECT_TRUE(srv_split_address("[::1]:80", h, p));
    EXPECT_EQ(h + " " + p, "::1 80");
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
    frame f;
    int c = accept_hello(l, &f);
    std::string name = "ap-test-7";
    bytes want = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55, 127, 0, 1, 5}; // configured MAC and IP, then the name
    want.insert(want.end(), name.begin(), name.end());
    EXPECT_EQ(f.payload, want);
    ASSERT_TRUE(read_frame(c, f));
    EXPECT_EQ(f.type, SRV_FRAME_MESSAGE);
    EXPECT_EQ(f.payload, bytes(msg, msg + sizeof msg));

    // Inbound: one frame dribbled byte by byte, then two frames and a PING in one write.
    bytes a = make_frame(SRV_FRAME_MESSAGE, {0, 2, 1, 2, 3, 4, 0, 0, 0, 0, 6, 0, 4, 0, 6, 0, 0});
    for (uint8_t byte : a) {
        send_all(c, {byte});
        std::this_thread::sleep_for(ms(1));
    }
    bytes burst = make_frame(SRV_FRAME_MESSAGE, {7});
    for (const bytes &b : {make_frame(SRV_FRAME_MESSAGE, {}), make_frame(SRV_FRAME_PING, {'k', '1'})})
        burst.insert(burst.end(), b.begin(), b.end());
    send_all(c, burst);
    ASSERT_TRUE(read_frame(c, f));
    EXPECT_EQ(f.type, SRV_FRAME_PONG);
    EXPECT_EQ(f.payload, (bytes{'k', '1'}));
    EXPECT_EQ(delivered_after(3), (std::vector<bytes>{bytes(a.begin() + 5, a.end()), {7}, {}}));
    close(c);
}

// With no server configured the channel only waits for messages and the stop.
TEST_F(SrvChan, WithoutServerTheThreadSleepsUntilStopped)
{
    configure("");
    uint64_t before = counter("wake.srvchan");
    srvchan_open();
    EXPECT_EQ(qz_capwap_send_event(165, 1, (void *)"x"), 0);
    std::this_thread::sleep_for(ms(2500));
    EXPECT_LE(counter("wake.srvchan") - before, 2u);
    EXPECT_EQ(srvchan_queue_bytes(), 1u);
}

TEST_F(SrvChan, KeepAlivePingsAndGivesUpOnSilentServer)
{
    timing(100, 400);
    listener l;
    configure(l.address());
    srvchan_open();
    // Answering every PING keeps the link up well past the dead time.
    int c = accept_hello(l), pings = 0;
    frame f;
    for (auto until = clk::now() + ms(1000); clk::now() < until && read_frame(c, f, 500); ++pings) {
        ASSERT_EQ(f.type, SRV_FRAME_PING);
        send_all(c, make_frame(SRV_FRAME_PONG, f.payload));
    }
    EXPECT_GE(pings, 4);
    EXPECT_TRUE(srvchan_connected());
    // A server that stops answering is dropped, and the channel comes back.
    EXPECT_TRUE(rt_sees_close(c, 2000));
    close(c);
    close(accept_hello(l));
}

// What the configuration accepts, the channel reaches: an IPv6 server in brackets.
TEST_F(SrvChan, ReachesAServerAtABracketedIPv6Address)
{
    listener l;
    close(l.fd);
    l.fd = socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in6 a{};
    a.sin6_family = AF_INET6, a.sin6_addr = in6addr_loopback;
    socklen_t al = sizeof a;
    if (bind(l.fd, (sockaddr *)&a, sizeof a) != 0 || listen(l.fd, 8) != 0)
        GTEST_SKIP() << "no IPv6 loopback here";
    getsockname(l.fd, (sockaddr *)&a, &al);
    configure("[::1]:" + std::to_string(ntohs(a.sin6_port)));
    srvchan_open();
    close(accept_hello(l));
}

TEST_F(SrvChan, QueueWhileDownKeepsNewestWithinBoundAndDeliversInOrder)
{
    uint16_t port = listener().port; // nobody listens there now: every attempt is refused
    configure("127.0.0.1:" + std::to_string(port), 100);
    uint64_t drops = counter("srvchan.queue_drops");
    srvchan_open();
    for (uint8_t i = 0; i < 5; ++i) {
        bytes m(30, i);
        ASSERT_EQ(srvchan_send(m.data(), int(m.size())), 0); // succeeds even when dropping
    }
    bytes big(101, 0xee), too_big(65536, 0);
    EXPECT_EQ(srvchan_send(big.data(), int(big.size())), 0);
    EXPECT_EQ(counter("srvchan.queue_drops"), drops + 3);
    EXPECT_EQ(srvchan_queue_bytes(), 90u);
    EXPECT_LT(srvchan_send(too_big.data(), int(too_big.size())), 0);

    listener l(port);
    int c = accept_hello(l);
    for (uint8_t i = 2; i < 5; ++i) {
        frame f;
        ASSERT_TRUE(read_frame(c, f));
        EXPECT_EQ(f.payload, bytes(30, i));
    }
    close(c);
}

TEST_F(SrvChan, MalformedFramesCloseAndReconnect)
{
    listener l;
    configure(l.address());
    srvchan_open();
    uint64_t bad = counter("srvchan.bad_frames"), reconnects = counter("srvchan.reconnects");
    for (const bytes &wire : {bytes{0, 1, 0, 1, SRV_FRAME_MESSAGE, 0, 0}, make_frame(9, {1}),
                              make_frame(SRV_FRAME_HELLO, bytes(10, 0)), bytes{0, 0, 0, 0}}) {
        int c = accept_hello(l);
        send_all(c, wire);
        EXPECT_TRUE(rt_sees_close(c)) << wire.size();
        close(c);
    }
    EXPECT_EQ(counter("srvchan.bad_frames"), bad + 4);
    // A frame cut short by the end of the stream is not delivered.
    int c = accept_hello(l);
    send_all(c, {0, 0, 0, 10, SRV_FRAME_MESSAGE, 1, 2});
    close(c);
    c = accept_hello(l);
    send_all(c, make_frame(SRV_FRAME_MESSAGE, {42}));
    EXPECT_EQ(delivered_after(1), std::vector<bytes>{{42}});
    EXPECT_EQ(counter("srvchan.reconnects"), reconnects + 5);
    close(c);
}

// 64 KiB frames from a server that never reads: its PINGs are left in its socket
// once the PONGs reach the output bound, and a server that stays so is dropped.
TEST_F(SrvChan, FloodingServerThatNeverReadsIsHeldToTheOutputBoundThenDropped)
{
    timing(600000, 3000);
    listener l;
    configure(l.address());
    srvchan_open();
    int c = accept_hello(l);
    uint64_t stalled = counter("srvchan.stalled");
    const bytes ping = make_frame(SRV_FRAME_PING, bytes(65530, 0x5a));
    EXPECT_LT(flood(c, ping, 1000), 1000u) << "PINGs read past the output bound";
    EXPECT_LE(counter("srvchan.out_bytes"), SRV_OUT_LIMIT + ping.size());
    EXPECT_TRUE(counter_moves("srvchan.stalled", stalled));
    close(c);
    close(accept_hello(l)); // the usual reconnect
}

// MESSAGE frames wait in the server's socket while the event queue is full (no event
// thread empties it here), and are read again, none lost, once it has room. The held
// channel sleeps meanwhile: it wakes for the queue's room, not to look again.
TEST_F(SrvChan, MessageFloodIsHeldBackWhileTheEventQueueIsFull)
{
    srvchan_set_deliver(nullptr); // to the event queue
    listener l;
    configure(l.address());
    srvchan_open();
    int c = accept_hello(l);
    uint64_t held = counter("srvchan.held_inbound");
    const bytes msg = make_frame(SRV_FRAME_MESSAGE, bytes(65530, 0x11));
    EXPECT_LT(flood(c, msg, 1000), 1000u) << "messages queued past the bound";
    EXPECT_LE(counter("event_queue_bytes"), (1u << 20) + msg.size() + 64);
    EXPECT_EQ(counter("srvchan.held_inbound"), held + 1);
    EXPECT_TRUE(srvchan_connected());
    uint64_t wakes = counter("wake.srvchan");
    std::this_thread::sleep_for(ms(300));
    EXPECT_LE(counter("wake.srvchan") - wakes, 1u) << "a held channel polls the full queue";
    uint64_t frames = counter("srvchan.frames_in");
    qz_event_cleanup(); // empties the queue
    EXPECT_TRUE(counter_moves("srvchan.frames_in", frames));
    close(c);
}

// ---- TLS ----

// The server's side of one TLS connection, blocking with time-outs so that a stuck
// handshake fails the test instead of hanging it.
struct tls_peer {
    SSL_CTX *ctx = SSL_CTX_new(TLS_server_method());
    SSL *ssl = nullptr;
    int fd = -1;
    std::string sni, client_cn;
    // cert: the path given by test_ca::issue; client_ca: require client certificates.
    explicit tls_peer(const std::string &cert, const std::string &client_ca = "")
    {
        EXPECT_EQ(SSL_CTX_use_certificate_file(ctx, (cert + ".crt").c_str(), SSL_FILETYPE_PEM) &
                      SSL_CTX_use_PrivateKey_file(ctx, (cert + ".key").c_str(), SSL_FILETYPE_PEM),
                  1);
        if (!client_ca.empty()) {
            SSL_CTX_load_verify_locations(ctx, client_ca.c_str(), nullptr);
            SSL_CTX_set_verify(ctx, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
        }
    }
    ~tls_peer()
    {
        SSL_free(ssl);
        if (fd >= 0)
            close(fd);
        SSL_CTX_free(ctx);
    }
    // Accepts the channel's next connection; false when no handshake completed.
    bool accept(listener &l)
    {
        SSL_free(ssl), ssl = nullptr;
        if (fd >= 0)
            close(fd);
        fd = l.take();
        if (fd < 0)
            return ADD_FAILURE() << "the channel did not connect", false;
        timeval tv{3, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
        ssl = SSL_new(ctx);
        SSL_set_fd(ssl, fd);
        bool ok = SSL_accept(ssl) == 1;
        ERR_clear_error();
        if (!ok)
            return false;
        const char *sn = SSL_get_servername(ssl, TLSEXT_NAMETYPE_host_name);
        sni = sn ? sn : "";
        if (X509 *c = SSL_get1_peer_certificate(ssl)) {
            char cn[256] = "";
            X509_NAME_get_text_by_NID(X509_get_subject_name(c), NID_commonName, cn, sizeof cn);
            client_cn = cn;
            X509_free(c);
        }
        return true;
    }
    bool read_n(uint8_t *buf, size_t n)
    {
        for (int r; n; buf += r, n -= size_t(r))
            if ((r = SSL_read(ssl, buf, int(n))) <= 0)
                return false;
        return true;
    }
    bool read_frame(frame &f)
    {
        return read_frame_by([this](uint8_t *b, size_t n) { return read_n(b, n); }, f);
    }
    void send(const bytes &b) { ASSERT_EQ(SSL_write(ssl, b.data(), int(b.size())), int(b.size())); }
};

class SrvChanTls : public SrvChan {
protected:
    test_ca ca{dir.dir, "site"};
    std::string srv = ca.issue("srv", "location server", "DNS:srv.site.test");

    // TLS towards l as srv.site.test unless name says otherwise; with client, this
    // access point shows that certificate.
    void configure_tls(const listener &l, const std::string &name = "srv.site.test",
                       const std::string &client = "")
    {
        rt_config c = base(l.address());
        c.server_tls = true, c.server_ca_file = ca.ca_file(), c.server_name = name;
        if (!client.empty())
            c.server_cert_file = client + ".crt", c.server_key_file = client + ".key";
        rt_cfg_set(c);
    }
    bool logged(const std::string &line)
    {
        return rt_poll_until([&] { return rt_read_file(dir.path("log")).find(line) != std::string::npos; });
    }
};

TEST_F(SrvChanTls, CarriesTheSameFramesBothWaysWithNameAndClientCertificate)
{
    listener l;
    configure_tls(l, "srv.site.test", ca.issue("ap", "ap-test-7", ""));
    uint8_t msg[] = {0, 2, 0xde, 0xad, 0xbe, 0xef, 0, 0, 0, 6, 0, 5, 0, 6, 0, 0};
    ASSERT_EQ(srvchan_send(msg, sizeof msg), 0);
    srvchan_open();
    tls_peer peer(srv, ca.ca_file());
    ASSERT_TRUE(peer.accept(l));
    EXPECT_EQ(peer.sni, "srv.site.test");
    EXPECT_EQ(peer.client_cn, "ap-test-7");
    frame f;
    ASSERT_TRUE(peer.read_frame(f));
    EXPECT_EQ(f.type, SRV_FRAME_HELLO);
    EXPECT_EQ(f.payload.size(), SRV_HELLO_FIXED + 9);
    ASSERT_TRUE(peer.read_frame(f));
    EXPECT_EQ(f.payload, bytes(msg, msg + sizeof msg));
    // Inbound: a frame over several records, then a PING answered inside TLS.
    bytes big(60000), small{1, 2, 3};
    for (size_t i = 0; i < big.size(); ++i)
        big[i] = uint8_t(i * 7);
    bytes wire = make_frame(SRV_FRAME_MESSAGE, big), more = make_frame(SRV_FRAME_MESSAGE, small);
    wire.insert(wire.end(), more.begin(), more.end());
    peer.send(wire);
    peer.send(make_frame(SRV_FRAME_PING, {'t'}));
    ASSERT_TRUE(peer.read_frame(f));
    EXPECT_EQ(f.type, SRV_FRAME_PONG);
    EXPECT_EQ(delivered_after(2), (std::vector<bytes>{big, small}));
    EXPECT_TRUE(srvchan_connected());
    EXPECT_EQ(rt_read_file(dir.path("log")).find("plain TCP"), std::string::npos);
}

// Each refused certificate gives its own line, no session, and the usual retry.
// The IP of the address stands in for a name that is not configured.
TEST_F(SrvChanTls, ServerCertificateIsCheckedByNameOrAddressAndRefusalsNameTheirReason)
{
    test_ca other(dir.dir, "other");
    struct bad {
        std::string cert, name, line;
    } cases[] = {
        {ca.issue("old", "srv", "DNS:srv.site.test", -2 * 86400, -86400), "srv.site.test",
         "refused: it has expired"},
        {ca.issue("wrong", "srv", "DNS:other.site.test"), "srv.site.test",
         "refused: it is not for \"srv.site.test\""},
        // No server_name: the address's own IP must be in the certificate.
        {ca.issue("ip", "srv", "IP:127.0.0.2"), "", "refused: it is not for \"127.0.0.1\""},
        {other.issue("foreign", "srv", "DNS:srv.site.test"), "srv.site.test",
         "refused: unable to get local issuer certificate"},
    };
    for (const bad &b : cases) {
        listener l;
        configure_tls(l, b.name);
        uint64_t failures = counter("srvchan.tls_failures");
        srvchan_open();
        tls_peer peer(b.cert);
        EXPECT_FALSE(peer.accept(l)) << b.line;
        EXPECT_TRUE(logged("server channel: certificate of " + l.address() + " " + b.line)) << b.line;
        EXPECT_FALSE(peer.accept(l)) << "no retry after " << b.line;
        EXPECT_TRUE(rt_poll_until([&] { return counter("srvchan.tls_failures") >= failures + 2; }));
        EXPECT_FALSE(srvchan_connected());
        srvchan_close();
    }
    EXPECT_EQ(counter("srvchan.connected"), 0u);
    // Without a name, a certificate for the address's own IP is the server's.
    listener l;
    configure_tls(l, "");
    srvchan_open();
    tls_peer peer(ca.issue("ipok", "srv", "IP:127.0.0.1"));
    ASSERT_TRUE(peer.accept(l));
    frame f;
    EXPECT_TRUE(peer.read_frame(f) && f.type == SRV_FRAME_HELLO);
}

// An access point set for TLS meeting a plain-TCP server: one line, no session.
TEST_F(SrvChanTls, PlainServerFailsTheHandshake)
{
    listener l;
    configure_tls(l);
    srvchan_open();
    int c = l.take();
    ASSERT_GE(c, 0);
    send_all(c, make_frame(SRV_FRAME_PING, {}));
    EXPECT_TRUE(logged("server channel: TLS handshake with " + l.address() + " failed: "));
    EXPECT_FALSE(srvchan_connected());
    close(c);
}

TEST_F(SrvChanTls, ServerThatWantsAClientCertificateRefusesOneWithoutOrFromAnotherCa)
{
    test_ca other(dir.dir, "other");
    for (const std::string &client : {std::string(), other.issue("ap", "ap-test-7", "")}) {
        listener l;
        configure_tls(l, "srv.site.test", client);
        srvchan_open();
        tls_peer peer(srv, ca.ca_file());
        EXPECT_FALSE(peer.accept(l)) << client;
        EXPECT_TRUE(logged("server channel: TLS error on the connection to " + l.address()));
        srvchan_close();
        std::ofstream(dir.path("log"), std::ios::trunc).flush();
    }
}

// A delivery that waits until the test opens the gate: holds the channel thread.
std::mutex g_gate_mu;
std::condition_variable g_gate_cv;
bool g_gate_open = false, g_gate_reached = false;
void gated(const void *, int)
{
    std::unique_lock l(g_gate_mu);
    g_gate_reached = true;
    g_gate_cv.notify_all();
    g_gate_cv.wait(l, [] { return g_gate_open; });
}

// The server closes while the channel is busy with its message and a large PONG
// waits: the writes after the server's reset fail with EPIPE, never a SIGPIPE.
TEST_F(SrvChanTls, WritesToAServerThatClosedCostAReconnectNotTheProcess)
{
    srvchan_set_deliver(gated);
    listener l;
    configure_tls(l);
    srvchan_open();
    {
        tls_peer peer(srv);
        ASSERT_TRUE(peer.accept(l));
        frame f;
        ASSERT_TRUE(peer.read_frame(f));
        bytes wire = make_frame(SRV_FRAME_PING, bytes(60000, 0x42)), msg = make_frame(SRV_FRAME_MESSAGE, {1});
        wire.insert(wire.end(), msg.begin(), msg.end());
        peer.send(wire);
        ASSERT_TRUE(rt_wait_for(g_gate_mu, g_gate_cv, [] { return g_gate_reached; }));
        uint8_t sink[4096];
        while (recv(peer.fd, sink, sizeof sink, MSG_DONTWAIT) > 0) {
        }
    } // closed with nothing unread or unsent: a FIN the channel has not seen
    std::this_thread::sleep_for(ms(100));
    {
        std::lock_guard g(g_gate_mu);
        g_gate_open = true;
    }
    g_gate_cv.notify_all();
    tls_peer again(srv);
    EXPECT_TRUE(again.accept(l));
}

// Plain TCP only as configured, and it says so at start.
TEST_F(SrvChanTls, PlainTcpWarnsAtStart)
{
    for (std::optional<bool> tls : {std::optional<bool>(), std::optional<bool>(false)}) {
        listener l;
        rt_config c = base(l.address());
        c.server_tls = tls;
        rt_cfg_set(c);
        srvchan_open();
        close(accept_hello(l));
        EXPECT_TRUE(logged("server channel: plain TCP to " + l.address() +
                           (tls ? " (server.tls = false)" : " (no server.tls in the configuration)")));
        srvchan_close();
    }
}

} // namespace
