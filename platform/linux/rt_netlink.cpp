// rtnetlink watcher on the event thread: link changes of the configured radios become
// kernel event 19, address changes of the management interface event 280.
#include <arpa/inet.h>
#include <errno.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "rt.h"
#include "rt_config.h"
#include "rt_counter.h"
#include "rt_event.h"
#include "rt_log.h"

namespace {

// NLMSG_OK without its u32-against-int comparison, which clang refuses under -Werror.
bool nl_ok(const nlmsghdr *h, int len)
{
    return len >= (int)sizeof(nlmsghdr) && h->nlmsg_len >= sizeof(nlmsghdr) &&
           h->nlmsg_len <= (unsigned)len;
}

struct link_info {
    std::string name;
    unsigned flags = 0; // the kernel's ifi_flags
    std::vector<uint8_t> mac;
};

// Touched only by the event thread (and by open/close while it is not running).
int g_fd = -1;
std::map<int, link_info> g_links;
uint32_t g_mgt_ip; // last address reported for the management interface
int g_mgt_ifindex;

const rt_radio_cfg *radio_cfg(const std::string &name)
{
    for (const rt_radio_cfg &r : rt_cfg().radios)
        if (r.name == name)
            return &r;
    return nullptr;
}

qz_if_change make_change(uint32_t type, int ifindex, const link_info &l, const rt_radio_cfg &r)
{
    qz_if_change c{};
    c.type = type;
    c.ifindex = ifindex;
    c.flags = (l.flags & IFF_UP ? QZ_IFF_UP : 0) | (l.flags & IFF_LOOPBACK ? QZ_IFF_LOOPBACK : 0) |
              (r.access ? 0 : QZ_IFF_NO_ACCESS);
    strncpy(c.name, l.name.c_str(), sizeof c.name - 1);
    return c;
}

void post_change(uint32_t type, int ifindex, const link_info &l, const rt_radio_cfg &r)
{
    qz_if_change c = make_change(type, ifindex, l, r);
    rt_kevent_post(QZ_KEVT_IF_CHANGE, &c, sizeof c);
}

void parse_link_attrs(const nlmsghdr *h, const ifinfomsg *ifi, link_info &out)
{
    int len = (int)h->nlmsg_len - (int)NLMSG_LENGTH(sizeof *ifi);
    for (const rtattr *a = IFLA_RTA(ifi); RTA_OK(a, len); a = RTA_NEXT(a, len)) {
        const char *data = (const char *)RTA_DATA(a);
        size_t n = RTA_PAYLOAD(a);
        if (a->rta_type == IFLA_IFNAME && n > 0)
            out.name.assign(data, strnlen(data, n));
        else if (a->rta_type == IFLA_ADDRESS)
            out.mac.assign((const uint8_t *)data, (const uint8_t *)data + n);
    }
}

void on_link(const nlmsghdr *h, bool emit)
{
    if (h->nlmsg_len < NLMSG_LENGTH(sizeof(ifinfomsg)))
        return;
    const ifinfomsg *ifi = (const ifinfomsg *)NLMSG_DATA(h);
    int idx = ifi->ifi_index;
    rt_radio_index_refresh(); // before the daemon hears of it, so it resolves the new index
    auto it = g_links.find(idx);
    bool known = it != g_links.end();
    link_info prev = known ? it->second : link_info{};

    if (h->nlmsg_type == RTM_DELLINK) {
        if (emit && known && (prev.flags & IFF_UP))
            if (const rt_radio_cfg *r = radio_cfg(prev.name)) {
                link_info gone = prev;
                gone.flags &= ~IFF_UP;
                post_change(QZ_IF_DOWN, idx, gone, *r);
            }
        g_links.erase(idx);
        return;
    }

    link_info now;
    now.name = prev.name;
    now.mac = prev.mac;
    parse_link_attrs(h, ifi, now);
    now.flags = ifi->ifi_flags;
    g_links[idx] = now;
    if (!emit)
        return;
    // A radio renamed away still reports under its new name, with its old settings.
    const rt_radio_cfg *r = radio_cfg(now.name);
    if (!r && known)
        r = radio_cfg(prev.name);
    if (!r)
        return;
    if (known && prev.name != now.name)
        post_change(QZ_IF_NAME, idx, now, *r);
    if (known && !prev.mac.empty() && prev.mac != now.mac)
        post_change(QZ_IF_MAC, idx, now, *r);
    bool was_up = known && (prev.flags & IFF_UP);
    bool is_up = now.flags & IFF_UP;
    if (!was_up && is_up)
        post_change(QZ_IF_UP, idx, now, *r);
    else if (was_up && !is_up)
        post_change(QZ_IF_DOWN, idx, now, *r);
}

int mgt_ifindex()
{
    const std::string &name = rt_cfg().mgt_interface;
    for (auto &[idx, l] : g_links)
        if (l.name == name)
            return idx;
    return 0;
}

// Reads the management interface's primary IPv4 now (0 when it has none).
void read_mgt_addr(uint32_t &ip, uint32_t &mask)
{
    ip = mask = 0;
    const std::string &name = rt_cfg().mgt_interface;
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return;
    ifreq ifr{};
    strncpy(ifr.ifr_name, name.c_str(), IFNAMSIZ - 1);
    if (ioctl(fd, SIOCGIFADDR, &ifr) == 0) {
        ip = ((sockaddr_in *)&ifr.ifr_addr)->sin_addr.s_addr;
        if (ioctl(fd, SIOCGIFNETMASK, &ifr) == 0)
            mask = ((sockaddr_in *)&ifr.ifr_netmask)->sin_addr.s_addr;
    }
    close(fd);
}

void on_addr(const nlmsghdr *h)
{
    if (h->nlmsg_len < NLMSG_LENGTH(sizeof(ifaddrmsg)))
        return;
    const ifaddrmsg *ifa = (const ifaddrmsg *)NLMSG_DATA(h);
    // A fixed mgt.ip wins over whatever the interface carries.
    if (ifa->ifa_family != AF_INET || rt_cfg().mgt_ip)
        return;
    int idx = mgt_ifindex();
    if (idx == 0 || (int)ifa->ifa_index != idx)
        return;
    // The interface's primary address decides, whichever address came or went.
    uint32_t ip, mask;
    read_mgt_addr(ip, mask);
    if (ip == g_mgt_ip && idx == g_mgt_ifindex)
        return;
    g_mgt_ip = ip;
    g_mgt_ifindex = idx;
    qz_mgt_addr_evt e{};
    strncpy(e.ifname, rt_cfg().mgt_interface.c_str(), sizeof e.ifname - 1);
    e.ifindex = idx;
    e.ip = ip;
    e.mask = mask;
    rt_event_post(QZ_EVT_MGT_IP, &e, sizeof e);
}

void handle_messages(const char *buf, int len, bool emit)
{
    for (const nlmsghdr *h = (const nlmsghdr *)buf; nl_ok(h, len); h = NLMSG_NEXT(h, len)) {
        switch (h->nlmsg_type) {
        case RTM_NEWLINK:
        case RTM_DELLINK:
            on_link(h, emit);
            break;
        case RTM_NEWADDR:
        case RTM_DELADDR:
            if (emit)
                on_addr(h);
            break;
        default:
            break;
        }
    }
}

// Learns every link's state from a dump, reporting differences when emit is set
// (after lost notifications).
void sync_links(bool emit)
{
    int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    if (fd < 0)
        return;
    struct {
        nlmsghdr h;
        ifinfomsg i;
    } req{};
    req.h.nlmsg_len = sizeof req;
    req.h.nlmsg_type = RTM_GETLINK;
    req.h.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    req.h.nlmsg_seq = 1;
    req.i.ifi_family = AF_UNSPEC;
    if (send(fd, &req, sizeof req, 0) < 0) {
        close(fd);
        return;
    }
    constexpr size_t size = 32768;
    std::unique_ptr<char[]> buf(new char[size]); // not zeroed: what a dump fills
    for (bool done = false; !done;) {
        ssize_t n = recv(fd, buf.get(), size, 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        int len = (int)n;
        for (const nlmsghdr *h = (const nlmsghdr *)buf.get(); nl_ok(h, len);
             h = NLMSG_NEXT(h, len))
            if (h->nlmsg_type == NLMSG_DONE || h->nlmsg_type == NLMSG_ERROR)
                done = true;
        handle_messages(buf.get(), (int)n, emit);
    }
    close(fd);
}

} // namespace

int rt_netlink_open()
{
    int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, NETLINK_ROUTE);
    if (fd < 0) {
        rt_log(LOG_ERR, "rtnetlink: %s: radio and address changes are not reported",
               strerror(errno));
        return -1;
    }
    int rcvbuf = 1 << 20;
    setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof rcvbuf);
    sockaddr_nl sa{};
    sa.nl_family = AF_NETLINK;
    sa.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR;
    if (bind(fd, (sockaddr *)&sa, sizeof sa) != 0) {
        rt_log(LOG_ERR, "rtnetlink: bind: %s: radio and address changes are not reported",
               strerror(errno));
        close(fd);
        return -1;
    }
    g_fd = fd;
    g_links.clear();
    sync_links(false);
    g_mgt_ifindex = mgt_ifindex();
    uint32_t mask;
    read_mgt_addr(g_mgt_ip, mask);
    return fd;
}

