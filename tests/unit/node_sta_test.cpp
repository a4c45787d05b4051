// Station table: link integrity against a random model, limits, allocation failures.
#include <stdlib.h>

#include <random>

#include "ltr_alloc.h"
#include "ltr_test.h"

namespace {

using mac_t = std::array<uint8_t, 6>;

mac_t mac_of(unsigned n) // distinct MACs; n's low byte picks the bucket
{
    return {0x02, 0x00, (uint8_t)(n >> 16), (uint8_t)(n >> 8), 0x00, (uint8_t)n};
}

ltr_rssi_data reading(uint8_t ap)
{
    ltr_rssi_data d{};
    d.ap_mac[0] = 0x0a;
    d.ap_mac[5] = ap;
    return d;
}

// Every link agrees with `expect`, the live stations in insertion order: list links,
// tail link, bucket membership and back links, counter, and find.
void expect_consistent(ltr_sta_tbl *t, const std::vector<mac_t> &expect)
{
    std::vector<mac_t> seen;
    ltr_sta **pp = &t->sta_list.first;
    for (ltr_sta *s = t->sta_list.first; s; pp = &s->list.next, s = s->list.next) {
        ASSERT_EQ(s->list.pprev, pp);
        seen.push_back(std::to_array(s->macaddr));
    }
    ASSERT_EQ(t->sta_list.last, pp) << "tail link";
    ASSERT_EQ(seen, expect);
    ASSERT_EQ(t->sta_cnt, (int32_t)expect.size());
    size_t chained = 0;
    for (unsigned b = 0; b < LTR_STA_HASH_SIZE; b++) {
        ltr_sta **hp = &t->hash[b];
        for (ltr_sta *s = t->hash[b]; s; hp = &s->hlink.next, s = s->hlink.next, chained++) {
            ASSERT_EQ(s->hlink.pprev, hp);
            ASSERT_EQ(s->macaddr[5] & 0x1fu, b);
        }
    }
    ASSERT_EQ(chained, expect.size());
    for (auto &m : expect)
        ASSERT_NE(ltr_sta_find(t, m.data()), nullptr);
}

// Reporter bytes of a station's readings, front to back, back links checked.
std::vector<uint8_t> readings_of(ltr_sta *s)
{
    std::vector<uint8_t> out;
    ltr_rssi_entry **pp = &s->rssi_list;
    for (ltr_rssi_entry *e = s->rssi_list; e; pp = &e->link.next, e = e->link.next) {
        EXPECT_EQ(e->link.pprev, pp);
        out.push_back(e->rssi_data.ap_mac[5]);
    }
    EXPECT_EQ(s->rssi_cnt, (int32_t)out.size());
    return out;
}

class NodeSta : public LtrTest {
  protected:
    ltr_sta_tbl *t = &mgt.sta_tbl;
    void SetUp() override
    {
        LtrTest::SetUp();
        ltr_sta_tbl_init(t, LTR_STA_MAX);
    }
    ltr_sta *add(unsigned n) { return ltr_sta_add(t, mac_of(n).data()); }
    void del(unsigned n) { ltr_sta_del_bymac(t, mac_of(n).data()); }
    ltr_sta *sta_of(unsigned n) { return ltr_sta_find(t, mac_of(n).data()); }
    // Random tests: LTR_SEED replays a failed run.
    const char *env = getenv("LTR_SEED");
    unsigned seed = env ? (unsigned)strtoul(env, nullptr, 0) : std::random_device{}();
    std::mt19937 rng{seed};
    ::testing::ScopedTrace trace{__FILE__, __LINE__, "seed " + std::to_string(seed)};
};

TEST_F(NodeSta, RandomOrdersAgainstAModel)
{
    std::vector<mac_t> model;
    for (int step = 0; step < 4000; step++) {
        unsigned n = rng() % 96; // few MACs, so deletes and finds often hit
        bool present = std::find(model.begin(), model.end(), mac_of(n)) != model.end();
        unsigned what = rng() % 8;
        if (what < 4 && !present) {
            ASSERT_NE(add(n), nullptr);
            model.push_back(mac_of(n));
        } else if (what >= 4 && what < 7) {
            del(n);
            std::erase(model, mac_of(n));
        } else if (what == 7 && rng() % 20 == 0) {
            ltr_sta_tbl_flush(t);
            model.clear();
        }
        if (step % 50 == 0)
            expect_consistent(t, model);
    }
    expect_consistent(t, model);
}

// The index against a naive walk of the list: the first reading from the front under
// the reporter's MAC, for every (station, reporter) pair, after every step of a random
// mix of adds (duplicate reporters included), deletes, flushes, station deletes and
// changes of this AP's MAC. Few stations and reporters, so the index grows and shrinks
// through every size and the duplicates' shadowing is exercised.
TEST_F(NodeSta, ReadingIndexAgainstAWalk)
{
    const unsigned n_sta = 12, n_ap = 10;
    auto check = [&] {
        size_t total = 0, distinct = 0;
        for (unsigned n = 0; n < n_sta; n++) {
            ltr_sta *s = ltr_sta_find(t, mac_of(n).data());
            if (!s)
                continue;
            total += readings_of(s).size();
            for (unsigned a = 0; a < n_ap; a++) {
                ltr_rssi_data d = reading((uint8_t)a);
                ltr_rssi_entry *walk = s->rssi_list;
                while (walk && memcmp(walk->rssi_data.ap_mac, d.ap_mac, 6))
                    walk = walk->link.next;
                ASSERT_EQ(ltr_rssi_find(s, d.ap_mac), walk) << "station " << n << " reporter " << a;
                distinct += walk != nullptr;
            }
        }
        const ltr_rssi_idx &x = t->rssi_idx;
        ASSERT_EQ(x.count, distinct);
        ASSERT_EQ(x.shadowed, total - distinct);
        ASSERT_EQ(x.slot == nullptr, distinct == 0) << "memory of an empty index";
        ASSERT_TRUE(x.count == 0 || x.count < x.size);
        ASSERT_EQ(t->rssi_pool.count, total);
        ASSERT_EQ(t->rssi_pool.chunk == nullptr, total == 0) << "memory of an empty pool";
    };
    for (int step = 0; step < 6000; step++) {
        unsigned n = rng() % n_sta, what = rng() % 16;
        ltr_sta *s = ltr_sta_find(t, mac_of(n).data());
        if (!s) {
            ASSERT_NE(s = add(n), nullptr);
        }
        // Growth and shrinkage in phases: a long run of adds, then a long run of deletes.
        bool filling = (step / 700) % 2 == 0;
        if (what < (filling ? 11u : 3u)) {
            ltr_rssi_data d = reading((uint8_t)(rng() % n_ap));
            if (s->rssi_cnt < s->max_rssi_cnt) {
                ASSERT_NE(ltr_rssi_add(s, &d), nullptr);
            }
        } else if (what < 14 && s->rssi_list) {
            ltr_rssi_entry *e = s->rssi_list;
            for (unsigned k = rng() % (unsigned)s->rssi_cnt; k; k--)
                e = e->link.next;
            ltr_rssi_del(e);
        } else if (what == 14) {
            if (rng() % 2)
                ltr_rssi_flush(s);
            else
                del(n);
        } else {
            mgt.my_mac[0] = 0x0a, mgt.my_mac[5] = (uint8_t)(rng() % n_ap); // an own reading now
        }
        check();
        if (HasFatalFailure())
            return;
    }
}

// Full load and back: the load stays between the bounds while the index grows and
// shrinks, and its memory goes when the last reading does.
TEST_F(NodeSta, ReadingIndexSizeFollowsTheCount)
{
    for (unsigned n = 0; n < 512; n++) {
        ltr_sta *s = add(n);
        for (unsigned a = 0; a < LTR_RSSI_MAX; a++) {
            ltr_rssi_data d = reading((uint8_t)a);
            ASSERT_NE(ltr_rssi_add(s, &d), nullptr);
            ASSERT_LE(t->rssi_idx.count * 10, t->rssi_idx.size * 8);
        }
    }
    EXPECT_EQ(t->rssi_idx.count, 512u * LTR_RSSI_MAX);
    ltr_rssi_data last = reading(LTR_RSSI_MAX - 1);
    EXPECT_EQ(ltr_rssi_find(sta_of(511), last.ap_mac), sta_of(511)->rssi_list);
    for (unsigned n = 0; n < 512; n++) {
        ltr_sta *s = sta_of(n);
        while (s->rssi_list) {
            ltr_rssi_del(s->rssi_list->link.next ? s->rssi_list->link.next : s->rssi_list);
            ASSERT_TRUE(t->rssi_idx.count == 0 || t->rssi_idx.count * 10 >= t->rssi_idx.size * 2);
        }
    }
    EXPECT_EQ(t->rssi_idx.slot, nullptr);
    EXPECT_EQ(t->rssi_idx.size, 0u);
    EXPECT_EQ(t->rssi_pool.chunk, nullptr);
}

// A chunk goes with its last reading, and its number is taken again; a freed reading is
// poisoned under ASan (a use after delete is reported, as with a heap block).
TEST_F(NodeSta, ReadingPoolChunks)
{
    ltr_sta *s = add(1), *s2 = add(2);
    std::vector<ltr_rssi_entry *> e;
    for (unsigned a = 0; a < 2 * LTR_RSSI_CHUNK; a++) {
        ltr_rssi_data d = reading((uint8_t)a);
        e.push_back(ltr_rssi_add(a < LTR_RSSI_CHUNK ? s : s2, &d));
        ASSERT_NE(e.back(), nullptr);
        ASSERT_EQ(e.back()->life_cnt, 0) << "zero-filled";
        e.back()->life_cnt = 7;
    }
    const ltr_rssi_pool &p = t->rssi_pool;
    for (unsigned i = 0; i < LTR_RSSI_CHUNK; i++)
        ltr_rssi_del(e[i]); // the whole first chunk
    EXPECT_EQ(p.chunk[0], nullptr);
    EXPECT_EQ(p.chunk[1]->free, 0u);
    ltr_rssi_data d = reading(200);
    ltr_rssi_entry *n = ltr_rssi_add(s, &d);
    EXPECT_EQ(n->no, 0u) << "a new chunk under the free number";
    EXPECT_EQ(n->life_cnt, 0);
    ltr_rssi_del(e[LTR_RSSI_CHUNK + 3]);
    EXPECT_EQ(p.chunk[1]->free, 1ull << 3);
    d = reading(201);
    EXPECT_EQ(ltr_rssi_add(s2, &d), e[LTR_RSSI_CHUNK + 3]) << "the slot just freed";
#if defined(__SANITIZE_ADDRESS__)
    ltr_rssi_entry *gone = e[LTR_RSSI_CHUNK + 5];
    ltr_rssi_del(gone);
    EXPECT_DEATH((void)*(volatile int32_t *)&gone->life_cnt, "use-after-poison");
#endif
}

// An index that cannot grow still takes readings while a slot is free (one always stays
// free, or a probe would not end); the one that would fill it is refused as out of memory.
TEST_F(NodeSta, ReadingIndexGrowthFailure)
{
    ltr_sta *s = add(1);
    std::vector<uint8_t> held;
    for (uint8_t a = 0;; a++) {
        ltr_rssi_data d = reading(a);
        ltr_alloc_fail_at = a < 8 ? 0 : 2; // the reading is allocated, the growth fails
        ltr_rssi_entry *e = ltr_rssi_add(s, &d);
        ltr_alloc_fail_at = 0;
        if (!e)
            break;
        held.insert(held.begin(), a);
    }
    EXPECT_EQ(t->rssi_idx.count + 1, t->rssi_idx.size);
    EXPECT_GT(held.size(), 8u) << "some taken without growth";
    EXPECT_EQ(readings_of(s), held);
    EXPECT_EQ(fake::log_text(), "no free memory!\n");
    for (uint8_t a : held) {
        ltr_rssi_data d = reading(a);
        EXPECT_EQ(ltr_rssi_find(s, d.ap_mac)->rssi_data.ap_mac[5], a);
    }
}

TEST_F(NodeSta, TableLimitAndFlush)
{
    ltr_sta_tbl_flush(t); // empty: nothing happens
    for (unsigned n = 0; n < 512; n++)
        ASSERT_NE(add(n), nullptr);
    EXPECT_EQ(add(512), nullptr);
    EXPECT_EQ(t->sta_cnt, 512);
    ASSERT_EQ(fake::logs().size(), 1u);
    EXPECT_EQ(fake::logs()[0].text, "the location node list is full (number: 512)\n");
    EXPECT_EQ(fake::logs()[0].severity, 4);
    del(7);
    EXPECT_NE(add(512), nullptr);
    ltr_sta_tbl_flush(t);
    expect_consistent(t, {});
    EXPECT_EQ(t->max_sta, 512);
}

TEST_F(NodeSta, AllocationFailureLinksNothing)
{
    ltr_sta *s = add(1);
    ltr_alloc_fail_at = 1;
    EXPECT_EQ(add(2), nullptr);
    expect_consistent(t, {mac_of(1)});
    ltr_rssi_data d = reading(1);
    ltr_alloc_fail_at = 1;
    EXPECT_EQ(ltr_rssi_add(s, &d), nullptr);
    EXPECT_EQ(readings_of(s), std::vector<uint8_t>{});
    // The reading itself fails, also where the pool and the index have room.
    ASSERT_NE(ltr_rssi_add(s, &d), nullptr);
    ltr_rssi_data d2 = reading(2);
    ltr_alloc_fail_at = 1;
    EXPECT_EQ(ltr_rssi_add(s, &d2), nullptr);
    EXPECT_EQ(ltr_alloc_fail_at, 0);
    EXPECT_EQ(readings_of(s), std::vector<uint8_t>{1});
    EXPECT_EQ(fake::log_text(), "no free memory!\nno free memory!\nno free memory!\n");
}

} // namespace
