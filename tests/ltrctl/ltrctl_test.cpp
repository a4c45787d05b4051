// ltrctl: words to requests, the checks that keep bad input away from the daemon, the
// running configuration back to words, and batches against a stand-in agent.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>

#include "cli_proto.h"
#include "ltrctl_run.h"

using namespace ltrctl;
using bytes = std::vector<uint8_t>;

namespace {

bytes block_of(const std::string &line)
{
    request r;
    std::string err;
    EXPECT_TRUE(parse(line, r, err)) << line << ": " << err;
    return r.block;
}

std::string error_of(const std::string &line)
{
    request r;
    std::string err;
    EXPECT_FALSE(parse(line, r, err)) << line;
    return err;
}

} // namespace

TEST(LtrctlParse, BadWordsAndValuesAreRefusedWithTheReason)
{
    struct {
        const char *line;
        const char *why;
    } cases[] = {
        {"location-tracking enabel", "unknown command 'location-tracking enabel'"},
        {"location-tracking", "unknown command"},
        {"location-tracking report-interval", "location-tracking report-interval: needs a value"},
        {"location-tracking report-interval 0", "0 is out of range (1-65535)"},
        {"location-tracking report-interval 65536", "65536 is out of range (1-65535)"},
        {"location-tracking rssi-threshold 256", "256 is out of range (0-255)"},
        {"location-tracking hold-time 300", "300 is out of range (0-255)"},
        {"location-tracking suppress -1", "'-1' is not a number"},
        {"location-tracking suppress 12a", "'12a' is not a number"},
        {"location-tracking suppress 99999999999", "is not a number"},
        {"location-tracking suppress 1 2", "unexpected '2'"},
        {"no location-tracking suppress 5", "no location-tracking suppress: unexpected '5'"},
        {"location-tracking enable now", "unexpected 'now'"},
        {"location-tracking mac", "needs a MAC address"},
        {"location-tracking mac 00:11:22:33:44", "'00:11:22:33:44' is not a MAC address"},
        {"location-tracking mac 00:11-22:33:44:55", "is not a MAC address"},
        {"location-tracking mac 00:11:22:33:44:5g", "is not a MAC address"},
        {"location-tracking mac 0011.2233.44", "is not a MAC address"},
        {"location-tracking mac 001122334455", "is not a MAC address"},
        {"location-tracking oui 00:11:22:33", "is not an OUI"},
        {"show location-tracking rssi oui 0011.2", "is not an OUI"},
        {"no show location-tracking", "has no 'no' form"},
        {"debug location-tracking verbose", "unknown category 'verbose'"},
        {"debug ltr info", "usage: [no] debug location-tracking <category>"},
    };
    for (auto &c : cases)
        EXPECT_NE(error_of(c.line).find(c.why), std::string::npos)
            << c.line << " -> " << error_of(c.line);
}

TEST(LtrctlParse, AddressFormsGiveTheSameBytes)
{
    const bytes want = block_of("location-tracking mac 00:1a:2b:3c:4d:5e");
    EXPECT_EQ(block_of("location-tracking mac 00-1A-2B-3C-4D-5E"), want);
    EXPECT_EQ(block_of("location-tracking mac 001a.2b3c.4d5e"), want);
    const bytes oui = block_of("location-tracking oui 00:1a:2b");
    EXPECT_EQ(block_of("location-tracking oui 00-1a-2b"), oui);
    EXPECT_EQ(block_of("location-tracking oui 001A.2b"), oui);
}

