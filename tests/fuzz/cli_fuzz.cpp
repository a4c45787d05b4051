// Fuzz target: operator commands into the core, as the command-line agent hands them on
// once it has checked the IPC structure. The input is a run of records, each a selector
// byte (command number 1882 + low 4 bits, bit 4: its second registration, bit 7: the
// "no" form) and a 20-byte argument block; then the running configuration is generated
// from what they left.
#include <stddef.h>
#include <stdint.h>

#include "fake_platform.h"
#include "fuzz_core.h"
#include "ltr_cli.h"
#include "ltr_mgt.h"

namespace {
constexpr size_t record = 1 + 20;
constexpr size_t max_records = 16;
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (!fuzz_core_start() || ltr_reg_cmd_vectors() < 0 || ltr_reg_cfg_generator() < 0)
        __builtin_trap();
    for (size_t at = 0, n = 0; at < size && n < max_records; at += record, n++) {
        uint8_t sel = data[at];
        size_t len = size - at - 1 < record - 1 ? size - at - 1 : record - 1;
        fake::bytes block(data + at + 1, data + at + 1 + len);
        fake::run_cmd(LTR_CMD_TRACK_ENABLE + (sel & 15), (sel & 0x80) != 0, block, (sel >> 4) & 1);
    }
    fake::run_cfg_gen();
    fuzz_core_end();
    return 0;
}
