// Management channel towards the location server.
#pragma once
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// Hands one message to the server channel. Negative on failure.
int qz_capwap_send_event(uint32_t id, int len, void *payload);

#ifdef __cplusplus
}
#endif
