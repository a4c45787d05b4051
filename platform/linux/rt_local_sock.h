// Local stream sockets under runtime_dir (cli.sock, radio.sock): the limits that keep
// one client from blocking the others, and an accept that backs off when the process
// runs out of descriptors instead of spinning on a listener that stays readable.
#pragma once
#include <stddef.h>
#include <stdint.h>

struct rt_sock_limits {
    size_t max_clients;       // at the cap the longest idle client makes room, or the new one is refused
    int idle_ms;              // a client with nothing in progress is closed after this long
    int stall_ms;             // a client stuck halfway through a request, or not reading its reply
    int accept_backoff_ms;    // the listener rests this long after running out of descriptors
};

struct rt_listener {
    int fd = -1;
    int64_t rest_until = 0; // rt_now_ms() before which the listener is not polled
};

int64_t rt_now_ms(); // monotonic

enum { RT_ACCEPT_NONE = -1, RT_ACCEPT_NO_FDS = -2 };
// Takes one pending connection, non-blocking and close-on-exec: its fd, RT_ACCEPT_NONE,
// or RT_ACCEPT_NO_FDS when out of descriptors (the listener then rests for backoff_ms;
// counted as <name>.accept_errors, logged at most once per 10 s).
int rt_accept(rt_listener &l, const char *name, int backoff_ms);
// The fd to poll for the listener now: -1 while it rests.
int rt_listener_poll_fd(const rt_listener &l, int64_t now);
