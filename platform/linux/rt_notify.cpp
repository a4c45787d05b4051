// Readiness, status and watchdog for a service manager, through its notification
// socket. The watchdog is kicked by the event thread, which carries the
// daemon's events under its manager lock: a hung handler, or a lock held for ever,
// stops the kicks and the service manager restarts the daemon. No thread of its own
// pings, since that would keep a hung daemon "alive".
#include "rt_notify.h"

#include <stdlib.h>
#include <string.h>
#include <syslog.h>
#include <time.h>

#include <atomic>
#include <mutex>

#include "rt_log.h"
#include "rt_process.h"
#include "rt_svcmgr.h"
#include "srvchan.h"

namespace {

int64_t now_ms()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (int64_t)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

bool notify_wanted()
{
    const char *s = getenv("NOTIFY_SOCKET");
    return s && s[0];
}

void send_state(const std::string &state)
{
#ifdef LTR_HAVE_SYSTEMD
    int rc = rt_sd_notify(state);
    if (rc < 0)
        rt_log_ratelimited("notify", 60, LOG_WARNING, "service manager notification failed: %s",
                           strerror(-rc));
#else
    (void)state;
#endif
}

std::mutex g_status_mu;
std::string g_status_sent;
std::atomic<bool> g_ready_sent;

// Calls into the daemon in flight, by thread: since when (ms, 0 = none).
struct watch_slot {
    std::atomic<const char *> thread{nullptr};
    std::atomic<int64_t> since{0};
};
constexpr int WATCH_SLOTS = 16;
watch_slot g_watch[WATCH_SLOTS];
std::atomic<int64_t> g_last_kick{0};
std::atomic<bool> g_stuck_logged;

} // namespace

std::string rt_notify_status_text()
{
    int on = 0, total = 0;
    rt_dcd_tracking(on, total);
    std::string s = on ? "tracking on " + std::to_string(on) + " of " + std::to_string(total) +
                             (total == 1 ? " radio" : " radios")
                       : "tracking off";
    s += srvchan_connected() ? ", server connected" : ", server not connected";
    return s;
}

void rt_notify_status()
{
    if (!notify_wanted() || !g_ready_sent.load())
        return;
    std::string text = rt_notify_status_text();
    std::lock_guard g(g_status_mu);
    if (text == g_status_sent)
        return;
    g_status_sent = text;
    send_state("STATUS=" + text);
}

void rt_notify_ready()
{
    if (!notify_wanted() || g_ready_sent.exchange(true))
        return;
    std::string text = rt_notify_status_text();
    std::lock_guard g(g_status_mu);
    g_status_sent = text;
    send_state("READY=1\nSTATUS=" + text);
}

int64_t rt_watchdog_period_ms()
{
#ifdef LTR_HAVE_SYSTEMD
    // WATCHDOG_USEC left behind in an environment, with no one listening, asks nothing.
    uint64_t usec = rt_sd_watchdog_usec();
    if (notify_wanted() && usec >= 1000)
        return (int64_t)(usec / 1000);
#endif
    return 0;
}

bool rt_watchdog_kick(int64_t period)
{
    if (period <= 0)
        return false;
    int64_t now = now_ms();
    if (now - g_last_kick.load() < period / 2)
        return false;
    for (watch_slot &w : g_watch) {
        int64_t since = w.since.load();
        if (since && now - since >= period) {
            if (!g_stuck_logged.exchange(true))
                rt_log(LOG_ERR, "watchdog: the %s thread has been in one call for %lld ms; "
                       "no longer telling the service manager that all is well",
                       w.thread.load(), (long long)(now - since));
            return false;
        }
    }
    g_stuck_logged = false;
    g_last_kick = now;
    send_state("WATCHDOG=1");
    return true;
}

rt_watched_call::rt_watched_call(const char *thread) : slot_(-1)
{
    for (int i = 0; i < WATCH_SLOTS; i++) {
        const char *expected = nullptr;
        if (g_watch[i].thread.load() == thread ||
            g_watch[i].thread.compare_exchange_strong(expected, thread)) {
            // One call per thread name at a time: a second one in flight (two
            // threads under one name) takes the next slot.
            int64_t zero = 0;
            if (g_watch[i].since.compare_exchange_strong(zero, now_ms() | 1)) {
                slot_ = i;
                return;
            }
        }
    }
}

rt_watched_call::~rt_watched_call()
{
    if (slot_ >= 0)
        g_watch[slot_].since = 0;
}
