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

TEST(Format, StandardConversionsMixed)
{
    uint8_t mac[6] = {1, 2, 3, 4, 5, 6};
    EXPECT_EQ(qz_format_str("%-40s%d\n", "Report interval:", 60),
              "Report interval:                        60\n");
    EXPECT_EQ(qz_format_str("%-3d %-4s %m|%5.2f|%x|%%|%ld", 7, "oui", mac, 1.5, 255, 123456789012L),
              "7   oui  0102.0304.0506| 1.50|ff|%|123456789012");
    EXPECT_EQ(qz_format_str("OUI 0x%2.2x:0x%2.2x", 0x0a, 0xbc), "OUI 0x0a:0xbc");
    EXPECT_EQ(qz_format_str("%*d|%-*s|", 4, 7, 3, "a"), "   7|a  |");
    EXPECT_EQ(qz_format_str("%s", (const char *)nullptr), "(null)");
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
