// The tag of neighbour datagrams: HMAC-SHA256, computed with a context keyed once per
// key and thread, so that a datagram costs its hash and not the key's set-up.
#pragma once
#include <stddef.h>
#include <stdint.h>

#include <string_view>

constexpr size_t NBR_MAC_LEN = 32;

// Keys the context that threads copy for key (the thread that opens an endpoint):
// the library's look-ups, and the per-thread state they leave, stay on this thread.
void nbr_mac_init(std::string_view key);
// HMAC-SHA256 of data under key into out. False (logged) when the library fails.
bool nbr_mac(std::string_view key, const uint8_t *data, size_t len, uint8_t out[NBR_MAC_LEN]);
