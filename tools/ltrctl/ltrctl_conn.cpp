// ltrctl's connection to cli.sock and the platform configuration it reads the socket
// location from.
#include "ltrctl_conn.h"

#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <fstream>
#include <toml++/toml.h>

#include "cli_proto.h"

namespace ltrctl {

// The runtime's default directory of an instance: an unprivileged user's daemon lives
// under its session runtime directory.
static std::string default_dir(const std::string &instance)
{
    const char *xdg = getenv("XDG_RUNTIME_DIR");
    if (geteuid() != 0 && xdg && xdg[0] == '/')
        return std::string(xdg) + "/qz/" + instance;
    return "/run/qz/" + instance;
}

bool socket_path(const std::string &opt_socket, const std::string &opt_instance,
                 std::string &path, std::string &err)
{
    if (!opt_socket.empty()) {
        path = opt_socket;
        return true;
    }
    if (!opt_instance.empty()) {
        path = default_dir(opt_instance) + "/cli.sock";
        return true;
    }
    const char *env = getenv("QZ_PLATFORM_CONFIG");
    std::string file = env && *env ? env : "/etc/qz/platform.toml";
    std::string instance = "default", runtime_dir;
    if (std::ifstream(file).good()) {
        // Only the two keys that place the socket; the daemon checks the rest.
        try {
            toml::table t = toml::parse_file(file);
            if (auto v = t["instance"].value<std::string>())
                instance = *v;
            if (auto v = t["runtime_dir"].value<std::string>())
                runtime_dir = *v;
        } catch (const toml::parse_error &e) {
            err = file + ":" + std::to_string(e.source().begin.line) + ": " +
                  std::string(e.description());
            return false;
        }
    }
    path = (runtime_dir.empty() ? default_dir(instance) : runtime_dir) + "/cli.sock";
    return true;
}

static int64_t now_ms()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (int64_t)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

// Only root or this user may have made the socket and be able to change its directory:
// anyone else could put a socket of their own there and answer in the daemon's name.
static bool trusted(const std::string &path, std::string &err)
{
    size_t slash = path.rfind('/');
    std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    auto ours = [](uid_t uid) { return uid == 0 || uid == geteuid(); };
    struct stat st;
    std::string why;
    if (lstat(path.c_str(), &st) != 0)
        return true; // connect says why
    if (!S_ISSOCK(st.st_mode))
        why = path + " is not a socket";
    else if (!ours(st.st_uid))
        why = path + " belongs to uid " + std::to_string(st.st_uid);
    else if (stat(dir.c_str(), &st) != 0)
        why = dir + ": " + strerror(errno);
    else if (!ours(st.st_uid))
        why = dir + " belongs to uid " + std::to_string(st.st_uid);
    else if (st.st_mode & (S_IWGRP | S_IWOTH))
        why = dir + " is writable by other users";
    if (why.empty())
        return true;
    err = "refusing " + path + ": " + why + " (another user could answer in the daemon's name)";
    return false;
}

conn::~conn()
{
    if (fd >= 0)
        close(fd);
}

bool conn::open(const std::string &path, std::string &err)
{
    sockaddr_un sa{};
    if (path.size() >= sizeof(sa.sun_path)) {
        err = "socket path too long: " + path;
        return false;
    }
    if (!trusted(path, err))
        return false;
    fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sa.sun_family = AF_UNIX;
    memcpy(sa.sun_path, path.c_str(), path.size());
    // A daemon whose backlog is full makes connect wait: bounded by the send timeout.
    timeval tv{timeout_ms / 1000, (timeout_ms % 1000) * 1000};
    if (fd >= 0)
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv));
    if (fd < 0 || connect(fd, (sockaddr *)&sa, sizeof(sa)) < 0) {
        if (errno == EAGAIN)
            err = "no room at " + path + " within " + timeout_text() + " (is ltrd busy?)";
        else
            err = "cannot connect to " + path + ": " + strerror(errno) + " (is ltrd running?)";
        return false;
    }
    return true;
}

std::string conn::timeout_text() const
{
    char b[32];
    snprintf(b, sizeof b, "%g s", timeout_ms / 1000.0);
    return b;
}

// Waits for fd to be ready for ev until deadline; false on timeout.
static bool wait_ready(int fd, short ev, int64_t deadline)
{
    for (;;) {
        int64_t left = deadline - now_ms();
        if (left <= 0)
            return false;
        pollfd p{fd, ev, 0};
        int r = poll(&p, 1, (int)left);
        if (r > 0)
            return true;
        if (r < 0 && errno != EINTR)
            return true; // the read or write that follows reports the error
    }
}

// Reads n bytes before deadline: 1, 0 on end of stream or error, -1 on timeout.
static int read_n(int fd, uint8_t *p, size_t n, int64_t deadline)
{
    while (n) {
        if (!wait_ready(fd, POLLIN, deadline))
            return -1;
        ssize_t r = recv(fd, p, n, MSG_DONTWAIT);
        if (r < 0 && (errno == EINTR || errno == EAGAIN))
            continue;
        if (r <= 0)
            return 0;
        p += r;
        n -= (size_t)r;
    }
    return 1;
}

bool conn::exchange(const std::vector<uint8_t> &body, std::vector<uint8_t> &reply, std::string &err)
{
    // One deadline for the whole exchange: a daemon that trickles its reply cannot
    // stretch it.
    int64_t deadline = now_ms() + timeout_ms;
    std::vector<uint8_t> f = cli_proto::frame(body);
    size_t off = 0;
    while (off < f.size()) {
        if (!wait_ready(fd, POLLOUT, deadline)) {
            err = "the daemon took no request within " + timeout_text();
            return false;
        }
        ssize_t w = send(fd, f.data() + off, f.size() - off, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (w < 0 && (errno == EINTR || errno == EAGAIN))
            continue;
        if (w <= 0) {
            err = std::string("sending to the daemon: ") + strerror(errno);
            return false;
        }
        off += (size_t)w;
    }
    uint8_t len[4];
    int r = read_n(fd, len, 4, deadline);
    if (r <= 0) {
        err = r < 0 ? "no reply from the daemon within " + timeout_text()
                    : "the daemon closed the connection without a reply";
        return false;
    }
    uint32_t n = cli_proto::get_u32(len);
    if (n < 4 || n > cli_proto::MAX_REPLY) {
        err = "malformed reply of " + std::to_string(n) + " bytes";
        return false;
    }
    reply.resize(n);
    r = read_n(fd, reply.data(), n, deadline);
    if (r <= 0) {
        err = r < 0 ? "the daemon's reply did not end within " + timeout_text()
                    : "the daemon's reply was cut short";
        return false;
    }
    return true;
}

} // namespace ltrctl
