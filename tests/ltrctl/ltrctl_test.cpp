// ltrctl: words to requests, the checks that keep bad input away from the daemon, the
// running configuration back to words, where the socket is found, and giving up on a
// daemon that does not answer.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <fstream>

#include "ltrctl_conn.h"
#include "ltrctl_json.h"
#include "ltrctl_run.h"

using namespace ltrctl;
using bytes = std::vector<uint8_t>;

namespace {

request parsed(const std::string &line)
{
    request r;
    std::string err;
    EXPECT_TRUE(parse(line, r, err)) << line << ": " << err;
    return r;
}

// A listening cli.sock in a private scratch directory; nobody answers on it.
struct listening_sock {
    std::string dir, path;
    int fd = -1;
    explicit listening_sock(int backlog)
    {
        char d[] = "/tmp/ltrctl_conn.XXXXXX";
        dir = mkdtemp(d), path = dir + "/cli.sock";
        fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un sa{};
        sa.sun_family = AF_UNIX;
        strcpy(sa.sun_path, path.c_str());
        EXPECT_EQ(bind(fd, (sockaddr *)&sa, sizeof sa) | listen(fd, backlog), 0);
    }
    ~listening_sock() { close(fd), unlink(path.c_str()), rmdir(dir.c_str()); }
};

} // namespace

TEST(LtrctlParse, BadWordsAndValuesAreRefusedWithTheReason)
{
    const std::pair<const char *, const char *> cases[] = {
        {"location-tracking enabel", "unknown command 'location-tracking enabel'"},
        {"location-tracking", "'location-tracking' is incomplete; it goes on with: enable, suppress, "
                              "report-interval, rssi-threshold, valid-period, hold-time, list-match, mac, oui"},
        {"show", "'show' is incomplete; it goes on with: location-tracking, running-config"},
        {"no", "'no' is incomplete; it goes on with: location-tracking, debug"},
        {"location-tracking report-interval", "location-tracking report-interval: needs a value"},
        {"location-tracking report-interval 0", "0 is out of range (1-65535)"},
        {"location-tracking report-interval 65536", "65536 is out of range (1-65535)"},
        {"location-tracking suppress -1", "'-1' is not a number"},
        {"location-tracking suppress 99999999999", "is not a number"},
        {"no location-tracking suppress 5", "no location-tracking suppress: unexpected '5'"},
        {"location-tracking mac", "needs a MAC address"},
        {"location-tracking mac 00:11:22:33:44", "'00:11:22:33:44' is not a MAC address"},
        {"location-tracking mac 00:11:22:33:44:5g", "is not a MAC address"},
        {"location-tracking mac 001122334455", "is not a MAC address"},
        {"location-tracking oui 00:11:22:33", "is not an OUI"},
        {"location-tracking mac 0:11:22:33:44:555", "is not a MAC address"},
        {"location-tracking mac 00:11:22:33:44:5 ", "is not a MAC address"},
        {"location-tracking mac 00:11-22:33:44:55", "is not a MAC address"},
        {"location-tracking mac 0011.2233.44:5", "is not a MAC address"},
        {"location-tracking mac 01:00:5e:00:00:01", "01:00:5e:00:00:01 is a group (multicast or broadcast) address"},
        {"location-tracking oui 33:33:00", "33:33:00 has the group bit set"},
        {"no show location-tracking", "has no 'no' form"},
        {"debug location-tracking verbose", "unknown category 'verbose'"},
        {"debug ltr info", "usage: [no] debug location-tracking <category>"},
    };
    for (auto &[line, why] : cases) {
        request r;
        std::string err;
        EXPECT_FALSE(parse(line, r, err)) << line;
        EXPECT_NE(err.find(why), std::string::npos) << line << " -> " << err;
    }
}

