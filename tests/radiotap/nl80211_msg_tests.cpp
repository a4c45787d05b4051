// nl80211 replies of the association look-up, built here as the kernel would send them,
// then cut, stripped and bent. Each message is copied to a buffer of exactly its bytes so
// that the sanitizers catch any read past them.
#include "nl80211_msg.h"

#include <gtest/gtest.h>
#include <linux/nl80211.h>
#include <netlink/genl/genl.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

namespace {

using bytes = std::vector<uint8_t>;
using msg_ptr = std::unique_ptr<nl_msg, decltype(&nlmsg_free)>;

constexpr int k_family = 28;
constexpr qz_nl_mac k_sta{0x00, 0x11, 0x22, 0x33, 0x44, 0x55};

msg_ptr genl(uint8_t cmd, int flags = 0, uint32_t seq = 7)
{
    msg_ptr m(nlmsg_alloc(), nlmsg_free);
    genlmsg_put(m.get(), 0, seq, k_family, 0, flags, cmd, 0);
    return m;
}

bytes of(nl_msg *m)
{
    const nlmsghdr *h = nlmsg_hdr(m);
    const auto *p = reinterpret_cast<const uint8_t *>(h);
    return bytes(p, p + h->nlmsg_len);
}

const nlmsghdr *hdr(const bytes &b) { return reinterpret_cast<const nlmsghdr *>(b.data()); }

// A station reply; flags_len 0 leaves STA_INFO out, a negative mask leaves the flags out.
bytes station(int64_t mask, uint32_t set, int mac_len = 6, int flags_len = 8)
{
    msg_ptr m = genl(NL80211_CMD_NEW_STATION, NLM_F_MULTI);
    nla_put_u32(m.get(), NL80211_ATTR_IFINDEX, 3);
    if (mac_len)
        nla_put(m.get(), NL80211_ATTR_MAC, mac_len, k_sta.data());
    if (flags_len) {
        nlattr *info = nla_nest_start(m.get(), NL80211_ATTR_STA_INFO);
        nla_put_u32(m.get(), NL80211_STA_INFO_INACTIVE_TIME, 10);
        if (mask >= 0) {
            nl80211_sta_flag_update f{uint32_t(mask), set};
            nla_put(m.get(), NL80211_STA_INFO_STA_FLAGS, flags_len, &f);
        }
        nla_nest_end(m.get(), info);
    }
    return of(m.get());
}

qz_nl_verdict parse_station(const bytes &b, size_t len, qz_nl_mac &mac)
{
    return qz_nl_parse_station(hdr(b), len, mac);
}

constexpr uint32_t k_assoc = 1u << NL80211_STA_FLAG_ASSOCIATED;
constexpr uint32_t k_auth = 1u << NL80211_STA_FLAG_AUTHENTICATED;

} // namespace

