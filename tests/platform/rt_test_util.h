// Helpers of the runtime tests: a scratch directory and a quiet configuration.
#pragma once
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>

#include "rt_config.h"

struct rt_scratch {
    std::string dir;
    rt_scratch()
    {
        char name[] = "/tmp/qz_rt_XXXXXX";
        dir = mkdtemp(name);
    }
    ~rt_scratch() { std::filesystem::remove_all(dir); }
    std::string path(const char *name) const { return dir + "/" + name; }
};

// A configuration that logs to a file only and keeps sockets in the scratch dir.
inline rt_config rt_test_config(const rt_scratch &s, const std::string &instance = "")
{
    rt_config c;
    c.instance = instance.empty() ? "t" + std::to_string(getpid()) : instance;
    c.runtime_dir = s.path("run");
    c.foreground = true;
    c.log_syslog = false;
    c.log_file = s.path("log");
    return c;
}

inline std::string rt_read_file(const std::string &path)
{
    std::ifstream f(path);
    return std::string(std::istreambuf_iterator<char>(f), {});
}

// Waits until pred holds (under mu) or the time runs out.
template <typename P> bool rt_wait_for(std::mutex &mu, std::condition_variable &cv, P pred, int ms = 3000)
{
    std::unique_lock l(mu);
    return cv.wait_for(l, std::chrono::milliseconds(ms), pred);
}

// Polls pred until it holds or the time runs out, for state no condition variable guards.
template <typename P> bool rt_poll_until(P pred, int ms = 3000)
{
    for (int i = 0; i < ms / 5 && !pred(); i++)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return pred();
}

// Reads exactly n bytes from a socket; false at the end of the stream, an error or
// when no byte came for timeout_ms.
inline bool rt_read_n(int fd, uint8_t *p, size_t n, int timeout_ms = 5000)
{
    pollfd pf{fd, POLLIN, 0};
    for (ssize_t r; n; p += r, n -= size_t(r))
        if (poll(&pf, 1, timeout_ms) <= 0 || (r = recv(fd, p, n, 0)) <= 0)
            return false;
    return true;
}

// True when the peer closes within the time (data before the close is skipped).
inline bool rt_sees_close(int fd, int timeout_ms = 3000)
{
    uint8_t buf[4096];
    for (auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
         std::chrono::steady_clock::now() < end;) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, 50) > 0 && recv(fd, buf, sizeof buf, 0) <= 0)
            return true;
    }
    return false;
}
