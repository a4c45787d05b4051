// The bounded TLV walk shared by validation, the packet dump and the request handlers.
#include <arpa/inet.h>
#include <string.h>

#include "ltr_engine.h"

namespace {

constexpr int tlv_head = (int)sizeof(ltr_tlv);

uint16_t head_field(const uint8_t *p, bool wire)
{
    uint16_t v;
    memcpy(&v, p, sizeof(v));
    return wire ? ntohs(v) : v;
}

} // namespace

bool ltr_tlv_head(const ltr_tlv_cursor *c, ltr_tlv_ref *t)
{
    if (c->avail < tlv_head)
        return false;
    t->type = head_field(c->p, c->wire);
    t->len = head_field(c->p + 2, c->wire);
    t->v = c->p + tlv_head;
    int end = t->len < c->avail ? t->len : c->avail;
    t->vlen = end > tlv_head ? end - tlv_head : 0;
    return true;
}

bool ltr_tlv_skip(ltr_tlv_cursor *c, const ltr_tlv_ref *t)
{
    if (t->len > c->avail)
        return false;
    c->p += t->len;
    c->avail -= t->len;
    c->remaining -= t->len;
    c->count--;
    return true;
}

bool ltr_tlv_next(ltr_tlv_cursor *c, ltr_tlv_ref *t)
{
    return ltr_tlv_more(c) && ltr_tlv_head(c, t) && ltr_tlv_skip(c, t);
}
