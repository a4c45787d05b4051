// The CLI agent against a real socket: requests, refusals, and clients that must not
// lock the others out.
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <string.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <optional>
#include <string>
#include <vector>

#include "cli_agent.h"
#include "cli_proto.h"
#include "qz_log.h"
#include "rt_config.h"
#include "rt_counter.h"
#include "rt_local_sock.h"
#include "rt_log.h"
#include "rt_test_util.h"

using namespace cli_proto;
using bytes = std::vector<uint8_t>;

namespace {

std::string g_path, g_log;
const rt_sock_limits k_limits{8, 1000, 5000, 250};
pthread_t g_agent_thread;
std::atomic<pthread_t> g_handler_thread;
std::atomic<int> g_echo_calls;
std::vector<int> g_init_order;

// Shows block bytes 12..17 as a MAC, byte 19, and the negation flag.
int h_echo(qz_cli_cmd *cmd, qz_cli_ipc *ipc)
{
    g_handler_thread = pthread_self();
    g_echo_calls++;
    qz_cli_printf(cmd, "neg=%d mac=%m tail=%d\n", (int)cmd->negated, ipc->block + 12, (int)ipc->block[19]);
    return cmd->negated ? -1 : 0;
}
int h_second(qz_cli_cmd *cmd, qz_cli_ipc *) { return qz_cli_printf(cmd, "second\n"), 5; }
int h_big(qz_cli_cmd *cmd, qz_cli_ipc *)
{
    for (int i = 0; i < 20000; i++)
        qz_cli_printf(cmd, "%-40s%d\n", "line:", i); // far more than one socket buffer
    return 0;
}
int gen(void *ctx)
{
    uint8_t a[12] = {}, b[16] = {1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 90, 0, 0, 0};
    qz_cli_agent_add_tlv(ctx, 1882, a, 12, 7);
    qz_cli_agent_add_tlv(ctx, 1893, b, 16, 7);
    return 0;
}
int init_a()
{
    g_init_order.push_back(1);
    qz_reg_cmd_vector(0, 100, h_echo);
    qz_reg_cmd_vector(0, 100, h_second); // a second registration: the first serves
    return 0;
}
int init_b()
{
    g_init_order.push_back(2);
    qz_reg_cmd_vector(0, 101, h_big);
    qz_reg_cfg_generator(gen, nullptr);
    return 0;
}

// One agent for the suite (it starts once per process); only this suite runs it.
class CliAgent : public ::testing::Test {
  public:
    static void SetUpTestSuite()
    {
        char tmpl[] = "/tmp/cli_agent_test.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        rt_config cfg;
        cfg.runtime_dir = std::string(tmpl) + "/run";
        cfg.log_syslog = false;
        cfg.log_file = g_log = std::string(tmpl) + "/log";
        rt_cfg_set(cfg);
        rt_log_reopen();
        g_path = cfg.runtime_dir + "/cli.sock";
        cli_server_set_limits(k_limits);
        qz_add_cli_vector_initializer(init_a);
        qz_add_cli_vector_initializer(init_b);
        ASSERT_EQ(qz_start_cli_agent(52, 1, &g_agent_thread), 0);
    }
    static void TearDownTestSuite() { cli_server_stop(); }
};

int connect_agent(int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_un sa{};
    sa.sun_family = AF_UNIX;
    strncpy(sa.sun_path, g_path.c_str(), sizeof(sa.sun_path) - 1);
    EXPECT_EQ(connect(fd, (sockaddr *)&sa, sizeof(sa)), 0);
    return fd;
}

// One raw write, then the reply body; nullopt when the agent closed the connection.
std::optional<bytes> exchange_raw(int fd, const bytes &raw)
{
    uint8_t len[4];
    if (send(fd, raw.data(), raw.size(), MSG_NOSIGNAL) != (ssize_t)raw.size() || !rt_read_n(fd, len, 4))
        return std::nullopt;
    bytes body(get_u32(len));
    return rt_read_n(fd, body.data(), body.size()) ? std::optional(body) : std::nullopt;
}

std::optional<bytes> request(const bytes &body)
{
    int fd = connect_agent();
    auto r = exchange_raw(fd, frame(body));
    close(fd);
    return r;
}

bytes command(uint16_t id, uint8_t neg, const bytes &block, uint16_t type = 17)
{
    bytes b = {REQ_COMMAND};
    put_u16(b, id);
    b.insert(b.end(), {neg, (uint8_t)type, (uint8_t)(type >> 8), 0, 0, 0, 0, 0, 0}); // type in host order
    b.insert(b.end(), block.begin(), block.end());
    return b;
}

int32_t result_of(const bytes &r) { return (int32_t)get_u32(r.data()); }
std::string text_of(const std::optional<bytes> &r) { return r ? std::string(r->begin() + 4, r->end()) : "(closed)"; }

bytes mac_block(uint8_t tail = 0) { return {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x00, 0x11, 0x22, 0xaa, 0xbb, 0xcc, 0, tail}; }

} // namespace

