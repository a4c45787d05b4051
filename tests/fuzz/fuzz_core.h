// For the fuzz targets of the daemon core: a manager on the fake platform that tracks on
// one radio and knows two stations, one owned here and one owned by a peer.
#pragma once
#include <stddef.h>
#include <stdint.h>

#include <memory>

// A fresh platform and core, every debug category on (the fake drops the lines, so the
// paths that build them run); false when the start failed.
// Each input gets its own, so that a crash replays alone.
bool fuzz_core_start();
// Frees what the input built, so that a block left behind is the input's own leak.
void fuzz_core_end();
// A block of exactly n bytes holding data: a read past them is caught.
std::unique_ptr<uint8_t[]> fuzz_copy(const uint8_t *data, size_t n);
