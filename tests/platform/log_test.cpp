// Log and debug output: the one formatter through every entry into the log file,
// line prefixes, hex dumps, rate limiting, and the debug category registry.
#include <gtest/gtest.h>
#include <arpa/inet.h>

#include <regex>

#include "qz.h"
#include "qz_log.h"
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
    uint32_t ip = inet_addr("10.0.0.1");
    qz_log(0, 3, "station %m at %-10i|%d\n", mac, ip, 5);
    __qz_dbg("", 42, "ltr_event", "receive event (%s)\n", "SERVER_MSG_IN");
    __qz_err("f.cpp", 7, "### Assertion (%s) failed at %s:%d\n", "x != 0", "qz_ltr_node", 9);
    qz_log(0, 4, "no newline");
    std::string t = text();
    std::regex line(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3} ([a-z_]+): (.*))");
    std::vector<std::pair<std::string, std::string>> got;
    std::istringstream in(t);
    for (std::string l; std::getline(in, l);) {
        std::smatch m;
        ASSERT_TRUE(std::regex_match(l, m, line)) << l;
        got.emplace_back(m[1], m[2]);
    }
    ASSERT_EQ(got.size(), 4u) << t;
    EXPECT_EQ(got[0], std::make_pair(std::string("err"),
                                     std::string("station 0011.2233.4455 at 10.0.0.1  |5")));
    EXPECT_EQ(got[1], std::make_pair(std::string("ltr_event"),
                                     std::string("receive event (SERVER_MSG_IN)")));
    EXPECT_EQ(got[2].first, "err");
    EXPECT_EQ(got[2].second, "### Assertion (x != 0) failed at qz_ltr_node:9");
    EXPECT_EQ(got[3], std::make_pair(std::string("warning"), std::string("no newline")));
}

TEST_F(Log, SnprintfUsesThePlatformConversionsAndTruncates)
{
    uint8_t mac[6] = {0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff};
    char buf[10];
    // The compiler takes %m for glibc's argument-less conversion.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-extra-args"
    int n = qz_snprintf(buf, sizeof buf, "%m", mac);
#pragma GCC diagnostic pop
    EXPECT_EQ(n, 14);
    EXPECT_STREQ(buf, "aabb.ccdd");
}

TEST_F(Log, HexdumpShowsOffsetsBytesAndTextWithoutReadingPastTheEnd)
{
    std::vector<uint8_t> data(20);
    for (int i = 0; i < 20; i++)
        data[i] = (uint8_t)('A' + i);
    data[1] = 0x01;
    qz_hexdump(data.data(), (int)data.size()); // ASan guards the end
    std::string t = text();
    EXPECT_NE(t.find("hexdump: 0000: 41 01 43 44"), std::string::npos) << t;
    EXPECT_NE(t.find("A.CDEFGHIJKLMNOP"), std::string::npos) << t;
    EXPECT_NE(t.find("hexdump: 0010: 51 52 53 54"), std::string::npos) << t;
    EXPECT_NE(t.find(" QRST\n"), std::string::npos) << t;
}

TEST_F(Log, RateLimitedLinesAreWrittenOnceAndCountTheRest)
{
    EXPECT_TRUE(rt_log_ratelimited("k", 60, 4, "bad datagram %d", 1));
    EXPECT_FALSE(rt_log_ratelimited("k", 60, 4, "bad datagram %d", 2));
    EXPECT_FALSE(rt_log_ratelimited("k", 60, 4, "bad datagram %d", 3));
    EXPECT_TRUE(rt_log_ratelimited("other", 60, 4, "other key"));
    EXPECT_TRUE(rt_log_ratelimited("z", 0, 4, "z 1"));
    EXPECT_TRUE(rt_log_ratelimited("z", 0, 4, "z 2"));
    std::string t = text();
    EXPECT_NE(t.find("bad datagram 1"), std::string::npos);
    EXPECT_EQ(t.find("bad datagram 2"), std::string::npos);
    EXPECT_NE(t.find("other key"), std::string::npos);
    EXPECT_NE(t.find("z 2"), std::string::npos);
}

TEST_F(Log, CountersAreListedByName)
{
    rt_counter("zz_test_dropped") += 3;
    rt_counter("aa_test_frames")++;
    std::string t = rt_status_text();
    size_t a = t.find("aa_test_frames 1\n"), z = t.find("zz_test_dropped 3\n");
    ASSERT_NE(a, std::string::npos) << t;
    ASSERT_NE(z, std::string::npos) << t;
    EXPECT_LT(a, z);
}

TEST(Debug, SwitchSetsAndClearsTheRegisteredMasks)
{
    static uint32_t word, lib;
    word = lib = 0;
    ASSERT_EQ(qz_register_debug_flag("ltr", "error", &word, 0x1), 0);
    ASSERT_EQ(qz_register_debug_flag("ltr", "event", &word, 0x2), 0);
    ASSERT_EQ(qz_register_debug_flag("ltr", "all", &word, 0xFFFFFFFF), 0);
    ASSERT_EQ(qz_register_dbg_lib_flag("ltr", "dcdlib", &lib, 0x2), 0);

    EXPECT_EQ(rt_debug_switch("ltr", "event", true), 0);
    EXPECT_EQ(word, 0x2u);
    EXPECT_EQ(rt_debug_switch("ltr", "error", true), 0);
    EXPECT_EQ(word, 0x3u);
    EXPECT_EQ(rt_debug_switch("ltr", "event", false), 0);
    EXPECT_EQ(word, 0x1u);
    EXPECT_EQ(rt_debug_switch("ltr", "all", true), 0);
    EXPECT_EQ(word, 0xFFFFFFFFu);
    EXPECT_EQ(rt_debug_switch("ltr", "all", false), 0);
    EXPECT_EQ(word, 0u);
    EXPECT_EQ(rt_debug_switch("ltr", "dcdlib", true), 0);
    EXPECT_EQ(lib, 0x2u);
    EXPECT_EQ(word, 0u) << "a library category touches only its own word";

    EXPECT_LT(rt_debug_switch("ltr", "nosuch", true), 0);
    EXPECT_LT(rt_debug_switch("other", "error", true), 0);
    EXPECT_EQ(word, 0u);
    EXPECT_LT(qz_register_debug_flag("ltr", "x", nullptr, 1), 0);
    EXPECT_NE(rt_debug_text().find("ltr dcdlib on\n"), std::string::npos);
}
