// The server's requests: dispatch by opcode and the start, stop, modify and query
// handlers with their replies. Messages arrive validated and are walked as validation
// walked them (ltr_msg_tlvs); the lock is held.
#include <string.h>

#include "ltr_alloc.h"
#include "ltr_bytes.h"
#include "ltr_engine.h"
#include "ltr_rssi.h"
#include "ltr_track.h"

#define LTR_UNIT "qz_ltr_engine"

namespace {

// A list TLV's count byte of 255 means "all", so one reply TLV names at most 254
// addresses; an OUI list has no such value.
constexpr int mac_per_tlv = 254;
constexpr int oui_per_tlv = 255;

void unhandled(const ltr_tlv_ref *t)
{
    LTR_DBG(ERROR, "unhandled tlv type %d, len %d.\n", (int)t->type, (int)t->len);
}

// The reporting parameters shared by start and modify; false for any other type.
bool set_param(ltr_mgt *mgt, const ltr_tlv_ref *t)
{
    const uint8_t *v = t->v;
    switch (t->type) {
    case LTR_TLV_REPORT_INTERVAL:
        if (t->vlen < 2)
            return false;
        ltr_set_rpt_interval(mgt, ltr_get_be16(v));
        return true;
    case LTR_TLV_RSSI_THRESHOLD:
        if (t->vlen < 1)
            return false;
        mgt->cfg->rssi_threshold = v[0];
        return true;
    case LTR_TLV_RSSI_VALID_PERIOD:
        if (t->vlen < 2)
            return false;
        mgt->cfg->valid_period = ltr_get_be16(v);
        return true;
    }
    return false;
}

// A MAC list of count 255: every station.
bool list_all(const ltr_tlv_ref *t) { return t->vlen >= 1 && t->v[0] == LTR_MAC_LIST_ALL; }

// Entries of a list TLV: its count byte, cut to the entries its bytes hold.
int list_count(const ltr_tlv_ref *t, int entry)
{
    if (t->vlen < 1)
        return 0;
    int fit = (t->vlen - 1) / entry;
    return t->v[0] < fit ? t->v[0] : fit;
}

void oui_key(uint8_t key[6], const uint8_t *oui)
{
    memcpy(key, oui, 3);
    memset(key + 3, 0, 3);
}

// Entries a start refused, across all list TLVs of the message, in message order.
struct refused {
    int alen; // bytes per entry: 6 (MAC) or 3 (OUI)
    uint8_t *addr = nullptr;
    int cnt = 0;
    int cap = 0;
    int lost = 0; // refusals that could not be recorded for lack of memory
};

void refused_add(refused *r, const uint8_t *a)
{
    if (r->cnt == r->cap) {
        int ncap = r->cap ? 2 * r->cap : 16;
        uint8_t *n = (uint8_t *)ltr_realloc(r->addr, (size_t)ncap * (size_t)r->alen);
        if (!n) {
            if (r->lost++ == 0)
                LTR_DBG(ERROR, "no memory.\n");
            return;
        }
        r->addr = n;
        r->cap = ncap;
    }
    memcpy(r->addr + (size_t)r->cnt * (size_t)r->alen, a, (size_t)r->alen);
    r->cnt++;
}

// Appends the refused entries as list TLVs of at most per entries each. A start that
// refuses more than 254 MACs (or 255 OUIs), possible only with several list TLVs,
// gets several consecutive MAC-list TLVs (then OUI-list TLVs), in message order, and
// tlv_num above 3: a cut list would pass the rest off as accepted. A TLV that cannot
// be allocated, or no longer fits in the outgoing buffer, is left out.
void add_refused(ltr_mgt *mgt, const refused *r, int per, int (*build)(uint8_t *, const uint8_t *, uint8_t))
{
    for (int i = 0; i < r->cnt; i += per) {
        int k = r->cnt - i < per ? r->cnt - i : per;
        int size = 5 + r->alen * k;
        uint8_t *tlv = (uint8_t *)ltr_calloc((size_t)size);
        if (!tlv) {
            LTR_DBG(ERROR, "no memory.\n");
            continue;
        }
        build(tlv, r->addr + (size_t)i * (size_t)r->alen, (uint8_t)k);
        mgt->engine->add_tlvs(mgt, 1, tlv, size);
        ltr_free(tlv);
    }
}

ltr_srv_out *omsg_out(ltr_mgt *mgt) { return (ltr_srv_out *)mgt->omsg->buf; }

struct srv_handler {
    uint16_t opcode; // documents the row: rows are looked up by opcode - 1
    int (*fn)(ltr_mgt *mgt, ltr_srv_msg *in);
};

constexpr srv_handler ltr_srv_handlers[] = {
    {LTR_OP_START, ltr_srv_start},
    {LTR_OP_STOP, ltr_srv_stop},
    {LTR_OP_MODIF, ltr_srv_modif},
    {LTR_OP_QUERY, ltr_srv_query},
};
constexpr int handler_cnt = (int)(sizeof(ltr_srv_handlers) / sizeof(ltr_srv_handlers[0]));

constexpr bool rows_in_opcode_order()
{
    for (int i = 0; i < handler_cnt; i++)
        if (ltr_srv_handlers[i].opcode != i + 1)
            return false;
    return true;
}
static_assert(rows_in_opcode_order());

} // namespace

