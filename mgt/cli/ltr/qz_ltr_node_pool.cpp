// Reading pool: chunks of LTR_RSSI_CHUNK readings, each with a word of free bits.
#include <stdlib.h>
#include <string.h>

#include "ltr_alloc.h"
#include "ltr_node.h"

// Free slots are poisoned under ASan, so a reading used after its delete is still caught.
#if defined(__SANITIZE_ADDRESS__)
#define LTR_POOL_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define LTR_POOL_ASAN 1
#endif
#endif
#ifdef LTR_POOL_ASAN
#include <sanitizer/asan_interface.h>
#define POOL_POISON(p, n) ASAN_POISON_MEMORY_REGION(p, n)
#define POOL_UNPOISON(p, n) ASAN_UNPOISON_MEMORY_REGION(p, n)
#else
#define POOL_POISON(p, n) ((void)(p), (void)(n))
#define POOL_UNPOISON(p, n) ((void)(p), (void)(n))
#endif

namespace {

constexpr uint64_t ALL_FREE = ~0ull;
static_assert(LTR_RSSI_CHUNK == 64, "one word of free bits");

// A new empty chunk under the first free number. Chunks and the chunk table are not
// the readings' allocations: ltr_alloc_fail_at counts readings, as it always has.
ltr_rssi_chunk *chunk_new(ltr_rssi_pool *p)
{
    uint32_t no = 0;
    while (no < p->n_chunk && p->chunk[no])
        no++;
    if (no == p->n_chunk) {
        uint32_t n = p->n_chunk ? p->n_chunk * 2 : 8;
        auto **t = (ltr_rssi_chunk **)realloc(p->chunk, n * sizeof(ltr_rssi_chunk *));
        if (!t)
            return nullptr;
        memset(t + p->n_chunk, 0, (n - p->n_chunk) * sizeof(*t));
        p->chunk = t;
        p->n_chunk = n;
    }
    auto *c = (ltr_rssi_chunk *)calloc(1, sizeof(ltr_rssi_chunk));
    if (!c)
        return nullptr;
    c->free = ALL_FREE;
    c->no = no;
    POOL_POISON(c->e, sizeof(c->e));
    p->chunk[no] = c;
    ltr_list_push_front(&p->partial, c, &ltr_rssi_chunk::plink);
    return c;
}

} // namespace

ltr_rssi_entry *ltr_rssi_pool_get(ltr_rssi_pool *p)
{
    if (ltr_alloc_fails())
        return nullptr;
    ltr_rssi_chunk *c = p->partial;
    if (!c && !(c = chunk_new(p)))
        return nullptr;
    unsigned i = (unsigned)__builtin_ctzll(c->free);
    c->free &= c->free - 1;
    if (!c->free)
        ltr_list_unlink(c, &ltr_rssi_chunk::plink);
    ltr_rssi_entry *e = &c->e[i];
    POOL_UNPOISON(e, sizeof(*e));
    memset((void *)e, 0, sizeof(*e));
    e->no = c->no * LTR_RSSI_CHUNK + i;
    p->count++;
    return e;
}

void ltr_rssi_pool_put(ltr_rssi_pool *p, ltr_rssi_entry *e)
{
    uint32_t no = e->no;
    ltr_rssi_chunk *c = p->chunk[no / LTR_RSSI_CHUNK];
    POOL_POISON(e, sizeof(*e));
    if (!c->free)
        ltr_list_push_front(&p->partial, c, &ltr_rssi_chunk::plink);
    c->free |= 1ull << (no % LTR_RSSI_CHUNK);
    p->count--;
    if (c->free == ALL_FREE) {
        ltr_list_unlink(c, &ltr_rssi_chunk::plink);
        p->chunk[c->no] = nullptr;
        POOL_UNPOISON(c->e, sizeof(c->e));
        free(c);
    }
    if (!p->count) {
        free(p->chunk);
        p->chunk = nullptr;
        p->n_chunk = 0;
    }
}
