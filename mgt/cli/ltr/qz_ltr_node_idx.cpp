// Reading index: (station, reporter MAC) -> the station's newest reading under that MAC.
#include <string.h>

#include "ltr_alloc.h"
#include "ltr_node.h"

namespace {

// Grown past 80 % full, shrunk below 20 %, both to 55 %: probes stay short and a
// table that empties gives its memory back.
constexpr uint64_t LOAD_MAX = 80, LOAD_MIN = 20, LOAD_NEW = 55;
constexpr uint32_t SIZE_MIN = 4;

// Two independent multiplies, summed: the high half depends on every bit of both. The
// MAC is read in two loads (a 6-byte copy into a zeroed word stalls on the stack).
uint32_t key_hash(const ltr_sta *sta, const uint8_t *macaddr)
{
    uint32_t lo;
    uint16_t hi;
    memcpy(&lo, macaddr, 4);
    memcpy(&hi, macaddr + 4, 2);
    uint64_t k = ((uint64_t)hi << 32 | lo) * 0x9e3779b97f4a7c15ull +
                 (uint64_t)(uintptr_t)sta * 0xbf58476d1ce4e5b9ull;
    return (uint32_t)(k >> 32);
}

// Any size, no modulo: the hash scaled to the table.
uint32_t home(const ltr_rssi_idx *x, uint32_t h)
{
    return (uint32_t)(((uint64_t)h * x->size) >> 32);
}

ltr_rssi_entry *at(const ltr_rssi_pool *p, uint32_t v)
{
    return ltr_rssi_pool_at(p, v - 1);
}

bool is_key(const ltr_rssi_entry *e, const ltr_sta *sta, const uint8_t *macaddr)
{
    return e->sta == sta && ltr_mac_eq(e->rssi_data.ap_mac, macaddr);
}

// The slot holding the key, or the free slot ending its probe.
uint32_t probe(const ltr_rssi_idx *x, const ltr_rssi_pool *p, const ltr_sta *sta,
               const uint8_t *macaddr)
{
    uint32_t i = home(x, key_hash(sta, macaddr));
    while (x->slot[i] && !is_key(at(p, x->slot[i]), sta, macaddr))
        if (++i == x->size)
            i = 0;
    return i;
}

uint32_t probe_of(const ltr_rssi_idx *x, const ltr_rssi_pool *p, const ltr_rssi_entry *e)
{
    return probe(x, p, e->sta, e->rssi_data.ap_mac);
}

// To room for count keys at the new load. False (nothing changed) when out of memory.
bool resize(ltr_rssi_idx *x, const ltr_rssi_pool *p, uint32_t count)
{
    ltr_rssi_idx n{nullptr, 0, x->count, x->shadowed};
    if (count) {
        n.size = (uint32_t)((uint64_t)count * 100 / LOAD_NEW) + 1;
        if (n.size < SIZE_MIN)
            n.size = SIZE_MIN;
        n.slot = (uint32_t *)ltr_calloc(n.size * sizeof(*n.slot));
        if (!n.slot)
            return false;
        for (uint32_t i = 0; i < x->size; i++)
            if (uint32_t v = x->slot[i])
                n.slot[probe_of(&n, p, at(p, v))] = v;
    }
    ltr_free(x->slot);
    *x = n;
    return true;
}

} // namespace

ltr_rssi_entry *ltr_rssi_idx_find(const ltr_sta_tbl *t, const ltr_sta *sta, const uint8_t *macaddr)
{
    const ltr_rssi_idx *x = &t->rssi_idx;
    if (!x->count)
        return nullptr;
    uint32_t v = x->slot[probe(x, &t->rssi_pool, sta, macaddr)];
    return v ? at(&t->rssi_pool, v) : nullptr;
}

bool ltr_rssi_idx_put(ltr_sta_tbl *t, ltr_rssi_entry *e)
{
    ltr_rssi_idx *x = &t->rssi_idx;
    if (x->count) {
        uint32_t i = probe_of(x, &t->rssi_pool, e);
        if (x->slot[i]) { // a newer reading of a reporter already indexed
            x->slot[i] = e->no + 1;
            x->shadowed++;
            return true;
        }
    }
    // A failed growth is not fatal while a slot is still free.
    if ((uint64_t)(x->count + 1) * 100 > (uint64_t)x->size * LOAD_MAX &&
        !resize(x, &t->rssi_pool, x->count + 1) && x->count + 1 >= x->size)
        return false;
    x->slot[probe_of(x, &t->rssi_pool, e)] = e->no + 1;
    x->count++;
    return true;
}

void ltr_rssi_idx_drop(ltr_sta_tbl *t, ltr_rssi_entry *e, ltr_rssi_entry *heir)
{
    ltr_rssi_idx *x = &t->rssi_idx;
    const ltr_rssi_pool *p = &t->rssi_pool;
    if (!x->count)
        return;
    uint32_t i = probe_of(x, p, e);
    if (x->slot[i] != e->no + 1) { // an older duplicate: the newer one stays indexed
        x->shadowed--;
        return;
    }
    if (heir) {
        x->slot[i] = heir->no + 1;
        x->shadowed--;
        return;
    }
    // Backward shift: the entries after the hole that may move up close it, so a probe
    // never meets a free slot before its key.
    for (uint32_t j = i + 1 == x->size ? 0 : i + 1; x->slot[j]; j = j + 1 == x->size ? 0 : j + 1) {
        const ltr_rssi_entry *m = at(p, x->slot[j]);
        uint32_t h = home(x, key_hash(m->sta, m->rssi_data.ap_mac));
        bool stays = i <= j ? (i < h && h <= j) : (i < h || h <= j);
        if (!stays) {
            x->slot[i] = x->slot[j];
            i = j;
        }
    }
    x->slot[i] = 0;
    x->count--;
    if ((uint64_t)x->count * 100 < (uint64_t)x->size * LOAD_MIN)
        resize(x, p, x->count); // a failed shrink keeps the larger table
}
