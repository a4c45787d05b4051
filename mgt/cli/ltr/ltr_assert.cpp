// The failed-argument-check path shared by every unit.
#include <stdlib.h>
#include <syslog.h>

#include "ltr_mgt.h"

void ltr_assert_fail(const char *expr, const char *unit, int line)
{
    syslog(LOG_USER | LOG_DEBUG, "Assertion (%s) failed at %s:%d\n", expr, unit, line);
    __qz_err(unit, line, "### Assertion (%s) failed at %s:%d\n", expr, unit, line);
    abort();
}
