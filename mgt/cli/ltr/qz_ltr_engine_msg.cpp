// Server messages: validation of a received message in place, the packet dump,
// opcode names and the TLV builders.
#include <arpa/inet.h>
#include <string.h>

#include "ltr_bytes.h"
#include "ltr_engine.h"

#define LTR_UNIT "qz_ltr_engine"

namespace {

constexpr int hdr_len = (int)sizeof(ltr_srv_msg);
constexpr int tlv_head = (int)sizeof(ltr_tlv);
constexpr int body_head = (int)sizeof(ltr_msg_body);

uint8_t *put_head(uint8_t *tlv, uint16_t type, uint16_t len)
{
    ltr_put_be16(tlv, type);
    ltr_put_be16(tlv + 2, len);
    return tlv + tlv_head;
}

// Length rule of a known TLV type. A list whose count byte lies beyond the delivered
// bytes is not judged here: its length crosses the end and the caller refuses it for that.
bool tlv_len_ok(const ltr_tlv_ref *t)
{
    int count = -1;
    if ((t->type == LTR_TLV_MAC_LIST || t->type == LTR_TLV_OUI_LIST) && t->len > tlv_head) {
        if (t->vlen < 1)
            return true;
        count = t->v[0];
    }
    switch (t->type) {
    case LTR_TLV_REPORT_INTERVAL:
    case LTR_TLV_RSSI_VALID_PERIOD:
        return t->len == 6;
    case LTR_TLV_RSSI_THRESHOLD:
    case LTR_TLV_ACK_CODE:
        return t->len == 5;
    case LTR_TLV_RSSI_DATA:
        return t->len == LTR_TLV_RSSI_LEN;
    case LTR_TLV_MAC_LIST:
        if (count < 0)
            return false; // shorter than its count byte
        return t->len == (count == LTR_MAC_LIST_ALL ? 5 : 5 + 6 * count);
    case LTR_TLV_OUI_LIST:
        if (count < 0)
            return false;
        return t->len == 5 + 3 * count;
    }
    return true;
}

// Turns the first n heads of a walk into host order, in place. Only for heads that do
// not overlap: each is then still as received when it is read.
void heads_to_host(uint8_t *p, int n)
{
    for (int i = 0; i < n; i++) {
        ltr_tlv *t = (ltr_tlv *)p;
        t->type = ntohs(t->type);
        t->len = ntohs(t->len);
        p += t->len;
    }
}

// The message validation accepted last, for its handlers (the manager lock is held from
// validation to the end of dispatch).
struct accepted_msg {
    const ltr_srv_msg *msg; // null: none
    int size;               // bytes delivered with it
    bool wire_heads;        // its TLV heads overlap, so they were left as received
};
accepted_msg accepted;

// One TLV of the dump. v: its value; vavail: bytes that may be read from v on.
void dump_tlv(uint16_t type, const uint8_t *v, int vavail)
{
    switch (type) {
    case LTR_TLV_REPORT_INTERVAL:
        if (vavail >= 2)
            LTR_DBG(PACKET, "report interval %d", ltr_get_be16(v));
        break;
    case LTR_TLV_RSSI_THRESHOLD:
        if (vavail >= 1)
            LTR_DBG(PACKET, "rssi change update threshold %d", (int8_t)v[0]);
        break;
    case LTR_TLV_RSSI_VALID_PERIOD:
        if (vavail >= 2)
            LTR_DBG(PACKET, "rssi valid period %d", ltr_get_be16(v));
        break;
    case LTR_TLV_MAC_LIST: {
        if (vavail < 1)
            break;
        int n = v[0];
        if (n == LTR_MAC_LIST_ALL) {
            LTR_DBG(PACKET, "number of mac 0x%x", n);
            break;
        }
        LTR_DBG(PACKET, "number of sta mac %d", n);
        for (int i = n - 1; i >= 0; i--)
            if (1 + 6 * (i + 1) <= vavail)
                LTR_DBG(PACKET, "sta mac addr is %m", v + 1 + 6 * i);
        break;
    }
    case LTR_TLV_OUI_LIST: {
        if (vavail < 1)
            break;
        int n = v[0];
        LTR_DBG(PACKET, "number of oui %d", n);
        for (int i = 0; i < n && 1 + 3 * (i + 1) <= vavail; i++) {
            const uint8_t *o = v + 1 + 3 * i;
            LTR_DBG(PACKET, "OUI 0x%2.2x:0x%2.2x:0x%2.2x", o[0], o[1], o[2]);
        }
        break;
    }
    case LTR_TLV_RSSI_DATA:
        if (vavail >= 9)
            LTR_DBG(PACKET, "ap_mac %m, chan_freq %d, power %d", v, ltr_get_be16(v + 6),
                    (int8_t)v[8]);
        break;
    case LTR_TLV_ACK_CODE:
        if (vavail >= 1)
            LTR_DBG(PACKET, "ack code %d", v[0]);
        break;
    }
}

void dump_walk(ltr_tlv_cursor c)
{
    ltr_tlv_ref t;
    while (ltr_tlv_next(&c, &t)) {
        dump_tlv(t.type, t.v, t.vlen);
        // A len of 0 leaves the walk on the same head for the rest of tlv_num (up to
        // 65535 times), and a TLV without value bytes prints nothing.
        if (t.len == 0)
            break;
    }
}

} // namespace

