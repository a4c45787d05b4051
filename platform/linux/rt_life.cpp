// The runtime's threads in the order they started, stopped and joined in reverse
// before anything they use is released: at the daemon's shutdown, and at process exit
// so that static destructors and atexit handlers never race a runtime thread.
#include <pthread.h>
#include <stdlib.h>
#include <syslog.h>

#include <mutex>
#include <vector>

#include "rt_life.h"
#include "rt_log.h"
#include "rt_stop.h"

namespace {

struct life_entry {
    const char *name;
    void (*stop)();
};

// Never destroyed: the exit hook may run after other statics are gone.
std::mutex &started_mu()
{
    static std::mutex *m = new std::mutex;
    return *m;
}

std::vector<life_entry> &started()
{
    static std::vector<life_entry> *v = new std::vector<life_entry>;
    return *v;
}

std::mutex &stopping_mu()
{
    static std::mutex *m = new std::mutex;
    return *m;
}

void exit_hook() { rt_life_stop_all(); }

} // namespace

void rt_life_started(const char *name, void (*stop)())
{
    {
        std::lock_guard g(started_mu());
        for (const life_entry &e : started())
            if (e.stop == stop)
                return;
        started().push_back({name, stop});
    }
    // Registered after the service made its own statics, so at exit the hook runs
    // before their destructors (each registration runs; all but the first find
    // nothing left to stop).
    atexit(exit_hook);
}

void rt_life_stop_all()
{
    std::lock_guard serial(stopping_mu());
    // Loops end, and nothing stopped below starts again on a late call (a send that
    // would reopen the server channel, say).
    rt_request_stop();
    for (;;) {
        life_entry e;
        {
            std::lock_guard g(started_mu());
            if (started().empty())
                return;
            e = started().back();
            started().pop_back();
        }
        rt_log(LOG_DEBUG, "stopping %s", e.name);
        e.stop();
    }
}
