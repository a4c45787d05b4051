// Fuzz target: the server channel's receive stream. The first byte seeds how the rest
// arrives (pieces of 1 to 64 bytes); frames are taken off the front of the buffered
// bytes as they arrive, as the channel does. Whatever the cut, the same frames must come
// out as from the whole stream at once, each inside the bytes received, and a bad length
// must stop the stream at the same place.
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <memory>
#include <vector>

#include "srvchan.h"

namespace {

struct frame {
    uint8_t type;
    std::vector<uint8_t> payload;
    bool operator==(const frame &) const = default;
};

// Takes every whole frame off the front of in; false when the stream went bad.
bool take_all(std::vector<uint8_t> &in, std::vector<frame> &out)
{
    // A block of exactly the buffered bytes: a read past them is caught.
    size_t n = in.size();
    std::unique_ptr<uint8_t[]> b(new uint8_t[n ? n : 1]);
    if (n)
        memcpy(b.get(), in.data(), n);
    size_t used = 0;
    bool good = true;
    for (;;) {
        srv_frame_view f;
        srv_frame_status st = srv_frame_take(std::span<const uint8_t>(b.get() + used, n - used), f);
        if (st == SRV_FRAME_NEED_MORE)
            break;
        if (st != SRV_FRAME_OK) {
            good = false;
            break;
        }
        if (f.used != SRV_FRAME_HEAD + f.payload.size() || f.used > n - used ||
            f.payload.data() != b.get() + used + SRV_FRAME_HEAD || f.length != f.used - 4)
            __builtin_trap();
        out.push_back({f.type, {f.payload.begin(), f.payload.end()}});
        used += f.used;
    }
    in.erase(in.begin(), in.begin() + (std::ptrdiff_t)used);
    return good;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    uint32_t seed = data[0] * 2654435761u + 1;
    const uint8_t *s = data + 1;
    size_t n = size - 1;

    std::vector<uint8_t> whole(s, s + n);
    std::vector<frame> at_once;
    bool good_at_once = take_all(whole, at_once);

    std::vector<uint8_t> in;
    std::vector<frame> pieced;
    bool good = true;
    for (size_t at = 0; at < n && good;) {
        seed = seed * 1103515245u + 12345u;
        size_t piece = 1 + (seed >> 16) % 64;
        piece = piece < n - at ? piece : n - at;
        in.insert(in.end(), s + at, s + at + piece);
        at += piece;
        good = take_all(in, pieced);
    }
    if (good != good_at_once || pieced != at_once || (good && in != whole))
        __builtin_trap();
    return 0;
}
