// The pcap driver's nl80211 socket: which stations are associated with an access point
// interface, and the channel it is on. Each call is one short, bounded round trip.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "nl80211_msg.h"

struct nl_sock;

// One radio's socket, freed with it.
struct qz_nl80211 {
    nl_sock *sk = nullptr;
    int family = -1;           // the nl80211 generic netlink family
    std::vector<uint8_t> buf;  // one received datagram
    qz_nl80211() = default;
    qz_nl80211(const qz_nl80211 &) = delete;
    qz_nl80211 &operator=(const qz_nl80211 &) = delete;
    ~qz_nl80211();
};

// Connects and finds the nl80211 family; false with the reason in err.
bool qz_nl_open(qz_nl80211 &n, std::string &err);
// The stations associated with interface ifindex and its channel's frequency (0, and no
// stations, when it is on no channel). false with the reason in err.
bool qz_nl_associated(qz_nl80211 &n, uint32_t ifindex, std::vector<qz_nl_mac> &stas,
                      uint32_t &freq, std::string &err);
