// The ltr-server program against the runtime's server channel over loopback:
// each side's framing and message coding checked by the other's.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
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

extern char **environ;

namespace {

using bytes = std::vector<uint8_t>;

std::mutex g_mu;
std::vector<bytes> g_in;
void capture(const void *p, int len)
{
    std::lock_guard g(g_mu);
    auto *b = static_cast<const uint8_t *>(p);
    g_in.emplace_back(b, b + len);
}

uint16_t free_port()
{
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a);
    socklen_t l = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr *>(&a), &l);
    close(fd);
    return ntohs(a.sin_port);
}

struct child {
    pid_t pid = -1;
    int out = -1;
};

child spawn_server(const std::vector<std::string> &args)
{
    int p[2];
    EXPECT_EQ(pipe2(p, O_CLOEXEC), 0);
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_adddup2(&fa, p[1], 1);
    posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
    std::vector<char *> argv;
    argv.push_back(const_cast<char *>(LTR_SERVER_BIN));
    for (const auto &a : args)
        argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    child c;
    EXPECT_EQ(posix_spawn(&c.pid, LTR_SERVER_BIN, &fa, nullptr, argv.data(), environ), 0);
    posix_spawn_file_actions_destroy(&fa);
    close(p[1]);
    c.out = p[0];
    return c;
}

// Reads the child's output up to its end; returns the exit status (-1 on timeout).
int finish(child &c, std::string &text, int timeout_ms = 15000)
{
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    char buf[4096];
    while (std::chrono::steady_clock::now() < end) {
        pollfd p{c.out, POLLIN, 0};
        if (poll(&p, 1, 100) <= 0)
            continue;
        ssize_t n = read(c.out, buf, sizeof buf);
        if (n <= 0)
            break;
        text.append(buf, size_t(n));
    }
    close(c.out);
    int st = 0;
    pid_t r;
    while ((r = waitpid(c.pid, &st, WNOHANG)) == 0 && std::chrono::steady_clock::now() < end)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    if (r == 0) {
        kill(c.pid, SIGKILL);
        waitpid(c.pid, &st, 0);
        return -1;
    }
    return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
}

