// The platform formatter as the daemon's output relies on it.
#include <gtest/gtest.h>

#include "qz_format.h"

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
