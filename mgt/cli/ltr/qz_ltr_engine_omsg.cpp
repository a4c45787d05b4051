// The engine operations table, the one outgoing message buffer (reports and start
// replies are assembled in it), sending to the server, the ack reply and its show.
#include <arpa/inet.h>
#include <string.h>

#include "ltr_alloc.h"
#include "ltr_engine.h"
#include "qz_capwap.h"

#define LTR_UNIT "qz_ltr_engine"

namespace {

constexpr int out_hdr = (int)sizeof(ltr_srv_out);

ltr_srv_out *omsg_hdr(ltr_omsg *o) { return (ltr_srv_out *)o->buf; }

int omsg_init(ltr_mgt *mgt)
{
    ltr_omsg *o = ltr_new<ltr_omsg>();
    mgt->omsg = o;
    if (!o) {
        LTR_DBG(ERROR, "no memory.\n");
        return -1;
    }
    o->buf = (uint8_t *)ltr_calloc(out_hdr + LTR_OMSG_STEP);
    if (!o->buf) {
        LTR_DBG(ERROR, "no memory.\n");
        ltr_delete(o);
        mgt->omsg = nullptr;
        return -1;
    }
    o->max_size = LTR_OMSG_MAX;
    o->cur_size = LTR_OMSG_STEP;
    o->space_left = LTR_OMSG_STEP;
    o->offset = 0;
    return 0;
}

int omsg_cleanup(ltr_mgt *mgt)
{
    ltr_omsg *o = mgt->omsg;
    if (!o)
        return 0;
    ltr_free(o->buf);
    ltr_delete(o);
    mgt->omsg = nullptr;
    return 0;
}

int omsg_validate(ltr_mgt *mgt, ltr_srv_msg *in, int len) { return ltr_msg_validate(mgt, in, len); }

int omsg_flush(ltr_mgt *mgt)
{
    if (!mgt->omsg || !mgt->omsg->buf)
        return 0;
    ltr_srv_out *h = omsg_hdr(mgt->omsg);
    if (h->tlv_num == 0)
        return 0;
    static constexpr uint8_t no_id[4] = {};
    return ltr_send_msg(mgt, h, LTR_OP_RSSI_REPORT, no_id);
}

int omsg_reset(ltr_mgt *mgt)
{
    ltr_omsg *o = mgt->omsg;
    if (!o || !o->buf)
        return -1;
    o->space_left = o->cur_size;
    o->offset = 0;
    memset(o->buf, 0, out_hdr);
    omsg_hdr(o)->len = sizeof(ltr_msg_body);
    return 0;
}

int omsg_add_tlvs(ltr_mgt *mgt, int32_t n, const void *tlvs, int32_t size)
{
    LTR_CHECK(mgt != LTR_NULL && tlvs != LTR_NULL);
    ltr_omsg *o = mgt->omsg;
    if (!o || !o->buf) {
        LTR_DBG(ERROR, "omsg buffer is not inited yet.\n");
        return -1;
    }
    if (o->space_left < size) {
        int32_t need = size - o->space_left;
        int32_t room = o->max_size - o->cur_size;
        if (need > room) {
            LTR_DBG(ERROR, "new requested size exceeds limit.\n");
            return -1;
        }
        int32_t grow = (need + LTR_OMSG_STEP - 1) / LTR_OMSG_STEP * LTR_OMSG_STEP;
        if (grow > room)
            grow = room;
        uint8_t *nbuf = (uint8_t *)ltr_realloc(o->buf, (size_t)(out_hdr + o->cur_size + grow));
        if (!nbuf) {
            LTR_DBG(ERROR, "realloc osg buffer failed.\n");
            return -1;
        }
        o->buf = nbuf;
        o->cur_size += grow;
        o->space_left += grow;
    }
    memcpy(o->buf + out_hdr + o->offset, tlvs, (size_t)size);
    o->space_left -= size;
    o->offset += size;
    ltr_srv_out *h = omsg_hdr(o);
    h->tlv_num = (uint16_t)(h->tlv_num + n);
    h->len = (uint16_t)(h->len + size);
    return 0;
}

int omsg_finish(ltr_mgt *) { return 0; }

} // namespace

const ltr_engine_ops_t ltr_engine_ops = {
    omsg_init, omsg_cleanup, omsg_validate, ltr_srv_dispatch, omsg_flush, omsg_reset, omsg_add_tlvs, omsg_finish,
};

int ltr_send_msg(ltr_mgt *mgt, ltr_srv_out *out, uint16_t opcode, const uint8_t msg_id[4])
{
    LTR_CHECK(mgt != LTR_NULL && out != LTR_NULL);
    uint16_t len = out->len, tlv_num = out->tlv_num;
    out->msg_type = htons(LTR_MSG_TYPE);
    memmove(out->msg_id, msg_id, 4);
    out->datalen = htonl(len);
    out->opcode = htons(opcode);
    out->len = htons(len);
    out->tlv_num = htons(tlv_num);
    LTR_DBG(INFO, "send msg to server: opcode: %s, numbers of tlv %d, total len %d", ltr_opcode_name(opcode),
            (int)tlv_num, (int)len);
    if (LTR_DBG_ON(PACKET)) {
        qz_hexdump(&out->opcode, len);
        ltr_msg_dump((const ltr_msg_body *)&out->opcode, len);
    }
    return qz_capwap_send_event(LTR_EVT_SRV_MSG_OUT, len + 10, out);
}

int ltr_send_ack(ltr_mgt *mgt, const ltr_srv_msg *in, uint8_t code)
{
    LTR_CHECK(mgt != LTR_NULL && in != LTR_NULL);
    uint8_t msg[LTR_ACK_MSG_LEN] = {};
    ltr_srv_out *h = (ltr_srv_out *)msg;
    h->len = sizeof(ltr_msg_body) + LTR_TLV_ACK_LEN;
    h->tlv_num = 1;
    ltr_tlv_build_ack_code(msg + out_hdr, code);
    return ltr_send_msg(mgt, h, LTR_OP_ACK, in->msg_id);
}

int ltr_omsg_show(qz_cli_cmd *cmd, void *epriv)
{
    LTR_CHECK(cmd != LTR_NULL && epriv != LTR_NULL);
    const ltr_omsg *o = (const ltr_omsg *)epriv;
    qz_cli_printf(cmd, "%-40s%d\n", "Omsg buffer max size:", o->max_size);
    qz_cli_printf(cmd, "%-40s%d\n", "Omsg buffer current size:", o->cur_size);
    qz_cli_printf(cmd, "%-40s%d\n", "Omsg buffer space left:", o->space_left);
    return qz_cli_printf(cmd, "%-40s%d\n", "Omsg buffer offset:", o->offset);
}
