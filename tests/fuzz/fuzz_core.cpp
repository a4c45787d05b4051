// The manager every core fuzz target starts from.
#include "fuzz_core.h"

#include <string.h>

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
} // namespace

bool fuzz_core_start()
{
    fake::reset();
    // Nothing reads the calls or the text: lines are dropped unformatted (ten times the
    // executions), a dump still reads every byte it is given.
    fake::set_recording(false);
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
    fake::clear_text();
    ltr_debug_flags = LTR_DBG_ALL;
    return true;
}

void fuzz_core_end()
{
    ltr_test_reset_core();
    fake::reset();
}

std::unique_ptr<uint8_t[]> fuzz_copy(const uint8_t *data, size_t n)
{
    std::unique_ptr<uint8_t[]> b(new uint8_t[n ? n : 1]);
    if (n)
        memcpy(b.get(), data, n);
    return b;
}