TEST(Nl80211Msg, StationRepliesByFlagsAndAttributes)
{
    qz_nl_mac mac{};
    msg_ptr other = genl(NL80211_CMD_NEW_INTERFACE);
    nla_put(other.get(), NL80211_ATTR_MAC, 6, k_sta.data());
    const std::tuple<bytes, qz_nl_verdict, const char *> cases[] = {
        {station(k_assoc | k_auth, k_auth), QZ_NL_SKIP, "authenticated, not associated"},
        {station(k_auth, k_auth), QZ_NL_OK, "no association bit in the mask"},
        {station(-1, 0), QZ_NL_OK, "no flags"},
        {station(0, 0, 6, 0), QZ_NL_OK, "no station info"},
        {of(other.get()), QZ_NL_SKIP, "another command"},
        {station(k_assoc, k_assoc, 0), QZ_NL_MALFORMED, "no MAC"},
        {station(k_assoc, k_assoc, 4), QZ_NL_MALFORMED, "4-byte MAC"},
        {station(k_assoc, k_assoc, 6, 4), QZ_NL_MALFORMED, "flags cut to 4 bytes"},
    };
    for (auto &[b, want, why] : cases)
        EXPECT_EQ(parse_station(b, b.size(), mac), want) << why;
    bytes b = station(k_assoc | k_auth, k_assoc | k_auth);
    ASSERT_EQ(parse_station(b, b.size(), mac), QZ_NL_OK);
    EXPECT_EQ(mac, k_sta);

    b = station(k_assoc, k_assoc);
    // Delivered bytes shorter than the header says: nothing of it is read.
    for (size_t cut : {b.size() - 1, size_t(20), size_t(15), size_t(0)}) {
        bytes part(b.begin(), b.begin() + ptrdiff_t(cut));
        EXPECT_EQ(parse_station(part, part.size(), mac), QZ_NL_MALFORMED) << cut;
    }
    // A header that ends inside the MAC attribute: the attribute is cut, so it is missing.
    bytes cut_mac = b;
    const size_t mac_at = NLMSG_HDRLEN + GENL_HDRLEN + 8; // after the ifindex attribute
    const uint32_t shorter = uint32_t(mac_at + 6);
    memcpy(cut_mac.data(), &shorter, 4);
    cut_mac.resize(shorter);
    EXPECT_EQ(parse_station(cut_mac, cut_mac.size(), mac), QZ_NL_MALFORMED);
    // A nested attribute whose length runs past its parent: the station info is cut.
    bytes bent = b;
    const size_t info_at = mac_at + NLA_ALIGN(NLA_HDRLEN + 6);
    uint16_t too_long = 0x4000;
    memcpy(bent.data() + info_at + NLA_HDRLEN, &too_long, 2); // first nested attribute
    EXPECT_EQ(parse_station(bent, bent.size(), mac), QZ_NL_MALFORMED);
}

TEST(Nl80211Msg, InterfaceReplyGivesTheChannelOfThatInterfaceOnly)
{
    auto iface = [](int ifindex, int64_t freq, int freq_len = 4) {
        msg_ptr m = genl(NL80211_CMD_NEW_INTERFACE);
        if (ifindex >= 0)
            nla_put_u32(m.get(), NL80211_ATTR_IFINDEX, uint32_t(ifindex));
        nla_put_string(m.get(), NL80211_ATTR_IFNAME, "wlan0");
        if (freq >= 0) {
            uint32_t f = uint32_t(freq);
            nla_put(m.get(), NL80211_ATTR_WIPHY_FREQ, freq_len, &f);
        }
        return of(m.get());
    };
    auto parse = [](const bytes &b, uint32_t &freq) { return qz_nl_parse_interface(hdr(b), b.size(), 3, freq); };
    uint32_t freq = 0;
    ASSERT_EQ(parse(iface(3, 5180), freq), QZ_NL_OK);
    EXPECT_EQ(freq, 5180u);
    EXPECT_EQ(parse(iface(4, 2412), freq), QZ_NL_SKIP) << "another interface";
    EXPECT_EQ(parse(iface(3, -1), freq), QZ_NL_SKIP) << "on no channel";
    EXPECT_EQ(parse(iface(-1, 2412), freq), QZ_NL_MALFORMED) << "no ifindex";
    EXPECT_EQ(parse(iface(3, 2412, 2), freq), QZ_NL_MALFORMED) << "frequency cut to 2 bytes";
    EXPECT_EQ(parse(iface(3, 70000), freq), QZ_NL_MALFORMED) << "does not fit the record";
    EXPECT_EQ(freq, 5180u) << "only a good reply sets it";
}

