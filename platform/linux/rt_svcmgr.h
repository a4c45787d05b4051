// The service manager's two datagram protocols, spoken directly: the readiness
// notification ($NOTIFY_SOCKET) and the journal's native protocol.
#pragma once
#include <stdint.h>

#include <span>
#include <string>

constexpr const char *RT_JOURNAL_SOCKET = "/run/systemd/journal/socket";

// Sends state ("READY=1\nSTATUS=...") to $NOTIFY_SOCKET, a path or "@abstract".
// 0 when sent or when no one listens (no NOTIFY_SOCKET); -errno on failure.
int rt_sd_notify(const std::string &state);
// The watchdog period asked of this process (WATCHDOG_USEC, and WATCHDOG_PID when set
// names this process), in µs; 0: none.
uint64_t rt_sd_watchdog_usec();

// One journal entry from "KEY=value" fields: a value with a newline goes in the
// binary-safe form (KEY, newline, its length as 64-bit little-endian, the bytes).
std::string rt_journal_datagram(std::span<const std::string> fields);
// Sends the entry to the journal's socket at path; false when it did not go.
bool rt_journal_send(std::span<const std::string> fields, const char *path = RT_JOURNAL_SOCKET);
