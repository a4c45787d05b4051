// Tracking list on the fake store: write-through, duplicates, reload and matching.
#include "ltr_alloc.h"
#include "ltr_test.h"

namespace {

using fake::bytes;

ltr_track_key mac_key(unsigned n)
{
    const uint8_t m[6] = {0x02, 0, 0, 0, (uint8_t)(n >> 8), (uint8_t)n};
    return ltr_track_key_make(m, LTR_TRACK_MAC);
}

ltr_track_key oui_key(uint8_t a, uint8_t b, uint8_t c)
{
    const uint8_t m[6] = {a, b, c, 0xee, 0xee, 0xee}; // the trailing bytes must not count
    return ltr_track_key_make(m, LTR_TRACK_OUI);
}

bytes kb(const ltr_track_key &k) { return bytes((const uint8_t *)&k, (const uint8_t *)&k + 12); }

bytes value_of(const ltr_track_key &k)
{
    bytes v = kb(k);
    v.resize(16, 0);
    return v;
}

// Keys listed, head to tail, with links and counter checked.
std::vector<bytes> listed()
{
    std::vector<bytes> out;
    ltr_track_obj **pp = &ltr_tl.obj_list.first;
    for (ltr_track_obj *o = ltr_tl.obj_list.first; o; pp = &o->link.next, o = o->link.next) {
        EXPECT_EQ(o->link.pprev, pp);
        out.push_back(kb(o->key));
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
    }
    // A new process on the same store; faults are armed after the reset.
    void restart(int fail_fetch = 0, int fail_alloc = 0)
    {
        ltr_test_reset_core();
        fake::reset_keep_shm();
        if (fail_fetch)
            fake::script("qz_db_fetch_bykey", -1, fail_fetch);
        ltr_alloc_fail_at = fail_alloc;
        ASSERT_EQ(ltr_track_list_init(), 0);
    }
};

TEST_F(NodeTrack, AddWritesThroughOnceAndDuplicatesChangeNothing)
{
    ltr_track_key m = ltr_track_key_make(oui_key(0, 0x11, 0x22).addr, LTR_TRACK_MAC);
    ltr_track_key o = oui_key(0, 0x11, 0x22); // same leading bytes: another object
    ASSERT_EQ(ltr_track_obj_add(&m), 0);
    ASSERT_EQ(ltr_track_obj_add(&o), 0);
    EXPECT_EQ(listed(), (std::vector<bytes>{kb(m), kb(o)}));
    EXPECT_EQ(fake::db()[kb(m)], value_of(m));
    EXPECT_EQ(fake::db()[kb(o)], value_of(o));
    EXPECT_EQ(ltr_track_obj_add(&m), 0);
    EXPECT_EQ(fake::count("qz_db_store"), 2u);
    EXPECT_EQ(listed().size(), 2u);

    // A failed write is logged and the object stays listed.
    ltr_track_key n = oui_key(0xa0, 0xb1, 0xc2);
    fake::script("qz_db_store", -1);
    EXPECT_EQ(ltr_track_obj_add(&n), 0);
    EXPECT_EQ(fake::log_text(), "store ltr track obj (a0b1.c200.0000, oui) failed.\n");
    EXPECT_EQ(listed().size(), 3u);
    EXPECT_EQ(fake::db().count(kb(n)), 0u);

    ltr_alloc_fail_at = 1;
    ltr_track_key p = mac_key(9);
    EXPECT_EQ(ltr_track_obj_add(&p), -1);
    EXPECT_TRUE(fake::log_has("no enough memory.\n"));
    EXPECT_EQ(listed().size(), 3u);
}

TEST_F(NodeTrack, ReloadTakesTheStoreAsItIsInWalkOrder)
{
    // 600 records (over the limit) plus a second record carrying a listed object.
    for (unsigned n = 600; n-- > 0;) {
        ltr_track_key k = mac_key(n);
        fake::db()[kb(k)] = value_of(k);
    }
    ltr_track_key dup = oui_key(0xff, 0, 0);
    fake::db()[kb(dup)] = value_of(mac_key(599));
    restart();
    std::vector<bytes> l = listed();
    ASSERT_EQ(l.size(), 601u);
    EXPECT_EQ(l.front(), kb(mac_key(0)));
    EXPECT_EQ(l.back(), kb(mac_key(599)));
    EXPECT_EQ(l[599], kb(mac_key(599)));

    ltr_track_key fresh = oui_key(1, 2, 3);
    EXPECT_EQ(ltr_track_obj_add(&fresh), -1);
    for (unsigned n = 0; n < 90; n++) {
        ltr_track_key k = mac_key(n);
        ltr_track_obj_del(&k);
    }
    EXPECT_EQ(ltr_tl.obj_cnt, 511);
    EXPECT_EQ(ltr_track_obj_add(&fresh), 0);

    // Unreadable records and allocation failures skip that record only.
    restart(1, 3);
    EXPECT_EQ(fake::log_text(), "fetch ltr track failed!\nno enough memory!\n");
    EXPECT_EQ(ltr_tl.obj_cnt, (int32_t)fake::db().size() - 2);
}

TEST_F(NodeTrack, MatchByMacAndByOui)
{
    const uint8_t sta[6] = {0x00, 0x11, 0x22, 0xaa, 0xbb, 0xcc};
    const uint8_t other[6] = {0x00, 0x11, 0x23, 0xaa, 0xbb, 0xcc};
    EXPECT_EQ(ltr_track_list_match(sta), 0);
    ltr_track_key m = ltr_track_key_make(other, LTR_TRACK_MAC);
    ltr_track_obj_add(&m);
    EXPECT_EQ(ltr_track_list_match(sta), 0);
    EXPECT_EQ(ltr_track_list_match(other), 1);
    ltr_track_key o = oui_key(0x00, 0x11, 0x22);
    ltr_track_obj_add(&o);
    EXPECT_EQ(ltr_track_list_match(sta), 1);
    ltr_track_list_cleanup();
    ltr_track_key odd = ltr_track_key_make(sta, 7); // an unknown type never matches
    ltr_track_obj_add(&odd);
    EXPECT_EQ(ltr_track_list_match(sta), 0);
}

} // namespace