TEST(Nl80211Msg, WalkDeliversOnlyThisRequestsMessagesUntilItsEnd)
{
    struct seen {
        std::vector<qz_nl_mac> macs;
    } s;
    auto fn = [](void *ctx, const nlmsghdr *h, size_t len) {
        qz_nl_mac mac;
        if (qz_nl_parse_station(h, len, mac) == QZ_NL_OK)
            static_cast<seen *>(ctx)->macs.push_back(mac);
    };
    auto control = [](uint16_t type, uint32_t seq, int error) {
        bytes b(NLMSG_LENGTH(sizeof(nlmsgerr)), 0);
        nlmsghdr h{uint32_t(b.size()), type, NLM_F_MULTI, seq, 0};
        memcpy(b.data(), &h, sizeof h);
        nlmsgerr e{};
        e.error = error;
        memcpy(b.data() + NLMSG_HDRLEN, &e, sizeof e);
        return b;
    };
    auto join = [](std::initializer_list<bytes> parts) {
        bytes out;
        for (const bytes &p : parts) {
            out.insert(out.end(), p.begin(), p.end());
            out.resize(NLMSG_ALIGN(out.size()));
        }
        return out;
    };
    const bytes sta = station(k_assoc, k_assoc);
    bytes stale = sta;
    stale[8] = 6; // sequence 6: an answer to an earlier request
    int err = 0;

    bytes d = join({sta, stale, sta});
    EXPECT_EQ(qz_nl_walk(d, 7, fn, &s, err), QZ_NL_MORE);
    EXPECT_EQ(s.macs.size(), 2u);
    d = join({stale, control(NLMSG_DONE, 6, 0), sta, control(NLMSG_DONE, 7, 0), sta});
    EXPECT_EQ(qz_nl_walk(d, 7, fn, &s, err), QZ_NL_DONE);
    EXPECT_EQ(s.macs.size(), 3u) << "the other request's end is not ours; nothing after ours";

    // No station associated: the dump is its end alone.
    EXPECT_EQ(qz_nl_walk(join({control(NLMSG_DONE, 7, 0)}), 7, fn, &s, err), QZ_NL_DONE);
    EXPECT_EQ(s.macs.size(), 3u);
    d = join({control(NLMSG_ERROR, 7, -ENODEV)});
    EXPECT_EQ(qz_nl_walk(d, 7, fn, &s, err), QZ_NL_ERROR);
    EXPECT_EQ(err, -ENODEV);
    EXPECT_EQ(qz_nl_walk(join({control(NLMSG_ERROR, 7, 0)}), 7, fn, &s, err), QZ_NL_DONE) << "ack";

    // A single (not multi-part) reply ends the request.
    msg_ptr one = genl(NL80211_CMD_NEW_STATION);
    nla_put(one.get(), NL80211_ATTR_MAC, 6, k_sta.data());
    EXPECT_EQ(qz_nl_walk(of(one.get()), 7, fn, &s, err), QZ_NL_DONE);
    EXPECT_EQ(s.macs.size(), 4u);

    // Headers that do not fit the datagram stop the walk before reading them; the whole
    // messages before them were delivered.
    d = join({sta, sta});
    d.resize(d.size() - 1);
    EXPECT_EQ(qz_nl_walk(d, 7, fn, &s, err), QZ_NL_BAD);
    d = join({sta});
    d.resize(d.size() + 8);
    EXPECT_EQ(qz_nl_walk(d, 7, fn, &s, err), QZ_NL_BAD) << "8 bytes are no header";
    bytes short_err = control(NLMSG_ERROR, 7, -EIO);
    const uint32_t hdr_only = NLMSG_HDRLEN + 2;
    memcpy(short_err.data(), &hdr_only, 4);
    short_err.resize(hdr_only);
    EXPECT_EQ(qz_nl_walk(short_err, 7, fn, &s, err), QZ_NL_BAD);
    EXPECT_EQ(s.macs.size(), 6u);
}

TEST(Nl80211Msg, RequestsNameTheInterface)
{
    for (auto [m, cmd, dump] : {std::tuple(qz_nl_station_dump(k_family, 9), NL80211_CMD_GET_STATION, true),
                                std::tuple(qz_nl_interface_get(k_family, 9), NL80211_CMD_GET_INTERFACE, false)}) {
        msg_ptr own(m, nlmsg_free);
        ASSERT_TRUE(m);
        nlmsghdr *h = nlmsg_hdr(m);
        EXPECT_EQ(h->nlmsg_type, k_family);
        EXPECT_EQ((h->nlmsg_flags & NLM_F_DUMP) == NLM_F_DUMP, dump);
        EXPECT_EQ(static_cast<genlmsghdr *>(nlmsg_data(h))->cmd, cmd);
        nlattr *tb[NL80211_ATTR_MAX + 1];
        ASSERT_EQ(genlmsg_parse(h, 0, tb, NL80211_ATTR_MAX, nullptr), 0);
        ASSERT_TRUE(tb[NL80211_ATTR_IFINDEX]);
        EXPECT_EQ(nla_get_u32(tb[NL80211_ATTR_IFINDEX]), 9u);
    }
}
