// Placeholder until this unit lands: every operation fails.
#include "ltr_engine.h"
static int fail(ltr_mgt *) { return -1; }
static int fail_v(ltr_mgt *, ltr_srv_msg *, int) { return -1; }
static int fail_d(ltr_mgt *, ltr_srv_msg *) { return -1; }
static int fail_a(ltr_mgt *, int32_t, const void *, int32_t) { return -1; }
const ltr_engine_ops_t ltr_engine_ops = {fail, fail, fail_v, fail_d, fail, fail, fail_a, fail};
int ltr_send_msg(ltr_mgt *, ltr_srv_out *, uint16_t, const uint8_t *) { return -1; }
int ltr_send_ack(ltr_mgt *, const ltr_srv_msg *, uint8_t) { return -1; }
int ltr_omsg_show(qz_cli_cmd *, void *) { return -1; }
