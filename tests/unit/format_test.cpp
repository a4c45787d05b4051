// The platform formatter as the daemon's output relies on it.
#include <gtest/gtest.h>

#include "qz_format.h"

TEST(Format, MacAndIpWithWidthAndLeftJustify)
{
    uint8_t mac[6] = {0x00, 0x11, 0x22, 0xaa, 0xbb, 0xcc};
    uint32_t ip;
    uint8_t b[4] = {192, 168, 1, 20};
    memcpy(&ip, b, 4);
    EXPECT_EQ(qz_format_str("%m", mac), "0011.22aa.bbcc");
    EXPECT_EQ(qz_format_str("[%-16m]", mac), "[0011.22aa.bbcc  ]");
    EXPECT_EQ(qz_format_str("[%16m]", mac), "[  0011.22aa.bbcc]");
    EXPECT_EQ(qz_format_str("%i", ip), "192.168.1.20");
    EXPECT_EQ(qz_format_str("%-14i|", ip), "192.168.1.20  |");
    EXPECT_EQ(qz_format_str("%i", 0u), "0.0.0.0");
}

TEST(Format, TruncatesLikeSnprintfAndReportsFullLength)
{
    uint8_t mac[6] = {0xde, 0xad, 0xbe, 0xef, 0, 1};
    std::string full = qz_format_str("%m tail", mac);
    char small[6];
    auto f = [&](const char *fmt, ...) {
        va_list a;
        va_start(a, fmt);
        int r = qz_vformat(small, sizeof(small), fmt, a);
        va_end(a);
        return r;
    };
    EXPECT_EQ(f("%m tail", mac), (int)full.size());
    EXPECT_STREQ(small, "dead.");
}
