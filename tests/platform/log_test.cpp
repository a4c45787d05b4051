// Log, debug and journal output.
#include <gtest/gtest.h>
#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>

#include <regex>
#include <sstream>
#include <thread>

#include "qz.h"
#include "qz_log.h"
#include "rt_config.h"
#include "rt_debug.h"
#include "rt_log.h"
#include "rt_svcmgr.h"
#include "rt_test_util.h"

namespace {
class Log : public testing::Test {
  protected:
    void SetUp() override { rt_cfg_set(rt_test_config(s)); }
    std::string text() { return rt_read_file(s.path("log")); }
    rt_scratch s;
};
} // namespace

TEST_F(Log, EveryEntryWritesOnePrefixedLineThroughTheFormatter)
{
    uint8_t mac[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
    qz_log(0, 3, "station %m at %-10i|%d\n", mac, inet_addr("10.0.0.1"), 5);
    __qz_dbg("", 42, "ltr_event", "receive event (%s)\n", "SERVER_MSG_IN");
    __qz_err("f.cpp", 7, "### Assertion (%s) failed at %s:%d\n", "x != 0", "qz_ltr_node", 9);
    qz_log(0, 4, "no newline");
    std::regex line(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3} ([a-z_]+: .*))");
    std::vector<std::string> got;
    std::istringstream in(text());
    for (std::string l; std::getline(in, l);) {
        std::smatch m;
        ASSERT_TRUE(std::regex_match(l, m, line)) << l;
        got.push_back(m[1]);
    }
    EXPECT_EQ(got, (std::vector<std::string>{"err: station 0011.2233.4455 at 10.0.0.1  |5",
                                             "ltr_event: receive event (SERVER_MSG_IN)",
                                             "err: ### Assertion (x != 0) failed at qz_ltr_node:9",
                                             "warning: no newline"}));

    // qz_snprintf uses the same conversions and truncates.
    char buf[10];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-extra-args" // the compiler takes %m for glibc's
    EXPECT_EQ(qz_snprintf(buf, sizeof buf, "%m", mac), 14);
#pragma GCC diagnostic pop
    EXPECT_STREQ(buf, "0011.2233");
}

TEST_F(Log, HexdumpAndRateLimitedLines)
{
    std::vector<uint8_t> data(20);
    for (int i = 0; i < 20; i++)
        data[i] = (uint8_t)('A' + i);
    data[1] = 0x01;
    qz_hexdump(data.data(), (int)data.size()); // ASan guards the end
    EXPECT_TRUE(rt_log_ratelimited("k", 60, 4, "bad datagram %d", 1));
    EXPECT_FALSE(rt_log_ratelimited("k", 60, 4, "bad datagram %d", 2));
    EXPECT_TRUE(rt_log_ratelimited("other", 60, 4, "other key"));
    EXPECT_TRUE(rt_log_ratelimited("z", 0, 4, "z 1"));
    EXPECT_TRUE(rt_log_ratelimited("z", 0, 4, "z 2"));
    std::string t = text();
    for (const char *want : {"hexdump: 0000: 41 01 43 44", "A.CDEFGHIJKLMNOP", "hexdump: 0010: 51 52 53 54",
                             " QRST\n", "bad datagram 1", "other key", "z 2"})
        EXPECT_NE(t.find(want), std::string::npos) << want << " in\n" << t;
    EXPECT_EQ(t.find("bad datagram 2"), std::string::npos);
}

TEST(Debug, SwitchSetsAndClearsTheRegisteredMasks)
{
    static uint32_t word, lib;
    ASSERT_EQ(qz_register_debug_flag("ltr", "error", &word, 0x1), 0);
    ASSERT_EQ(qz_register_debug_flag("ltr", "event", &word, 0x2), 0);
    ASSERT_EQ(qz_register_debug_flag("ltr", "all", &word, 0xFFFFFFFF), 0);
    ASSERT_EQ(qz_register_dbg_lib_flag("ltr", "dcdlib", &lib, 0x2), 0);
    EXPECT_LT(qz_register_debug_flag("ltr", "x", nullptr, 1), 0);
    const struct {
        const char *mod, *cat;
        bool on;
        int rc;
        uint32_t word, lib;
    } steps[] = {
        {"ltr", "event", true, 0, 0x2, 0},         {"ltr", "error", true, 0, 0x3, 0},
        {"ltr", "event", false, 0, 0x1, 0},        {"ltr", "all", true, 0, 0xFFFFFFFF, 0},
        {"ltr", "all", false, 0, 0, 0},            {"ltr", "dcdlib", true, 0, 0, 0x2}, // its own word only
        {"ltr", "nosuch", true, -1, 0, 0x2},       {"other", "error", true, -1, 0, 0x2},
    };
    for (auto &s : steps) {
        int rc = rt_debug_switch(s.mod, s.cat, s.on);
        EXPECT_EQ(rc < 0 ? -1 : rc, s.rc) << s.mod << " " << s.cat;
        EXPECT_EQ(word, s.word) << s.cat;
        EXPECT_EQ(lib, s.lib) << s.cat;
    }
    EXPECT_NE(rt_debug_text().find("ltr dcdlib on\n"), std::string::npos);
}

