// Driver library: each configured radio is served by the driver its entry names;
// calls by interface index go to that radio's driver operations. Radio names resolve
// to indexes from a table kept here, not by asking the kernel on every call.
#include <errno.h>
#include <net/if.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <memory>
#include <mutex>
#include <shared_mutex>

#include "rt.h"
#include "rt_config.h"
#include "rt_counter.h"
#include "rt_life.h"
#include "rt_log.h"
#include "rt_notify.h"
#include "rt_process.h"
#include "rt_stop.h"

namespace {

using mac6 = std::array<uint8_t, 6>;

// The open radios. Calls take it shared; opening and closing take it alone, so a
// timer expiry can never reach a radio that the shutdown is closing.
std::shared_mutex g_mu;
std::vector<std::unique_ptr<rt_radio>> g_radios;
bool g_opened;

// Interface index of every configured radio by position, 0 while it has none.
// Written only by rt_radio_index_refresh; readers never ask the kernel.
std::shared_mutex g_index_mu;
std::vector<std::pair<std::string, unsigned>> g_index;

// Stations in each radio's last two report tables (sorted), by radio position: what
// this access point hears, as its peers may ask.
std::mutex g_heard_mu;
std::vector<std::array<std::vector<mac6>, 2>> g_heard;

// Tracking switch of each radio by position, for the service manager's status line.
std::mutex g_track_mu;
std::vector<bool> g_track_on;

// A socket kept for SIOCGIFINDEX, so looking up an interface that is no radio costs
// one ioctl instead of glibc's socket, ioctl and close.
int g_ioctl_fd = -1;
std::once_flag g_ioctl_once;

unsigned kernel_index(const char *name)
{
    std::call_once(g_ioctl_once, [] { g_ioctl_fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0); });
    if (g_ioctl_fd < 0 || !name || strlen(name) >= IFNAMSIZ)
        return 0;
    ifreq ifr{};
    memcpy(ifr.ifr_name, name, strlen(name));
    if (ioctl(g_ioctl_fd, SIOCGIFINDEX, &ifr) < 0)
        return 0;
    return ifr.ifr_ifindex > 0 ? static_cast<unsigned>(ifr.ifr_ifindex) : 0;
}

bool kernel_name(unsigned ifindex, char *buf)
{
    std::call_once(g_ioctl_once, [] { g_ioctl_fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0); });
    if (g_ioctl_fd < 0 || ifindex == 0 || ifindex > INT32_MAX)
        return false;
    ifreq ifr{};
    ifr.ifr_ifindex = static_cast<int>(ifindex);
    if (ioctl(g_ioctl_fd, SIOCGIFNAME, &ifr) < 0)
        return false;
    memcpy(buf, ifr.ifr_name, IFNAMSIZ);
    buf[IFNAMSIZ - 1] = 0;
    return true;
}

void close_all_locked()
{
    for (auto it = g_radios.rbegin(); it != g_radios.rend(); ++it)
        if ((*it)->ops->close)
            (*it)->ops->close(it->get());
    g_radios.clear();
    g_opened = false;
    {
        std::lock_guard t(g_track_mu);
        g_track_on.clear();
    }
    std::lock_guard h(g_heard_mu);
    g_heard.clear();
}

// Position of the radio with ifindex in the configuration, -1 when none.
int position_of(int ifindex)
{
    if (ifindex <= 0)
        return -1;
    std::shared_lock g(g_index_mu);
    for (size_t i = 0; i < g_index.size(); i++)
        if (g_index[i].second == static_cast<unsigned>(ifindex))
            return static_cast<int>(i);
    return -1;
}

rt_radio *find_locked(int ifindex)
{
    int pos = position_of(ifindex);
    for (auto &r : g_radios)
        if (r->id == pos)
            return r.get();
    return nullptr;
}

void note_heard(int ifindex, const lta_rpt_entry *buf, int count)
{
    int pos = position_of(ifindex);
    if (pos < 0)
        return;
    std::vector<mac6> now(static_cast<size_t>(std::max(count, 0)));
    for (size_t i = 0; i < now.size(); i++)
        memcpy(now[i].data(), buf[i].mac, 6);
    std::sort(now.begin(), now.end());
    std::lock_guard h(g_heard_mu);
    if (g_heard.size() <= static_cast<size_t>(pos))
        g_heard.resize(static_cast<size_t>(pos) + 1);
    auto &slot = g_heard[static_cast<size_t>(pos)];
    slot[1] = std::move(slot[0]);
    slot[0] = std::move(now);
}

// Runs op on the radio of ifindex; -1 when there is none or its driver lacks op.
template <typename M, typename... A> int call(int ifindex, M member, A... args)
{
    std::shared_lock g(g_mu);
    rt_radio *r = find_locked(ifindex);
    if (!r || !(r->ops->*member))
        return -1;
    rt_log_about about("RADIO", r->cfg.name.c_str()); // what the driver (or caller) logs now
    return (r->ops->*member)(r, args...);
}

