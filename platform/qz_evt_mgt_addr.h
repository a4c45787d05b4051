// Management address event: the management interface's IPv4 address changed.
#pragma once
#include <stddef.h>
#include <stdint.h>

inline constexpr uint32_t QZ_EVT_MGT_IP = 280;

struct qz_mgt_addr_evt {
    char ifname[16]; // the interface that plays the management interface, NUL-terminated
    int32_t ifindex; // host order
    uint32_t ip;     // network order; 0 = no address any more
    uint32_t mask;   // network order
};
static_assert(sizeof(qz_mgt_addr_evt) == 28);
static_assert(offsetof(qz_mgt_addr_evt, ifindex) == 16);
static_assert(offsetof(qz_mgt_addr_evt, ip) == 20);
static_assert(offsetof(qz_mgt_addr_evt, mask) == 24);
