// Server protocol engine: the wire format of location-server messages, their
// validation, the request handlers, and the one outgoing message buffer.
#pragma once
#include <stddef.h>
#include <stdint.h>

#include "ltr_mgt.h"
#include "qz_cli.h"
#include "qz_evt_srv_msg.h"

#define LTR_EVT_SRV_MSG_OUT QZ_EVT_SRV_MSG_OUT
#define LTR_MSG_TYPE 2

enum ltr_opcode : uint16_t {
    LTR_OP_START = 1,
    LTR_OP_STOP = 2,
    LTR_OP_MODIF = 3,
    LTR_OP_QUERY = 4,
    LTR_OP_RSSI_REPORT = 5,
    LTR_OP_ACK = 6,
};

enum ltr_tlv_type : uint16_t {
    LTR_TLV_REPORT_INTERVAL = 1,
    LTR_TLV_RSSI_THRESHOLD = 2,
    LTR_TLV_RSSI_VALID_PERIOD = 3,
    LTR_TLV_MAC_LIST = 4,
    LTR_TLV_OUI_LIST = 5,
    LTR_TLV_RSSI_DATA = 6,
    LTR_TLV_ACK_CODE = 7,
};

#define LTR_MAC_LIST_ALL 255

enum ltr_ack_code : uint8_t {
    LTR_ACK_OK = 0,
    LTR_ACK_NO_BUFFER = 1,
    LTR_ACK_UNKNOWN_OPCODE = 2,
    LTR_ACK_PARTIAL = 4,
    LTR_ACK_BAD_MSG = 5,
};

// Received message header (event 164). Big-endian on the wire; validation turns
// msg_type, datalen, opcode, len and tlv_num into host order in place.
struct ltr_srv_msg {
    uint16_t msg_type;
    uint8_t msg_id[4]; // opaque, echoed in the reply
    uint8_t unused;
    uint32_t datalen;
    uint16_t opcode;
    uint16_t len; // bytes from opcode to the end of the last TLV
    uint16_t tlv_num;
} __attribute__((packed));
static_assert(sizeof(ltr_srv_msg) == 17);
static_assert(offsetof(ltr_srv_msg, datalen) == 7);
static_assert(offsetof(ltr_srv_msg, opcode) == 11);
static_assert(offsetof(ltr_srv_msg, tlv_num) == 15);

// Sent message header (event 165).
struct ltr_srv_out {
    uint16_t msg_type;
    uint8_t msg_id[4];
    uint32_t datalen;
    uint16_t opcode;
    uint16_t len;
    uint16_t tlv_num;
} __attribute__((packed));
static_assert(sizeof(ltr_srv_out) == 16);
static_assert(offsetof(ltr_srv_out, opcode) == 10);
static_assert(offsetof(ltr_srv_out, tlv_num) == 14);

// The part from opcode on, the same in both directions.
struct ltr_msg_body {
    uint16_t opcode;
    uint16_t len;
    uint16_t tlv_num;
} __attribute__((packed));
static_assert(sizeof(ltr_msg_body) == 6);

struct ltr_tlv {
    uint16_t type;
    uint16_t len; // whole TLV, head included
} __attribute__((packed));
static_assert(sizeof(ltr_tlv) == 4);

#define LTR_TLV_STA_LEN 11  // MAC list of one address
#define LTR_TLV_RSSI_LEN 13 // RSSI data
#define LTR_TLV_ACK_LEN 5
#define LTR_ACK_MSG_LEN 21

// The outgoing message buffer.
struct ltr_omsg {
    uint8_t *buf; // 16-byte header, then cur_size bytes of TLVs
    int32_t max_size;
    int32_t cur_size;
    int32_t space_left;
    int32_t offset;
};
#define LTR_OMSG_MAX 16384
#define LTR_OMSG_STEP 1024

