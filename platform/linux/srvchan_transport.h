// The byte stream under the server channel. The channel's protocol (framing, HELLO,
// keep-alive, queue bound) runs over any transport: plain TCP, or TLS over TCP.
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
    // protocol wants to do next (TLS may need to read in order to write, and the
    // reverse). When the descriptor is ready in any way, the channel tries both.
    int (*poll_fd)(const srv_conn *c);
    short (*poll_events)(const srv_conn *c, bool want_read, bool want_write);
    // Bytes already received and decoded: read them without waiting for the fd.
    bool (*buffered)(const srv_conn *c);
};

extern const srv_transport srv_tcp_transport;
extern const srv_transport srv_tls_transport;

// A connected non-blocking TCP socket to "host:port", or -1 (already logged): the
// TCP transport's connect, which TLS starts from.
int srv_tcp_open(const std::string &addr, const srv_connect_ctl &ctl);

struct rt_config;
// Whether the configured TLS files load (CA, certificate, key, and that the key
// belongs to the certificate). On failure key names the configuration key at fault.
bool srv_tls_check(const rt_config &c, std::string &key, std::string &why);
