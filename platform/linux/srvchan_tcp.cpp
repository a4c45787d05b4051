// Plain TCP under the server channel: resolve, connect without blocking past the
// time-out or the stop, then the socket as it is.
#include <errno.h>
#include <netdb.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <memory>

#include "rt_log.h"
#include "srvchan.h"
#include "srvchan_transport.h"

struct srv_conn {
    int fd;
};

namespace {

int64_t now_ms()
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// One address: connected socket, or -1 with err set.
int connect_one(const addrinfo *ai, const srv_connect_ctl &ctl, int &err)
{
    int fd = ::socket(ai->ai_family, ai->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC,
                      ai->ai_protocol);
    if (fd < 0) {
        err = errno;
        return -1;
    }
    if (::connect(fd, ai->ai_addr, ai->ai_addrlen) == 0)
        return fd;
    if (errno != EINPROGRESS) {
        err = errno;
        ::close(fd);
        return -1;
    }
    int64_t end = now_ms() + ctl.timeout_ms;
    int ready = 0;
    for (int64_t left; !ctl.stop() && (left = end - now_ms()) > 0;)
        if ((ready = ctl.wait(fd, POLLOUT, int(left))) != 0)
            break;
    int so = 0;
    socklen_t sl = sizeof so;
    if (ready <= 0)
        so = ETIMEDOUT;
    else
        ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &so, &sl);
    if (so == 0)
        return fd;
    err = so;
    ::close(fd);
    return -1;
}

} // namespace

int srv_tcp_open(const std::string &addr, const srv_connect_ctl &ctl)
{
    std::string host, port;
    if (!srv_split_address(addr, host, port)) {
        rt_log_ratelimited("srvchan.addr", 300, 3,
                           "server channel: bad server.address \"%s\" (want host:port)\n",
                           addr.c_str());
        return -1;
    }
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo *res = nullptr;
    int rc = ::getaddrinfo(host.c_str(), port.c_str(), &hints, &res);
    if (rc != 0) {
        rt_log_ratelimited("srvchan.resolve", 300, 4, "server channel: cannot resolve %s: %s\n",
                           addr.c_str(), gai_strerror(rc));
        return -1;
    }
    std::unique_ptr<addrinfo, void (*)(addrinfo *)> guard(res, ::freeaddrinfo);
    int last_err = 0;
    for (addrinfo *ai = res; ai && !ctl.stop(); ai = ai->ai_next) {
        int fd = connect_one(ai, ctl, last_err);
        if (fd >= 0)
            return fd;
    }
    if (!ctl.stop())
        rt_log_ratelimited("srvchan.connect", 300, 4, "server channel: cannot connect to %s: %s\n",
                           addr.c_str(), strerror(last_err ? last_err : ECONNREFUSED));
    return -1;
}

namespace {

srv_conn *tcp_connect(const std::string &addr, const srv_connect_ctl &ctl)
{
    int fd = srv_tcp_open(addr, ctl);
    return fd < 0 ? nullptr : new srv_conn{fd};
}

ssize_t tcp_read(srv_conn *c, void *buf, size_t len) { return ::recv(c->fd, buf, len, 0); }

ssize_t tcp_write(srv_conn *c, const void *buf, size_t len)
{
    return ::send(c->fd, buf, len, MSG_NOSIGNAL);
}

void tcp_close(srv_conn *c)
{
    ::close(c->fd);
    delete c;
}

int tcp_poll_fd(const srv_conn *c) { return c->fd; }

short tcp_poll_events(const srv_conn *, bool want_read, bool want_write)
{
    return short((want_read ? POLLIN : 0) | (want_write ? POLLOUT : 0));
}

bool tcp_buffered(const srv_conn *) { return false; }

} // namespace

const srv_transport srv_tcp_transport = {
    "tcp", tcp_connect, tcp_read, tcp_write, tcp_close, tcp_poll_fd, tcp_poll_events, tcp_buffered,
};
