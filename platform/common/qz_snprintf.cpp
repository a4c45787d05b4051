// qz_snprintf for every platform (the runtime, the fake, the lean one). Its own object,
// so that a platform with its own definition, linked first, keeps it.
#include "qz.h"
#include "qz_format.h"

int qz_snprintf(char *buf, size_t size, const char *fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    int n = qz_vformat(buf, size, fmt, ap);
    va_end(ap);
    return n;
}
