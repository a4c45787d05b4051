// Placeholder until this unit lands: every operation fails.
#include "ltr_mgt.h"
ltr_mgt mgt;
int ltr_mgt_inited;
int ltr_mgt_init(void) { return -1; }
int ltr_mgt_cleanup(void) { return 0; }
int ltr_mgt_set_suppress(uint16_t) { return -1; }
int ltr_mgt_set_rpt_interval(uint16_t) { return -1; }
int ltr_mgt_set_valid_period(uint16_t) { return -1; }
int ltr_mgt_set_hold_time(uint8_t) { return -1; }
int ltr_mgt_set_rssi_threshold(uint16_t) { return -1; }
#define LTR_UNIT "qz_ltr_common"
// Local readings live about a minute of cycles; relayed ones (and all while this AP
// has no address) live hold_time + 1 cycles.
int ltr_rssi_life(ltr_mgt *mgt, ltr_rssi_entry *rssi)
{
    LTR_CHECK(mgt != LTR_NULL && rssi != LTR_NULL);
    if (mgt->my_ip != 0 && rssi->ni_local != 0) {
        int q = mgt->cfg->rpt_interval ? 60 / mgt->cfg->rpt_interval : 0;
        return q ? q : 1;
    }
    return mgt->cfg->hold_time + 1;
}
