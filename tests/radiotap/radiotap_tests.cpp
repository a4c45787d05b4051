// Frame parser: every frame of the real captures against the independent table, and
// malformed headers rejected without reading past the delivered bytes.
#include "radiotap.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
const fs::path captures = fs::path(LTR_SOURCE_DIR) / ".." / "shared" / "data" / "captures";

// Minimal classic-pcap reader (either byte order): the frames of a file, each as captured.
std::vector<std::vector<uint8_t>> read_pcap(const fs::path &p) {
    std::ifstream f(p, std::ios::binary);
    std::vector<uint8_t> b((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    std::vector<std::vector<uint8_t>> frames;
    bool big = false;
    auto u32 = [&](size_t o) {
        uint32_t v = uint32_t(b[o]) | uint32_t(b[o + 1]) << 8 | uint32_t(b[o + 2]) << 16 | uint32_t(b[o + 3]) << 24;
        return big ? __builtin_bswap32(v) : v;
    };
    if (b.size() < 24)
        return frames;
    big = u32(0) == 0xd4c3b2a1;
    if (u32(0) != 0xa1b2c3d4 || u32(20) != 127)
        return frames;
    for (size_t o = 24; o + 16 <= b.size();) {
        size_t n = u32(o + 8);
        if (o + 16 + n > b.size())
            break;
        frames.emplace_back(b.begin() + o + 16, b.begin() + o + 16 + n);
        o += 16 + n;
    }
    return frames;
}

// Parses from a block of exactly the frame's size, so a read past it is caught by ASan.
qz_rt_frame parse(const std::vector<uint8_t> &bytes) {
    std::unique_ptr<uint8_t[]> copy(new uint8_t[bytes.size() + 1]);
    std::copy(bytes.begin(), bytes.end(), copy.get());
    qz_rt_frame f;
    qz_rt_parse(std::span<const uint8_t>(copy.get(), bytes.size()), f);
    return f;
}

struct expected_row {
    int type_subtype = 0, ds = 0;
    std::string ta, badfcs, dbm, freq;
};

std::string mac_text(const uint8_t *m) {
    char s[18];
    snprintf(s, sizeof s, "%02x:%02x:%02x:%02x:%02x:%02x", m[0], m[1], m[2], m[3], m[4], m[5]);
    return s;
}

// The attribution rules applied to the dissector's fields, in the parser's verdict order.
// The dissector shows a transmitter and a signal for frames these rules drop: access
// points' frames and group transmitters (rewritten addresses of anonymised captures).
qz_rt_verdict expected_verdict(const expected_row &r) {
    if (r.badfcs == "1")
        return QZ_RT_BAD_FCS;
    if (r.dbm.empty())
        return QZ_RT_NO_SIGNAL;
    if (r.ta.empty() || (std::stoi(r.ta.substr(0, 2), nullptr, 16) & 1))
        return QZ_RT_NOT_STATION;
    const int type = r.type_subtype >> 4, sub = r.type_subtype & 15;
    const bool ap = (type == 0 && (sub == 8 || sub == 5)) || (type == 1 && sub >= 14) || (type == 2 && r.ds >= 2);
    return ap ? QZ_RT_NOT_STATION : QZ_RT_KEPT;
}

std::map<std::string, std::map<int, expected_row>> load_table() {
    std::ifstream f(fs::path(LTR_SOURCE_DIR) / "tests" / "radiotap" / "data" / "expected.tsv");
    std::map<std::string, std::map<int, expected_row>> t;
    std::string line;
    while (std::getline(f, line)) {
        std::vector<std::string> c;
        std::stringstream ss(line);
        for (std::string x; std::getline(ss, x, '\t');)
            c.push_back(x);
        c.resize(9);
        expected_row r{std::stoi(c[2], nullptr, 16), std::stoi(c[3], nullptr, 16), c[4], c[6], c[7], c[8]};
        t[c[0]][std::stoi(c[1])] = r;
    }
    return t;
}

TEST(RadiotapCaptures, EveryFrameAgreesWithIndependentTable) {
    if (!fs::is_directory(captures))
        GTEST_SKIP() << "no captures at " << captures << " (../shared beside the source tree)";
    auto table = load_table();
    ASSERT_EQ(table.size(), 8u) << "expected.tsv covers the eight captures";
    for (auto &[file, rows] : table) {
        auto frames = read_pcap(captures / file);
        ASSERT_EQ(frames.size(), rows.size()) << file;
        size_t agree = 0, kept = 0;
        for (size_t i = 0; i < frames.size(); ++i) {
            const expected_row &r = rows.at(int(i + 1));
            const qz_rt_frame f = parse(frames[i]);
            const qz_rt_verdict want = expected_verdict(r);
            bool ok = f.verdict == want;
            if (ok && want == QZ_RT_KEPT) {
                ++kept;
                const std::string first_dbm = r.dbm.substr(0, r.dbm.find(','));
                ok = mac_text(f.ta) == r.ta && f.dbm == std::stoi(first_dbm) &&
                     f.freq == (r.freq.empty() ? 0 : std::stoi(r.freq));
            }
            agree += ok;
            EXPECT_TRUE(ok) << file << " frame " << i + 1 << ": " << qz_rt_verdict_name(f.verdict) << " "
                            << mac_text(f.ta) << " " << int(f.dbm) << " dBm " << f.freq << " MHz, table "
                            << qz_rt_verdict_name(want) << " " << r.ta << " " << r.dbm << " " << r.freq;
        }
        printf("%-40s %zu/%zu frames agree, %zu kept\n", file.c_str(), agree, frames.size(), kept);
    }
}

// A frame with a 12-byte radiotap header (flags, signal) and a 24-byte probe request.
std::vector<uint8_t> probe_request(uint8_t flags = 0, int8_t dbm = -60) {
    // flags at 8, channel aligned to 10 (2412 MHz, flags 0x00a0), signal at 14
    std::vector<uint8_t> b = {0, 0, 15, 0, 0x2a, 0, 0, 0, flags, 0, 0x6c, 0x09, 0xa0, 0x00, uint8_t(dbm)};
    std::vector<uint8_t> wlan(24, 0);
    wlan[0] = 0x40; // probe request
    for (int i = 0; i < 6; ++i)
        wlan[4 + i] = 0xff, wlan[10 + i] = uint8_t(0x10 + i), wlan[16 + i] = 0xff;
    b.insert(b.end(), wlan.begin(), wlan.end());
    return b;
}

TEST(RadiotapParse, LayoutsAndVerdicts) {
    qz_rt_frame f = parse(probe_request());
    EXPECT_EQ(f.verdict, QZ_RT_KEPT);
    EXPECT_EQ(f.dbm, -60);
    EXPECT_EQ(f.freq, 2412);
    EXPECT_EQ(parse(probe_request(0x40)).verdict, QZ_RT_BAD_FCS);

    // FCS at the end: the 802.11 header must still fit once the 4 FCS bytes are removed.
    auto fcs = probe_request(0x10);
    fcs.resize(fcs.size() + 2);
    EXPECT_EQ(parse(fcs).verdict, QZ_RT_MALFORMED);

    // A vendor namespace between two radiotap namespaces: its data is skipped by its own
    // length, and the signal comes from the first radiotap namespace that carries one.
    std::vector<uint8_t> v = {0, 0, 0, 0,
                              0x00, 0, 0, 0xc0,       // word 0: vendor ns next, ext
                              0x01, 0, 0, 0xa0,       // word 1 (vendor): bit 0, radiotap ns next, ext
                              0x20, 0, 0, 0x00,       // word 2: signal
                              0x00, 0x11, 0x22, 0x01, 3, 0, 0xee, 0xee, 0xee, // vendor hdr + 3 bytes
                              0xc4};                  // signal -60
    v[2] = uint8_t(v.size());
    const auto pr = probe_request();
    std::vector<uint8_t> wlan(pr.begin() + 15, pr.end());
    v.insert(v.end(), wlan.begin(), wlan.end());
    f = parse(v);
    EXPECT_EQ(f.verdict, QZ_RT_KEPT);
    EXPECT_EQ(f.dbm, -60);

    // Access point, group transmitter, receiver-only frames are no station's reading.
    auto beacon = probe_request();
    beacon[15] = 0x80;
    EXPECT_EQ(parse(beacon).verdict, QZ_RT_NOT_STATION);
    auto group = probe_request();
    group[15 + 10] = 0x11;
    EXPECT_EQ(parse(group).verdict, QZ_RT_NOT_STATION);
    auto from_ds = probe_request();
    from_ds[15] = 0x08, from_ds[16] = 0x02; // data, FromDS: the receiver is the station
    f = parse(from_ds);
    EXPECT_EQ(f.verdict, QZ_RT_NOT_STATION);
    EXPECT_FALSE(f.has_assoc); // receiver is broadcast in this frame
    auto to_ds = probe_request();
    to_ds[15] = 0x08, to_ds[16] = 0x01, to_ds[15 + 4] = 0x02; // ToDS to BSSID 02:ff:...
    f = parse(to_ds);
    EXPECT_EQ(f.verdict, QZ_RT_KEPT);
    ASSERT_TRUE(f.has_assoc);
    EXPECT_EQ(mac_text(f.assoc_sta), "10:11:12:13:14:15");
    EXPECT_EQ(mac_text(f.bssid), "02:ff:ff:ff:ff:ff");
}

TEST(RadiotapParse, MalformedHeadersRejectedWithinBytes) {
    auto good = probe_request();
    auto len_past = good;
    len_past[2] = 200;
    EXPECT_EQ(parse(len_past).verdict, QZ_RT_MALFORMED);
    auto bad_version = good;
    bad_version[0] = 1;
    EXPECT_EQ(parse(bad_version).verdict, QZ_RT_MALFORMED);

    // Headers followed by a valid 802.11 header, so that only the radiotap checks can
    // tell: the extension bit in every present word to the end of the header and beyond.
    const std::vector<uint8_t> wlan(good.begin() + 15, good.end());
    std::vector<uint8_t> ext = {0, 0, 16, 0, 0, 0, 0, 0x80, 0, 0, 0, 0x80, 0, 0, 0, 0x80};
    ext.insert(ext.end(), wlan.begin(), wlan.end());
    EXPECT_EQ(parse(ext).verdict, QZ_RT_MALFORMED);
    ext.resize(4096, 0xff);
    ext[2] = 0, ext[3] = 0x10;
    EXPECT_EQ(parse(ext).verdict, QZ_RT_MALFORMED);

    // Fields announced past the header length (TSFT needs 8 bytes after alignment).
    std::vector<uint8_t> tsft = {0, 0, 12, 0, 0x21, 0, 0, 0, 0, 0, 0, 0};
    tsft.insert(tsft.end(), wlan.begin(), wlan.end());
    EXPECT_EQ(parse(tsft).verdict, QZ_RT_MALFORMED);
    // Vendor data longer than the header.
    std::vector<uint8_t> vend = {0, 0, 14, 0, 0, 0, 0, 0x40, 0, 0x11, 0x22, 0, 0xff, 0xff};
    vend.insert(vend.end(), wlan.begin(), wlan.end());
    EXPECT_EQ(parse(vend).verdict, QZ_RT_MALFORMED);
    std::vector<uint8_t> vend_cut = {0, 0, 10, 0, 0, 0, 0, 0x40, 0, 0x11}; // vendor header cut
    EXPECT_EQ(parse(vend_cut).verdict, QZ_RT_MALFORMED);

    // Every truncation of real frames of every layout: a verdict, never a read past the end,
    // and malformed whenever the 802.11 header is cut.
    if (!fs::is_directory(captures))
        return;
    for (auto &e : fs::directory_iterator(captures)) {
        if (e.path().extension() != ".pcap")
            continue;
        auto frames = read_pcap(e.path());
        for (size_t i = 0; i < frames.size() && i < 40; ++i) {
            const size_t rt_len = frames[i].size() >= 4 ? (frames[i][2] | frames[i][3] << 8) : 0;
            for (size_t n = 0; n < frames[i].size(); ++n) {
                std::vector<uint8_t> cut(frames[i].begin(), frames[i].begin() + n);
                qz_rt_frame f = parse(cut);
                if (n < rt_len + 10) {
                    EXPECT_EQ(f.verdict, QZ_RT_MALFORMED) << e.path().filename() << " frame " << i + 1 << " cut at " << n;
                }
            }
        }
    }
}

} // namespace