const char *ltr_opcode_name(uint16_t opcode)
{
    static constexpr const char *names[] = {"", "start", "stop", "modif", "query", "rssi report", "ack"};
    static_assert(sizeof(names) / sizeof(names[0]) == LTR_OP_ACK + 1);
    return opcode <= LTR_OP_ACK ? names[opcode] : "";
}

// Validation of a received message, in place. len is the number of bytes delivered,
// and nothing beyond them is read:
// - shorter than the 17-byte header: nothing in it can be trusted, not even the
//   msg_id a reply would echo, so it is dropped with an error line and no reply;
// - msg_type not 2, or datalen 5 or less: an error line, dropped, no reply;
// - a len, TLV head or TLV body that claims bytes beyond the delivered ones: error
//   line(s), then refused like TLVs that do not add up (below);
// - a known TLV type with the wrong length, or TLVs that do not fill exactly len - 6
//   bytes under tlv_num: error lines, the plain ack with code 5, -1;
// - unknown TLV types: an error line each, skipped by their len.
// Every head is judged by its bytes as received. A TLV whose len is below 4 overlaps
// the next head, and converting both in place would garble one of them; so the heads
// walked are turned into host order only when none overlaps, and otherwise stay as
// received, which the handlers learn from ltr_msg_tlvs. The header is always converted;
// TLV values stay as received.
int ltr_msg_validate(ltr_mgt *mgt, ltr_srv_msg *in, int len)
{
    LTR_CHECK(mgt != LTR_NULL && in != LTR_NULL);
    accepted.msg = nullptr;
    if (len < hdr_len) {
        LTR_DBG(ERROR, "short msg: %d bytes, dropped.\n", len);
        return -1;
    }
    in->msg_type = ntohs(in->msg_type);
    in->datalen = ntohl(in->datalen);
    if (in->msg_type != LTR_MSG_TYPE || in->datalen <= 5) {
        LTR_DBG(ERROR, "corrupted msg: msg_type %d, datalen %d.\n", (int)in->msg_type, (int)in->datalen);
        return -1;
    }
    in->opcode = ntohs(in->opcode);
    in->len = ntohs(in->len);
    in->tlv_num = ntohs(in->tlv_num);

    uint8_t *tlvs = (uint8_t *)in + hdr_len;
    ltr_tlv_cursor c{tlvs, len - hdr_len, (int)in->len - body_head, (int)in->tlv_num, true};
    int walked = 0, last_len = 0;
    bool overlap = false;
    if (c.remaining > c.avail) {
        LTR_DBG(ERROR, "msg len %d exceeds the %d bytes delivered.\n", (int)in->len, len);
    } else {
        ltr_tlv_ref t;
        while (ltr_tlv_more(&c)) {
            if (!ltr_tlv_head(&c, &t)) {
                LTR_DBG(ERROR, "tlv at offset %d crosses the end of the msg.\n", hdr_len + (int)(c.p - tlvs));
                break;
            }
            overlap = overlap || (walked > 0 && last_len < tlv_head);
            walked++;
            last_len = t.len;
            if (t.type >= LTR_TLV_REPORT_INTERVAL && t.type <= LTR_TLV_ACK_CODE) {
                if (!tlv_len_ok(&t)) {
                    LTR_DBG(ERROR, "tlv validate failed: type %d, len %d\n", (int)t.type, (int)t.len);
                    break;
                }
            } else {
                LTR_DBG(ERROR, "unknown tlv type %d.\n", (int)t.type);
                if (t.len == 0) {
                    // The walk stays on this head for the rest of tlv_num (up to 65535
                    // turns), each turn the same: only the lines and the counts remain.
                    for (c.count--; c.count > 0; c.count--) {
                        overlap = true;
                        walked++;
                        LTR_DBG(ERROR, "unknown tlv type %d.\n", (int)t.type);
                    }
                    break;
                }
            }
            if (!ltr_tlv_skip(&c, &t)) {
                LTR_DBG(ERROR, "tlv crosses the end of the msg: type %d, len %d.\n", (int)t.type, (int)t.len);
                break;
            }
        }
    }
    if (!overlap)
        heads_to_host(tlvs, walked);
    if (c.remaining != 0 || c.count != 0) {
        LTR_DBG(ERROR, "tlv number validate failed.\n");
        ltr_send_ack(mgt, in, LTR_ACK_BAD_MSG);
        return -1;
    }

    accepted = {in, len, overlap};
    LTR_DBG(INFO, "get an msg from server: opcode: %s, len %d", ltr_opcode_name(in->opcode), (int)in->len);
    if (LTR_DBG_ON(PACKET)) {
        // Accepted TLVs lie inside the delivered bytes and fill len - 6 of them.
        qz_hexdump(&in->opcode, in->len);
        dump_walk(ltr_msg_tlvs(in));
    }
    return 0;
}