TEST(LtrctlParse, RequestsAreEncodedAsTheAgentReadsThem)
{
    // Every address form gives the same bytes.
    const bytes mac = parsed("location-tracking mac 00:1a:2b:3c:4d:5e").block;
    for (const char *l : {"location-tracking mac 00-1A-2B-3C-4D-5E", "location-tracking mac 001a.2b3c.4d5e"})
        EXPECT_EQ(parsed(l).block, mac) << l;
    // Removing a group address stays possible (a configuration from before the check).
    EXPECT_EQ(parsed("no location-tracking mac 01:00:5e:00:00:01").cmd_id, 1885);
    const bytes oui = parsed("location-tracking oui 00:1a:2b").block;
    for (const char *l : {"location-tracking oui 00-1a-2b", "location-tracking oui 001A.2b"})
        EXPECT_EQ(parsed(l).block, oui) << l;

    EXPECT_EQ(encode(parsed("  location-tracking   mac 00:11:22:aa:bb:cc ")),
              (bytes{1, 0x07, 0x5d, 0, 17, 0, 0, 0, 0, 0, 0, 0, // 1885, IPC head
                     1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x00, 0x11, 0x22, 0xaa, 0xbb, 0xcc, 0, 0}));
    // Negated forms: the flag byte and bit 31 of the block, no argument.
    EXPECT_EQ(encode(parsed("no location-tracking mac")),
              (bytes{1, 0x07, 0x5d, 1, 17, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x80, 0, 0, 0, 0, 0, 0, 0, 0}));
    const std::pair<const char *, int> ids[] = {{"location-tracking report-interval 300", 1893},
                                                {"show location-tracking rssi mac 00:11:22:33:44:55", 1889},
                                                {"show location-tracking rssi", 1888}};
    for (auto &[l, id] : ids)
        EXPECT_EQ(parsed(l).cmd_id, id) << l;
    EXPECT_EQ(encode(parsed("no debug location-tracking packet")),
              (bytes{3, 0, 'l', 't', 'r', 0, 'p', 'a', 'c', 'k', 'e', 't', 0}));
    EXPECT_EQ(encode(parsed("show running-config")), bytes{2});
}

