// System readiness: the runtime's own services are up. Ready means the driver
// library has opened every configured radio and the event thread is serving; both
// happen during the daemon's own start-up, so no outside program is needed. Once a
// stop is requested the wait is over too: the event thread has left its loop and
// would never serve again, and the caller must go on to its shutdown.
#include "qz_sys.h"

#include <syslog.h>

#include <atomic>

#include "rt_log.h"
#include "rt_notify.h"
#include "rt_process.h"
#include "rt_stop.h"

int qz_sys_ready(void)
{
    static std::atomic<bool> polled, ready;
    bool now = rt_dcd_opened() && rt_event_running();
    if (!polled.exchange(true))
        rt_log(LOG_INFO, "first readiness poll: %s", now ? "ready" : "not ready");
    if (now && !ready.exchange(true)) {
        rt_log(LOG_NOTICE, "system ready");
        rt_daemon_ready();
        rt_notify_ready();
    }
    if (!now && rt_stopping())
        return 1;
    return now ? 1 : 0;
}
