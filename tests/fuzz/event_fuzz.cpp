// Fuzz target: event deliveries into the core. The first byte picks the delivery (an
// owner reply, a management address event, an interface change, or the byte itself as
// an unknown event id), the rest is its payload with its true length.
#include <stddef.h>
#include <stdint.h>

#include "fuzz_core.h"
#include "ltr_event.h"
#include "qz_evt_mgt_addr.h"
#include "qz_evt_owner.h"
#include "qz_kevt_if_change.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    if (!fuzz_core_start())
        __builtin_trap();
    auto in = fuzz_copy(data + 1, size - 1);
    int len = (int)(size - 1);
    switch (data[0] % 4) {
    case 0: ltr_event_handler(QZ_EVT_OWNER_REPLY, len, in.get()); break;
    case 1: ltr_event_handler(QZ_EVT_MGT_IP, len, in.get()); break;
    case 2: ltr_kevent_handler(QZ_KEVT_IF_CHANGE, len, in.get()); break;
    default:
        ltr_event_handler(data[0], len, in.get());
        ltr_kevent_handler(data[0], len, in.get());
        break;
    }
    fuzz_core_end();
    return 0;
}