TEST(LtrctlRunning, GeneratorBlocksBecomeReplayableWords)
{
    std::string line, err;
    auto entry = [&](uint16_t id, const bytes &b) {
        EXPECT_TRUE(entry_words(id, b, line, err)) << id << ": " << err;
        return line;
    };
    const bytes zero12(12, 0);
    EXPECT_EQ(entry(1883, {1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xe8, 0x03, 0, 0}), "location-tracking suppress 1000");
    EXPECT_FALSE(entry_words(1888, zero12, line, err)); // a show is no configuration
    EXPECT_FALSE(entry_words(1885, bytes(16, 1), line, err)); // MAC block too short
    EXPECT_FALSE(entry_words(1893, zero12, line, err));       // plain form without its value
    EXPECT_FALSE(entry_words(4000, zero12, line, err));

    // Every configuration line comes back as itself through its block.
    for (const char *l : {"location-tracking enable", "no location-tracking enable",
                          "location-tracking report-interval 65535", "location-tracking rssi-threshold 255",
                          "no location-tracking hold-time", "no location-tracking list-match",
                          "location-tracking mac 0e:ee:0d:cc:b0:0a", "location-tracking oui 0a:0b:0c",
                          "no location-tracking oui 00:00:01"}) {
        request r = parsed(l);
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
    bytes cut(ok.begin(), ok.end() - 1), extra = ok, count_lies = ok;
    extra.push_back(0);
    count_lies[5] = 2;
    for (const bytes &b : {cut, extra, count_lies, bytes{0, 0, 0, 0, 0}})
        EXPECT_FALSE(decode_running(b, result, lines, skipped, err)) << b.size();
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
    close(mkstemp(tmpl));
    setenv("QZ_PLATFORM_CONFIG", tmpl, 1);
    std::ofstream(tmpl) << "instance = \"ap7\"\nruntime_dir = \"/var/tmp/ap7\"\n";
    ASSERT_TRUE(socket_path("", "", path, err)) << err;
    EXPECT_EQ(path, "/var/tmp/ap7/cli.sock");
    std::ofstream(tmpl) << "instance = \n";
    EXPECT_FALSE(socket_path("", "", path, err));
    EXPECT_EQ(err.rfind(std::string(tmpl) + ":1: ", 0), 0u) << err;
    unlink(tmpl);
    setenv("QZ_PLATFORM_CONFIG", "/nonexistent/platform.toml", 1);
    ASSERT_TRUE(socket_path("", "", path, err));
    EXPECT_EQ(path, "/run/qz/default/cli.sock");
}

TEST(LtrctlConn, GivesUpOnADaemonThatDoesNotAnswer)
{
    listening_sock l(0);
    const std::string &path = l.path;
    std::string err;

    // Connected through the backlog, never answered.
    conn silent;
    silent.timeout_ms = 200;
    ASSERT_TRUE(silent.open(path, err)) << err;
    bytes reply;
    EXPECT_FALSE(silent.exchange({4}, reply, err));
    EXPECT_EQ(err, "no reply from the daemon within 0.2 s");
    // The backlog is full now: connecting waits, but only as long as the timeout.
    conn full;
    full.timeout_ms = 200;
    EXPECT_FALSE(full.open(path, err));
    EXPECT_EQ(err, "no room at " + path + " within 0.2 s (is ltrd busy?)");
}

// A socket or directory another user could have made or changed is not talked to.
TEST(LtrctlConn, SocketOthersCouldHaveMadeIsRefused)
{
    listening_sock l(4);
    const std::string &dir = l.dir, &path = l.path;
    const char *d = dir.c_str();
    auto open_err = [&] {
        conn c;
        std::string err;
        return c.open(path, err) ? std::string() : err;
    };
    EXPECT_EQ(open_err(), "");
    chmod(d, 0777);
    EXPECT_EQ(open_err(), "refusing " + path + ": " + dir +
                              " is writable by other users (another user could answer in the "
                              "daemon's name)");
    chmod(d, 0700);
    if (geteuid() == 0) {
        ASSERT_EQ(lchown(path.c_str(), 65534, 65534), 0);
        EXPECT_NE(open_err().find(path + " belongs to uid 65534"), std::string::npos);
        ASSERT_EQ(lchown(path.c_str(), 0, 0), 0);
        ASSERT_EQ(chown(d, 65534, 65534), 0);
        EXPECT_NE(open_err().find(dir + " belongs to uid 65534"), std::string::npos);
    }
}

TEST(LtrctlJson, ShowTextBecomesFields)
{
    auto doc = [](uint16_t id, const std::string &text, bool want_ok = true) {
        request r;
        r.cmd_id = id;
        std::string out, err;
        EXPECT_EQ(show_json(r, text, out, err), want_ok) << text << ": " << err;
        return out;
    };
    const std::string rssi =
        "RSSI=received signal strength in dBm; Freq=channel frequence in MHZ; RptAge=report age;\n"
        "SupCnt=suppress count; LPwrRpt=last power reported; LifeCnt=life counter\n"
        "Number of stations in tracking: 2\n"
        "Station: 0211.2233.4455, Owner: 10.0.0.2, RptAge 4, SupCnt 1, RSSI list:\n"
        "No. Reporter       RSSI  Freq  Active LPwrRpt LifeCnt\n"
        "--- -------------- ----- ----- ------ ------- ------\n"
        "1   0200.0000.0009 -45   2412  yes    -44     3     \n"
        "2   0200.0000.000a -70   5180  no     0       1     \n"
        "\n";
    EXPECT_EQ(doc(1889, rssi),
              R"({"stations_in_tracking":2,"stations":[{"mac":"02:11:22:33:44:55","owner":"10.0.0.2",)"
              R"("report_age":4,"suppress_count":1,"readings":[{"reporter":"02:00:00:00:00:09","rssi":-45,)"
              R"("freq":2412,"active":true,"last_power_reported":-44,"life_count":3},{"reporter":)"
              R"("02:00:00:00:00:0a","rssi":-70,"freq":5180,"active":false,"last_power_reported":0,)"
              R"("life_count":1}]}]})"
              "\n");
    EXPECT_EQ(doc(1887, "Match track list enabled: no\nNo. Type Address\n--- ---- ----------------\n"
                        "1   oui  0a1b.2c00.0000\n"),
              R"({"list_match":false,"entries":[{"type":"oui","address":"0a:1b:2c"}]})" "\n");
    EXPECT_EQ(doc(1891, "RSSI fetch time to fire:                12s\n"
                        "Station owner flush time to fire:       not started\n"),
              R"({"rssi_fetch_time_to_fire":12,"station_owner_flush_time_to_fire":null})" "\n");
    // A reply not as the show prints it is no document.
    doc(1888, rssi.substr(0, rssi.find("1   0200")) + "1   0200.0000.0009 -45 2412 yes\n", false);
    doc(1892, "number of reported rssi readings:       3\n", false);
    doc(1884, "Engine name Quorvane\n", false);
}
