// Neighbour messaging library: datagrams between the access points of a site.
#pragma once
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Receive callback: ctx is the service's, len the bytes received, data writable.
typedef int (*qz_hc_recv_cb)(void *ctx, int len, void *data);

// Registration record; lives only for the duration of qz_hc_register.
struct qz_hc_reg {
    uint32_t module_id; // the registrant's module id; datagrams carry it
    uint32_t caps;      // delivery kinds accepted: bit 1 unicast, bit 2 broadcast
    uint32_t version;   // version of this record (1), not of the datagrams on the wire
    uint32_t reserved;
    // Pointers sit in 8-byte slots so that the record has the same bytes on 32- and
    // 64-bit targets; on a 32-bit target the slot's other half stays zero.
    union {
        uint64_t recv_slot;
        qz_hc_recv_cb recv;
    };
    union {
        uint64_t priv_slot;
        void *priv;     // passed back as ctx; may be null
    };
};

int qz_hc_register(struct qz_hc_reg *reg);
int qz_hc_unregister(void);
// One datagram to the access point at dst_ip (network order). Negative on failure.
int qz_hc3u_send(uint32_t dst_ip, void *msg, int len);

#ifdef __cplusplus
}
static_assert(sizeof(qz_hc_reg) == 32);
static_assert(offsetof(qz_hc_reg, caps) == 4 && offsetof(qz_hc_reg, version) == 8);
static_assert(offsetof(qz_hc_reg, recv) == 16);
static_assert(offsetof(qz_hc_reg, priv) == 24);
#endif
