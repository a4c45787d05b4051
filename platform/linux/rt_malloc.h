// The process's allocator settings: bounded arenas, and large buffers given back.
#pragma once
#include <stddef.h>

// Called first thing in the runtime's entry, before any thread starts.
void rt_malloc_setup();
// Large buffers from malloc come from their own mappings past this size.
constexpr size_t RT_MALLOC_MMAP_MIN = 128 << 10;
