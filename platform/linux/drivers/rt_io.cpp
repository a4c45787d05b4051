// Radio I/O: the descriptors drivers add (a capture handle, a socket) wait on the
// runtime's service loop, which runs their handlers.
#include <sys/epoll.h>

#include <map>
#include <mutex>

#include "rt.h"
#include "rt_loop.h"

namespace {

struct io_entry {
    void (*fn)(void *);
    void *arg;
};

struct io_state {
    std::mutex mu;
    std::map<int, io_entry> entries; // nodes stay put: the loop holds their address
};

io_state &st()
{
    static io_state *s = new io_state; // the loop may outlive static destruction
    return *s;
}

void on_ready(void *arg, uint32_t)
{
    const io_entry *e = static_cast<const io_entry *>(arg);
    e->fn(e->arg);
}

} // namespace

int rt_io_add(int fd, void (*fn)(void *arg), void *arg)
{
    io_state &s = st();
    if (fd < 0 || !fn)
        return -1;
    std::lock_guard l(s.mu);
    auto [it, added] = s.entries.try_emplace(fd, io_entry{fn, arg});
    if (!added)
        return -1;
    if (rt_loop_add(fd, EPOLLIN, on_ready, &it->second) != 0) {
        s.entries.erase(it);
        return -1;
    }
    return 0;
}

void rt_io_remove(int fd)
{
    io_state &s = st();
    // Waits out a running handler first: only then is its entry free to go.
    rt_loop_remove(fd);
    std::lock_guard l(s.mu);
    s.entries.erase(fd);
}