bytes wait_inbound(size_t index, int timeout_ms = 8000)
{
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (std::chrono::steady_clock::now() < end) {
        {
            std::lock_guard g(g_mu);
            if (g_in.size() > index)
                return g_in[index];
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return {};
}

} // namespace

TEST(ServerLink, RequestAckAndReportRoundTrip)
{
    g_in.clear();
    uint16_t port = free_port();
    std::string addr = "127.0.0.1:" + std::to_string(port);
    child c = spawn_server({"--json", "--listen", addr, "--duration", "20", "wait-ap 1 8",
                            "start all interval=30 mac=00:11:22:33:44:55", "wait-reply 8", "wait 0.5",
                            "quit"});

    rt_config cfg;
    cfg.instance = "ap-link";
    cfg.server_address = addr;
    rt_cfg_set(cfg);
    srvchan_timing t;
    t.backoff_first_ms = 50;
    t.backoff_max_ms = 200;
    srvchan_set_timing(t);
    srvchan_set_deliver(capture);
    srvchan_open();

    const bytes start = {0x00, 0x02, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x17,
                         0x00, 0x01, 0x00, 0x17, 0x00, 0x02,
                         0x00, 0x01, 0x00, 0x06, 0x00, 0x1e,
                         0x00, 0x04, 0x00, 0x0b, 0x01, 0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
    EXPECT_EQ(wait_inbound(0), start);

    uint8_t ack[] = {0x00, 0x02, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x0b, 0x00,
                     0x06, 0x00, 0x0b, 0x00, 0x01, 0x00, 0x07, 0x00, 0x05, 0x00};
    uint8_t report[] = {0x00, 0x02, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x1e, 0x00, 0x05,
                        0x00, 0x1e, 0x00, 0x02,
                        0x00, 0x04, 0x00, 0x0b, 0x01, 0x00, 0x11, 0x22, 0x33, 0x44, 0x55,
                        0x00, 0x06, 0x00, 0x0d, 0x02, 0x00, 0x00, 0x00, 0x00, 0x01, 0x09, 0x6c, 0xc4};
    ASSERT_EQ(qz_capwap_send_event(165, sizeof ack, ack), 0);
    ASSERT_EQ(qz_capwap_send_event(165, sizeof report, report), 0);

    std::string out;
    EXPECT_EQ(finish(c, out), 0) << out;
    srvchan_close();
    srvchan_set_deliver(nullptr);

    EXPECT_NE(out.find("{\"event\":\"hello\",\"ap\":\"ap-link\",\"ap_id\":1,"), std::string::npos) << out;
    EXPECT_NE(out.find("\"event\":\"sent\""), std::string::npos) << out;
    EXPECT_NE(out.find("\"op\":\"ack\",\"msg_id\":\"0x00000001\",\"len\":11,\"tlv_num\":1,\"tlvs\":[{"
                       "\"type\":7,\"name\":\"ack_code\",\"len\":5,\"code\":0,\"meaning\":\"ok\"}],"
                       "\"ack_code\":0,\"ack\":\"ok\""),
              std::string::npos)
        << out;
    EXPECT_NE(out.find("\"stations\":[{\"mac\":\"00:11:22:33:44:55\",\"readings\":[{\"ap_mac\":"
                       "\"02:00:00:00:00:01\",\"freq\":2412,\"rssi\":-60}]}]"),
              std::string::npos)
        << out;
    EXPECT_EQ(out.find("error"), std::string::npos) << out;
}

namespace {

int connect_to(uint16_t port)
{
    for (int i = 0; i < 200; ++i) { // the program may still be starting
        int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        a.sin_port = htons(port);
        if (connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0)
            return fd;
        close(fd);
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return -1;
}

// Sends the bytes and returns what the peer sends back until it closes or goes quiet.
bytes exchange(int fd, const bytes &b, bool &closed)
{
    EXPECT_EQ(send(fd, b.data(), b.size(), MSG_NOSIGNAL), ssize_t(b.size()));
    bytes got;
    closed = false;
    uint8_t buf[256];
    pollfd p{fd, POLLIN, 0};
    while (poll(&p, 1, 500) > 0) {
        ssize_t n = recv(fd, buf, sizeof buf, 0);
        if (n <= 0) {
            closed = true;
            break;
        }
        got.insert(got.end(), buf, buf + n);
    }
    return got;
}

} // namespace

TEST(ServerLink, ServerRefusesBadFramesAndAnswersPing)
{
    uint16_t port = free_port();
    std::string addr = "127.0.0.1:" + std::to_string(port);
    child c = spawn_server({"--json", "--listen", addr, "--duration", "20", "wait 2.5", "quit"});
    const bytes hello = {0, 0, 0, 11, 1, 2, 0, 0, 0, 0, 9, 127, 0, 0, 1};
    bool closed;

    int a = connect_to(port);
    ASSERT_GE(a, 0);
    exchange(a, {0, 0, 0, 2, 2, 0}, closed);
    EXPECT_TRUE(closed) << "MESSAGE before HELLO";
    close(a);

    int b = connect_to(port);
    bytes wire = hello;
    wire.insert(wire.end(), {0, 0, 0, 2, 3, 'p'});
    EXPECT_EQ(exchange(b, wire, closed), (bytes{0, 0, 0, 2, 4, 'p'}));
    EXPECT_FALSE(closed);
    exchange(b, {0, 1, 0, 1, 2}, closed);
    EXPECT_TRUE(closed) << "oversized frame";
    close(b);

    std::string out;
    EXPECT_EQ(finish(c, out), 0) << out;
    EXPECT_NE(out.find("\"reason\":\"frame type 2 before HELLO\""), std::string::npos) << out;
    EXPECT_NE(out.find("\"reason\":\"frame length 65537 over 65536\""), std::string::npos) << out;
}
