// The owner service's neighbour messages taken apart, with no I/O: the receive path
// and the fuzz target share it.
#include <string.h>

#include "owner_service.h"

const char *owner_msg_parse(const uint8_t *data, int len, owner_msg &out)
{
    owner_msg_hdr &h = out.h;
    if (len < static_cast<int>(sizeof h))
        return "too short";
    memcpy(&h, data, sizeof h);
    if (h.type < OWNER_MSG_HELLO || h.type > OWNER_MSG_ANSWER)
        return "unknown type";
    size_t count = static_cast<size_t>(h.count[0] << 8 | h.count[1]);
    size_t rec_len = h.type == OWNER_MSG_ANSWER ? sizeof(owner_answer_rec) : 6;
    if (static_cast<size_t>(len) != sizeof h + rec_len * count)
        return "count does not match the length";
    out.macs.assign(count, {});
    out.flags.assign(count, 0);
    for (size_t i = 0; i < count; i++) {
        memcpy(out.macs[i].data(), data + sizeof h + rec_len * i, 6);
        if (h.type == OWNER_MSG_ANSWER)
            out.flags[i] = data[sizeof h + rec_len * i + 6];
    }
    return nullptr;
}