TEST_F(CliAgent, InitialisersRanInOrderAndSocketIsOwnerOnly)
{
    EXPECT_EQ(g_init_order, (std::vector<int>{1, 2}));
    struct stat st;
    ASSERT_EQ(stat(g_path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & (S_IFMT | 0777), S_IFSOCK | 0600u);
}

TEST_F(CliAgent, CommandRunsFirstRegistrationOnAgentThread)
{
    auto r = request(command(100, 0, mac_block(9)));
    EXPECT_EQ(text_of(r), "neg=0 mac=0011.22aa.bbcc tail=9\n");
    EXPECT_EQ(result_of(*r), 0);
    EXPECT_TRUE(pthread_equal(g_handler_thread.load(), g_agent_thread));
    r = request(command(100, 1, mac_block()));
    EXPECT_EQ(text_of(r), "neg=1 mac=0011.22aa.bbcc tail=0\n");
    EXPECT_EQ(result_of(*r), -1);
    // No argument: the handler must see zeros past the block, not stale bytes.
    EXPECT_EQ(text_of(request(command(100, 0, bytes(12, 0)))), "neg=0 mac=0000.0000.0000 tail=0\n");
}

TEST_F(CliAgent, SeveralRequestsOnOneConnectionAndLargeOutput)
{
    int fd = connect_agent();
    // Two frames in one write: answered in order.
    bytes two = frame(command(100, 0, mac_block(1))), second = frame(command(101, 0, bytes(12, 0)));
    two.insert(two.end(), second.begin(), second.end());
    EXPECT_EQ(text_of(exchange_raw(fd, two)), "neg=0 mac=0011.22aa.bbcc tail=1\n");
    auto r2 = exchange_raw(fd, {});
    ASSERT_TRUE(r2);
    size_t want = 4;
    for (int i = 0; i < 20000; i++)
        want += 41 + std::to_string(i).size();
    EXPECT_EQ(r2->size(), want);
    close(fd);
}

TEST_F(CliAgent, RunningConfigurationListsTheGeneratorsEntries)
{
    bytes want;
    put_u32(want, 0);
    for (uint16_t v : {2, 1882, 12})
        put_u16(want, v);
    want.insert(want.end(), 12, 0);
    put_u16(want, 1893);
    put_u16(want, 16);
    want.insert(want.end(), {1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 90, 0, 0, 0});
    EXPECT_EQ(request({REQ_RUNNING}), want);
}

TEST_F(CliAgent, MalformedRequestsGetAnErrorReplyAndChangeNothing)
{
    uint64_t before = rt_counter("cli.malformed");
    int calls = g_echo_calls;
    const struct {
        bytes body;
        int32_t code;
        const char *why;
    } cases[] = {
        {{}, E_MALFORMED, "empty request"},
        {{9}, E_MALFORMED, "unknown request kind 9"},
        {{REQ_RUNNING, 0}, E_MALFORMED, "running-configuration request of 2 bytes"},
        {{REQ_STATUS, 1, 2}, E_MALFORMED, "status request of 3 bytes"},
        {{REQ_COMMAND, 0x00, 100, 0}, E_MALFORMED, "command request of 4 bytes"},
        {command(100, 0, bytes(21, 0)), E_MALFORMED, "command request of 33 bytes"},
        {command(100, 0, bytes(11, 0)), E_MALFORMED, "command request of 23 bytes"},
        {command(100, 2, mac_block()), E_MALFORMED, "negated flag 2"},
        {command(100, 0, mac_block(), 16), E_MALFORMED, "IPC type 16 (expected 17)"},
        {command(4321, 0, mac_block()), E_UNKNOWN, "unknown command 4321"},
        {{REQ_DEBUG, 1}, E_MALFORMED, "debug request too short"},
        {{REQ_DEBUG, 2, 'a', 0, 'b', 0}, E_MALFORMED, "switch 2"},
        {{REQ_DEBUG, 1, 0, 'b', 0}, E_MALFORMED, "no module name"},
        {{REQ_DEBUG, 1, 'a', 0, 'b'}, E_MALFORMED, "no category name"},
        {{REQ_DEBUG, 1, 'a', 0, 'b', 0, 'c'}, E_MALFORMED, "bytes after the category"},
    };
    for (auto &c : cases) {
        auto r = request(c.body);
        ASSERT_TRUE(r) << c.why;
        EXPECT_EQ(result_of(*r), c.code) << c.why;
        EXPECT_EQ(text_of(r).rfind("error: ", 0), 0u) << text_of(r);
        EXPECT_NE(text_of(r).find(c.why), std::string::npos) << text_of(r);
    }
    EXPECT_EQ(rt_counter("cli.malformed") - before, 14u);
    EXPECT_EQ(g_echo_calls, calls); // no handler ran
}

TEST_F(CliAgent, OversizedOrTruncatedFramesCloseTheConnectionOnly)
{
    // A declared length over the limit: closed without waiting for the body.
    int fd = connect_agent();
    bytes huge;
    put_u32(huge, 1u << 30);
    huge.push_back(REQ_STATUS);
    EXPECT_FALSE(exchange_raw(fd, huge));
    close(fd);

    // A frame cut short by the client: nothing is read past what arrived.
    uint64_t before = rt_counter("cli.truncated");
    fd = connect_agent();
    bytes part = frame(command(100, 0, mac_block()));
    ASSERT_EQ(send(fd, part.data(), part.size() - 5, MSG_NOSIGNAL), (ssize_t)part.size() - 5);
    close(fd);

    EXPECT_EQ(text_of(request(command(100, 0, mac_block(3)))), "neg=0 mac=0011.22aa.bbcc tail=3\n");
    rt_poll_until([&] { return rt_counter("cli.truncated") != before; }, 2000);
    EXPECT_EQ(rt_counter("cli.truncated") - before, 1u);
}

namespace {
size_t log_lines_with(const std::string &text)
{
    std::string log = rt_read_file(g_log);
    size_t n = 0;
    for (size_t at = 0; (at = log.find(text, at)) != std::string::npos; at += text.size())
        n++;
    return n;
}
} // namespace

TEST_F(CliAgent, IdleClientsNeverLockOthersOut)
{
    // A full house of idle clients: the longest idle one makes room for a request.
    std::vector<int> idle;
    for (size_t i = 0; i < k_limits.max_clients; i++)
        idle.push_back(connect_agent());
    EXPECT_EQ(text_of(request(command(100, 0, mac_block(4)))), "neg=0 mac=0011.22aa.bbcc tail=4\n");
    EXPECT_TRUE(rt_sees_close(idle[0], 5000));
    // The others go after the idle time.
    uint64_t before = rt_counter("cli.idle_closed");
    for (size_t i = 1; i < idle.size(); i++)
        EXPECT_TRUE(rt_sees_close(idle[i], 5000)) << i;
    EXPECT_GE(rt_counter("cli.idle_closed") - before, idle.size() - 1);
    for (int fd : idle)
        close(fd);
}

TEST_F(CliAgent, EveryRefusalIsCountedButTheLogIsRateLimited)
{
    uint64_t before = rt_counter("cli.malformed");
    size_t lines = log_lines_with("unknown request kind 9");
    int fd = connect_agent();
    for (int i = 0; i < 300; i++)
        ASSERT_TRUE(exchange_raw(fd, frame({9}))) << i;
    close(fd);
    EXPECT_EQ(rt_counter("cli.malformed") - before, 300u);
    EXPECT_LE(log_lines_with("unknown request kind 9") - lines, 1u);
}

// Out of descriptors, the pending connection stays in the backlog: the agent rests
// instead of spinning on a listener that stays readable, and serves once there are
// descriptors again.
TEST_F(CliAgent, OutOfDescriptorsTheListenerRestsThenServesAgain)
{
    int waiting = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    rlimit old;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
    rlimit low = old;
    low.rlim_cur = (rlim_t)waiting + 1;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
    std::vector<int> filler; // every free number below the limit
    for (int f; (f = open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;)
        filler.push_back(f);
    uint64_t errors = rt_counter("cli.accept_errors");
    connect_agent(waiting);
    rt_poll_until([&] { return rt_counter("cli.accept_errors") != errors; });
    errors = rt_counter("cli.accept_errors");
    usleep(1000000);
    // A rest of 250 ms: a handful of tries in that second, not a busy loop.
    EXPECT_LE(rt_counter("cli.accept_errors") - errors, 10u);
    setrlimit(RLIMIT_NOFILE, &old);
    for (int f : filler)
        close(f);
    EXPECT_TRUE(exchange_raw(waiting, frame({REQ_STATUS})));
    close(waiting);
}
