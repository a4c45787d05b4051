// Driver tracking control: radio walks, store-first apply, bulk deletes, list match
// with its purge, and stopping all tracking.
#include "core_util.h"
#include "ltr_alloc.h"
#include "ltr_track.h"

namespace {

const uint8_t kMac[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
const uint8_t kOui[6] = {0xa0, 0xb0, 0xc0, 0, 0, 0};
const uint8_t kInOui[6] = {0xa0, 0xb0, 0xc0, 0x01, 0x02, 0x03};
const uint8_t kOther[6] = {0x02, 0x00, 0x00, 0x00, 0x00, 0x09};

class TrackCtl : public LtrTest {
  protected:
    void SetUp() override
    {
        LtrTest::SetUp();
        fake::set_radios({{"wifi0", 4}, {"ghost", 0}, {"wifi1", 6}, {"wifi2", 8}});
        ASSERT_EQ(ltr_mgt_init(), 0);
        fake::clear_calls();
        ltr_debug_flags = LTR_DBG_ERROR | LTR_DBG_INFO;
    }
    bool has_sta(const uint8_t *mac) { return ltr_sta_find(&mgt.sta_tbl, mac) != nullptr; }
    bool in_list(const uint8_t *addr, uint32_t type)
    {
        ltr_track_key k = ltr_track_key_make(addr, type);
        return ltr_track_obj_find(&k) != nullptr;
    }
};

TEST_F(TrackCtl, WalkSkipsRadiosWithoutIndexAndStopsAtFailure)
{
    EXPECT_EQ(ltr_set_track_enable(1), 0);
    EXPECT_EQ(core_ifindexes("qz_dcd_set_lta_track_enable"), (std::vector<int64_t>{4, 6, 8}));

    fake::clear_calls();
    fake::script("qz_dcd_set_lta_track_enable", 0);
    fake::script("qz_dcd_set_lta_track_enable", -1);
    EXPECT_EQ(ltr_set_track_enable(0), -1);
    EXPECT_EQ(core_ifindexes("qz_dcd_set_lta_track_enable"), (std::vector<int64_t>{4, 6}));
    EXPECT_EQ(fake::radio_state(4).track_enable, 0); // no rollback
    EXPECT_EQ(fake::radio_state(8).track_enable, 1);
    EXPECT_TRUE(fake::dbg_has("disable track to interface wifi1 failed.\n"));

    // No radios at all: nothing to do, success.
    fake::set_radios({});
    fake::clear_calls();
    EXPECT_EQ(ltr_set_track_enable(1), 0);
    EXPECT_EQ(ltr_set_lmatch(0), 0);
    EXPECT_TRUE(fake::calls().empty());
    EXPECT_EQ(mgt.cfg->lmatch, 0u);
}

TEST_F(TrackCtl, ApplyStoresFirstThenEveryRadio)
{
    ASSERT_EQ(ltr_apply_trackobj(kOui, LTR_TRACK_OUI, 1), 0);
    EXPECT_TRUE(in_list(kOui, LTR_TRACK_OUI));
    EXPECT_EQ(fake::db().size(), 1u);
    for (int idx : {4, 6, 8}) {
        ASSERT_EQ(fake::radio_state(idx).trackobjs.size(), 1u);
        const lta_trackobj &o = fake::radio_state(idx).trackobjs[0];
        EXPECT_EQ(memcmp(o.mac, kOui, 6), 0);
        EXPECT_EQ(o.is_oui, 1u);
        EXPECT_EQ(o.del, 0u);
        EXPECT_EQ(o.pad[0] | o.pad[1], 0);
    }
    EXPECT_TRUE(fake::dbg_has("add oui a0b0.c000.0000 ok.\n"));

    // A store refusal (here: no memory for the object) never reaches a radio.
    fake::clear_calls();
    ltr_alloc_fail_at = 1;
    EXPECT_EQ(ltr_apply_trackobj(kMac, LTR_TRACK_MAC, 1), -1);
    EXPECT_EQ(fake::count("qz_dcd_set_lta_trackobj"), 0u);
    EXPECT_FALSE(in_list(kMac, LTR_TRACK_MAC));
    EXPECT_TRUE(fake::dbg_has("add mac 0011.2233.4455 fail.\n"));

    fake::clear_calls();
    ASSERT_EQ(ltr_apply_trackobj(kOui, LTR_TRACK_OUI, 0), 0);
    auto c = fake::calls_of("qz_dcd_set_lta_trackobj");
    ASSERT_EQ(c.size(), 3u);
    EXPECT_EQ(c[0].args, (std::vector<int64_t>{4, 1, 1}));
    EXPECT_FALSE(in_list(kOui, LTR_TRACK_OUI));
    EXPECT_TRUE(fake::db().empty());
}

TEST_F(TrackCtl, ApplyDriverFailureKeepsTheStoredObject)
{
    fake::script("qz_dcd_set_lta_trackobj", 0);
    fake::script("qz_dcd_set_lta_trackobj", -1);
    EXPECT_EQ(ltr_apply_trackobj(kMac, LTR_TRACK_MAC, 1), -1);
    EXPECT_EQ(core_ifindexes("qz_dcd_set_lta_trackobj"), (std::vector<int64_t>{4, 6}));
    EXPECT_TRUE(in_list(kMac, LTR_TRACK_MAC));
    EXPECT_EQ(fake::radio_state(4).trackobjs.size(), 1u);
    EXPECT_TRUE(fake::radio_state(8).trackobjs.empty());
    EXPECT_TRUE(fake::dbg_has("aplly mac 0011.2233.4455 to interface wifi1 failed.\n"));
    EXPECT_TRUE(fake::dbg_has("add mac 0011.2233.4455 fail.\n"));
}

TEST_F(TrackCtl, RadioObjectCarriesTypeAndReportsRefusal)
{
    ltr_track_obj obj{};
    obj.key = ltr_track_key_make(kOui, 7);
    fake::script("qz_dcd_set_lta_trackobj", -1);
    EXPECT_EQ(ltr_set_trackobj_radio(6, &obj), -1);
    EXPECT_TRUE(fake::dbg_has("set track (n/a a0b0.c000.0000) to radio 6 failed.\n"));
    auto c = fake::calls_of("qz_dcd_set_lta_trackobj");
    ASSERT_EQ(c.size(), 1u);
    EXPECT_EQ(c[0].args, (std::vector<int64_t>{6, 1, 0})); // an unknown type goes as an OUI

    obj.key = ltr_track_key_make(kMac, LTR_TRACK_MAC);
    EXPECT_EQ(ltr_set_trackobj_radio(6, &obj), 0);
    EXPECT_EQ(fake::radio_state(6).trackobjs.back().is_oui, 0u);
}

TEST_F(TrackCtl, BulkDeletesTakeOnlyTheirType)
{
    ASSERT_EQ(ltr_apply_trackobj(kMac, LTR_TRACK_MAC, 1), 0);
    ASSERT_EQ(ltr_apply_trackobj(kOther, LTR_TRACK_MAC, 1), 0);
    ASSERT_EQ(ltr_apply_trackobj(kOui, LTR_TRACK_OUI, 1), 0);
    ASSERT_NE(ltr_sta_add(&mgt.sta_tbl, kMac), nullptr);
    ASSERT_NE(ltr_sta_add(&mgt.sta_tbl, kInOui), nullptr);

    // A driver refusal on one MAC: the walk goes on and the station still goes.
    fake::script("qz_dcd_set_lta_trackobj", -1);
    ltr_track_list_foreach_safe(ltr_del_mac_cb, &mgt);
    EXPECT_TRUE(fake::dbg_has("del mac 0011.2233.4455 failed.\n"));
    EXPECT_FALSE(in_list(kMac, LTR_TRACK_MAC));
    EXPECT_FALSE(in_list(kOther, LTR_TRACK_MAC));
    EXPECT_TRUE(in_list(kOui, LTR_TRACK_OUI));
    EXPECT_FALSE(has_sta(kMac));
    EXPECT_TRUE(has_sta(kInOui));

    ltr_track_list_foreach_safe(ltr_del_oui_cb, nullptr);
    EXPECT_EQ(ltr_tl.obj_cnt, 0);
    EXPECT_TRUE(fake::db().empty());
}

TEST_F(TrackCtl, PurgeKeepsOnlyMatchedStations)
{
    ASSERT_EQ(ltr_apply_trackobj(kOui, LTR_TRACK_OUI, 1), 0);
    ASSERT_EQ(ltr_apply_trackobj(kOther, LTR_TRACK_MAC, 1), 0);
    for (auto *m : {kMac, kInOui, kOther})
        ASSERT_NE(ltr_sta_add(&mgt.sta_tbl, m), nullptr);

    mgt.cfg->lmatch = 0;
    ltr_purge_unmatched(&mgt);
    EXPECT_EQ(mgt.sta_tbl.sta_cnt, 3);

    mgt.cfg->lmatch = 1;
    ltr_purge_unmatched(&mgt);
    EXPECT_FALSE(has_sta(kMac));
    EXPECT_TRUE(has_sta(kInOui));
    EXPECT_TRUE(has_sta(kOther));

    // An empty list matches nothing.
    ltr_track_list_cleanup();
    ltr_purge_unmatched(&mgt);
    EXPECT_EQ(mgt.sta_tbl.sta_cnt, 0);
}

TEST_F(TrackCtl, ListMatchStoresAndPurgesOnlyWhenAllRadiosTakeIt)
{
    ASSERT_NE(ltr_sta_add(&mgt.sta_tbl, kMac), nullptr);
    mgt.cfg->lmatch = 0;

    fake::script("qz_dcd_set_lta_lmatch_enable", 0);
    fake::script("qz_dcd_set_lta_lmatch_enable", -1);
    EXPECT_EQ(ltr_set_lmatch(1), -1);
    EXPECT_TRUE(fake::dbg_has("set track all to interface wifi1 failed.\n"));
    EXPECT_EQ(mgt.cfg->lmatch, 0u);
    EXPECT_TRUE(has_sta(kMac));

    EXPECT_EQ(ltr_set_lmatch(1), 0);
    EXPECT_EQ(mgt.cfg->lmatch, 1u);
    EXPECT_EQ(fake::radio_state(8).lmatch, 1);
    EXPECT_FALSE(has_sta(kMac));

    ASSERT_NE(ltr_sta_add(&mgt.sta_tbl, kMac), nullptr);
    EXPECT_EQ(ltr_set_lmatch(0), 0);
    EXPECT_EQ(mgt.cfg->lmatch, 0u);
    EXPECT_TRUE(has_sta(kMac));
}

TEST_F(TrackCtl, TrackAll)
{
    ASSERT_EQ(ltr_apply_trackobj(kMac, LTR_TRACK_MAC, 1), 0);
    ASSERT_NE(ltr_sta_add(&mgt.sta_tbl, kMac), nullptr);
    ASSERT_NE(ltr_sta_add(&mgt.sta_tbl, kOther), nullptr);
    mgt.cfg->lmatch = 0;
    mgt.cfg->enabled = 1;

    EXPECT_EQ(ltr_set_track_all(1), 0);
    EXPECT_EQ(mgt.cfg->lmatch, 1u);
    EXPECT_EQ(fake::radio_state(4).lmatch, 1);
    EXPECT_FALSE(has_sta(kOther));

    fake::script("qz_dcd_set_lta_track_enable", -1); // ignored
    EXPECT_EQ(ltr_set_track_all(0), 0);
    EXPECT_EQ(mgt.sta_tbl.sta_cnt, 0);
    EXPECT_EQ(ltr_tl.obj_cnt, 0);
    EXPECT_TRUE(fake::db().empty());
    EXPECT_EQ(mgt.cfg->enabled, 1u);

    fake::clear_calls();
    EXPECT_EQ(ltr_set_track_all(0), 0);
    EXPECT_EQ(fake::radio_state(8).track_enable, 0);
}

TEST_F(TrackCtl, MissingAddressIsAProgrammingError)
{
    EXPECT_DEATH(ltr_apply_trackobj(nullptr, LTR_TRACK_MAC, 1),
                 "Assertion \\(mac != \\(\\(void \\*\\)0\\)\\) failed at qz_ltr_common:");
}

} // namespace
