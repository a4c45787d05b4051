// Placeholder until this service lands: every call fails.
#include <stdarg.h>
#include "qz.h"
#include "qz_format.h"
int qz_daemonize(int, int) { return -1; }
void *qz_shm_create(int *, int, int) { return nullptr; }
int qz_shm_destroy(int, void *) { return -1; }
int qz_snprintf(char *buf, size_t size, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int n = qz_vformat(buf, size, fmt, ap);
    va_end(ap);
    return n;
}