int ltr_srv_dispatch(ltr_mgt *mgt, ltr_srv_msg *in)
{
    LTR_CHECK(mgt != LTR_NULL && in != LTR_NULL);
    uint16_t op = in->opcode;
    const char *name = ltr_opcode_name(op);
    if (op < 1 || op > handler_cnt) {
        LTR_DBG(ERROR, "unknown opcode: %s.\n", name);
        ltr_msg_done(in);
        return ltr_send_ack(mgt, in, LTR_ACK_UNKNOWN_OPCODE);
    }
    int r = ltr_srv_handlers[op - 1].fn(mgt, in);
    ltr_msg_done(in);
    if (r < 0)
        LTR_DBG(ERROR, "the msg (opcode: %s) can't be handled.\n", name);
    else if (r == 0)
        LTR_DBG(INFO, "server msg (opcode: %s, len %d) handled.\n", name, (int)in->len);
    return r;
}

int ltr_srv_start(ltr_mgt *mgt, ltr_srv_msg *in)
{
    LTR_CHECK(mgt != LTR_NULL && in != LTR_NULL);
    const ltr_engine_ops_t *e = mgt->engine;
    if (e->reset(mgt) < 0)
        return -1;

    refused macs{.alen = 6}, ouis{.alen = 3};
    ltr_tlv_cursor c = ltr_msg_tlvs(in);
    for (ltr_tlv_ref t; ltr_tlv_next(&c, &t);) {
        if (set_param(mgt, &t))
            continue;
        const uint8_t *v = t.v;
        if (t.type == LTR_TLV_MAC_LIST && list_all(&t)) {
            if (ltr_set_track_all(1) < 0)
                LTR_DBG(ERROR, "enable track all failed.\n");
        } else if (t.type == LTR_TLV_MAC_LIST) {
            for (int i = 0, n = list_count(&t, 6); i < n; i++)
                if (ltr_apply_trackobj(v + 1 + 6 * i, LTR_TRACK_MAC, 1) < 0)
                    refused_add(&macs, v + 1 + 6 * i);
        } else if (t.type == LTR_TLV_OUI_LIST) {
            for (int i = 0, n = list_count(&t, 3); i < n; i++) {
                uint8_t key[6];
                oui_key(key, v + 1 + 3 * i);
                if (ltr_apply_trackobj(key, LTR_TRACK_OUI, 1) < 0)
                    refused_add(&ouis, v + 1 + 3 * i);
            }
        } else {
            unhandled(&t);
        }
    }

    bool partial = macs.cnt || ouis.cnt || macs.lost || ouis.lost;
    uint8_t ack[LTR_TLV_ACK_LEN];
    ltr_tlv_build_ack_code(ack, partial ? LTR_ACK_PARTIAL : LTR_ACK_OK);
    e->add_tlvs(mgt, 1, ack, sizeof(ack));
    add_refused(mgt, &macs, mac_per_tlv, ltr_tlv_build_mac_list);
    add_refused(mgt, &ouis, oui_per_tlv, ltr_tlv_build_oui_list);
    ltr_free(macs.addr);
    ltr_free(ouis.addr);
    e->finish(mgt);
    return ltr_send_msg(mgt, omsg_out(mgt), LTR_OP_ACK, in->msg_id);
}

