// Station owner events: the daemon posts a query (QZ_EVT_OWNER_QUERY) for stations whose
// owner it needs; the platform answers with a reply (QZ_EVT_OWNER_REPLY). Host order,
// except the owner address.
#pragma once
#include <stddef.h>
#include <stdint.h>

inline constexpr uint32_t QZ_EVT_OWNER_QUERY = 156;
inline constexpr uint32_t QZ_EVT_OWNER_REPLY = 157;
inline constexpr uint16_t QZ_OWNER_QUERY_CODE = 302;

// Query: this header, then count 6-byte MACs; nothing else.
struct qz_owner_query_evt {
    uint16_t code; // QZ_OWNER_QUERY_CODE
    uint16_t count;
} __attribute__((packed));
static_assert(sizeof(qz_owner_query_evt) == 4);
static_assert(offsetof(qz_owner_query_evt, count) == 2);

// Reply: this header, then count qz_owner_rec.
struct qz_owner_reply_evt {
    uint16_t count;
} __attribute__((packed));
static_assert(sizeof(qz_owner_reply_evt) == 2);

struct qz_owner_rec {
    uint8_t mac[6];
    uint32_t owner; // IPv4, network order; 0 = no owner known
} __attribute__((packed));
static_assert(sizeof(qz_owner_rec) == 10);
static_assert(offsetof(qz_owner_rec, owner) == 6);
