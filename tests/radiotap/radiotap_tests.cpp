// Frame parser: every frame of the real captures against the independent table, and
// malformed headers rejected without reading past the delivered bytes.
#include "radiotap.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <sstream>

namespace {

namespace fs = std::filesystem;
using bytes = std::vector<uint8_t>;
const fs::path captures = fs::path(LTR_SOURCE_DIR) / ".." / "shared" / "data" / "captures";

// Minimal classic-pcap reader (either byte order): the frames of a file as captured.
std::vector<bytes> read_pcap(const fs::path &p) {
    std::ifstream f(p, std::ios::binary);
    bytes b((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    const bool big = b.size() >= 4 && b[0] == 0xa1;
    auto u32 = [&](size_t o) {
        uint32_t v = uint32_t(b[o]) | uint32_t(b[o + 1]) << 8 | uint32_t(b[o + 2]) << 16 | uint32_t(b[o + 3]) << 24;
        return big ? __builtin_bswap32(v) : v;
    };
    std::vector<bytes> frames;
    for (size_t o = 24; b.size() >= 24 && u32(20) == 127 && o + 16 + u32(o + 8) <= b.size(); o += 16 + u32(o + 8))
        frames.emplace_back(b.begin() + o + 16, b.begin() + o + 16 + u32(o + 8));
    return frames;
}

// Parses from a block of exactly the frame's size, so a read past it is caught by ASan.
qz_rt_frame parse(const bytes &in) {
    std::unique_ptr<uint8_t[]> copy(new uint8_t[in.size() + 1]);
    std::copy(in.begin(), in.end(), copy.get());
    qz_rt_frame f;
    qz_rt_parse(std::span<const uint8_t>(copy.get(), in.size()), f);
    return f;
}

std::string mac_text(const uint8_t *m) {
    char s[18];
    snprintf(s, sizeof s, "%02x:%02x:%02x:%02x:%02x:%02x", m[0], m[1], m[2], m[3], m[4], m[5]);
    return s;
}

// Columns of expected.tsv: file, frame, type/subtype, DS, ta, ra, bad FCS, dBm list, MHz.
// The verdict rules applied to the dissector's fields, in the parser's order. The
// dissector shows a transmitter and a signal for frames the rules drop: access points'
// frames and group transmitters (rewritten addresses of anonymised captures).
qz_rt_verdict expected_verdict(const std::vector<std::string> &c) {
    const int ts = std::stoi(c[2], nullptr, 16), type = ts >> 4, sub = ts & 15, ds = std::stoi(c[3], nullptr, 16);
    if (c[6] == "1")
        return QZ_RT_BAD_FCS;
    if (c[7].empty())
        return QZ_RT_NO_SIGNAL;
    const bool ap = (type == 0 && (sub == 8 || sub == 5)) || (type == 1 && sub >= 14) || (type == 2 && ds >= 2);
    return c[4].empty() || (std::stoi(c[4].substr(0, 2), nullptr, 16) & 1) || ap ? QZ_RT_NOT_STATION : QZ_RT_KEPT;
}

TEST(RadiotapCaptures, EveryFrameAgreesWithIndependentTable) {
    if (!fs::is_directory(captures))
        GTEST_SKIP() << "no captures at " << captures << " (../shared beside the source tree)";
    std::map<std::string, std::vector<std::vector<std::string>>> table;
    std::ifstream f(fs::path(LTR_SOURCE_DIR) / "tests" / "radiotap" / "data" / "expected.tsv");
    for (std::string line; std::getline(f, line);) {
        std::vector<std::string> c;
        std::stringstream ss(line);
        for (std::string x; std::getline(ss, x, '\t');)
            c.push_back(x);
        c.resize(9);
        table[c[0]].push_back(c);
    }
    ASSERT_EQ(table.size(), 8u);
    for (auto &[file, rows] : table) {
        auto frames = read_pcap(captures / file);
        ASSERT_EQ(frames.size(), rows.size()) << file;
        size_t agree = 0, kept = 0;
        for (size_t i = 0; i < frames.size(); ++i) {
            const auto &r = rows[i];
            const qz_rt_frame fr = parse(frames[i]);
            const qz_rt_verdict want = expected_verdict(r);
            bool ok = fr.verdict == want;
            if (ok && want == QZ_RT_KEPT) {
                ++kept;
                ok = mac_text(fr.ta) == r[4] && fr.dbm == std::stoi(r[7]) && fr.freq == (r[8].empty() ? 0 : std::stoi(r[8]));
            }
            agree += ok;
            EXPECT_TRUE(ok) << file << " frame " << r[1] << ": " << qz_rt_verdict_name(fr.verdict) << " " << mac_text(fr.ta)
                            << " " << int(fr.dbm) << " dBm " << fr.freq << " MHz; table: " << qz_rt_verdict_name(want)
                            << " " << r[4] << " " << r[7] << " " << r[8];
        }
        printf("%-40s %zu/%zu frames agree, %zu kept\n", file.c_str(), agree, frames.size(), kept);
    }
}

// Radiotap: flags at 8, channel aligned to 10 (2412 MHz), signal at 14; then a probe
// request from 10:11:12:13:14:15 to broadcast.
bytes probe_request(uint8_t flags = 0) {
    bytes b = {0, 0, 15, 0, 0x2a, 0, 0, 0, flags, 0, 0x6c, 0x09, 0xa0, 0x00, 0xc4, 0x40, 0, 0, 0};
    b.insert(b.end(), 6, 0xff);
    b.insert(b.end(), {0x10, 0x11, 0x12, 0x13, 0x14, 0x15});
    b.insert(b.end(), 8, 0xff);
    return b;
}
bytes with(bytes b, std::initializer_list<std::pair<size_t, uint8_t>> set) {
    for (auto [at, v] : set)
        b[at] = v;
    return b;
}
const size_t wl = 15; // where the 802.11 header starts

TEST(RadiotapParse, LayoutsAndVerdicts) {
    qz_rt_frame f = parse(probe_request());
    EXPECT_EQ(f.verdict, QZ_RT_KEPT);
    EXPECT_EQ(f.dbm, -60);
    EXPECT_EQ(f.freq, 2412);
    EXPECT_FALSE(f.has_bssid); // wildcard
    EXPECT_EQ(parse(probe_request(0x40)).verdict, QZ_RT_BAD_FCS);
    bytes fcs = probe_request(0x10); // the FCS counts against the 802.11 header
    fcs.resize(fcs.size() + 2);
    EXPECT_EQ(parse(fcs).verdict, QZ_RT_MALFORMED);

    // A vendor namespace between two radiotap namespaces is skipped by its own length.
    bytes v = {0, 0, 26, 0, 0, 0, 0, 0xc0, 0x01, 0, 0, 0xa0, 0x20, 0, 0, 0, // words: vendor, in it, signal
               0x00, 0x11, 0x22, 0x01, 3, 0, 0xee, 0xee, 0xee, 0xc4};       // OUI, sub, len 3, data; -60
    const bytes pr = probe_request();
    v.insert(v.end(), pr.begin() + wl, pr.end());
    f = parse(v);
    EXPECT_EQ(f.verdict, QZ_RT_KEPT);
    EXPECT_EQ(f.dbm, -60);

    EXPECT_EQ(parse(with(probe_request(), {{wl, 0x80}})).verdict, QZ_RT_NOT_STATION);         // beacon
    EXPECT_EQ(parse(with(probe_request(), {{wl + 10, 0x11}})).verdict, QZ_RT_NOT_STATION);    // group ta
    EXPECT_EQ(parse(with(probe_request(), {{wl, 0x08}, {wl + 1, 2}})).verdict, QZ_RT_NOT_STATION); // FromDS
    f = parse(with(probe_request(), {{wl, 0x08}, {wl + 1, 1}, {wl + 4, 0x02}})); // ToDS to 02:ff:..
    EXPECT_EQ(f.verdict, QZ_RT_KEPT);
    ASSERT_TRUE(f.has_assoc);
    EXPECT_EQ(mac_text(f.assoc_sta), "10:11:12:13:14:15");
    EXPECT_EQ(mac_text(f.bssid), "02:ff:ff:ff:ff:ff");
}

TEST(RadiotapParse, MalformedHeadersRejectedWithinBytes) {
    // Each header is followed by a valid 802.11 header, so only the radiotap checks decide.
    const bytes pr = probe_request(), wlan(pr.begin() + wl, pr.end());
    std::vector<bytes> bad = {
        with(probe_request(), {{2, 200}}),                                          // length past the frame
        with(probe_request(), {{0, 1}}),                                            // version
        {0, 0, 16, 0, 0, 0, 0, 0x80, 0, 0, 0, 0x80, 0, 0, 0, 0x80},                 // ext past the header
        {0, 0, 12, 0, 0x21, 0, 0, 0, 0, 0, 0, 0},                                   // TSFT past the header
        {0, 0, 14, 0, 0, 0, 0, 0x40, 0, 0x11, 0x22, 0, 0xff, 0xff},                 // vendor data past it
    };
    for (auto &b : bad)
        b.insert(b.end(), wlan.begin(), wlan.end());
    bad.push_back({0, 0, 10, 0, 0, 0, 0, 0x40, 0, 0x11}); // vendor header cut by the frame's end
    bytes all_ext(4096, 0xff);                             // extension bits without end
    all_ext[0] = all_ext[1] = all_ext[2] = 0, all_ext[3] = 0x10;
    bad.push_back(all_ext);
    for (size_t i = 0; i < bad.size(); ++i)
        EXPECT_EQ(parse(bad[i]).verdict, QZ_RT_MALFORMED) << "case " << i;

    // Every truncation of real frames of every layout: malformed whenever the header is cut.
    if (!fs::is_directory(captures))
        return;
    for (auto &e : fs::directory_iterator(captures)) {
        auto frames = read_pcap(e.path());
        for (size_t i = 0; i < frames.size() && i < 40; ++i) {
            const size_t rt_len = frames[i][2] | frames[i][3] << 8;
            for (size_t n = 0; n < rt_len + 10 && n < frames[i].size(); ++n)
                EXPECT_EQ(parse(bytes(frames[i].begin(), frames[i].begin() + n)).verdict, QZ_RT_MALFORMED)
                    << e.path().filename() << " frame " << i + 1 << " cut at " << n;
        }
    }
}

} // namespace
