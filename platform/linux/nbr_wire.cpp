// The neighbour datagram envelope: header, payload and the truncated HMAC-SHA256 tag.
#include <string.h>

#include <openssl/crypto.h>

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

bool nbr_seal(uint16_t module, const void *payload, size_t len, std::string_view key,
              std::vector<uint8_t> &out)
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
    memcpy(out.data(), &h, sizeof h);
    if (len)
        memcpy(out.data() + sizeof h, payload, len);
    if (!key.empty())
        nbr_tag(key, out.data(), sizeof h + len, out.data() + sizeof h + len);
    return true;
}

nbr_verdict nbr_unseal(const uint8_t *buf, size_t len, std::string_view key, uint16_t *module,
                       size_t *off, size_t *plen)
{
    if (len < sizeof(nbr_hdr))
        return NBR_SHORT;
    nbr_hdr h;
    memcpy(&h, buf, sizeof h);
    if (memcmp(h.magic, k_magic, 4) != 0)
        return NBR_MAGIC;
    if (h.version != NBR_VERSION)
        return NBR_VERSION_BAD;
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
            if (CRYPTO_memcmp(want, buf + sizeof h + body, NBR_TAG_LEN) != 0)
                return NBR_BAD_TAG;
        }
    }
    *module = static_cast<uint16_t>(h.module[0] << 8 | h.module[1]);
    *off = sizeof h;
    *plen = body;
    return NBR_OK;
}
