// Reset of the core's globals between tests.
#include "core_reset.h"

#include <string.h>

#include "ltr_alloc.h"
#include "ltr_engine.h"
#include "ltr_node.h"

namespace {
// mgt as the program image initialised it (lock, shm_id -1, the relay handler entry).
struct pristine {
    ltr_mgt m;
    pristine() { memcpy((void *)&m, (const void *)&mgt, sizeof(mgt)); }
};
pristine &initial()
{
    static pristine p;
    return p;
}
const bool captured = (initial(), true);
} // namespace

void ltr_test_reset_core()
{
    (void)captured;
    ltr_alloc_fail_at = 0;
    if (mgt.sta_tbl.sta_list.last)
        ltr_sta_tbl_flush(&mgt.sta_tbl);
    if (mgt.omsg)
        ltr_engine_ops.cleanup(&mgt);
    for (ltr_track_obj *o = ltr_tl.obj_list.first, *n; o; o = n) {
        n = o->link.next;
        ltr_delete(o);
    }
    ltr_tl = ltr_track_list{};
    memcpy((void *)&mgt, (const void *)&initial().m, sizeof(mgt));
    ltr_debug_flags = 0;
    ltr_mgt_inited = 0;
}
