// Allocation with a test hook.
#include "ltr_alloc.h"

#include <stdlib.h>

int ltr_alloc_fail_at;

bool ltr_alloc_fails()
{
    if (ltr_alloc_fail_at > 0 && --ltr_alloc_fail_at == 0)
        return true;
    return false;
}

void *ltr_calloc(size_t size)
{
    return ltr_alloc_fails() ? nullptr : calloc(1, size);
}

void *ltr_realloc(void *p, size_t size)
{
    return ltr_alloc_fails() ? nullptr : realloc(p, size);
}

void ltr_free(void *p)
{
    free(p);
}
