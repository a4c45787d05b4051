// Interface-change kernel event: a network interface changed. Host order.
#pragma once
#include <stddef.h>
#include <stdint.h>

inline constexpr uint32_t QZ_KEVT_IF_CHANGE = 19;

// Change types.
enum qz_if_change_type : uint32_t {
    QZ_IF_INVALID = 0,
    QZ_IF_UP = 1,
    QZ_IF_DOWN = 2,
    QZ_IF_REBOOT = 3,
    QZ_IF_MTU = 4,
    QZ_IF_MAC = 5,
    QZ_IF_NAME = 6,
    QZ_IF_GOING_DOWN = 7,
    QZ_IF_IPV6_ADDR_ADD = 8,
    QZ_IF_IPV6_ADDR_DEL = 9,
};

// Flags word: the platform's own bits, not the kernel's.
inline constexpr uint32_t QZ_IFF_UP = 0x1;
inline constexpr uint32_t QZ_IFF_NO_ACCESS = 0x2; // comes up without client access
inline constexpr uint32_t QZ_IFF_LOOPBACK = 0x8;

// The name runs to its NUL; a receiver reads no further than the delivered length, so a
// sender may deliver the record cut after the NUL.
struct qz_if_change {
    uint32_t type;  // qz_if_change_type
    int32_t ifindex;
    uint32_t flags; // QZ_IFF_*
    char name[16];
};
inline constexpr int QZ_IF_CHANGE_HDR = offsetof(qz_if_change, name);
static_assert(sizeof(qz_if_change) == 28);
static_assert(offsetof(qz_if_change, ifindex) == 4);
static_assert(offsetof(qz_if_change, flags) == 8);
static_assert(QZ_IF_CHANGE_HDR == 12);