// Journal entries carry the line's priority, its debug tag and the radio or peer it is
// about, set by the innermost scope on the writing thread only.
TEST(Journal, FieldsNameTagAndSubjectOfTheLine)
{
    using v = std::vector<std::string>;
    EXPECT_EQ(rt_journal_fields(LOG_WARNING, nullptr, "plain\n", "ltrd"),
              (v{"MESSAGE=plain", "PRIORITY=4", "SYSLOG_FACILITY=3", "SYSLOG_IDENTIFIER=ltrd"}));
    {
        rt_log_about radio("RADIO", "wlan0");
        EXPECT_EQ(rt_journal_fields(LOG_DEBUG, "ltr_event", "hello", "ltrd/ap1"),
                  (v{"MESSAGE=ltr_event: hello", "PRIORITY=7", "SYSLOG_FACILITY=3",
                     "SYSLOG_IDENTIFIER=ltrd/ap1", "LTR_TAG=ltr_event", "RADIO=wlan0"}));
        {
            rt_log_about peer("PEER", inet_addr("192.0.2.7"));
            EXPECT_EQ(rt_journal_fields(12, "", "x", "ltrd").back(), "PEER=192.0.2.7");
            EXPECT_EQ(rt_journal_fields(12, "", "x", "ltrd")[1], "PRIORITY=7");
            std::thread([] { // another thread's lines are about nothing
                EXPECT_EQ(rt_journal_fields(3, nullptr, "x", "ltrd").size(), 4u);
            }).join();
        }
        EXPECT_EQ(rt_journal_fields(3, nullptr, "x", "ltrd").back(), "RADIO=wlan0");
    }
    EXPECT_EQ(rt_journal_fields(3, nullptr, "x", "ltrd").size(), 4u);
}

// An entry is one datagram to the socket: plain fields as lines, a value with a
// newline as its length (64-bit little-endian) and bytes; nothing listening: not sent.
TEST(Journal, OnlyASocketAtThePathCountsAsJournaldAndTakesOneDatagramAnEntry)
{
    rt_scratch s;
    EXPECT_FALSE(rt_journal_present(s.path("socket").c_str()));
    std::ofstream(s.path("socket")) << "x"; // a stray file is no journal
    EXPECT_FALSE(rt_journal_present(s.path("socket").c_str()));
    int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    sockaddr_un a{AF_UNIX, {}};
    std::string p = s.path("journal");
    strcpy(a.sun_path, p.c_str());
    ASSERT_EQ(bind(fd, (sockaddr *)&a, sizeof a), 0);
    EXPECT_TRUE(rt_journal_present(p.c_str()));

    using namespace std::string_literals;
    std::vector<std::string> f{"MESSAGE=two\nlines", "PRIORITY=4", "LTR_TAG=a=b", "junk"};
    ASSERT_TRUE(rt_journal_send(f, p.c_str()));
    char buf[256];
    ssize_t n = recv(fd, buf, sizeof buf, MSG_DONTWAIT);
    EXPECT_EQ(std::string(buf, size_t(n > 0 ? n : 0)),
              "MESSAGE\n\x09\0\0\0\0\0\0\0two\nlines\nPRIORITY=4\nLTR_TAG=a=b\n"s);
    EXPECT_LT(recv(fd, buf, sizeof buf, MSG_DONTWAIT), 0); // one datagram
    close(fd);
    EXPECT_FALSE(rt_journal_send(f, p.c_str())); // journald gone: the line goes to syslog
}
