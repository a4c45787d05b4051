// Fuzz target: any bytes are delivered as a server message, with their true length, to a
// manager that tracks on one radio and knows two stations; validation, the packet dump
// and the request handlers run with every debug category on (the lines are formatted,
// not kept). The input is also dumped as a message in wire order. Everything an input
// builds is freed before it returns, so that any block left is a leak of the input's own.
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <memory>

#include "core_reset.h"
#include "fake_platform.h"
#include "ltr_engine.h"
#include "ltr_event.h"
#include "ltr_rssi.h"
#include "ltr_track.h"

namespace {

const fake::mac_t ap{0x02, 0, 0, 0, 0, 1};
const uint8_t owned_sta[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
const uint8_t relayed_sta[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x66};
const uint8_t oui_key[6] = {0x00, 0x50, 0xf2, 0, 0, 0};

// A fresh platform and core for every input, so that a crash replays alone.
bool start_manager()
{
    fake::reset();
    fake::set_recording(false); // nothing reads the calls or the text
    fake::set_keep_text(false);
    ltr_test_reset_core();
    fake::set_radios({{"wifi0", 4}});
    fake::set_mgt(ap, 0x0100000a);
    if (ltr_mgt_init() < 0 || ltr_start_tracking() < 0)
        return false;
    ltr_apply_trackobj(owned_sta, LTR_TRACK_MAC, 1);
    ltr_apply_trackobj(oui_key, LTR_TRACK_OUI, 1);
    ltr_rssi_data rd{{0x02, 0, 0, 0, 0, 1}, 2412, -60, 1};
    for (const uint8_t *mac : {owned_sta, relayed_sta}) {
        ltr_sta *s = ltr_sta_add(&mgt.sta_tbl, mac);
        if (!s || !ltr_rssi_add(s, &rd))
            return false;
        s->ni_owner_ip = mac == owned_sta ? mgt.my_ip : 0x0200000a;
    }
    ltr_debug_flags = LTR_DBG_ALL;
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (!start_manager())
        __builtin_trap();

    // A block of exactly the delivered size, so that any read past it is caught.
    std::unique_ptr<uint8_t[]> in(new uint8_t[size ? size : 1]);
    if (size)
        memcpy(in.get(), data, size);
    ltr_handle_msg_in(in.get(), (int)size);

    const size_t body_at = offsetof(ltr_srv_msg, opcode);
    if (size >= body_at) {
        memcpy(in.get(), data, size);
        ltr_msg_dump((const ltr_msg_body *)(in.get() + body_at), (int)(size - body_at));
    }
    ltr_test_reset_core();
    fake::reset();
    return 0;
}
