// nl80211 round trips: libnl builds and sends, replies are read here with a deadline so
// that a kernel that does not answer costs at most k_reply_ms.
#include "nl80211_sock.h"

#include <errno.h>
#include <netlink/genl/ctrl.h>
#include <netlink/genl/genl.h>
#include <netlink/socket.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>

#include <chrono>
#include <memory>

namespace {

constexpr int k_reply_ms = 100;          // per request, dumps included
constexpr size_t k_dgram = 64 * 1024;    // the kernel sizes dump datagrams to the reader's buffer

using msg_ptr = std::unique_ptr<nl_msg, decltype(&nlmsg_free)>;

bool round_trip(qz_nl80211 &n, nl_msg *m, void (*fn)(void *, const nlmsghdr *, size_t), void *ctx,
                std::string &err)
{
    msg_ptr own(m, nlmsg_free);
    if (!m) {
        err = "out of memory";
        return false;
    }
    if (int rc = nl_send_auto(n.sk, m); rc < 0) {
        err = std::string("send: ") + nl_geterror(rc);
        return false;
    }
    const uint32_t seq = nlmsg_hdr(m)->nlmsg_seq;
    const int fd = nl_socket_get_fd(n.sk);
    using clk = std::chrono::steady_clock;
    const auto deadline = clk::now() + std::chrono::milliseconds(k_reply_ms);
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - clk::now()).count();
        if (left <= 0) {
            err = "no answer within " + std::to_string(k_reply_ms) + " ms";
            return false;
        }
        pollfd pfd{fd, POLLIN, 0};
        if (poll(&pfd, 1, int(left)) <= 0)
            continue; // timeout or EINTR: the deadline decides
        ssize_t got = recv(fd, n.buf.data(), n.buf.size(), MSG_DONTWAIT | MSG_TRUNC);
        if (got < 0) {
            if (errno == EAGAIN || errno == EINTR)
                continue;
            err = std::string("receive: ") + strerror(errno);
            return false;
        }
        if (size_t(got) > n.buf.size()) {
            err = "reply larger than " + std::to_string(n.buf.size()) + " bytes";
            return false;
        }
        int kerr = 0;
        switch (qz_nl_walk({n.buf.data(), size_t(got)}, seq, fn, ctx, kerr)) {
        case QZ_NL_DONE:
            return true;
        case QZ_NL_MORE:
            continue;
        case QZ_NL_ERROR:
            err = strerror(-kerr);
            return false;
        case QZ_NL_BAD:
            err = "malformed reply";
            return false;
        }
    }
}

struct station_ctx {
    std::vector<qz_nl_mac> *stas;
    size_t malformed;
};

void on_station(void *ctx, const nlmsghdr *h, size_t len)
{
    auto &c = *static_cast<station_ctx *>(ctx);
    qz_nl_mac mac;
    switch (qz_nl_parse_station(h, len, mac)) {
    case QZ_NL_OK:
        c.stas->push_back(mac);
        break;
    case QZ_NL_MALFORMED:
        ++c.malformed;
        break;
    case QZ_NL_SKIP:
        break;
    }
}

struct interface_ctx {
    uint32_t ifindex;
    uint32_t freq;
    bool malformed;
};

void on_interface(void *ctx, const nlmsghdr *h, size_t len)
{
    auto &c = *static_cast<interface_ctx *>(ctx);
    c.malformed = qz_nl_parse_interface(h, len, c.ifindex, c.freq) == QZ_NL_MALFORMED;
}

} // namespace

qz_nl80211::~qz_nl80211()
{
    if (sk)
        nl_socket_free(sk);
}

bool qz_nl_open(qz_nl80211 &n, std::string &err)
{
    if (!(n.sk = nl_socket_alloc())) {
        err = "out of memory";
        return false;
    }
    nl_socket_disable_auto_ack(n.sk); // a reply or an error ends each request
    if (int rc = genl_connect(n.sk); rc < 0) {
        err = std::string("generic netlink: ") + nl_geterror(rc);
        return false;
    }
    // The family look-up reads through libnl: bound it by the socket's receive timeout.
    timeval tv{0, k_reply_ms * 1000};
    setsockopt(nl_socket_get_fd(n.sk), SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    if ((n.family = genl_ctrl_resolve(n.sk, "nl80211")) < 0) {
        err = std::string("no nl80211 in this kernel (") + nl_geterror(n.family) + ")";
        return false;
    }
    n.buf.resize(k_dgram);
    return true;
}

bool qz_nl_associated(qz_nl80211 &n, uint32_t ifindex, std::vector<qz_nl_mac> &stas, uint32_t &freq,
                      std::string &err)
{
    stas.clear();
    freq = 0;
    interface_ctx ic{ifindex, 0, false};
    if (!round_trip(n, qz_nl_interface_get(n.family, ifindex), on_interface, &ic, err))
        return false;
    if (ic.malformed) {
        err = "malformed interface reply";
        return false;
    }
    if (!ic.freq)
        return true; // on no channel: nobody is associated
    station_ctx sc{&stas, 0};
    if (!round_trip(n, qz_nl_station_dump(n.family, ifindex), on_station, &sc, err))
        return false;
    if (sc.malformed) {
        err = std::to_string(sc.malformed) + " malformed station replies";
        return false;
    }
    freq = ic.freq;
    return true;
}