void rt_netlink_readable()
{
    // Not zeroed: only the pages messages fill become resident.
    constexpr size_t size = 65536;
    static std::unique_ptr<char[]> buf(new char[size]);
    for (;;) {
        sockaddr_nl from{};
        socklen_t flen = sizeof from;
        ssize_t n = recvfrom(g_fd, buf.get(), size, MSG_TRUNC, (sockaddr *)&from, &flen);
        if (n < 0) {
            if (errno == EINTR)
                continue;
            if (errno == ENOBUFS) {
                // Notifications were lost: learn the links afresh and report what changed.
                rt_counter("netlink_overruns")++;
                rt_log_ratelimited("netlink-overrun", 10, LOG_WARNING,
                                   "rtnetlink: notifications lost, resynchronising");
                sync_links(true);
                continue;
            }
            return; // EAGAIN: drained
        }
        if (from.nl_pid != 0) { // only the kernel speaks here
            rt_counter("netlink_foreign")++;
            continue;
        }
        if ((size_t)n > size) {
            rt_counter("netlink_truncated")++;
            rt_log_ratelimited("netlink-trunc", 10, LOG_WARNING,
                               "rtnetlink: message of %d bytes truncated, dropped", (int)n);
            continue;
        }
        handle_messages(buf.get(), (int)n, true);
    }
}

std::vector<qz_if_change> rt_netlink_up_radios()
{
    // In radio order, so that the daemon sees them as a kernel dump would list them.
    std::vector<qz_if_change> out;
    for (const rt_radio_cfg &r : rt_cfg().radios)
        for (auto &[idx, l] : g_links)
            if (l.name == r.name && (l.flags & IFF_UP))
                out.push_back(make_change(QZ_IF_UP, idx, l, r));
    return out;
}

void rt_netlink_close()
{
    if (g_fd >= 0)
        close(g_fd);
    g_fd = -1;
    g_links.clear();
}
