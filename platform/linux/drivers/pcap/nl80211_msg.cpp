// nl80211 requests and reply parsing. libnl validates attribute lengths against the
// policies below; every message is first checked against the bytes that arrived.
#include "nl80211_msg.h"

#include <linux/nl80211.h>
#include <netlink/genl/genl.h>

#include <cstring>

namespace {

using attrs = nlattr *[NL80211_ATTR_MAX + 1];

struct policies {
    nla_policy top[NL80211_ATTR_MAX + 1]{};
    nla_policy sta_info[NL80211_STA_INFO_MAX + 1]{};
};

constexpr policies make_policies()
{
    policies p;
    p.top[NL80211_ATTR_IFINDEX] = {NLA_U32, 0, 0};
    p.top[NL80211_ATTR_MAC] = {NLA_UNSPEC, 6, 6};
    p.top[NL80211_ATTR_STA_INFO] = {NLA_NESTED, 0, 0};
    p.top[NL80211_ATTR_WIPHY_FREQ] = {NLA_U32, 0, 0};
    p.sta_info[NL80211_STA_INFO_STA_FLAGS] = {NLA_UNSPEC, sizeof(nl80211_sta_flag_update), 0};
    return p;
}
// libnl takes its policies by non-const pointer but never writes them.
policies g_pol = make_policies();

// libnl stops quietly at an attribute that runs past its parent; such a stream is cut.
bool whole(const nlattr *head, int len)
{
    const nlattr *a;
    int rem;
    nla_for_each_attr(a, head, len, rem) {}
    return rem < NLA_HDRLEN; // what is left can only be padding
}

// The attributes of a generic netlink message of command cmd: MALFORMED when the header
// or an attribute does not fit, SKIP for another command.
qz_nl_verdict genl_attrs(const nlmsghdr *h, size_t len, uint8_t cmd, attrs &tb)
{
    if (len > size_t(INT32_MAX) || !nlmsg_ok(h, int(len)))
        return QZ_NL_MALFORMED;
    auto *m = const_cast<nlmsghdr *>(h);
    if (!genlmsg_valid_hdr(m, 0))
        return QZ_NL_MALFORMED;
    if (static_cast<const genlmsghdr *>(nlmsg_data(h))->cmd != cmd)
        return QZ_NL_SKIP;
    if (!whole(genlmsg_attrdata(static_cast<genlmsghdr *>(nlmsg_data(m)), 0),
               genlmsg_attrlen(static_cast<genlmsghdr *>(nlmsg_data(m)), 0)) ||
        genlmsg_parse(m, 0, tb, NL80211_ATTR_MAX, g_pol.top) < 0)
        return QZ_NL_MALFORMED;
    return QZ_NL_OK;
}

nl_msg *request(int family, uint8_t cmd, int flags, uint32_t ifindex)
{
    nl_msg *m = nlmsg_alloc();
    if (!m)
        return nullptr;
    if (!genlmsg_put(m, NL_AUTO_PORT, NL_AUTO_SEQ, family, 0, flags, cmd, 0) ||
        nla_put_u32(m, NL80211_ATTR_IFINDEX, ifindex) < 0) {
        nlmsg_free(m);
        return nullptr;
    }
    return m;
}

} // namespace

nl_msg *qz_nl_station_dump(int family, uint32_t ifindex)
{
    return request(family, NL80211_CMD_GET_STATION, NLM_F_DUMP, ifindex);
}

nl_msg *qz_nl_interface_get(int family, uint32_t ifindex)
{
    return request(family, NL80211_CMD_GET_INTERFACE, 0, ifindex);
}

