// Placeholder until this unit lands: every operation fails.
#include "ltr_engine.h"
int ltr_msg_validate(ltr_mgt *, ltr_srv_msg *, int) { return -1; }
void ltr_msg_dump(const ltr_msg_body *) {}
const char *ltr_opcode_name(uint16_t) { return ""; }
int ltr_tlv_build_mac_list(uint8_t *, const uint8_t *, uint8_t) { return -1; }
int ltr_tlv_build_oui_list(uint8_t *, const uint8_t *, uint8_t) { return -1; }
int ltr_tlv_build_rssi_data(uint8_t *, const ltr_rssi_data *) { return -1; }
int ltr_tlv_build_ack_code(uint8_t *, uint8_t) { return -1; }
