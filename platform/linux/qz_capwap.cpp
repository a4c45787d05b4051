// The daemon's management channel towards the location server: outgoing
// messages (event 165) go to the server channel.
#include "qz_capwap.h"

#include "qz_evt_srv_msg.h"
#include "rt_life.h"
#include "rt_log.h"
#include "srvchan.h"

int qz_capwap_send_event(uint32_t id, int len, void *payload)
{
    if (id != QZ_EVT_SRV_MSG_OUT) {
        rt_log(3, "capwap: event %u cannot be sent to the server\n", id);
        return -1;
    }
    rt_srvchan_start();
    return srvchan_send(payload, len);
}