qz_nl_verdict qz_nl_parse_station(const nlmsghdr *h, size_t len, qz_nl_mac &mac)
{
    attrs tb{};
    if (qz_nl_verdict v = genl_attrs(h, len, NL80211_CMD_NEW_STATION, tb); v != QZ_NL_OK)
        return v;
    if (!tb[NL80211_ATTR_MAC])
        return QZ_NL_MALFORMED;
    memcpy(mac.data(), nla_data(tb[NL80211_ATTR_MAC]), 6);
    if (!tb[NL80211_ATTR_STA_INFO])
        return QZ_NL_OK; // in the access point's table, flags unknown
    nlattr *si[NL80211_STA_INFO_MAX + 1]{};
    nlattr *info = tb[NL80211_ATTR_STA_INFO];
    if (!whole(static_cast<const nlattr *>(nla_data(info)), nla_len(info)) ||
        nla_parse_nested(si, NL80211_STA_INFO_MAX, info, g_pol.sta_info) < 0)
        return QZ_NL_MALFORMED;
    if (!si[NL80211_STA_INFO_STA_FLAGS])
        return QZ_NL_OK;
    nl80211_sta_flag_update f;
    memcpy(&f, nla_data(si[NL80211_STA_INFO_STA_FLAGS]), sizeof f);
    const uint32_t assoc = 1u << NL80211_STA_FLAG_ASSOCIATED;
    // An access point adds a station on authentication; only association counts.
    return (f.mask & assoc) && !(f.set & assoc) ? QZ_NL_SKIP : QZ_NL_OK;
}

qz_nl_verdict qz_nl_parse_interface(const nlmsghdr *h, size_t len, uint32_t ifindex, uint32_t &freq)
{
    attrs tb{};
    if (qz_nl_verdict v = genl_attrs(h, len, NL80211_CMD_NEW_INTERFACE, tb); v != QZ_NL_OK)
        return v;
    if (!tb[NL80211_ATTR_IFINDEX])
        return QZ_NL_MALFORMED;
    if (nla_get_u32(tb[NL80211_ATTR_IFINDEX]) != ifindex || !tb[NL80211_ATTR_WIPHY_FREQ])
        return QZ_NL_SKIP;
    uint32_t f = nla_get_u32(tb[NL80211_ATTR_WIPHY_FREQ]);
    if (f == 0 || f > UINT16_MAX)
        return QZ_NL_MALFORMED; // the record carries a u16
    freq = f;
    return QZ_NL_OK;
}

qz_nl_walk_end qz_nl_walk(std::span<const uint8_t> dgram, uint32_t seq,
                          void (*fn)(void *ctx, const nlmsghdr *h, size_t len), void *ctx,
                          int &err)
{
    const uint8_t *p = dgram.data();
    size_t left = dgram.size();
    while (left > 0) {
        if (left < sizeof(nlmsghdr))
            return QZ_NL_BAD;
        const auto *h = reinterpret_cast<const nlmsghdr *>(p);
        if (h->nlmsg_len < sizeof(nlmsghdr) || h->nlmsg_len > left)
            return QZ_NL_BAD;
        if (h->nlmsg_seq == seq) {
            if (h->nlmsg_type == NLMSG_DONE)
                return QZ_NL_DONE;
            if (h->nlmsg_type == NLMSG_ERROR) {
                if (h->nlmsg_len < NLMSG_LENGTH(sizeof(nlmsgerr)))
                    return QZ_NL_BAD;
                nlmsgerr e;
                memcpy(&e, p + NLMSG_HDRLEN, sizeof e);
                if (e.error == 0)
                    return QZ_NL_DONE;
                err = e.error;
                return QZ_NL_ERROR;
            }
            if (h->nlmsg_type >= NLMSG_MIN_TYPE) {
                fn(ctx, h, h->nlmsg_len);
                if (!(h->nlmsg_flags & NLM_F_MULTI))
                    return QZ_NL_DONE; // a single reply; its acknowledgement is not awaited
            }
        }
        const size_t step = NLMSG_ALIGN(h->nlmsg_len);
        if (step >= left)
            break;
        p += step;
        left -= step;
    }
    return QZ_NL_MORE;
}
