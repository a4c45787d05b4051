// The replay window of one sender: its newest epoch and a bitmap of the counters that
// came within NBR_WINDOW_BITS of the highest one, so late and reordered datagrams pass
// once and copies never.
#include "nbr_endpoint.h"

static uint64_t &nbr_window_word(nbr_window &w, uint64_t c)
{
    return w.seen[(c % NBR_WINDOW_BITS) / 64];
}
static uint64_t nbr_window_bit(uint64_t c) { return uint64_t(1) << (c % 64); }

nbr_freshness nbr_window_check(nbr_window &w, uint64_t epoch, uint64_t counter)
{
    if (epoch == 0 || counter == 0) // never sent: senders start both at 1 or above
        return NBR_REPLAYED;
    if (epoch < w.epoch)
        return NBR_STALE_EPOCH;
    if (epoch > w.epoch) {
        bool restarted = w.epoch != 0;
        w = nbr_window{};
        w.epoch = epoch;
        w.top = counter;
        nbr_window_word(w, counter) |= nbr_window_bit(counter);
        return restarted ? NBR_RESTARTED : NBR_FRESH;
    }
    if (counter > w.top) {
        // Slide: the slots between the old top and the new one now stand for new counters.
        if (counter - w.top >= NBR_WINDOW_BITS) {
            for (uint64_t &word : w.seen)
                word = 0;
        } else {
            for (uint64_t c = w.top + 1; c < counter; c++)
                nbr_window_word(w, c) &= ~nbr_window_bit(c);
        }
        w.top = counter;
        nbr_window_word(w, counter) |= nbr_window_bit(counter);
        return NBR_FRESH;
    }
    if (w.top - counter >= NBR_WINDOW_BITS)
        return NBR_REPLAYED; // too old to tell: refused like a copy
    uint64_t &word = nbr_window_word(w, counter);
    if (word & nbr_window_bit(counter))
        return NBR_REPLAYED;
    word |= nbr_window_bit(counter);
    return NBR_FRESH;
}
