// Server message events: each message from the location server reaches the daemon as
// QZ_EVT_SRV_MSG_IN; the daemon hands its own to the server channel as QZ_EVT_SRV_MSG_OUT.
// The bytes inside are the daemon's engine's format; the platform carries them unread.
#pragma once
#include <stdint.h>

inline constexpr uint32_t QZ_EVT_SRV_MSG_IN = 164;
inline constexpr uint32_t QZ_EVT_SRV_MSG_OUT = 165;
