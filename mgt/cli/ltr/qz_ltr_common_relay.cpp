// AP-to-AP relay: a non-owner sends its due readings to the station's owner, which
// keeps them as relayed readings until its own cycle reports them.
#define LTR_UNIT "qz_ltr_common"
#include <arpa/inet.h>
#include <string.h>

#include "ltr_alloc.h"
#include "ltr_rssi.h"
#include "qz_nbrcom.h"

static_assert(sizeof(ltr_lta_msg) + sizeof(ltr_rssi_relay) == LTR_RELAY_MSG_LEN);
static_assert(offsetof(ltr_rssi_relay, active) == 12);
static_assert(offsetof(ltr_rssi_relay, chan_freq) == 14);

int ltr_relay_rssi(const uint8_t *sta_mac, const ltr_rssi_data *rssi, uint32_t owner_ip)
{
    LTR_CHECK(sta_mac != LTR_NULL && rssi != LTR_NULL);

    ltr_rssi_relay pl;
    memcpy(pl.sta_mac, sta_mac, 6);
    memcpy(pl.ap_mac, mgt.my_mac, 6); // always this AP, whoever heard the reading
    pl.active = rssi->active;
    pl.rssi = rssi->rssi;
    pl.chan_freq = htons(rssi->chan_freq);

    LTR_DBG(INFO, "relay rssi of %m to owner %i.\n", sta_mac, owner_ip);
    if (mgt.my_ip == 0 || owner_ip == 0) {
        LTR_DBG(INFO, "exchange ltd message with src or dst ip 0!\n");
        return 0;
    }
    uint8_t *msg = (uint8_t *)ltr_calloc(LTR_RELAY_MSG_LEN);
    if (!msg) {
        LTR_DBG(ERROR, "no memory!\n");
        return -1;
    }
    ltr_lta_msg hdr;
    hdr.type = htonl(LTR_LTA_RSSI_RELAY);
    hdr.src_ip = mgt.my_ip;
    hdr.len = htons(sizeof(pl));
    hdr.reserved = 0;
    memcpy(msg, &hdr, sizeof(hdr));
    memcpy(msg + sizeof(hdr), &pl, sizeof(pl));

    int r = qz_hc3u_send(owner_ip, msg, LTR_RELAY_MSG_LEN);
    ltr_free(msg);
    return r;
}

int ltr_lta_msg_recv(void *, int length, void *data)
{
    LTR_CHECK(data != LTR_NULL);
    ltr_lock(&mgt);
    if (!mgt.cfg->enabled) {
        ltr_unlock(&mgt);
        return 0;
    }
    ltr_lta_msg *h = (ltr_lta_msg *)data;
    if (length < (int)sizeof(*h)) {
        LTR_DBG(ERROR, "malformed lta message: length too short.\n");
    } else {
        h->type = ntohl(h->type);
        h->len = ntohs(h->len);
        if ((int)h->len + (int)sizeof(*h) != length) {
            LTR_DBG(ERROR, "malformed lta message: payload size unmatch.\n");
        } else if (h->type != mgt.lta_handler.type || !mgt.lta_handler.handler ||
                   mgt.lta_handler.handler(h) < 0) {
            LTR_DBG(ERROR, "can't handle lta exchanged message: type %d, payload len %d.\n",
                    h->type, h->len);
        }
    }
    ltr_unlock(&mgt);
    return 0;
}

int ltr_relay_rssi_recv(ltr_lta_msg *msg_hdr)
{
    LTR_CHECK(msg_hdr != LTR_NULL);
    if (msg_hdr->len != sizeof(ltr_rssi_relay)) {
        LTR_DBG(ERROR, "rssi relay size (%d) check failed, expect %d.\n", msg_hdr->len,
                (int)sizeof(ltr_rssi_relay));
        return -1;
    }
    // The length check above makes the payload part of the received bytes.
    ltr_rssi_relay *p = (ltr_rssi_relay *)(msg_hdr + 1);
    p->chan_freq = ntohs(p->chan_freq);
    LTR_DBG(INFO, "get relayed rssi of %m from %i (%m).\n", p->sta_mac, msg_hdr->src_ip, p->ap_mac);

    // Relays never create stations: only those heard here collect neighbours' readings.
    ltr_sta *sta = ltr_sta_find(&mgt.sta_tbl, p->sta_mac);
    if (!sta)
        return 0;

    ltr_rssi_data rd;
    memcpy(rd.ap_mac, p->ap_mac, 6);
    rd.chan_freq = p->chan_freq;
    rd.rssi = p->rssi;
    rd.active = p->active;

    // Unlike a local reading, an inactive relayed one is not due by itself.
    ltr_rssi_store(&mgt, sta, &rd, false, false);
    return 0;
}
