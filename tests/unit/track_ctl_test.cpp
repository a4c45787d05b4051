// Driver tracking control: store-first apply, and list match with its purge.
#include "core_util.h"
#include "ltr_alloc.h"
#include "ltr_track.h"

namespace {

const uint8_t kMac[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
const uint8_t kOui[6] = {0xa0, 0xb0, 0xc0, 0, 0, 0};
const uint8_t kInOui[6] = {0xa0, 0xb0, 0xc0, 0x01, 0x02, 0x03};
const uint8_t kOther[6] = {0x02, 0x00, 0x00, 0x00, 0x00, 0x09};
using idxs = std::vector<int64_t>;

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
    void add_stas(std::initializer_list<const uint8_t *> macs)
    {
        for (auto *m : macs)
            ASSERT_NE(ltr_sta_add(&mgt.sta_tbl, m), nullptr);
    }
    bool listed(const uint8_t *addr, uint32_t type)
    {
        ltr_track_key k = ltr_track_key_make(addr, type);
        return ltr_track_obj_find(&k) != nullptr;
    }
};

TEST_F(TrackCtl, ApplyStoresFirstThenEveryRadio)
{
    ASSERT_EQ(ltr_apply_trackobj(kOui, LTR_TRACK_OUI, 1), 0);
    EXPECT_TRUE(listed(kOui, LTR_TRACK_OUI));
    EXPECT_EQ(fake::db().size(), 1u);
    lta_trackobj want{};
    memcpy(want.mac, kOui, 6);
    want.is_oui = 1;
    for (int idx : {4, 6, 8}) {
        ASSERT_EQ(fake::radio_state(idx).trackobjs.size(), 1u);
        EXPECT_EQ(memcmp(&fake::radio_state(idx).trackobjs[0], &want, sizeof(want)), 0);
    }
    EXPECT_TRUE(fake::dbg_has("add oui a0b0.c000.0000 ok.\n"));

    fake::clear_calls();
    ltr_alloc_fail_at = 1; // the store refuses: no radio sees the object
    EXPECT_EQ(ltr_apply_trackobj(kMac, LTR_TRACK_MAC, 1), -1);
    EXPECT_EQ(fake::count("qz_dcd_set_lta_trackobj"), 0u);
    EXPECT_TRUE(fake::dbg_has("add mac 0011.2233.4455 fail.\n"));

    ASSERT_EQ(ltr_apply_trackobj(kOui, LTR_TRACK_OUI, 0), 0);
    EXPECT_EQ(fake::calls_of("qz_dcd_set_lta_trackobj")[0].args, (idxs{4, 1, 1}));
    EXPECT_FALSE(listed(kOui, LTR_TRACK_OUI));
    EXPECT_TRUE(fake::db().empty());
}

TEST_F(TrackCtl, ListMatchPurgesOnlyWhenAllRadiosTakeIt)
{
    ASSERT_EQ(ltr_apply_trackobj(kOui, LTR_TRACK_OUI, 1), 0);
    ASSERT_EQ(ltr_apply_trackobj(kOther, LTR_TRACK_MAC, 1), 0);
    add_stas({kMac, kInOui, kOther});
    mgt.cfg->lmatch = 0;
    ltr_purge_unmatched(&mgt);
    EXPECT_EQ(mgt.sta_tbl.sta_cnt, 3);

    fake::script("qz_dcd_set_lta_lmatch_enable", 0);
    fake::script("qz_dcd_set_lta_lmatch_enable", -1);
    EXPECT_EQ(ltr_set_lmatch(1), -1);
    EXPECT_TRUE(fake::dbg_has("set track all to interface wifi1 failed.\n"));
    EXPECT_EQ(mgt.cfg->lmatch, 0u);
    EXPECT_EQ(mgt.sta_tbl.sta_cnt, 3);

    EXPECT_EQ(ltr_set_lmatch(1), 0);
    EXPECT_EQ(fake::radio_state(8).lmatch, 1);
    EXPECT_FALSE(has_sta(kMac));
    EXPECT_TRUE(has_sta(kInOui) && has_sta(kOther));

    ltr_track_list_cleanup(); // an empty list matches nothing
    ltr_purge_unmatched(&mgt);
    EXPECT_EQ(mgt.sta_tbl.sta_cnt, 0);
}

} // namespace