ltr_tlv_cursor ltr_msg_tlvs(const ltr_srv_msg *in)
{
    ltr_tlv_cursor c{(const uint8_t *)in + hdr_len, 0, (int)in->len - body_head, (int)in->tlv_num, false};
    if (accepted.msg == in) {
        c.avail = accepted.size - hdr_len;
        c.wire = accepted.wire_heads;
    } else {
        c.avail = c.remaining > 0 ? c.remaining : 0; // never validated: trusted up to its len
    }
    return c;
}

void ltr_msg_done(const ltr_srv_msg *in)
{
    if (accepted.msg == in)
        accepted.msg = nullptr;
}

void ltr_msg_dump(const ltr_msg_body *body, int size)
{
    if (!body || size < body_head)
        return;
    const uint8_t *b = (const uint8_t *)body;
    int len = ltr_get_be16(b + 2), tlv_num = ltr_get_be16(b + 4);
    dump_walk({b + body_head, size - body_head, len - body_head, tlv_num, true});
}

// A count byte, then n addresses of width bytes (MACs or OUIs) back to back.
static int build_addr_list(uint8_t *tlv, uint16_t type, const uint8_t *list, uint8_t n, int width)
{
    LTR_CHECK(tlv != LTR_NULL && list != LTR_NULL);
    int len = 5 + width * n;
    uint8_t *v = put_head(tlv, type, (uint16_t)len);
    v[0] = n;
    memcpy(v + 1, list, (size_t)width * n);
    return len;
}

int ltr_tlv_build_mac_list(uint8_t *tlv, const uint8_t *mlist, uint8_t n)
{
    return build_addr_list(tlv, LTR_TLV_MAC_LIST, mlist, n, 6);
}

int ltr_tlv_build_oui_list(uint8_t *tlv, const uint8_t *olist, uint8_t n)
{
    return build_addr_list(tlv, LTR_TLV_OUI_LIST, olist, n, 3);
}

int ltr_tlv_build_rssi_data(uint8_t *tlv, const ltr_rssi_data *rssi_data)
{
    LTR_CHECK(tlv != LTR_NULL && rssi_data != LTR_NULL);
    uint8_t *v = put_head(tlv, LTR_TLV_RSSI_DATA, LTR_TLV_RSSI_LEN);
    memcpy(v, rssi_data->ap_mac, 6);
    ltr_put_be16(v + 6, rssi_data->chan_freq);
    v[8] = (uint8_t)rssi_data->rssi;
    return LTR_TLV_RSSI_LEN;
}

int ltr_tlv_build_ack_code(uint8_t *tlv, uint8_t code)
{
    LTR_CHECK(tlv != LTR_NULL);
    put_head(tlv, LTR_TLV_ACK_CODE, LTR_TLV_ACK_LEN)[0] = code;
    return LTR_TLV_ACK_LEN;
}
