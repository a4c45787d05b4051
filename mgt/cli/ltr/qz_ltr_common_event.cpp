// Handlers of the delivered events: server messages, the management address and a
// radio interface coming up. Each takes the manager lock for its whole work.
#define LTR_UNIT "qz_ltr_common"
#include <net/if.h>
#include <stdint.h>
#include <string.h>

#include "ltr_engine.h"
#include "ltr_event.h"
#include "ltr_mgt.h"
#include "ltr_track.h"
#include "qz_dcd.h"

int ltr_handle_msg_in(void *in_msg, int len)
{
    LTR_CHECK(in_msg != LTR_NULL);
    ltr_lock(&mgt);
    // engine is tested too: a stop clears it before it clears enabled.
    if (mgt.cfg->enabled && mgt.engine) {
        auto *in = (ltr_srv_msg *)in_msg;
        int r = mgt.engine->validate(&mgt, in, len);
        if (r == 0) {
            r = mgt.engine->dispatch(&mgt, in);
            if (r < 0)
                LTR_DBG(ERROR, "ae msg not handled");
        }
    }
    ltr_unlock(&mgt);
    return 0;
}

int ltr_handle_mgt_ip(const void *evt)
{
    LTR_CHECK(evt != LTR_NULL);
    ltr_lock(&mgt);
    memcpy(&mgt.my_ip, (const uint8_t *)evt + LTR_MGT_IP_OFFSET, sizeof(mgt.my_ip));
    ltr_unlock(&mgt);
    return 0;
}

static void ltr_trackobj_radio_cb(void *arg, ltr_track_obj *obj)
{
    ltr_set_trackobj_radio((int)(intptr_t)arg, obj);
}

int ltr_handle_radio_up(int ifindex, uint32_t access)
{
    LTR_DBG(INFO, "handle radio up event: access %d\n", (int)access);
    ltr_lock(&mgt);
    char name[IF_NAMESIZE];
    if (!if_indextoname((unsigned)ifindex, name)) {
        qz_log(0, 3, "invalid ifindex %d!\n", ifindex);
    } else if (access) {
        qz_dcd_set_lta_track_enable(ifindex, (int)mgt.cfg->enabled);
        if (mgt.cfg->enabled) {
            qz_dcd_set_lta_lmatch_enable(ifindex, (int)mgt.cfg->lmatch);
            ltr_track_list_foreach(ltr_trackobj_radio_cb, (void *)(intptr_t)ifindex);
        }
    } else {
        qz_dcd_set_lta_track_enable(ifindex, 0);
    }
    ltr_unlock(&mgt);
    return 0;
}
