// Tracking list on the fake store: write-through, duplicates, the limit, reload,
// clean-up and matching.
#include <sys/stat.h>

#include "ltr_alloc.h"
#include "ltr_test.h"

namespace {

using fake::bytes;

ltr_track_key mac_key(uint8_t a, uint8_t b, uint8_t c, uint8_t d, uint8_t e, uint8_t f)
{
    const uint8_t m[6] = {a, b, c, d, e, f};
    return ltr_track_key_make(m, LTR_TRACK_MAC);
}

ltr_track_key oui_key(uint8_t a, uint8_t b, uint8_t c)
{
    const uint8_t m[6] = {a, b, c, 0xee, 0xee, 0xee}; // trailing bytes must be dropped
    return ltr_track_key_make(m, LTR_TRACK_OUI);
}

ltr_track_key nth_key(unsigned n)
{
    return mac_key(0x02, 0, 0, 0, (uint8_t)(n >> 8), (uint8_t)n);
}

bytes key_bytes(const ltr_track_key &k)
{
    const uint8_t *p = (const uint8_t *)&k;
    return bytes(p, p + sizeof(k));
}

bytes value_of(const ltr_track_key &k)
{
    bytes v = key_bytes(k);
    v.resize(16, 0);
    return v;
}

std::vector<bytes> listed()
{
    std::vector<bytes> out;
    ltr_track_obj **pp = &ltr_tl.obj_list.first;
    for (ltr_track_obj *o = ltr_tl.obj_list.first; o; o = o->link.next) {
        EXPECT_EQ(o->link.pprev, pp);
        pp = &o->link.next;
        out.push_back(key_bytes(o->key));
    }
    EXPECT_EQ(ltr_tl.obj_list.last, pp) << "tail link";
    EXPECT_EQ(ltr_tl.obj_cnt, (int32_t)out.size());
    return out;
}

class NodeTrack : public LtrTest {
  protected:
    void SetUp() override
    {
        LtrTest::SetUp();
        ASSERT_EQ(ltr_track_list_init(), 0);
        fake::clear_calls();
    }
};

TEST(NodeTrackKey, LayoutAndNames)
{
    ltr_track_key k = oui_key(0x00, 0x11, 0x22);
    EXPECT_EQ(key_bytes(k), (bytes{0x00, 0x11, 0x22, 0, 0, 0, 0, 0, 1, 0, 0, 0}));
    EXPECT_EQ(ltr_track_key_type(&k), LTR_TRACK_OUI);
    ltr_track_key m = mac_key(1, 2, 3, 4, 5, 6);
    EXPECT_EQ(key_bytes(m), (bytes{1, 2, 3, 4, 5, 6, 0, 0, 0, 0, 0, 0}));
    const uint8_t a[6] = {};
    ltr_track_key odd = ltr_track_key_make(a, 0x01020304);
    EXPECT_EQ(odd.type_le[0], 0x04);
    EXPECT_EQ(odd.type_le[3], 0x01);
    EXPECT_EQ(ltr_track_key_type(&odd), 0x01020304u);
    EXPECT_STREQ(ltr_track_type_name(0), "mac");
    EXPECT_STREQ(ltr_track_type_name(1), "oui");
    EXPECT_STREQ(ltr_track_type_name(2), "n/a");
}

TEST_F(NodeTrack, InitOpensTheStoreUnderTmpDb)
{
    ltr_test_reset_core();
    fake::reset();
    ASSERT_EQ(ltr_track_list_init(), 0);
    auto opens = fake::calls_of("qz_db_open");
    ASSERT_EQ(opens.size(), 1u);
    EXPECT_EQ(opens[0].text, "/tmp/db/ltr_track_list.db");
    EXPECT_EQ(fake::count("qz_db_foreach"), 1u);
    EXPECT_EQ(ltr_tl.max_obj, 512);
    EXPECT_EQ(listed(), std::vector<bytes>{});
    struct stat st;
    ASSERT_EQ(stat("/tmp/db", &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
}

TEST_F(NodeTrack, OpenFailureFailsInit)
{
    fake::script("qz_db_open", -1);
    EXPECT_EQ(ltr_track_list_init(), -1);
    EXPECT_EQ(fake::log_text(), "open database failed: /tmp/db/ltr_track_list.db\n");
    EXPECT_EQ(ltr_tl.db, nullptr);
}

TEST_F(NodeTrack, AddWritesThroughOnceAndKeepsOrder)
{
    ltr_track_key a = mac_key(0, 0x11, 0x22, 0x33, 0x44, 0x55), b = oui_key(0, 0x11, 0x22);
    ASSERT_EQ(ltr_track_obj_add(&a), 0);
    ASSERT_EQ(ltr_track_obj_add(&b), 0);
    // Same leading bytes, different type: two objects.
    EXPECT_EQ(listed(), (std::vector<bytes>{key_bytes(a), key_bytes(b)}));
    EXPECT_EQ(fake::db().size(), 2u);
    EXPECT_EQ(fake::db()[key_bytes(a)], value_of(a));
    EXPECT_EQ(fake::db()[key_bytes(b)], value_of(b));
    auto stores = fake::calls_of("qz_db_store");
    ASSERT_EQ(stores.size(), 2u);
    EXPECT_EQ(stores[0].args, (std::vector<int64_t>{12, 16}));

    // A listed object: 0, nothing changes, the store is not written again.
    EXPECT_EQ(ltr_track_obj_add(&a), 0);
    EXPECT_EQ(fake::count("qz_db_store"), 2u);
    EXPECT_EQ(ltr_tl.obj_cnt, 2);
    EXPECT_EQ(ltr_track_obj_find(&b), ltr_tl.obj_list.first->link.next);
    EXPECT_TRUE(fake::logs().empty());
}

TEST_F(NodeTrack, StoreFailureKeepsTheObjectListed)
{
    ltr_track_key a = mac_key(0, 0x11, 0x22, 0x33, 0x44, 0x55), b = oui_key(0xa0, 0xb1, 0xc2);
    fake::script("qz_db_store", -1, 2);
    EXPECT_EQ(ltr_track_obj_add(&a), 0);
    EXPECT_EQ(ltr_track_obj_add(&b), 0);
    EXPECT_EQ(fake::log_text(), "store ltr track obj (0011.2233.4455, mac) failed.\n"
                                "store ltr track obj (a0b1.c200.0000, oui) failed.\n");
    EXPECT_EQ(listed().size(), 2u);
    EXPECT_TRUE(fake::db().empty());
}

TEST_F(NodeTrack, LimitRefusesEvenAListedObject)
{
    for (unsigned n = 0; n < 512; n++) {
        ltr_track_key k = nth_key(n);
        ASSERT_EQ(ltr_track_obj_add(&k), 0);
    }
    fake::clear_calls();
    ltr_track_key listed0 = nth_key(0), fresh = nth_key(600);
    EXPECT_EQ(ltr_track_obj_add(&listed0), -1);
    EXPECT_EQ(ltr_track_obj_add(&fresh), -1);
    EXPECT_EQ(fake::log_text(), "The track objects reach max size\n"
                                "The track objects reach max size\n");
    EXPECT_EQ(fake::logs()[0].severity, 4);
    EXPECT_EQ(fake::count("qz_db_store"), 0u);
    EXPECT_EQ(ltr_tl.obj_cnt, 512);
    ltr_track_key k = nth_key(100);
    ltr_track_obj_del(&k);
    EXPECT_EQ(ltr_track_obj_add(&fresh), 0);
}

TEST_F(NodeTrack, AllocationFailureOnAdd)
{
    ltr_track_key a = nth_key(1);
    ltr_alloc_fail_at = 1;
    EXPECT_EQ(ltr_track_obj_add(&a), -1);
    EXPECT_EQ(fake::log_text(), "no enough memory.\n");
    EXPECT_EQ(listed(), std::vector<bytes>{});
    EXPECT_EQ(fake::count("qz_db_store"), 0u);
}

TEST_F(NodeTrack, DeleteRemovesFromListAndStore)
{
    ltr_track_key k[3] = {nth_key(1), nth_key(2), nth_key(3)};
    for (auto &x : k)
        ltr_track_obj_add(&x);
    fake::clear_calls();
    ltr_track_key absent = oui_key(0x02, 0, 0); // shares bytes with all of them
    EXPECT_EQ(ltr_track_obj_del(&absent), 0);
    EXPECT_EQ(fake::count("qz_db_delete"), 0u);

    EXPECT_EQ(ltr_track_obj_del(&k[2]), 0); // the tail, then append behind it
    ltr_track_key d = nth_key(4);
    ltr_track_obj_add(&d);
    EXPECT_EQ(listed(), (std::vector<bytes>{key_bytes(k[0]), key_bytes(k[1]), key_bytes(d)}));
    EXPECT_EQ(fake::db().count(key_bytes(k[2])), 0u);

    // A failed store delete is logged; the object is gone from memory anyway.
    fake::script("qz_db_delete", -1);
    EXPECT_EQ(ltr_track_obj_del(&k[0]), 0);
    EXPECT_EQ(fake::log_text(), "del ltr track obj (0200.0000.0001, mac) failed.\n");
    EXPECT_EQ(listed(), (std::vector<bytes>{key_bytes(k[1]), key_bytes(d)}));
    EXPECT_EQ(fake::db().count(key_bytes(k[0])), 1u);
    EXPECT_EQ(ltr_track_obj_unstore(&k[0]), 0);
    EXPECT_TRUE(fake::db().count(key_bytes(k[0])) == 0);
}

TEST_F(NodeTrack, ReloadFollowsTheStoreWalkOrder)
{
    // Added out of key order; the fake store walks in key-byte order.
    ltr_track_key k[3] = {nth_key(9), oui_key(0x01, 0x02, 0x03), nth_key(5)};
    for (auto &x : k)
        ltr_track_obj_add(&x);
    ltr_test_reset_core();
    fake::reset_keep_shm(); // keeps the store
    ASSERT_EQ(ltr_track_list_init(), 0);
    EXPECT_EQ(listed(), (std::vector<bytes>{key_bytes(k[1]), key_bytes(k[2]), key_bytes(k[0])}));
    EXPECT_EQ(fake::count("qz_db_fetch_bykey"), 3u);
}

TEST_F(NodeTrack, ReloadTakesEverythingAndSkipsBadRecords)
{
    // 600 records: all load, beyond the limit; then adds fail until enough removals.
    for (unsigned n = 0; n < 600; n++) {
        ltr_track_key k = nth_key(n);
        fake::db()[key_bytes(k)] = value_of(k);
    }
    ltr_test_reset_core();
    fake::reset_keep_shm();
    fake::script("qz_db_fetch_bykey", -1); // the first record cannot be read
    ASSERT_EQ(ltr_track_list_init(), 0);
    EXPECT_EQ(fake::log_text(), "fetch ltr track failed!\n");
    EXPECT_EQ(ltr_tl.obj_cnt, 599);
    ltr_track_key k0 = nth_key(0);
    EXPECT_EQ(ltr_track_obj_find(&k0), nullptr);

    ltr_track_key fresh = oui_key(1, 2, 3);
    EXPECT_EQ(ltr_track_obj_add(&fresh), -1);
    for (unsigned n = 1; n <= 88; n++) {
        ltr_track_key k = nth_key(n);
        ltr_track_obj_del(&k);
    }
    EXPECT_EQ(ltr_tl.obj_cnt, 511);
    EXPECT_EQ(ltr_track_obj_add(&fresh), 0);

    // Out of memory on load skips that record only.
    ltr_test_reset_core();
    fake::reset_keep_shm();
    ltr_alloc_fail_at = 2;
    ASSERT_EQ(ltr_track_list_init(), 0);
    EXPECT_EQ(fake::log_text(), "no enough memory!\n");
    EXPECT_EQ(ltr_tl.obj_cnt, (int32_t)fake::db().size() - 1);
}

TEST_F(NodeTrack, ReloadKeepsWhatTheStoreHoldsEvenDuplicates)
{
    // Two records whose values carry the same object: both load.
    ltr_track_key a = nth_key(1), b = nth_key(2);
    fake::db()[key_bytes(a)] = value_of(a);
    fake::db()[key_bytes(b)] = value_of(a);
    ltr_test_reset_core();
    fake::reset_keep_shm();
    ASSERT_EQ(ltr_track_list_init(), 0);
    EXPECT_EQ(listed(), (std::vector<bytes>{key_bytes(a), key_bytes(a)}));
}

TEST_F(NodeTrack, CleanupEmptiesListAndStore)
{
    for (unsigned n = 0; n < 5; n++) {
        ltr_track_key k = nth_key(n);
        ltr_track_obj_add(&k);
    }
    fake::script("qz_db_delete", -1); // one failure does not stop the rest
    ltr_track_list_cleanup();
    EXPECT_EQ(listed(), std::vector<bytes>{});
    EXPECT_EQ(fake::count("qz_db_delete"), 5u);
    EXPECT_EQ(fake::db().size(), 1u);
    EXPECT_EQ(fake::log_text(), "del ltr track obj (0200.0000.0000, mac) failed.\n");

    fake::clear_text();
    ltr_tl.obj_cnt = 3; // a counter out of step is repaired
    ltr_track_list_cleanup();
    EXPECT_EQ(fake::log_text(), "node table element counter check failed.\n");
    EXPECT_EQ(ltr_tl.obj_cnt, 0);
    ltr_track_key k = nth_key(7);
    EXPECT_EQ(ltr_track_obj_add(&k), 0);
    EXPECT_EQ(listed().size(), 1u);
}

TEST_F(NodeTrack, MatchByMacAndByOui)
{
    const uint8_t sta[6] = {0x00, 0x11, 0x22, 0xaa, 0xbb, 0xcc};
    const uint8_t other[6] = {0x00, 0x11, 0x23, 0xaa, 0xbb, 0xcc};
    EXPECT_EQ(ltr_track_list_match(sta), 0);

    ltr_track_key m = mac_key(0x00, 0x11, 0x22, 0xaa, 0xbb, 0xcd);
    ltr_track_obj_add(&m);
    EXPECT_EQ(ltr_track_list_match(sta), 0);
    EXPECT_EQ(ltr_track_list_match(m.addr), 1);

    ltr_track_key o = oui_key(0x00, 0x11, 0x22);
    ltr_track_obj_add(&o);
    EXPECT_EQ(ltr_track_list_match(sta), 1);
    EXPECT_EQ(ltr_track_list_match(other), 0);

    // An object of an unknown type never matches, even with the same address.
    ltr_track_obj_del(&o);
    ltr_track_obj_del(&m);
    ltr_track_key odd = ltr_track_key_make(sta, 7);
    ltr_track_obj_add(&odd);
    EXPECT_EQ(ltr_track_list_match(sta), 0);
}

TEST_F(NodeTrack, WalksVisitOldestFirstAndSafeWalkMayDelete)
{
    ltr_track_key k[4] = {nth_key(1), oui_key(1, 2, 3), nth_key(2), oui_key(4, 5, 6)};
    for (auto &x : k)
        ltr_track_obj_add(&x);
    std::vector<bytes> seen;
    ltr_track_list_foreach(
        [](void *arg, ltr_track_obj *o) {
            ((std::vector<bytes> *)arg)->push_back(key_bytes(o->key));
        },
        &seen);
    EXPECT_EQ(seen, listed());

    // Remove every MAC object from inside the walk.
    ltr_track_list_foreach_safe(
        [](void *, ltr_track_obj *o) {
            if (ltr_track_key_type(&o->key) == LTR_TRACK_MAC) {
                ltr_track_key key = o->key;
                ltr_track_obj_del(&key);
            }
        },
        nullptr);
    EXPECT_EQ(listed(), (std::vector<bytes>{key_bytes(k[1]), key_bytes(k[3])}));
    EXPECT_EQ(fake::db().size(), 2u);
}

using NodeTrackDeath = NodeTrack;

TEST_F(NodeTrackDeath, NullArgumentsStopWithTheExpression)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(ltr_track_obj_add(nullptr),
                 "### Assertion \\(key != \\(\\(void \\*\\)0\\)\\) failed at qz_ltr_node:");
    EXPECT_DEATH(ltr_track_obj_del(nullptr), "Assertion \\(key != \\(\\(void \\*\\)0\\)\\)");
    EXPECT_DEATH(ltr_track_obj_find(nullptr), "Assertion \\(key != ");
    EXPECT_DEATH(ltr_track_obj_unstore(nullptr), "Assertion \\(key != ");
    EXPECT_DEATH(ltr_track_list_foreach(nullptr, nullptr),
                 "Assertion \\(f != \\(\\(void \\*\\)0\\)\\) failed at qz_ltr_node:");
    EXPECT_DEATH(ltr_track_list_foreach_safe(nullptr, nullptr), "Assertion \\(f != ");
    EXPECT_DEATH(ltr_track_list_match(nullptr),
                 "Assertion \\(macaddr != \\(\\(void \\*\\)0\\)\\) failed at qz_ltr_node:");
}

} // namespace
