// Neighbour state kept across a restart of the process. The replay windows, one line
// per sender, "a.b.c.d epoch top": without them a restarted receiver would take a
// recording of a stopped access point as new. Our own last epoch: so that the next
// start's is later even when the clock went back.
#include <arpa/inet.h>
#include <fcntl.h>
#include <inttypes.h>
#include <stdio.h>
#include <string.h>
#include <syslog.h>
#include <unistd.h>

#include <sstream>

#include "nbr_endpoint.h"
#include "rt_config.h"
#include "rt_log.h"

constexpr size_t k_max_file = 64 << 10;

// Replaces path's content with text (written aside, then renamed). False with errno.
static bool nbr_replace_file(const std::string &path, const std::string &text)
{
    std::string tmp = path + ".new";
    int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
    bool ok = fd >= 0 && write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    if (fd >= 0)
        close(fd);
    if (ok && rename(tmp.c_str(), path.c_str()) == 0)
        return true;
    int e = errno;
    unlink(tmp.c_str());
    errno = e;
    return false;
}

void nbr_windows_load(const std::string &path, std::map<uint32_t, nbr_window> &out)
{
    std::string text, why;
    if (access(path.c_str(), F_OK) != 0)
        return; // the first start
    if (!rt_read_regular(path, k_max_file, true, text, why)) {
        rt_log(LOG_WARNING, "replay windows %s not read: %s", path.c_str(), why.c_str());
        return;
    }
    std::istringstream in(text);
    std::string line;
    int n = 0, bad = 0;
    while (std::getline(in, line)) {
        n++;
        char ip[INET_ADDRSTRLEN + 1] = {};
        uint64_t epoch = 0, top = 0;
        in_addr a{};
        char extra = 0;
        if (sscanf(line.c_str(), "%15s %" SCNu64 " %" SCNu64 " %c", ip, &epoch, &top, &extra) != 3 ||
            inet_pton(AF_INET, ip, &a) != 1 || epoch == 0) {
            if (!bad++)
                rt_log(LOG_WARNING, "replay windows %s:%d: not \"address epoch top\": ignored",
                       path.c_str(), n);
            continue;
        }
        // Which counters below top came is not kept: all of them count as seen.
        nbr_window w;
        w.epoch = epoch;
        w.top = top;
        memset(w.seen, 0xff, sizeof w.seen);
        if (out.size() < NBR_MAX_SENDERS)
            out[a.s_addr] = w;
    }
}

void nbr_windows_save(const std::string &path, const std::map<uint32_t, nbr_window> &windows)
{
    std::string text;
    char line[64];
    for (const auto &[ip, w] : windows) {
        char a[INET_ADDRSTRLEN];
        inet_ntop(AF_INET, &ip, a, sizeof a);
        snprintf(line, sizeof line, "%s %" PRIu64 " %" PRIu64 "\n", a, w.epoch, w.top);
        text += line;
    }
    if (!nbr_replace_file(path, text))
        rt_log_ratelimited("nbr.windows.save", 60, LOG_WARNING, "replay windows %s not saved: %s",
                           path.c_str(), strerror(errno));
}

uint64_t nbr_next_epoch(const std::string &path, uint64_t now_us)
{
    uint64_t epoch = now_us, last = 0;
    std::string text, why;
    if (access(path.c_str(), F_OK) == 0) {
        if (rt_read_regular(path, 64, true, text, why) &&
            sscanf(text.c_str(), "%" SCNu64, &last) == 1) {
            if (last >= epoch) {
                rt_log(LOG_WARNING, "the clock reads earlier than at the last start: neighbour "
                                    "epoch %" PRIu64 " follows the last one instead",
                       last + 1);
                epoch = last + 1;
            }
        } else {
            rt_log(LOG_WARNING, "last neighbour epoch %s not read: %s", path.c_str(),
                   why.empty() ? "not a number" : why.c_str());
        }
    }
    if (!nbr_replace_file(path, std::to_string(epoch) + "\n"))
        rt_log(LOG_WARNING, "neighbour epoch %s not saved: %s", path.c_str(), strerror(errno));
    return epoch;
}
