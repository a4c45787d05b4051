// The neighbour datagram envelope: header, payload and the truncated HMAC-SHA256 tag.
#include <string.h>

#include "nbr_endpoint.h"
#include "nbr_mac.h"

static constexpr uint8_t k_magic[4] = {'Q', 'Z', 'N', 'M'};

const char *nbr_verdict_name(nbr_verdict v)
{
    switch (v) {
    case NBR_OK: return "ok";
    case NBR_SHORT: return "short";
    case NBR_MAGIC: return "magic";
    case NBR_VERSION_BAD: return "version";
    case NBR_UNTAGGED: return "untagged";
    case NBR_BAD_TAG: return "bad_tag";
    }
    return "unknown";
}

static void nbr_tag(std::string_view key, const uint8_t *data, size_t len, uint8_t out[NBR_TAG_LEN])
{
    uint8_t md[NBR_MAC_LEN];
    if (!nbr_mac(key, data, len, md))
        memset(md, 0, sizeof md); // matches nothing a peer sent, and is refused by it
    memcpy(out, md, NBR_TAG_LEN);
}

// Constant time: how much of a forged tag matches must not show in the reply time.
static bool tag_equal(const uint8_t *a, const uint8_t *b)
{
    volatile uint8_t diff = 0;
    for (size_t i = 0; i < NBR_TAG_LEN; i++)
        diff = static_cast<uint8_t>(diff | (a[i] ^ b[i]));
    return diff == 0;
}

static void put_be64(uint8_t *b, uint64_t v)
{
    for (int i = 0; i < 8; i++)
        b[i] = static_cast<uint8_t>(v >> (56 - 8 * i));
}
static uint64_t get_be64(const uint8_t *b)
{
    uint64_t v = 0;
    for (int i = 0; i < 8; i++)
        v = v << 8 | b[i];
    return v;
}

bool nbr_seal(uint16_t module, const void *payload, size_t len, std::string_view key,
              const nbr_origin &from, std::vector<uint8_t> &out)
{
    size_t total = sizeof(nbr_hdr) + len + (key.empty() ? 0 : NBR_TAG_LEN);
    if (total > NBR_MAX_DATAGRAM)
        return false;
    out.resize(total);
    nbr_hdr h;
    memcpy(h.magic, k_magic, 4);
    h.version = NBR_VERSION;
    h.flags = key.empty() ? 0 : NBR_FLAG_TAGGED;
    h.module[0] = static_cast<uint8_t>(module >> 8);
    h.module[1] = static_cast<uint8_t>(module);
    memcpy(h.sender, &from.sender, 4);
    put_be64(h.epoch, from.epoch);
    put_be64(h.counter, from.counter);
    memcpy(out.data(), &h, sizeof h);
    if (len)
        memcpy(out.data() + sizeof h, payload, len);
    if (!key.empty())
        nbr_tag(key, out.data(), sizeof h + len, out.data() + sizeof h + len);
    return true;
}

nbr_verdict nbr_unseal(const uint8_t *buf, size_t len, std::string_view key, nbr_opened *out)
{
    // The magic and version come first: an old sender's shorter header reads as "version".
    if (len < 5)
        return NBR_SHORT;
    if (memcmp(buf, k_magic, 4) != 0)
        return NBR_MAGIC;
    if (buf[4] != NBR_VERSION)
        return NBR_VERSION_BAD;
    if (len < sizeof(nbr_hdr))
        return NBR_SHORT;
    nbr_hdr h;
    memcpy(&h, buf, sizeof h);
    bool tagged = h.flags & NBR_FLAG_TAGGED;
    if (!key.empty() && !tagged)
        return NBR_UNTAGGED;
    size_t body = len - sizeof h;
    if (tagged) {
        if (body < NBR_TAG_LEN)
            return NBR_SHORT;
        body -= NBR_TAG_LEN;
        if (!key.empty()) {
            uint8_t want[NBR_TAG_LEN];
            nbr_tag(key, buf, sizeof h + body, want);
            if (!tag_equal(want, buf + sizeof h + body))
                return NBR_BAD_TAG;
        }
    }
    out->module = static_cast<uint16_t>(h.module[0] << 8 | h.module[1]);
    out->off = sizeof h;
    out->plen = body;
    out->tagged = tagged && !key.empty();
    memcpy(&out->from.sender, h.sender, 4);
    out->from.epoch = get_be64(h.epoch);
    out->from.counter = get_be64(h.counter);
    return NBR_OK;
}
