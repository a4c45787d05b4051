// Process-manager calls: no process manager runs here, so they only leave a trace.
#include "qz_mpi.h"

#include <syslog.h>

#include "rt_log.h"

int qz_pm_init(int module_id)
{
    rt_log(LOG_DEBUG, "process manager: module %d registered", module_id);
    return 0;
}

int qz_pm_setstate(int module_id, int state)
{
    rt_log(LOG_DEBUG, "process manager: module %d state %d", module_id, state);
    return 0;
}

int qz_pm_cleanup(int module_id)
{
    rt_log(LOG_DEBUG, "process manager: module %d released", module_id);
    return 0;
}
