// Accepting on the local stream sockets, with a rest when out of descriptors.
#include "rt_local_sock.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>

#include <string>

#include "rt_counter.h"
#include "rt_log.h"

int64_t rt_now_ms()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (int64_t)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

int rt_accept(rt_listener &l, const char *name, int backoff_ms)
{
    int fd = accept4(l.fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd >= 0)
        return fd;
    int err = errno;
    if (err != EMFILE && err != ENFILE && err != ENOBUFS && err != ENOMEM)
        return RT_ACCEPT_NONE; // EAGAIN, or a connection that went away before it was taken
    // The connection stays in the backlog and the listener stays readable: rest.
    l.rest_until = rt_now_ms() + backoff_ms;
    std::string key = std::string(name) + ".accept_errors";
    rt_counter(key.c_str())++;
    rt_log_ratelimited(key.c_str(), 10, 4, "%s: cannot accept a client: %s; pausing for %d ms\n",
                       name, strerror(err), backoff_ms);
    return RT_ACCEPT_NO_FDS;
}

int rt_listener_poll_fd(const rt_listener &l, int64_t now)
{
    return now < l.rest_until ? -1 : l.fd;
}