int if_ioctl(const char *ifname, unsigned long req, ifreq &ifr)
{
    if (!ifname || strlen(ifname) >= IFNAMSIZ)
        return -1;
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    memset(&ifr, 0, sizeof ifr);
    strncpy(ifr.ifr_name, ifname, IFNAMSIZ - 1);
    int rc = ioctl(fd, req, &ifr);
    close(fd);
    return rc < 0 ? -1 : 0;
}

int read_if_mac(const char *ifname, uint8_t mac[6])
{
    ifreq ifr;
    if (if_ioctl(ifname, SIOCGIFHWADDR, ifr) != 0)
        return -1;
    memcpy(mac, ifr.ifr_hwaddr.sa_data, 6);
    return 0;
}

int read_if_addr(const char *ifname, uint32_t *ip, uint32_t *mask)
{
    ifreq ifr;
    if (if_ioctl(ifname, SIOCGIFADDR, ifr) != 0)
        return -1;
    *ip = ((sockaddr_in *)&ifr.ifr_addr)->sin_addr.s_addr;
    if (mask) {
        *mask = 0;
        if (if_ioctl(ifname, SIOCGIFNETMASK, ifr) == 0)
            *mask = ((sockaddr_in *)&ifr.ifr_netmask)->sin_addr.s_addr;
    }
    return 0;
}

bool is_mgt(const char *ifname) { return ifname && strcmp(ifname, "mgt0") == 0; }

} // namespace

int qz_dcd_lib_init(void)
{
    std::unique_lock g(g_mu);
    if (g_opened)
        return 0;
    const rt_config &c = rt_cfg();
    for (size_t i = 0; i < c.radios.size(); i++) {
        const rt_radio_cfg &rc = c.radios[i];
        const rt_driver_ops *ops = rt_driver_find(rc.driver);
        if (!ops) {
            rt_log(LOG_ERR, "radio %s: unknown driver \"%s\"", rc.name.c_str(), rc.driver.c_str());
            close_all_locked();
            return -1;
        }
        auto r = std::make_unique<rt_radio>(rt_radio{(int)i, rc, ops, nullptr});
        if (ops->open && ops->open(r.get()) < 0) {
            rt_log(LOG_ERR, "radio %s: driver %s failed to open it", rc.name.c_str(), ops->name);
            close_all_locked();
            return -1;
        }
        if (kernel_index(rc.name.c_str()) == 0)
            rt_log(LOG_WARNING, "radio %s: no such interface yet; it is skipped until it exists",
                   rc.name.c_str());
        g_radios.push_back(std::move(r));
    }
    g_opened = true;
    g.unlock();
    rt_radio_index_refresh();
    return 0;
}

void rt_radio_index_refresh()
{
    std::vector<std::pair<std::string, unsigned>> fresh;
    for (const rt_radio_cfg &rc : rt_cfg().radios)
        fresh.emplace_back(rc.name, kernel_index(rc.name.c_str()));
    std::unique_lock g(g_index_mu);
    if (!g_index.empty() && fresh != g_index)
        rt_counter("radio.index_changes")++;
    g_index = std::move(fresh);
}

bool rt_radio_hears(const uint8_t mac[6])
{
    mac6 m;
    memcpy(m.data(), mac, 6);
    std::lock_guard h(g_heard_mu);
    for (const auto &slot : g_heard)
        for (const auto &tbl : slot)
            if (std::binary_search(tbl.begin(), tbl.end(), m))
                return true;
    return false;
}

// The daemon resolves radio names on every driver call: served from the table, and
// for other interfaces by one ioctl; never the kernel's socket round trip per call.
extern "C" unsigned int if_nametoindex(const char *name) __THROW
{
    if (!name)
        return 0;
    {
        std::shared_lock g(g_index_mu);
        for (const auto &[n, idx] : g_index)
            if (n == name)
                return idx;
    }
    return kernel_index(name);
}

extern "C" char *if_indextoname(unsigned int ifindex, char *buf) __THROW
{
    if (!buf)
        return nullptr;
    {
        std::shared_lock g(g_index_mu);
        for (const auto &[n, idx] : g_index)
            if (idx && idx == ifindex && n.size() < IF_NAMESIZE) {
                memcpy(buf, n.c_str(), n.size() + 1);
                return buf;
            }
    }
    if (!kernel_name(ifindex, buf)) {
        errno = ENXIO;
        return nullptr;
    }
    return buf;
}

int qz_dcd_lib_cleanup(void)
{
    // At shutdown the timer thread may still be in a report cycle, the neighbour and
    // owner threads in a driver call: every runtime thread ends before a radio goes.
    if (rt_stopping())
        rt_life_stop_all();
    std::unique_lock g(g_mu);
    close_all_locked();
    std::unique_lock i(g_index_mu);
    g_index.clear();
    return 0;
}

