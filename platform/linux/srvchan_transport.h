// The byte stream under the server channel. The channel's protocol (framing, HELLO,
// keep-alive, queue bound) runs over any transport; plain TCP is the one here, and an
// encrypted stream is another table of the same functions.
#pragma once
#include <stddef.h>
#include <sys/types.h>

#include <string>

// One open connection; each transport defines its own.
struct srv_conn;

// What a transport needs from the channel while it connects.
struct srv_connect_ctl {
    int timeout_ms = 5000; // per address tried
    // Waits up to ms for events on fd, also watching the channel's wake-up and stop:
    // >0 fd is ready, 0 not yet (time out or woken), <0 the wait failed.
    int (*wait)(int fd, short events, int ms) = nullptr;
    bool (*stop)() = nullptr; // the channel must stop: give up
};

struct srv_transport {
    const char *name;
    // Connects to "host:port" / "[v6]:port"; null when it cannot (already logged).
    srv_conn *(*connect)(const std::string &addr, const srv_connect_ctl &ctl);
    // Bytes moved (>0); 0 from read: end of stream; -1 with errno (EAGAIN: not now).
    ssize_t (*read)(srv_conn *c, void *buf, size_t len);
    ssize_t (*write)(srv_conn *c, const void *buf, size_t len);
    void (*close)(srv_conn *c);
    // The descriptor to poll, and the events to poll it for, given what the
    // protocol wants to do next (a transport with its own records may need more).
    int (*poll_fd)(const srv_conn *c);
    short (*poll_events)(const srv_conn *c, bool want_read, bool want_write);
};

extern const srv_transport srv_tcp_transport;
