// Fuzz target: any bytes, delivered as a server message, go through validation with
// their true length and then through the packet dump, every debug category on.
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <memory>

#include "fake_platform.h"
#include "ltr_engine.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const bool ready = (fake::reset(), true);
    (void)ready;
    fake::clear_calls();
    fake::clear_text();
    ltr_debug_flags = LTR_DBG_ALL;

    // A block of exactly the delivered size, so that any read past it is caught.
    const int len = (int)size;
    std::unique_ptr<uint8_t[]> in(new uint8_t[size ? size : 1]);
    if (size)
        memcpy(in.get(), data, size);
    ltr_msg_validate(&mgt, (ltr_srv_msg *)in.get(), len);

    // Validation dumps what it accepted; the input is also dumped as a message in wire order.
    const int body_at = (int)offsetof(ltr_srv_msg, opcode);
    if (len >= body_at) {
        memcpy(in.get(), data, size);
        ltr_msg_dump((const ltr_msg_body *)(in.get() + body_at), len - body_at);
    }
    return 0;
}