// Engine operations table; mgt.engine points at ltr_engine_ops while registered.
struct ltr_engine_ops_t {
    int (*init)(ltr_mgt *m);                                              // 0 / -1
    int (*cleanup)(ltr_mgt *m);                                           // 0
    int (*validate)(ltr_mgt *m, ltr_srv_msg *in, int len);                // 0 dispatchable / -1
    int (*dispatch)(ltr_mgt *m, ltr_srv_msg *in);                         // handler result
    int (*flush)(ltr_mgt *m);                                             // send result or 0
    int (*reset)(ltr_mgt *m);                                             // 0 / -1
    int (*add_tlvs)(ltr_mgt *m, int32_t n, const void *tlvs, int32_t size); // 0 / -1
    int (*finish)(ltr_mgt *m);                                            // 0
};
extern const ltr_engine_ops_t ltr_engine_ops;

// A walk over TLVs that never reads past the bytes it was given, whatever the heads
// claim. Every TLV walker goes through it: validation, the dump and the handlers.
struct ltr_tlv_cursor {
    const uint8_t *p; // next head
    int avail;        // bytes that may be read from p on
    int remaining;    // TLV bytes still claimed by the message's len
    int count;        // TLVs still claimed by its tlv_num
    bool wire;        // heads in wire order; else in host order (converted by validation)
};
// One TLV under the cursor. A len below 4 overlaps the next head: its value is empty.
struct ltr_tlv_ref {
    uint16_t type;
    uint16_t len;
    const uint8_t *v; // value
    int vlen;         // value bytes that may be read: len - 4, cut at the delivered end
};
inline bool ltr_tlv_more(const ltr_tlv_cursor *c) { return c->remaining > 0 && c->count > 0; }
// Reads the head at the cursor; false when its 4 bytes are not all there.
bool ltr_tlv_head(const ltr_tlv_cursor *c, ltr_tlv_ref *t);
// Moves past t; false, and no move, when t reaches past the bytes there are.
bool ltr_tlv_skip(ltr_tlv_cursor *c, const ltr_tlv_ref *t);
// The next whole TLV of the walk; false once the counts are spent or a TLV does not fit.
bool ltr_tlv_next(ltr_tlv_cursor *c, ltr_tlv_ref *t);

// Validation. len is the number of bytes delivered with the event: nothing beyond it is
// read, whatever the fields claim.
int ltr_msg_validate(ltr_mgt *m, ltr_srv_msg *in, int len);
// The handlers' walk over in: exactly the TLVs validation accepted, within the bytes it
// was given. A message that validation did not accept last is walked as far as its len
// (host order) claims.
ltr_tlv_cursor ltr_msg_tlvs(const ltr_srv_msg *in);
// The handlers are done with in: what validation learned of it is forgotten.
void ltr_msg_done(const ltr_srv_msg *in);
// Packet dump of a message in wire order (one being sent, or as received), from its
// opcode on; size is how many bytes from body on may be read.
void ltr_msg_dump(const ltr_msg_body *body, int size);
const char *ltr_opcode_name(uint16_t opcode);

// TLV builders; each writes one whole TLV in wire order and returns its length.
int ltr_tlv_build_mac_list(uint8_t *tlv, const uint8_t *mlist, uint8_t n);
int ltr_tlv_build_oui_list(uint8_t *tlv, const uint8_t *olist, uint8_t n);
int ltr_tlv_build_rssi_data(uint8_t *tlv, const ltr_rssi_data *rssi_data);
int ltr_tlv_build_ack_code(uint8_t *tlv, uint8_t code);

// Request handlers (lock held). ltr_srv_dispatch is the engine's dispatch slot.
int ltr_srv_dispatch(ltr_mgt *m, ltr_srv_msg *in);
int ltr_srv_start(ltr_mgt *m, ltr_srv_msg *in);
int ltr_srv_stop(ltr_mgt *m, ltr_srv_msg *in);
int ltr_srv_modif(ltr_mgt *m, ltr_srv_msg *in);
int ltr_srv_query(ltr_mgt *m, ltr_srv_msg *in);

// Sending.
int ltr_send_msg(ltr_mgt *m, ltr_srv_out *out, uint16_t opcode, const uint8_t msg_id[4]);
int ltr_send_ack(ltr_mgt *m, const ltr_srv_msg *in, uint8_t code);
int ltr_omsg_show(qz_cli_cmd *cmd, void *epriv);
