// rtnetlink in a network namespace of its own: radio links and management addresses.
#include <gtest/gtest.h>
#include <arpa/inet.h>
#include <net/if.h>
#include <sched.h>
#include <stdio.h>

#include "qz_dcd.h"
#include "qz_event.h"
#include "rt_config.h"
#include "rt_event.h"
#include "rt_test_util.h"

namespace {

std::mutex g_mu;
std::condition_variable g_cv;
std::vector<qz_if_change> g_links;
std::vector<qz_mgt_addr_evt> g_addrs;
int g_short; // deliveries shorter than their record

template <typename T> T load(const void *p) // payloads need not be aligned
{
    T v;
    memcpy(&v, p, sizeof v);
    return v;
}

void on_kevent(uint32_t, int len, void *p)
{
    std::lock_guard g(g_mu);
    if (len != sizeof(qz_if_change))
        g_short++;
    else
        g_links.push_back(load<qz_if_change>(p));
    g_cv.notify_all();
}

void on_event(uint32_t, int len, void *p)
{
    std::lock_guard g(g_mu);
    if (len < 24)
        g_short++;
    else
        g_addrs.push_back(load<qz_mgt_addr_evt>(p));
    g_cv.notify_all();
}

// Child-side checks: report what failed and leave with a non-zero status.
#define CHILD_CHECK(cond) ((cond) ? (void)0 : (fprintf(stderr, "line %d: %s\n", __LINE__, #cond), _exit(10)))

void sh(const std::string &cmd)
{
    if (system((cmd + " >/dev/null 2>&1").c_str()) != 0) {
        fprintf(stderr, "command failed: %s\n", cmd.c_str());
        _exit(11);
    }
}

// The next link change, if one comes within the time.
bool next_link(qz_if_change &out, int ms = 3000)
{
    std::unique_lock l(g_mu);
    if (!g_cv.wait_for(l, std::chrono::milliseconds(ms), [] { return !g_links.empty(); }))
        return false;
    out = g_links.front();
    g_links.erase(g_links.begin());
    return true;
}

bool link_is(uint32_t type, const char *name, uint32_t flags, bool check_index = true)
{
    qz_if_change c;
    return next_link(c) && c.type == type && strcmp(c.name, name) == 0 && c.flags == flags &&
           (!check_index || c.ifindex == (int)if_nametoindex(name));
}

bool addrs_reach(size_t n)
{
    std::unique_lock l(g_mu);
    return g_cv.wait_for(l, std::chrono::seconds(3), [n] { return g_addrs.size() >= n; });
}

// Runs inside a fresh network namespace (the forked child).
void netns_child()
{
    if (unshare(CLONE_NEWNET) != 0)
        _exit(20);
    rt_scratch s;
    rt_config c = rt_test_config(s);
    c.radios = {{"wl0", "sim", true}, {"wl1", "sim", false}, {"wl2", "sim", true}};
    c.mgt_interface = "m0";
    rt_cfg_set(c);
    for (const char *i : {"wl0", "wl1", "m0", "other"})
        sh(std::string("ip link add ") + i + " type ifb");
    CHILD_CHECK(qz_dcd_lib_init() == 0); // radio indexes resolved here, then on link changes
    pthread_t t;
    CHILD_CHECK(qz_event_init(52, &t) == 0);
    qz_kevent_subscribe(QZ_KEVT_IF_CHANGE, on_kevent);
    qz_event_subscribe(QZ_EVT_MGT_IP, on_event);
    qz_if_change none;

    sh("ip link set wl0 up");
    CHILD_CHECK(link_is(QZ_IF_UP, "wl0", QZ_IFF_UP));
    sh("ip link set wl1 up");
    CHILD_CHECK(link_is(QZ_IF_UP, "wl1", QZ_IFF_UP | QZ_IFF_NO_ACCESS));
    sh("ip link set other up");     // not a radio: not reported
    sh("ip link set wl0 mtu 1400"); // no transition: not reported
    CHILD_CHECK(!next_link(none, 500));
    sh("ip link set wl0 down");
    CHILD_CHECK(link_is(QZ_IF_DOWN, "wl0", 0));
    // (ifb cannot change its MAC, so the "new MAC" change is not exercised here.)
    int wl0 = (int)if_nametoindex("wl0");
    sh("ip link set wl0 name wl0x"); // renamed away: reported once under its new name
    CHILD_CHECK(link_is(QZ_IF_NAME, "wl0x", 0));
    CHILD_CHECK(if_nametoindex("wl0") == 0 && qz_dcd_set_lta_track_enable(wl0, 1) < 0);
    sh("ip link add wl2 type ifb"); // a radio that appears later is reached by its index
    sh("ip link set wl2 up");
    CHILD_CHECK(link_is(QZ_IF_UP, "wl2", QZ_IFF_UP));
    CHILD_CHECK(qz_dcd_set_lta_track_enable((int)if_nametoindex("wl2"), 1) == 0);
    sh("ip link set wl0x up");
    CHILD_CHECK(!next_link(none, 500));
    sh("ip link del wl1"); // an up radio vanishing goes down
    CHILD_CHECK(link_is(QZ_IF_DOWN, "wl1", QZ_IFF_NO_ACCESS, false));

    sh("ip link set m0 up");
    sh("ip addr add 10.9.8.7/24 dev m0");
    CHILD_CHECK(addrs_reach(1));
    // The event thread may still append: read the records under the lock.
    auto addr = [](size_t i) {
        std::lock_guard g(g_mu);
        return g_addrs.at(i);
    };
    qz_mgt_addr_evt first = addr(0);
    uint32_t ip;
    memcpy(&ip, (const uint8_t *)&first + 20, 4); // the word the daemon reads
    CHILD_CHECK(ip == inet_addr("10.9.8.7") && strcmp(first.ifname, "m0") == 0);
    sh("ip addr add 10.9.9.9/24 dev other"); // not the management interface
    sh("ip addr del 10.9.8.7/24 dev m0");
    CHILD_CHECK(addrs_reach(2) && addr(1).ip == 0);
    CHILD_CHECK(!next_link(none, 200));
    {
        std::lock_guard g(g_mu);
        CHILD_CHECK(g_addrs.size() == 2 && g_short == 0);
    }
    qz_event_cleanup();
    pthread_join(t, nullptr);

    // Reopened with wl0 and wl2 up and wl1 down: each radio already up is reported once,
    // in radio order, as a link dump would, so that a restarted daemon re-applies its
    // settings to it.
    sh("ip link set wl0x down");
    sh("ip link set wl0x name wl0");
    sh("ip link set wl0 up");
    sh("ip link add wl1 type ifb");
    CHILD_CHECK(qz_event_init(52, &t) == 0);
    qz_kevent_subscribe(QZ_KEVT_IF_CHANGE, on_kevent);
    CHILD_CHECK(link_is(QZ_IF_UP, "wl0", QZ_IFF_UP));
    CHILD_CHECK(link_is(QZ_IF_UP, "wl2", QZ_IFF_UP));
    CHILD_CHECK(!next_link(none, 300));
    qz_event_cleanup();
    pthread_join(t, nullptr);
    qz_dcd_lib_cleanup();
    _exit(0);
}

} // namespace

TEST(Netlink, RadioLinkChangesAndManagementAddressChanges)
{
    if (system("unshare -n ip link add qzprobe type ifb >/dev/null 2>&1") != 0)
        GTEST_SKIP() << "needs network namespaces and the ifb driver (root, `unshare -n`, ifb)";
    EXPECT_EXIT(netns_child(), testing::ExitedWithCode(0), "");
}
