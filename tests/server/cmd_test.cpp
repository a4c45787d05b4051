// ltr-server command lines: what they build, and clear refusals of bad input.
#include <gtest/gtest.h>

#include "srv_cmd.h"

using namespace lsrv;

TEST(ServerCommand, RequestItemsBecomeTlvsInTheOrderGiven)
{
    command c;
    std::string err;
    ASSERT_TRUE(parse_command("  start ap-1 mac=00:11:22:33:44:55,aabb.ccdd.eeff interval=65535 "
                              "oui=00-50-f2 threshold=0 valid=0 tlv=6:0102 mac=all",
                              c, err))
        << err;
    EXPECT_EQ(c.kind, CMD_REQUEST);
    EXPECT_EQ(c.op, OP_START);
    EXPECT_EQ(c.target, "ap-1");
    EXPECT_EQ(c.tlvs, (std::vector<bytes>{
                          {0, 4, 0, 17, 2, 0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff},
                          {0, 1, 0, 6, 0xff, 0xff},
                          {0, 5, 0, 8, 1, 0x00, 0x50, 0xf2},
                          {0, 2, 0, 5, 0},
                          {0, 3, 0, 6, 0, 0},
                          {0, 6, 0, 6, 1, 2},
                          {0, 4, 0, 5, 255}}));

    // "#N" names an AP; only a line that starts with '#' is a comment.
    ASSERT_TRUE(parse_command("send #2 9 mac= oui=", c, err)) << err;
    EXPECT_EQ(c.target, "#2");
    EXPECT_EQ(c.op, 9);
    EXPECT_EQ(c.tlvs[0], (bytes{0, 4, 0, 5, 0}));
    ASSERT_TRUE(parse_command("   # start all", c, err));
    EXPECT_EQ(c.kind, CMD_NONE);
    ASSERT_TRUE(parse_command("wait-ap 3", c, err));
    EXPECT_EQ(c.seconds, 10); // the default wait
}

TEST(ServerCommand, BadInputIsRefusedWithAReason)
{
    auto list = [](std::string head, const char *item, int n) {
        for (int i = 0; i < n; ++i)
            head += std::string(i ? "," : "") + item;
        return head;
    };
    const std::pair<std::string, std::string> cases[] = {
        {"start all mac=00:11:22:33:44", "start: bad MAC address \"00:11:22:33:44\""},
        {"stop all oui=00:11", "stop: bad OUI \"00:11\""},
        {"start all mac=02:00:00:00:00:01,01:00:5e:00:00:fb",
         "start: 01:00:5e:00:00:fb is a group (multicast or broadcast) address, not a station"},
        {"start all oui=33:33:00", "start: 33:33:00 has the group bit set"},
        {"modify all interval=65536", "modify: interval must be a number of seconds from 0 to 65535"},
        {"modify all threshold=256", "modify: threshold must be a number of dB from 0 to 255"},
        {"query all tlv=6:abc", "query: tlv wants TYPE:HEX"},
        {"query all colour=red", "query: unknown item \"colour\""},
        {"query", "query: wants a TARGET"},
        {"send all 70000", "send: opcode must be a number from 0 to 65535"},
        {"wait 1e9", "wait: seconds must be a number from 0 to 86400"},
        {"wait-ap 0", "wait-ap: count must be a number from 1"},
        {"launch all", "unknown command \"launch\""},
        {list("start all mac=", "00:00:00:00:00:01", 255), "start: a MAC list holds at most 254 addresses, got 255"},
        {list("start all oui=", "00:00:01", 256), "start: an OUI list holds at most 255 OUIs, got 256"},
    };
    for (const auto &[line, want] : cases) {
        command c;
        c.kind = CMD_QUIT; // must survive a refusal untouched
        std::string err;
        EXPECT_FALSE(parse_command(line, c, err)) << line;
        EXPECT_EQ(err.rfind(want, 0), 0u) << line << " -> " << err;
        EXPECT_EQ(c.kind, CMD_QUIT);
    }
}