int ltr_srv_stop(ltr_mgt *mgt, ltr_srv_msg *in)
{
    LTR_CHECK(mgt != LTR_NULL && in != LTR_NULL);
    ltr_tlv_cursor c = ltr_msg_tlvs(in);
    for (ltr_tlv_ref t; ltr_tlv_next(&c, &t);) {
        const uint8_t *v = t.v;
        if (t.type == LTR_TLV_MAC_LIST && list_all(&t)) {
            ltr_set_track_all(0);
        } else if (t.type == LTR_TLV_MAC_LIST) {
            for (int i = 0, n = list_count(&t, 6); i < n; i++) {
                const uint8_t *mac = v + 1 + 6 * i;
                if (ltr_apply_trackobj(mac, LTR_TRACK_MAC, 0) < 0)
                    LTR_DBG(ERROR, "stop track mac %m failed.\n", mac);
                ltr_sta_del_bymac(&mgt->sta_tbl, mac);
            }
        } else if (t.type == LTR_TLV_OUI_LIST) {
            for (int i = 0, n = list_count(&t, 3); i < n; i++) {
                uint8_t key[6];
                oui_key(key, v + 1 + 3 * i);
                if (ltr_apply_trackobj(key, LTR_TRACK_OUI, 0) < 0)
                    LTR_DBG(ERROR, "stop track oui %m failed.\n", key);
                ltr_purge_unmatched(mgt);
            }
        } else {
            unhandled(&t);
        }
    }
    ltr_purge_unmatched(mgt);
    return ltr_send_ack(mgt, in, LTR_ACK_OK);
}

int ltr_srv_modif(ltr_mgt *mgt, ltr_srv_msg *in)
{
    LTR_CHECK(mgt != LTR_NULL && in != LTR_NULL);
    ltr_tlv_cursor c = ltr_msg_tlvs(in);
    for (ltr_tlv_ref t; ltr_tlv_next(&c, &t);)
        if (!set_param(mgt, &t))
            unhandled(&t);
    return ltr_send_ack(mgt, in, LTR_ACK_OK);
}

int ltr_srv_query(ltr_mgt *mgt, ltr_srv_msg *in)
{
    LTR_CHECK(mgt != LTR_NULL && in != LTR_NULL);
    const ltr_engine_ops_t *e = mgt->engine;
    if (e->reset(mgt) < 0)
        return ltr_send_ack(mgt, in, LTR_ACK_NO_BUFFER);
    ltr_tlv_cursor c = ltr_msg_tlvs(in);
    for (ltr_tlv_ref t; ltr_tlv_next(&c, &t);) {
        if (t.type != LTR_TLV_MAC_LIST)
            unhandled(&t);
        else if (list_all(&t))
            ltr_report_all(mgt);
        else
            ltr_report_stations(mgt, t.v + 1, (uint8_t)list_count(&t, 6));
    }
    e->finish(mgt);
    return ltr_send_msg(mgt, omsg_out(mgt), LTR_OP_RSSI_REPORT, in->msg_id);
}
