// Allocator settings of the daemon's process.
#include "rt_malloc.h"

#include <malloc.h>

void rt_malloc_setup()
{
    // glibc gives each thread that allocates an arena of its own (64 MiB of address
    // space each on a 64-bit target, and memory freed in one is never reused by
    // another). The daemon's threads mostly take turns under its one lock, so two
    // arenas cost no contention that matters and keep the address space small.
    mallopt(M_ARENA_MAX, 2);
    // A show at full load builds megabytes of text. Buffers that large come from their
    // own mappings and go back to the system when freed; a fixed threshold also stops
    // glibc from raising it (to the heap) after the first such buffer is freed.
    mallopt(M_MMAP_THRESHOLD, int(RT_MALLOC_MMAP_MIN));
}
