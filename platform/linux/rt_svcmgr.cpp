// Readiness and journal datagrams for the service manager: a few lines of socket code
// instead of a library that brings its own dependencies into the process.
#include "rt_svcmgr.h"

#include <errno.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

struct unix_dgram {
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    unix_dgram() = default;
    unix_dgram(const unix_dgram &) = delete;
    unix_dgram &operator=(const unix_dgram &) = delete;
    ~unix_dgram()
    {
        if (fd >= 0)
            close(fd);
    }
};

// A socket address from a path, "@name" for the abstract namespace; false when it
// does not fit.
bool unix_addr(const char *name, sockaddr_un &a, socklen_t &len)
{
    size_t n = strlen(name);
    a = sockaddr_un{};
    a.sun_family = AF_UNIX;
    if (n < 2 || n >= sizeof a.sun_path || (name[0] != '/' && name[0] != '@'))
        return false;
    memcpy(a.sun_path, name, n);
    if (name[0] == '@')
        a.sun_path[0] = 0; // abstract: the length, not a NUL, ends the name
    len = socklen_t(offsetof(sockaddr_un, sun_path) + n + (name[0] == '/'));
    return true;
}

int send_to(int fd, const char *name, const std::string &bytes)
{
    sockaddr_un a;
    socklen_t len;
    if (fd < 0)
        return -EBADF;
    if (!unix_addr(name, a, len))
        return -EINVAL;
    ssize_t n;
    do
        n = sendto(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL, (sockaddr *)&a, len);
    while (n < 0 && errno == EINTR);
    return n < 0 ? -errno : 0;
}

} // namespace

int rt_sd_notify(const std::string &state)
{
    const char *name = getenv("NOTIFY_SOCKET");
    if (!name || !name[0])
        return 0;
    unix_dgram s;
    return send_to(s.fd, name, state);
}

uint64_t rt_sd_watchdog_usec()
{
    const char *usec = getenv("WATCHDOG_USEC");
    const char *pid = getenv("WATCHDOG_PID");
    if (!usec || (pid && strtoll(pid, nullptr, 10) != getpid()))
        return 0;
    char *end;
    errno = 0;
    unsigned long long v = strtoull(usec, &end, 10);
    return errno || end == usec || *end || usec[0] == '-' ? 0 : uint64_t(v);
}

std::string rt_journal_datagram(std::span<const std::string> fields)
{
    std::string out;
    for (const std::string &f : fields) {
        size_t eq = f.find('=');
        if (eq == std::string::npos || eq == 0)
            continue; // no KEY=: not a field
        if (f.find('\n', eq) == std::string::npos) {
            out += f;
            out += '\n';
            continue;
        }
        out.append(f, 0, eq);
        out += '\n';
        uint64_t n = f.size() - eq - 1;
        for (int i = 0; i < 8; i++)
            out += char(n >> (8 * i) & 0xff);
        out.append(f, eq + 1);
        out += '\n';
    }
    return out;
}

bool rt_journal_send(std::span<const std::string> fields, const char *path)
{
    // Unconnected, one for every thread and path, and never closed: lines written while
    // the process exits (after static destructors) still go out.
    static const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    return send_to(fd, path, rt_journal_datagram(fields)) == 0;
}
