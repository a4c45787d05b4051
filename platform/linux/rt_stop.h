// Stopping: SIGTERM / SIGINT end the event loop and the CLI agent.
#pragma once

bool rt_stopping();
void rt_request_stop();
// Blocks SIGTERM/SIGINT in the calling thread (call before creating threads) and
// starts the thread that waits for them. Idempotent.
void rt_signals_init();
// Wakes when a stop is requested; returns true if stopping, false on timeout.
bool rt_wait_stop(int timeout_ms);
// An eventfd that becomes readable once a stop is requested (for poll loops).
int rt_stop_fd();
