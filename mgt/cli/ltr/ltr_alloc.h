// Zero-filled allocation of the daemon's records, with one fault-injection point.
//
// Out of memory is survived where the daemon allocates per event (stations, readings,
// messages): the caller logs and drops that one item. Tests prove those paths by
// arming ltr_alloc_fail_at.
#pragma once
#include <new>
#include <stddef.h>

// 0: off. n > 0: the n-th allocation from now fails (1 = the next one), once.
extern int ltr_alloc_fail_at;

// One allocation's turn of ltr_alloc_fail_at: true when it is the one to fail. For
// allocators that hand out pieces of larger blocks.
bool ltr_alloc_fails();

void *ltr_calloc(size_t size);
void *ltr_realloc(void *p, size_t size); // the old block stays valid on failure
void ltr_free(void *p);

template <class T> T *ltr_new()
{
    void *p = ltr_calloc(sizeof(T));
    return p ? new (p) T{} : nullptr;
}

template <class T> void ltr_delete(T *p)
{
    if (p) {
        p->~T();
        ltr_free(p);
    }
}