bool rt_dcd_opened()
{
    std::shared_lock g(g_mu);
    return g_opened;
}

int qz_dcd_set_lta_track_enable(int ifindex, int enable)
{
    int rc = call(ifindex, &rt_driver_ops::set_track_enable, enable);
    if (rc == 0 && !enable)
        note_heard(ifindex, nullptr, 0), note_heard(ifindex, nullptr, 0); // hears nothing now
    int pos = position_of(ifindex);
    if (rc == 0 && pos >= 0) {
        {
            std::lock_guard t(g_track_mu);
            if (g_track_on.size() <= (size_t)pos)
                g_track_on.resize(pos + 1);
            g_track_on[pos] = enable != 0;
        }
        rt_notify_status();
    }
    return rc;
}

int qz_dcd_set_lta_lmatch_enable(int ifindex, int value)
{
    return call(ifindex, &rt_driver_ops::set_lmatch, value);
}

int qz_dcd_set_lta_trackobj(int ifindex, lta_trackobj *obj)
{
    if (!obj)
        return -1;
    return call(ifindex, &rt_driver_ops::set_trackobj, (const lta_trackobj *)obj);
}

int qz_dcd_get_lta_rpt_tbl(int ifindex, lta_rpt_entry *buf, int *count)
{
    if (!buf || !count || *count < 0)
        return -1;
    int cap = *count;
    int rc = call(ifindex, &rt_driver_ops::get_rpt_tbl, buf, count);
    if (rc == 0)
        note_heard(ifindex, buf, std::min(*count, cap));
    return rc;
}

int qz_dcd_get_radio_one_sta(int ifindex, const uint8_t *mac, void *buf, int buflen, int *len)
{
    if (!mac || !buf || buflen <= 0 || !len)
        return -1;
    return call(ifindex, &rt_driver_ops::get_one_sta, mac, buf, buflen, len);
}

int qz_dcd_get_lta_stats(int ifindex, lta_stats *stats)
{
    if (!stats)
        return -1;
    return call(ifindex, &rt_driver_ops::get_stats, stats);
}

void rt_dcd_tracking(int &on, int &total)
{
    {
        std::lock_guard t(g_track_mu);
        on = (int)std::count(g_track_on.begin(), g_track_on.end(), true);
    }
    total = (int)rt_cfg().radios.size();
}

std::vector<rt_radio *> rt_radios()
{
    std::shared_lock g(g_mu);
    std::vector<rt_radio *> out;
    for (auto &r : g_radios)
        out.push_back(r.get());
    return out;
}

rt_radio *rt_radio_by_ifindex(int ifindex)
{
    std::shared_lock g(g_mu);
    return find_locked(ifindex);
}

rt_radio *rt_radio_by_name(const std::string &name)
{
    std::shared_lock g(g_mu);
    for (auto &r : g_radios)
        if (r->cfg.name == name)
            return r.get();
    return nullptr;
}

// ---- The management interface ----

int rt_mgt_mac(uint8_t mac[6])
{
    const rt_config &c = rt_cfg();
    if (c.mgt_mac) {
        memcpy(mac, c.mgt_mac->data(), 6);
        return 0;
    }
    return read_if_mac(c.mgt_interface.c_str(), mac);
}

int rt_mgt_ip(uint32_t *ip)
{
    const rt_config &c = rt_cfg();
    if (c.mgt_ip) {
        *ip = *c.mgt_ip;
        return 0;
    }
    return read_if_addr(c.mgt_interface.c_str(), ip, nullptr);
}

int qz_dcd_get_mac_byname(const char *ifname, uint8_t *mac)
{
    if (!ifname || !mac)
        return -1;
    if (!is_mgt(ifname))
        return read_if_mac(ifname, mac);
    if (rt_mgt_mac(mac) == 0)
        return 0;
    // The daemon's own line says only that start-up failed: name what to fix.
    const rt_config &c = rt_cfg();
    rt_log(LOG_ERR, "management interface %s (key mgt.interface in %s): cannot read its MAC: %s",
           c.mgt_interface.c_str(), c.path.empty() ? rt_config_path().c_str() : c.path.c_str(),
           errno == ENODEV ? "no such interface" : strerror(errno));
    return -1;
}

int qz_dcd_get_addr_byname(const char *ifname, uint32_t *ip, uint32_t *mask)
{
    if (!ifname || !ip)
        return -1;
    if (!is_mgt(ifname))
        return read_if_addr(ifname, ip, mask);
    const rt_config &c = rt_cfg();
    if (c.mgt_ip) {
        *ip = *c.mgt_ip;
        if (mask)
            *mask = 0xffffffffu;
        return 0;
    }
    return read_if_addr(c.mgt_interface.c_str(), ip, mask);
}
