// Fuzz target: neighbour datagrams. The envelope is opened as the receive path opens
// it; a good one goes by its module to the owner message parser or to the core's relay
// receiver (a manager on the fake platform), with exactly its payload's bytes. The
// first byte picks the site key: none, or one that the input's datagram is either
// sealed with first (a good tag, so that the payload goes on) or checked against as
// it came (a forged or missing tag); or, fourth, the rest is a run of (epoch, counter)
// pairs put to one sender's replay window, which must let each new pair in once and no
// copy ever.
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <set>
#include <string_view>
#include <utility>
#include <vector>

#include "fake_platform.h"
#include "fuzz_core.h"
#include "nbr_endpoint.h"
#include "owner_service.h"

namespace {

constexpr std::string_view site_key = "fuzz site key";
const nbr_origin sealer{0x0200000a, 5, 9};

// Builds a datagram around payload: [module u16 big-endian][payload].
bool seal(const uint8_t *in, size_t n, std::vector<uint8_t> &out)
{
    if (n < 2)
        return false;
    uint16_t module = (uint16_t)(in[0] << 8 | in[1]);
    return nbr_seal(module, in + 2, n - 2, site_key, sealer, out);
}

bool open_datagram(const uint8_t *buf, size_t len, std::string_view key, nbr_opened &o)
{
    nbr_verdict v = nbr_unseal(buf, len, key, &o);
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

// Records of 3 bytes: epoch 1 + (low 2 bits of the first), counter (big-endian u16).
// A model of the window says what each must get.
void check_window(const uint8_t *in, size_t n)
{
    nbr_window w;
    uint64_t epoch = 0, top = 0;
    std::set<std::pair<uint64_t, uint64_t>> seen;
    for (size_t at = 0; at + 3 <= n; at += 3) {
        uint64_t e = 1 + (in[at] & 3), c = uint64_t(in[at + 1] << 8 | in[at + 2]);
        nbr_freshness f = nbr_window_check(w, e, c);
        bool fresh_here = c != 0 && e >= epoch && !seen.count({e, c}) &&
                          (e > epoch || c > top || top - c < NBR_WINDOW_BITS);
        bool let_in = f == NBR_FRESH || f == NBR_RESTARTED;
        if (let_in != fresh_here || (f == NBR_STALE_EPOCH) != (c != 0 && e < epoch))
            __builtin_trap(); // a copy let in, or a new datagram refused
        if (!let_in)
            continue;
        if (e > epoch)
            top = 0;
        epoch = e;
        top = c > top ? c : top;
        seen.insert({e, c});
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    if (data[0] % 4 == 3) {
        check_window(data + 1, size - 1);
        return 0;
    }
    if (!fuzz_core_start() || !fake::hc_registered())
        __builtin_trap();
    std::vector<uint8_t> dgram;
    std::string_view key;
    bool sealed_here = false;
    switch (data[0] % 4) {
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
    nbr_opened o;
    bool good = open_datagram(buf.get(), dgram.size(), key, o);
    if (sealed_here && (!good || !o.tagged || o.from.sender != sealer.sender ||
                        o.from.epoch != sealer.epoch || o.from.counter != sealer.counter))
        __builtin_trap(); // our own datagram refused or misread
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
