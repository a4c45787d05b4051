// Fuzz target: any bytes are delivered as a server message, with their true length, to
// the manager of fuzz_core.h; validation, the packet dump and the request handlers run
// with every debug category on. The input is also dumped as a message in wire order.
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include "fuzz_core.h"
#include "ltr_engine.h"
#include "ltr_event.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (!fuzz_core_start())
        __builtin_trap();
    auto in = fuzz_copy(data, size);
    ltr_handle_msg_in(in.get(), (int)size);

    const size_t body_at = offsetof(ltr_srv_msg, opcode);
    if (size >= body_at) {
        in = fuzz_copy(data, size); // the handlers may have written the first copy
        ltr_msg_dump((const ltr_msg_body *)(in.get() + body_at), (int)(size - body_at));
    }
    fuzz_core_end();
    return 0;
}
