// The daemon's management channel towards the location server: outgoing
// messages (event 165) go to the server channel.
#include "qz_capwap.h"

#include "rt.h"
#include "srvchan.h"

namespace {
constexpr uint32_t QZ_EVT_SRV_MSG_OUT = 165;
}

int qz_capwap_send_event(uint32_t id, int len, void *payload)
{
    if (id != QZ_EVT_SRV_MSG_OUT) {
        rt_log(3, "capwap: event %u cannot be sent to the server\n", id);
        return -1;
    }
    rt_srvchan_start();
    return srvchan_send(payload, len);
}
