// Fuzz target: neighbour datagrams. The envelope is opened as the receive path opens
// it; a good one goes by its module to the owner message parser or to the core's relay
// receiver (a manager on the fake platform), with exactly its payload's bytes. The
// first byte picks the site key: none, or one that the input's datagram is either
// sealed with first (a good tag, so that the payload goes on) or checked against as
// it came (a forged or missing tag).
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <string_view>
#include <vector>

#include "fake_platform.h"
#include "fuzz_core.h"
#include "nbr_endpoint.h"
#include "owner_service.h"

namespace {

constexpr std::string_view site_key = "fuzz site key";

// Builds a datagram around payload: [module u16 big-endian][payload].
bool seal(const uint8_t *in, size_t n, std::vector<uint8_t> &out)
{
    if (n < 2)
        return false;
    uint16_t module = (uint16_t)(in[0] << 8 | in[1]);
    return nbr_seal(module, in + 2, n - 2, site_key, out);
}

struct opened {
    uint16_t module = 0;
    size_t off = 0, plen = 0;
};

bool open_datagram(const uint8_t *buf, size_t len, std::string_view key, opened &o)
{
    nbr_verdict v = nbr_unseal(buf, len, key, &o.module, &o.off, &o.plen);
    if (v != NBR_OK)
        return false;
    if (o.off > len || o.plen > len - o.off)
        __builtin_trap(); // a payload outside the datagram
    return true;
}

void to_owner(const uint8_t *p, size_t n)
{
    owner_msg m;
    if (owner_msg_parse(p, (int)n, m))
        return;
    size_t rec = m.h.type == OWNER_MSG_ANSWER ? sizeof(owner_answer_rec) : 6;
    if (m.macs.size() != m.flags.size() || sizeof m.h + rec * m.macs.size() != n)
        __builtin_trap(); // taken apart into more or less than it holds
}

void to_relay(const uint8_t *p, size_t n)
{
    const qz_hc_reg &reg = fake::hc_last_reg();
    auto copy = fuzz_copy(p, n);
    reg.recv(reg.priv, (int)n, copy.get());
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    if (!fuzz_core_start() || !fake::hc_registered())
        __builtin_trap();
    std::vector<uint8_t> dgram;
    std::string_view key;
    bool sealed_here = false;
    switch (data[0] % 3) {
    case 0: dgram.assign(data + 1, data + size); break;
    case 1:
        key = site_key;
        dgram.assign(data + 1, data + size);
        break;
    default:
        key = site_key;
        if (!seal(data + 1, size - 1, dgram)) {
            fuzz_core_end();
            return 0;
        }
        sealed_here = true;
        break;
    }
    auto buf = fuzz_copy(dgram.data(), dgram.size());
    opened o;
    bool good = open_datagram(buf.get(), dgram.size(), key, o);
    if (sealed_here && !good)
        __builtin_trap(); // our own datagram refused
    if (good) {
        const uint8_t *p = buf.get() + o.off;
        if (o.module == NBR_MODULE_OWNER)
            to_owner(p, o.plen);
        else if (o.module == fake::hc_last_reg().module_id)
            to_relay(p, o.plen);
    }
    fuzz_core_end();
    return 0;
}
