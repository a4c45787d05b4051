// Frame parser fuzz target: any bytes, parsed from a block of exactly their size, must
// give a verdict without reading past them, and a kept frame must name a station.
#include "radiotap.h"

#include <stdint.h>
#include <string.h>

#include <memory>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::unique_ptr<uint8_t[]> copy(new uint8_t[size ? size : 1]);
    memcpy(copy.get(), data, size);
    qz_rt_frame f;
    qz_rt_parse(std::span<const uint8_t>(copy.get(), size), f);
    if (f.verdict >= QZ_RT_VERDICTS)
        __builtin_trap();
    if (f.verdict == QZ_RT_KEPT && (!f.has_signal || !f.has_ta || f.ap_sent || qz_rt_is_group(f.ta)))
        __builtin_trap();
    return 0;
}
