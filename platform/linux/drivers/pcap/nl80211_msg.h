// nl80211 messages of the pcap driver's association look-up: the two requests it sends
// (the access point interface's stations, and the interface itself for its channel) and
// the parsing of the kernel's replies. No socket here: replies come in as bytes.
#pragma once

#include <netlink/msg.h>

#include <array>
#include <cstdint>
#include <span>

using qz_nl_mac = std::array<uint8_t, 6>;

// Requests for the nl80211 family id `family` on interface `ifindex`; null when out of
// memory. The caller owns the message (nlmsg_free).
nl_msg *qz_nl_station_dump(int family, uint32_t ifindex);
nl_msg *qz_nl_interface_get(int family, uint32_t ifindex);

enum qz_nl_verdict : uint8_t {
    QZ_NL_OK,        // the message said what was asked
    QZ_NL_SKIP,      // a well-formed message that says nothing here (not associated, other cmd)
    QZ_NL_MALFORMED, // header or attributes inconsistent with the bytes, or a needed one missing
};

// One station of a station dump: OK with its MAC when associated (its station flags say
// so, or carry no association bit at all), SKIP when only authenticated.
qz_nl_verdict qz_nl_parse_station(const nlmsghdr *h, size_t len, qz_nl_mac &mac);
// An interface reply: OK with the frequency (MHz) of its channel; SKIP when the
// interface is on no channel (down) or is not `ifindex`.
qz_nl_verdict qz_nl_parse_interface(const nlmsghdr *h, size_t len, uint32_t ifindex, uint32_t &freq);

enum qz_nl_walk_end : uint8_t {
    QZ_NL_MORE,  // the reply goes on in the next datagram
    QZ_NL_DONE,  // end of a dump, or the acknowledgement of a request
    QZ_NL_ERROR, // the kernel refused the request (err holds its negative errno)
    QZ_NL_BAD,   // a message header does not fit the datagram
};

// Walks one received datagram: each message of sequence `seq` with a payload goes to
// fn(ctx, header, its length); other sequences (late answers to an earlier request
// that timed out) are passed over.
qz_nl_walk_end qz_nl_walk(std::span<const uint8_t> dgram, uint32_t seq,
                          void (*fn)(void *ctx, const nlmsghdr *h, size_t len), void *ctx,
                          int &err);