TEST(LtrctlParse, RequestsAreEncodedAsTheAgentReadsThem)
{
    request r;
    std::string err;
    ASSERT_TRUE(parse("  location-tracking   mac 00:11:22:aa:bb:cc ", r, err));
    bytes want = {1, 0x07, 0x5d, 0, 17, 0, 0, 0, 0, 0, 0, 0,                   // 1885, IPC head
                  1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x00, 0x11, 0x22, 0xaa, 0xbb, 0xcc, 0, 0};
    EXPECT_EQ(encode(r), want);

    // Negated forms: the flag byte and bit 31 of the block, no argument.
    ASSERT_TRUE(parse("no location-tracking mac", r, err));
    EXPECT_EQ(encode(r), (bytes{1, 0x07, 0x5d, 1, 17, 0, 0, 0, 0, 0, 0, 0,
                                0, 0, 0, 0x80, 0, 0, 0, 0, 0, 0, 0, 0}));
    ASSERT_TRUE(parse("no location-tracking oui 00:11:22", r, err));
    EXPECT_EQ(r.block, (bytes{1, 0, 0, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0x00, 0x11, 0x22, 0}));

    ASSERT_TRUE(parse("location-tracking report-interval 300", r, err));
    EXPECT_EQ(r.cmd_id, 1893);
    EXPECT_EQ(r.block, (bytes{1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x2c, 0x01, 0, 0}));

    ASSERT_TRUE(parse("show location-tracking rssi mac 00:11:22:33:44:55", r, err));
    EXPECT_EQ(r.cmd_id, 1889);
    ASSERT_TRUE(parse("show location-tracking rssi", r, err));
    EXPECT_EQ(r.cmd_id, 1888);
    ASSERT_TRUE(parse("show location-tracking", r, err));
    EXPECT_EQ(r.cmd_id, 1884);

    ASSERT_TRUE(parse("no debug location-tracking packet", r, err));
    EXPECT_EQ(encode(r), (bytes{3, 0, 'l', 't', 'r', 0, 'p', 'a', 'c', 'k', 'e', 't', 0}));
    ASSERT_TRUE(parse("show running-config", r, err));
    EXPECT_EQ(encode(r), bytes{2});
    ASSERT_TRUE(parse("status", r, err));
    EXPECT_EQ(encode(r), bytes{4});
}

TEST(LtrctlRunning, GeneratorBlocksBecomeReplayableWords)
{
    auto entry = [](uint16_t id, bytes b) {
        std::string line, err;
        EXPECT_TRUE(entry_words(id, b, line, err)) << id << ": " << err;
        return line;
    };
    bytes zero12(12, 0);
    EXPECT_EQ(entry(1882, zero12), "location-tracking enable");
    EXPECT_EQ(entry(1883, {1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xe8, 0x03, 0, 0}),
              "location-tracking suppress 1000");
    EXPECT_EQ(entry(1897, {1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 5, 0, 0, 0}),
              "location-tracking hold-time 5");
    EXPECT_EQ(entry(1885, {1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x11, 0x22, 0xaa, 0xbb, 0xcc, 0, 0}),
              "location-tracking mac 00:11:22:aa:bb:cc");
    EXPECT_EQ(entry(1886, {1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xf0, 0x0d, 0x0a, 0}),
              "location-tracking oui f0:0d:0a");
    EXPECT_EQ(entry(1896, {0, 0, 0, 0x80, 0, 0, 0, 0, 0, 0, 0, 0}), "no location-tracking list-match");

    std::string line, err;
    EXPECT_FALSE(entry_words(1888, zero12, line, err)); // a show is no configuration
    EXPECT_FALSE(entry_words(1885, bytes(16, 1), line, err)); // MAC block too short
    EXPECT_FALSE(entry_words(1893, zero12, line, err));       // plain form without its value
    EXPECT_FALSE(entry_words(4000, zero12, line, err));

    // Every configuration line comes back as itself through its block.
    for (const char *l : {"location-tracking enable", "no location-tracking enable",
                          "location-tracking report-interval 65535", "location-tracking valid-period 0",
                          "location-tracking rssi-threshold 255", "no location-tracking hold-time",
                          "location-tracking list-match", "no location-tracking list-match",
                          "location-tracking mac ff:ee:dd:cc:bb:aa", "no location-tracking oui 00:00:01",
                          "no location-tracking mac"}) {
        request r;
        ASSERT_TRUE(parse(l, r, err)) << l;
        EXPECT_EQ(entry(r.cmd_id, r.block), l);
    }
}

