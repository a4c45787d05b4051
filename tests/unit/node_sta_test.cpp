// Station table: link integrity under add/find/delete/flush orders, limits, and
// allocation failures.
#include <stdlib.h>

#include <random>
#include <vector>

#include "ltr_alloc.h"
#include "ltr_test.h"

namespace {

using mac_t = std::array<uint8_t, 6>;

mac_t mac_of(unsigned n) // distinct MACs; n's low byte picks the bucket
{
    return {0x02, 0x00, (uint8_t)(n >> 16), (uint8_t)(n >> 8), 0x00, (uint8_t)n};
}

ltr_rssi_data reading(uint8_t ap, int8_t rssi = -50)
{
    ltr_rssi_data d{};
    d.ap_mac[0] = 0x0a;
    d.ap_mac[5] = ap;
    d.chan_freq = 5180;
    d.rssi = rssi;
    d.active = 1;
    return d;
}

// Every link of the table agrees with `expect` (the insertion order of the live
// stations): forward and back links of the list, the tail link, bucket membership
// and back links, and the counter.
void expect_consistent(ltr_sta_tbl *t, const std::vector<mac_t> &expect)
{
    std::vector<mac_t> seen;
    ltr_sta **pp = &t->sta_list.first;
    for (ltr_sta *s = t->sta_list.first; s; s = s->list.next) {
        ASSERT_EQ(s->list.pprev, pp);
        ASSERT_EQ(s->sta_tbl, t);
        pp = &s->list.next;
        seen.push_back(std::to_array(s->macaddr));
    }
    ASSERT_EQ(t->sta_list.last, pp) << "tail link";
    ASSERT_EQ(seen, expect);
    ASSERT_EQ(t->sta_cnt, (int32_t)expect.size());

    size_t in_buckets = 0;
    for (unsigned b = 0; b < LTR_STA_HASH_SIZE; b++) {
        ltr_sta **hp = &t->hash[b];
        for (ltr_sta *s = t->hash[b]; s; s = s->hlink.next) {
            ASSERT_EQ(s->hlink.pprev, hp);
            ASSERT_EQ(s->macaddr[5] & 0x1fu, b);
            hp = &s->hlink.next;
            in_buckets++;
        }
    }
    ASSERT_EQ(in_buckets, expect.size());
    for (auto &m : expect) {
        ltr_sta *s = ltr_sta_find(t, m.data());
        ASSERT_NE(s, nullptr);
        ASSERT_EQ(std::to_array(s->macaddr), m);
    }
}

// Reporter bytes of a station's readings, front to back, with back links checked.
std::vector<uint8_t> readings_of(ltr_sta *s)
{
    std::vector<uint8_t> out;
    ltr_rssi_entry **pp = &s->rssi_list;
    for (ltr_rssi_entry *e = s->rssi_list; e; e = e->link.next) {
        EXPECT_EQ(e->link.pprev, pp);
        EXPECT_EQ(e->sta, s);
        pp = &e->link.next;
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
    ltr_sta *add(unsigned n)
    {
        mac_t m = mac_of(n);
        return ltr_sta_add(t, m.data());
    }
};

TEST_F(NodeSta, NewStationStartsEmptyAndListsOldestFirst)
{
    ltr_sta *a = add(1);
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(a->max_rssi_cnt, 64);
    EXPECT_EQ(a->rssi_cnt, 0);
    EXPECT_EQ(a->rssi_list, nullptr);
    EXPECT_EQ(a->ni_owner_ip, 0u);
    EXPECT_EQ(a->need_report, 0u);
    add(2);
    add(3);
    expect_consistent(t, {mac_of(1), mac_of(2), mac_of(3)});
    EXPECT_EQ(fake::logs().size(), 0u);
}

TEST_F(NodeSta, DeletingTheTailThenAppendingKeepsOrder)
{
    for (unsigned n = 1; n <= 3; n++)
        add(n);
    ltr_sta_del_bymac(t, mac_of(3).data());
    expect_consistent(t, {mac_of(1), mac_of(2)});
    add(4);
    expect_consistent(t, {mac_of(1), mac_of(2), mac_of(4)});
    // Down to one station and back: the tail link returns to the head.
    ltr_sta_del_bymac(t, mac_of(4).data());
    ltr_sta_del_bymac(t, mac_of(2).data());
    ltr_sta_del_bymac(t, mac_of(1).data());
    expect_consistent(t, {});
    add(5);
    expect_consistent(t, {mac_of(5)});
}

TEST_F(NodeSta, BucketCollisionsKeepEveryStationFindable)
{
    // 0x05, 0x25, 0x45, 0x65 share bucket 5; the first bytes differ too.
    std::vector<mac_t> all;
    for (unsigned n : {0x105u, 0x225u, 0x345u, 0x465u}) {
        add(n);
        all.push_back(mac_of(n));
    }
    EXPECT_EQ(t->hash[5]->macaddr[5], 0x65) << "new members go to the chain's front";
    expect_consistent(t, all);
    mac_t near = mac_of(0x105);
    near[0] ^= 1; // same bucket, differs only in the first byte
    EXPECT_EQ(ltr_sta_find(t, near.data()), nullptr);

    // Unlink from the middle, the front and the back of the chain.
    for (unsigned n : {0x345u, 0x465u, 0x105u}) {
        ltr_sta_del_bymac(t, mac_of(n).data());
        std::erase(all, mac_of(n));
        expect_consistent(t, all);
    }
}

TEST_F(NodeSta, DeletingWhileWalkingWithTheNextLinkTakenFirst)
{
    std::vector<mac_t> keep;
    for (unsigned n = 0; n < 40; n++) {
        add(n);
        if (n % 3 == 1)
            keep.push_back(mac_of(n));
    }
    unsigned i = 0;
    for (ltr_sta *s = t->sta_list.first, *next; s; s = next, i++) {
        next = s->list.next;
        if (i % 3 != 1)
            ltr_sta_del(s);
    }
    expect_consistent(t, keep);
}

TEST_F(NodeSta, DeleteByAbsentMacChangesNothing)
{
    add(1);
    add(0x21); // same bucket as the absent MAC below
    ltr_sta_del_bymac(t, mac_of(0x41).data());
    expect_consistent(t, {mac_of(1), mac_of(0x21)});
}

TEST_F(NodeSta, RandomOrdersAgainstAModel)
{
    const char *env = getenv("LTR_SEED"); // replay a failed run
    unsigned seed = env ? (unsigned)strtoul(env, nullptr, 0) : std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    printf("seed %u\n", seed);
    std::mt19937 rng(seed);
    std::vector<mac_t> model;
    for (int step = 0; step < 4000; step++) {
        unsigned n = rng() % 96; // few MACs: deletes and finds often hit
        mac_t m = mac_of(n);
        bool present = std::find(model.begin(), model.end(), m) != model.end();
        switch (rng() % 8) {
        case 0: case 1: case 2: case 3:
            if (!present) {
                ASSERT_NE(ltr_sta_add(t, m.data()), nullptr);
                model.push_back(m);
            }
            break;
        case 4: case 5: case 6:
            ltr_sta_del_bymac(t, m.data());
            std::erase(model, m);
            break;
        default:
            if (rng() % 20 == 0) {
                ltr_sta_tbl_flush(t);
                model.clear();
            } else {
                ASSERT_EQ(ltr_sta_find(t, m.data()) != nullptr, present);
            }
        }
        if (step % 50 == 0)
            expect_consistent(t, model);
    }
    expect_consistent(t, model);
}

TEST_F(NodeSta, TableLimitRefusesTheNextStation)
{
    for (unsigned n = 0; n < 512; n++)
        ASSERT_NE(add(n), nullptr);
    EXPECT_EQ(add(512), nullptr);
    EXPECT_EQ(t->sta_cnt, 512);
    ASSERT_EQ(fake::logs().size(), 1u);
    EXPECT_EQ(fake::logs()[0].text, "the location node list is full (number: 512)\n");
    EXPECT_EQ(fake::logs()[0].category, 0);
    EXPECT_EQ(fake::logs()[0].severity, 4);
    EXPECT_EQ(ltr_sta_find(t, mac_of(512).data()), nullptr);

    // One removal makes room again; a flush keeps the capacity.
    ltr_sta_del_bymac(t, mac_of(7).data());
    EXPECT_NE(add(512), nullptr);
    ltr_sta_tbl_flush(t);
    expect_consistent(t, {});
    EXPECT_EQ(t->max_sta, 512);
    EXPECT_NE(add(9), nullptr);
}

TEST_F(NodeSta, FlushingAnEmptyTableDoesNothing)
{
    ltr_sta_tbl_flush(t);
    expect_consistent(t, {});
    EXPECT_EQ(t->max_sta, 512);
}

TEST_F(NodeSta, AllocationFailureLinksNothing)
{
    add(1);
    ltr_alloc_fail_at = 1;
    EXPECT_EQ(add(2), nullptr);
    EXPECT_TRUE(fake::log_has("no free memory!\n"));
    expect_consistent(t, {mac_of(1)});

    ltr_sta *s = ltr_sta_find(t, mac_of(1).data());
    ltr_rssi_data d = reading(1);
    ASSERT_NE(ltr_rssi_add(s, &d), nullptr);
    fake::clear_text();
    ltr_alloc_fail_at = 1;
    d = reading(2);
    EXPECT_EQ(ltr_rssi_add(s, &d), nullptr);
    EXPECT_EQ(fake::log_text(), "no free memory!\n");
    EXPECT_EQ(readings_of(s), std::vector<uint8_t>{1});
}

TEST_F(NodeSta, ReadingsListNewestFirstAndUnlinkAnywhere)
{
    ltr_sta *s = add(1);
    for (uint8_t ap = 1; ap <= 5; ap++) {
        ltr_rssi_data d = reading(ap, (int8_t)(-40 - ap));
        ltr_rssi_entry *e = ltr_rssi_add(s, &d);
        ASSERT_NE(e, nullptr);
        EXPECT_EQ(e->rssi_data.rssi, -40 - ap);
        EXPECT_EQ(e->rssi_data.chan_freq, 5180);
        EXPECT_EQ(e->life_cnt, 0);
        EXPECT_EQ(e->ni_local, 0u);
    }
    EXPECT_EQ(readings_of(s), (std::vector<uint8_t>{5, 4, 3, 2, 1}));

    auto del = [&](uint8_t ap) {
        ltr_rssi_data d = reading(ap);
        ltr_rssi_entry *e = ltr_rssi_find(s, d.ap_mac);
        ASSERT_NE(e, nullptr);
        ltr_rssi_del(e);
        EXPECT_EQ(ltr_rssi_find(s, d.ap_mac), nullptr);
    };
    del(3); // middle
    EXPECT_EQ(readings_of(s), (std::vector<uint8_t>{5, 4, 2, 1}));
    del(5); // front
    EXPECT_EQ(readings_of(s), (std::vector<uint8_t>{4, 2, 1}));
    del(1); // back
    EXPECT_EQ(readings_of(s), (std::vector<uint8_t>{4, 2}));
    ltr_rssi_data d = reading(6);
    ltr_rssi_add(s, &d);
    EXPECT_EQ(readings_of(s), (std::vector<uint8_t>{6, 4, 2}));

    // Walk deleting everything but one, next link taken first.
    for (ltr_rssi_entry *e = s->rssi_list, *next; e; e = next) {
        next = e->link.next;
        if (e->rssi_data.ap_mac[5] != 4)
            ltr_rssi_del(e);
    }
    EXPECT_EQ(readings_of(s), std::vector<uint8_t>{4});
    ltr_rssi_flush(s);
    EXPECT_EQ(readings_of(s), std::vector<uint8_t>{});
    EXPECT_EQ(s->rssi_list, nullptr);
}

TEST_F(NodeSta, ReadingLimitNamesStationAndReporter)
{
    ltr_sta *s = add(0xabcdef);
    for (uint8_t ap = 0; ap < 64; ap++) {
        ltr_rssi_data d = reading(ap);
        ASSERT_NE(ltr_rssi_add(s, &d), nullptr);
    }
    ltr_rssi_data d = reading(0x99);
    EXPECT_EQ(ltr_rssi_add(s, &d), nullptr);
    EXPECT_EQ(s->rssi_cnt, 64);
    EXPECT_EQ(fake::log_text(), "staion 0200.abcd.00ef (max rssi cnt 64): no more node "
                                "available for the rssi from ap 0a00.0000.0099!\n");
    EXPECT_EQ(fake::logs()[0].severity, 4);
}

TEST_F(NodeSta, DeletingAStationFreesItsReadingsAndUnlinksIt)
{
    add(1);
    ltr_sta *s = add(0x21);
    add(0x41);
    for (uint8_t ap = 0; ap < 10; ap++) {
        ltr_rssi_data d = reading(ap);
        ltr_rssi_add(s, &d);
    }
    ltr_sta_del(s); // the sanitizer build reports leaked readings
    expect_consistent(t, {mac_of(1), mac_of(0x41)});
    EXPECT_EQ(ltr_sta_find(t, mac_of(0x21).data()), nullptr);
}

TEST_F(NodeSta, StationOutsideATableIsJustFreed)
{
    ltr_sta *s = ltr_new<ltr_sta>();
    ltr_rssi_data d = reading(1);
    s->max_rssi_cnt = 64;
    ltr_rssi_add(s, &d);
    ltr_sta_del(s);
    expect_consistent(t, {});
}

using NodeStaDeath = NodeSta;

TEST_F(NodeStaDeath, NullArgumentsStopWithTheExpression)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const uint8_t m[6] = {};
    ltr_sta *s = add(1);
    EXPECT_DEATH(ltr_sta_tbl_init(nullptr, 1),
                 "### Assertion \\(sta_tbl != \\(\\(void \\*\\)0\\)\\) failed at qz_ltr_node:");
    EXPECT_DEATH(ltr_sta_tbl_flush(nullptr), "Assertion \\(sta_tbl != ");
    EXPECT_DEATH(ltr_sta_find(t, nullptr),
                 "Assertion \\(sta_tbl != \\(\\(void \\*\\)0\\) && macaddr != \\(\\(void "
                 "\\*\\)0\\)\\) failed at qz_ltr_node:[0-9]+");
    EXPECT_DEATH(ltr_sta_add(nullptr, m), "Assertion \\(sta_tbl != .* && macaddr != ");
    EXPECT_DEATH(ltr_sta_del_bymac(t, nullptr), "Assertion \\(sta_tbl != .* && macaddr != ");
    EXPECT_DEATH(ltr_sta_del(nullptr), "Assertion \\(sta != \\(\\(void \\*\\)0\\)\\) failed");
    EXPECT_DEATH(ltr_rssi_flush(nullptr), "Assertion \\(sta != \\(\\(void \\*\\)0\\)\\) failed");
    EXPECT_DEATH(ltr_rssi_find(s, nullptr), "Assertion \\(sta != .* && macaddr != ");
    EXPECT_DEATH(ltr_rssi_add(s, nullptr), "Assertion \\(sta != .* && rssi_data != ");
    EXPECT_DEATH(ltr_rssi_del(nullptr), "Assertion \\(rssi_entry != \\(\\(void \\*\\)0\\)\\)");
}

} // namespace
