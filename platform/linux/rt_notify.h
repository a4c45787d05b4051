// Telling a service manager how the daemon is: readiness, a status line and the
// watchdog. Without NOTIFY_SOCKET in the environment every call does nothing.
#pragma once
#include <stdint.h>

#include <string>

// READY=1 with the status line. Once.
void rt_notify_ready();
// Sends STATUS= when the status line changed since the last one sent.
void rt_notify_status();
// The status line: tracking switch of the radios and the server link.
std::string rt_notify_status_text();

// Watchdog period asked for by the service manager (WATCHDOG_USEC), in ms; 0: none.
// Read once by the event thread as it starts.
int64_t rt_watchdog_period_ms();
// Called by the event thread on every turn of its loop with that period: WATCHDOG=1
// at most every half period, and never while a watched call has run for a whole
// period. Returns whether it sent one.
bool rt_watchdog_kick(int64_t period_ms);

// Marks a call from a runtime thread into the daemon (timer expiry, CLI command,
// neighbour delivery): one stuck past the watchdog period, on the manager lock say,
// stops the kicks as a stuck event thread does.
class rt_watched_call {
  public:
    explicit rt_watched_call(const char *thread);
    ~rt_watched_call();
    rt_watched_call(const rt_watched_call &) = delete;
    rt_watched_call &operator=(const rt_watched_call &) = delete;

  private:
    int slot_;
};