TEST(LtrctlRunning, MalformedRepliesAreRefused)
{
    int32_t result;
    std::vector<std::string> lines, skipped;
    std::string err;
    bytes ok = {0, 0, 0, 0, 0, 1, 0x07, 0x5a, 0, 12, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    ASSERT_TRUE(decode_running(ok, result, lines, skipped, err)) << err;
    EXPECT_EQ(lines, std::vector<std::string>{"location-tracking enable"});

    bytes cut(ok.begin(), ok.end() - 1);
    EXPECT_FALSE(decode_running(cut, result, lines, skipped, err));
    bytes extra = ok;
    extra.push_back(0);
    EXPECT_FALSE(decode_running(extra, result, lines, skipped, err));
    bytes count_lies = {0, 0, 0, 0, 0, 2, 0x07, 0x5a, 0, 12, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    EXPECT_FALSE(decode_running(count_lies, result, lines, skipped, err));
    EXPECT_FALSE(decode_running(bytes{0, 0, 0, 0, 0}, result, lines, skipped, err));
}

TEST(LtrctlConfig, SocketFromOptionsOrThePlatformConfiguration)
{
    std::string path, err;
    unsetenv("XDG_RUNTIME_DIR");
    ASSERT_TRUE(socket_path("/x/cli.sock", "ap2", path, err));
    EXPECT_EQ(path, "/x/cli.sock");
    ASSERT_TRUE(socket_path("", "ap2", path, err));
    EXPECT_EQ(path, "/run/qz/ap2/cli.sock");

    char tmpl[] = "/tmp/ltrctl_cfg.XXXXXX";
    int fd = mkstemp(tmpl);
    ASSERT_GE(fd, 0);
    close(fd);
    setenv("QZ_PLATFORM_CONFIG", tmpl, 1);
    std::ofstream(tmpl) << "instance = \"ap7\"\nforeground = true\n";
    ASSERT_TRUE(socket_path("", "", path, err));
    EXPECT_EQ(path, "/run/qz/ap7/cli.sock");
    std::ofstream(tmpl) << "instance = \"ap7\"\nruntime_dir = \"/var/tmp/ap7\"\n";
    ASSERT_TRUE(socket_path("", "", path, err));
    EXPECT_EQ(path, "/var/tmp/ap7/cli.sock");
    std::ofstream(tmpl) << "instance = \n";
    EXPECT_FALSE(socket_path("", "", path, err));
    EXPECT_EQ(err.rfind(std::string(tmpl) + ":1: ", 0), 0u) << err;
    unlink(tmpl);
    setenv("QZ_PLATFORM_CONFIG", "/nonexistent/platform.toml", 1);
    ASSERT_TRUE(socket_path("", "", path, err));
    EXPECT_EQ(path, "/run/qz/default/cli.sock");
}

// ---- Against a stand-in agent ----

namespace {

// Answers every command with 0 and "ok <number>\n", except those in `fail`, which get
// -1 and a handler's error line. Records every request body.
class StandIn {
  public:
    std::string path;
    std::vector<uint16_t> fail;
    std::vector<bytes> seen;
    std::mutex mu;

    StandIn()
    {
        char tmpl[] = "/tmp/ltrctl_test.XXXXXX";
        dir = mkdtemp(tmpl);
        path = dir + "/cli.sock";
        lfd = socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un sa{};
        sa.sun_family = AF_UNIX;
        strcpy(sa.sun_path, path.c_str());
        EXPECT_EQ(bind(lfd, (sockaddr *)&sa, sizeof(sa)), 0);
        listen(lfd, 4);
        th = std::thread([this] { serve(); });
    }
    ~StandIn()
    {
        shutdown(lfd, SHUT_RDWR);
        close(lfd);
        th.join();
        unlink(path.c_str());
        rmdir(dir.c_str());
    }
    std::vector<uint16_t> commands()
    {
        std::lock_guard g(mu);
        std::vector<uint16_t> ids;
        for (auto &b : seen)
            if (b[0] == 1)
                ids.push_back(cli_proto::get_u16(&b[1]));
        return ids;
    }

  private:
    std::string dir;
    int lfd;
    std::thread th;

    void serve()
    {
        int c;
        while ((c = accept(lfd, nullptr, nullptr)) >= 0) {
            uint8_t len[4];
            while (read(c, len, 4) == 4) {
                bytes body(cli_proto::get_u32(len));
                if (read(c, body.data(), body.size()) != (ssize_t)body.size())
                    break;
                bytes rep;
                {
                    std::lock_guard g(mu);
                    seen.push_back(body);
                }
                uint16_t id = body[0] == 1 ? cli_proto::get_u16(&body[1]) : 0;
                bool bad = std::find(fail.begin(), fail.end(), id) != fail.end();
                cli_proto::put_u32(rep, bad ? (uint32_t)-1 : 0);
                std::string t = bad ? "ERROR: Add/del mac to tracking list failed.\n"
                                    : "ok " + std::to_string(id) + "\n";
                if (body[0] == 2) { // running configuration: enable, then one MAC
                    bytes e = {0, 2, 0x07, 0x5a, 0, 12, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                               0x07, 0x5d, 0, 20, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,
                               0, 0x11, 0x22, 0x33, 0x44, 0x55, 0, 0};
                    rep.insert(rep.end(), e.begin(), e.end());
                } else {
                    rep.insert(rep.end(), t.begin(), t.end());
                }
                bytes f = cli_proto::frame(rep);
                if (write(c, f.data(), f.size()) != (ssize_t)f.size())
                    break;
            }
            close(c);
        }
    }
};

const std::vector<std::string> BATCH = {
    "# saved configuration",
    "location-tracking enable",
    "",
    "location-tracking mac 00:11:22:33:44:55",
    "location-tracking report-interval 30",
};

} // namespace

TEST(LtrctlBatch, StopsAtTheFirstFailureUnlessKeepGoing)
{
    StandIn s;
    s.fail = {1885};
    std::ostringstream out, err;
    EXPECT_EQ(run_batch(BATCH, false, s.path, out, err), EXIT_FAILED);
    EXPECT_EQ(s.commands(), (std::vector<uint16_t>{1882, 1885}));
    EXPECT_EQ(out.str(), "ok 1882\nERROR: Add/del mac to tracking list failed.\n");
    EXPECT_NE(err.str().find("line 4: 'location-tracking mac 00:11:22:33:44:55' failed"),
              std::string::npos);

    std::ostringstream out2, err2;
    EXPECT_EQ(run_batch(BATCH, true, s.path, out2, err2), EXIT_FAILED);
    EXPECT_EQ(s.commands(), (std::vector<uint16_t>{1882, 1885, 1882, 1885, 1893}));
}

TEST(LtrctlBatch, ABadLineSendsNothing)
{
    StandIn s;
    auto lines = BATCH;
    lines.push_back("location-tracking hold-time 256");
    std::ostringstream out, err;
    EXPECT_EQ(run_batch(lines, false, s.path, out, err), EXIT_USAGE);
    EXPECT_TRUE(s.commands().empty());
    EXPECT_NE(err.str().find("line 6: location-tracking hold-time: 256 is out of range (0-255)"),
              std::string::npos);
    // Keep going: the good lines run, the status still says something was wrong.
    EXPECT_EQ(run_batch(lines, true, s.path, out, err), EXIT_FAILED);
    EXPECT_EQ(s.commands(), (std::vector<uint16_t>{1882, 1885, 1893}));
}

TEST(LtrctlBatch, ProgramExitStatusAndRunningConfig)
{
    StandIn s;
    s.fail = {1885};
    auto run = [&](const std::string &args, std::string *out = nullptr, const char *in = "") {
        std::string cmd = std::string("printf '") + in + "' | " + LTRCTL_BIN + " -s " + s.path +
                          " " + args + " 2>/dev/null";
        FILE *p = popen(cmd.c_str(), "r");
        std::string o;
        char buf[256];
        size_t n;
        while ((n = fread(buf, 1, sizeof(buf), p)) > 0)
            o.append(buf, n);
        int st = pclose(p);
        if (out)
            *out = o;
        return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    };
    std::string out;
    EXPECT_EQ(run("location-tracking enable", &out), 0);
    EXPECT_EQ(out, "ok 1882\n");
    EXPECT_EQ(run("location-tracking mac 00:11:22:33:44:55"), 1);
    EXPECT_EQ(run("location-tracking mac 00:11:22:33:44"), 2);
    EXPECT_EQ(run("show running-config", &out), 0);
    EXPECT_EQ(out, "location-tracking enable\nlocation-tracking mac 00:11:22:33:44:55\n");
    // The saved configuration replays through standard input.
    const char *saved = "location-tracking enable\\nlocation-tracking suppress 3\\n";
    EXPECT_EQ(run("", &out, saved), 0);
    EXPECT_EQ(out, "ok 1882\nok 1883\n");
    EXPECT_EQ(run("-f -", &out, "location-tracking mac 00:11:22:33:44:55\\nlocation-tracking enable\\n"), 1);
    EXPECT_EQ(out, "ERROR: Add/del mac to tracking list failed.\n");
    EXPECT_EQ(run("-s /nonexistent/cli.sock status"), 3);
}
