// The station-owner service: answers the daemon's owner queries (event 156) with
// owner replies (event 157), asking peers over neighbour messaging when needed.
#pragma once
#include <stddef.h>
#include <stdint.h>

#include <array>
#include <functional>
#include <memory>
#include <vector>

#include "nbr_endpoint.h"
#include "qz_evt_owner.h"

// Header of the service's own neighbour messages; count MACs follow.
struct owner_msg_hdr {
    uint8_t type;     // OWNER_MSG_*
    uint8_t reserved;
    uint8_t count[2]; // big-endian
    uint8_t seq[4];   // big-endian; an answer echoes its ask's
};
static_assert(sizeof(owner_msg_hdr) == 8);
static_assert(offsetof(owner_msg_hdr, seq) == 4);

enum : uint8_t {
    OWNER_MSG_HELLO = 1,  // "I am alive"; count 0
    OWNER_MSG_ASK = 2,    // which of these stations do you have associated or hear?
    OWNER_MSG_ANSWER = 3, // these ones (possibly none), count owner_answer_rec
};

// One station of an answer: count of these follow the header (an ask has bare MACs).
struct owner_answer_rec {
    uint8_t mac[6];
    uint8_t flags; // OWNER_ANS_*
};
static_assert(sizeof(owner_answer_rec) == 7);

enum : uint8_t {
    OWNER_ANS_ASSOC = 0x1, // associated on one of the answering access point's radios
    OWNER_ANS_HEARS = 0x2, // in one of its radios' recent report tables
};

// Access points heard, greeted and asked without being configured: on an open site
// any host can claim to be one, and each costs an ask per station every turn.
constexpr size_t OWNER_MAX_LEARNED = 32;

struct owner_params {
    uint32_t self_ip = 0;          // this access point's management IPv4, network order
    int peer_timeout_ms = 300;     // how long to wait for peers' answers
    int hello_ms = 1000;           // hello period
    int live_ms = 3500;            // a peer heard within this is live
    std::vector<uint32_t> peers;   // configured peers, greeted every hello period
    // Whether one of this access point's radios has the station associated.
    std::function<bool(const uint8_t *mac)> associated;
    std::function<void(uint32_t id, const void *payload, int len)> post;
    // Whether this access point's radios hear the station; null: every station.
    std::function<bool(const uint8_t *mac)> hears;
};

struct owner_service;
struct owner_service_deleter {
    void operator()(owner_service *s) const;
};
using owner_service_ptr = std::unique_ptr<owner_service, owner_service_deleter>;

// Starts the service on the runtime's service loop; ep may be null (a lone access
// point) and must outlive it. Null (logged) when the loop cannot take it.
owner_service_ptr owner_service_open(const owner_params &p, nbr_endpoint *ep);
// Adds the stations of one owner query payload (event 156, host order) to the pending
// batch that the service answers in one reply per turn; a malformed payload is logged,
// counted and dropped. Never blocks on the answer, never calls post itself.
void owner_service_query(owner_service *s, const void *payload, int len);
// The peers heard from within live_ms, network order.
std::vector<uint32_t> owner_service_live(owner_service *s);

// The rendezvous winner for mac among candidates (network-order IPv4); 0 when none.
uint32_t owner_rendezvous(const uint8_t mac[6], const std::vector<uint32_t> &candidates);

// One owner message taken apart: the header, its stations and, in an answer, their
// flags (one per station; zero otherwise).
struct owner_msg {
    owner_msg_hdr h{};
    std::vector<std::array<uint8_t, 6>> macs;
    std::vector<uint8_t> flags;
};
// Null when data[0, len) is a well-formed owner message (then out is filled), else why
// it is not. Reads nothing outside data[0, len).
const char *owner_msg_parse(const uint8_t *data, int len, owner_msg &out);
