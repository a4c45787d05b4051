// The manager: settings segment (fresh and kept across a restart), initialisation
// failures, release, the setters and the life rule of a reading.
#include "core_util.h"
#include "ltr_rssi.h"

namespace {

class CoreMgt : public LtrTest {
  protected:
    // A daemon restart: platform state gone except the shared segment and the store.
    void restart()
    {
        ltr_test_reset_core();
        fake::reset_keep_shm();
    }
};

TEST_F(CoreMgt, FreshSegmentGetsTheDefaults)
{
    ASSERT_EQ(ltr_mgt_init(), 0);
    auto c = fake::calls_of("qz_shm_create");
    ASSERT_EQ(c.size(), 1u);
    EXPECT_EQ(c[0].args, (std::vector<int64_t>{0x10201, 20}));
    EXPECT_EQ(mgt.shm_id, 1000);

    ltr_cfg want = core_defaults();
    EXPECT_EQ(fake::shm_bytes(LTR_SHM_KEY), fake::bytes((uint8_t *)&want, (uint8_t *)&want + 20));
    EXPECT_EQ(ltr_mgt_inited, 1);
    EXPECT_EQ(mgt.engine, nullptr);
    EXPECT_EQ(fake::timers().size(), 2u);
    EXPECT_EQ(mgt.my_ip, ltr_ip(10, 0, 0, 1));
    EXPECT_EQ(mgt.sta_tbl.max_sta, 512);

    // A second call does nothing at all.
    fake::clear_calls();
    EXPECT_EQ(ltr_mgt_init(), 0);
    EXPECT_TRUE(fake::calls().empty());
}

TEST_F(CoreMgt, RestartKeepsEveryStoredSetting)
{
    ASSERT_EQ(ltr_mgt_init(), 0);
    ltr_mgt_set_suppress(0);
    ltr_mgt_set_hold_time(0xff);
    ltr_mgt_set_rssi_threshold(0x0105);
    ltr_mgt_set_valid_period(0xffff);
    mgt.cfg->lmatch = 0;
    mgt.cfg->rpt_interval = 17;
    auto before = fake::shm_bytes(LTR_SHM_KEY);

    restart();
    ASSERT_EQ(ltr_mgt_init(), 0);
    EXPECT_EQ(fake::shm_bytes(LTR_SHM_KEY), before);
    EXPECT_EQ(mgt.cfg->rssi_threshold, 5);
    EXPECT_EQ(mgt.cfg->hold_time, 0xff);
}

TEST_F(CoreMgt, StoredEnabledWhoseStartFailsStillComesUp)
{
    ASSERT_EQ(ltr_mgt_init(), 0);
    mgt.cfg->enabled = 1;
    restart();

    ltr_debug_flags = LTR_DBG_ERROR;
    fake::script("qz_hc_register", -1);
    ASSERT_EQ(ltr_mgt_init(), 0);
    EXPECT_TRUE(fake::dbg_has("start tracking setting failed.\n"));
    EXPECT_EQ(mgt.engine, nullptr);
    EXPECT_EQ(mgt.cfg->enabled, 1u);
    EXPECT_EQ(ltr_mgt_inited, 1);
}

TEST_F(CoreMgt, InitFailures)
{
    struct {
        const char *fn;
        int result;
        const char *text;
        int want;
    } cases[] = {
        {"qz_dcd_get_mac_byname", -1, "get mgt0 mac failed.\n", -1},
        {"qz_pmpt_timer_create", -1, "create rssi fetch timer failed.\n", -1},
        {"qz_dcd_get_addr_byname", -1, "get mgt0 ip failed.\n", 0},
    };
    for (auto &c : cases) {
        SCOPED_TRACE(c.fn);
        fake::reset();
        ltr_test_reset_core();
        ltr_debug_flags = LTR_DBG_ERROR;
        fake::script(c.fn, c.result);
        EXPECT_EQ(ltr_mgt_init(), c.want);
        EXPECT_TRUE(fake::dbg_has(c.text)) << fake::dbg_text();
        EXPECT_EQ(ltr_mgt_inited, c.want == 0);
        if (c.want == 0) {
            EXPECT_EQ(mgt.my_ip, 0u);
        }
    }

    // The second timer.
    fake::reset();
    ltr_test_reset_core();
    ltr_debug_flags = LTR_DBG_ERROR;
    fake::script("qz_pmpt_timer_create", 0);
    fake::script("qz_pmpt_timer_create", -1);
    EXPECT_EQ(ltr_mgt_init(), -1);
    EXPECT_TRUE(fake::dbg_has("create station owner ip check timer failed.\n"));

    // No segment: refused rather than read through a null pointer.
    fake::reset();
    ltr_test_reset_core();
    fake::script("qz_shm_create", -1);
    EXPECT_EQ(ltr_mgt_init(), -1);
}

TEST_F(CoreMgt, TrackListLoadFailureStopsInit)
{
    ltr_debug_flags = LTR_DBG_ERROR;
    fake::script("qz_db_open", -1);
    EXPECT_EQ(ltr_mgt_init(), -1);
    EXPECT_TRUE(fake::dbg_has("init track list failed.\n"));
    EXPECT_EQ(fake::count("qz_dcd_get_mac_byname"), 0u);
}

TEST_F(CoreMgt, CleanupReleasesTimersAndSegment)
{
    ASSERT_EQ(ltr_mgt_init(), 0);
    EXPECT_EQ(ltr_mgt_cleanup(), 0);
    EXPECT_EQ(fake::count("qz_pmpt_timer_delete"), 2u);
    auto d = fake::calls_of("qz_shm_destroy");
    ASSERT_EQ(d.size(), 1u);
    EXPECT_EQ(d[0].args[0], 1000);
    EXPECT_EQ(ltr_mgt_inited, 0);
}

TEST_F(CoreMgt, SettersStoreAnyValueOfTheirWidth)
{
    ASSERT_EQ(ltr_mgt_init(), 0);
    EXPECT_EQ(ltr_mgt_set_rssi_threshold(0x0105), 0);
    EXPECT_EQ(mgt.cfg->rssi_threshold, 5);
    EXPECT_EQ(ltr_mgt_set_suppress(0xffff), 0);
    EXPECT_EQ(mgt.cfg->suppress, 0xffff);
    EXPECT_EQ(ltr_mgt_set_hold_time(0), 0);
    EXPECT_EQ(mgt.cfg->hold_time, 0);
    EXPECT_EQ(ltr_mgt_set_valid_period(0), 0);
    EXPECT_EQ(mgt.cfg->valid_period, 0);
    // Each setter releases the lock it took.
    EXPECT_EQ(pthread_mutex_trylock(&mgt.lock), 0);
    pthread_mutex_unlock(&mgt.lock);
    // Nothing else in the record moved.
    EXPECT_EQ(mgt.cfg->rpt_interval, 60);
    EXPECT_EQ(mgt.cfg->lmatch, 1u);
}

TEST_F(CoreMgt, ReadingLife)
{
    static ltr_cfg cfg = core_defaults();
    mgt.cfg = &cfg;
    ltr_rssi_entry e{};
    struct {
        uint32_t my_ip;
        uint32_t local;
        uint16_t interval;
        uint8_t hold;
        int want;
    } cases[] = {
        {1, 1, 60, 9, 1},  {1, 1, 25, 9, 2},  {1, 1, 120, 9, 1}, {1, 1, 0, 9, 1},
        {1, 1, 1, 9, 60},  {1, 0, 20, 2, 3},  {0, 1, 20, 2, 3},  {0, 0, 20, 255, 256},
    };
    for (auto &c : cases) {
        mgt.my_ip = c.my_ip;
        e.ni_local = c.local;
        cfg.rpt_interval = c.interval;
        cfg.hold_time = c.hold;
        EXPECT_EQ(ltr_rssi_life(&mgt, &e), c.want)
            << "ip " << c.my_ip << " local " << c.local << " interval " << c.interval;
    }
}

TEST_F(CoreMgt, ReadingLifeChecksItsArguments)
{
    ltr_rssi_entry e{};
    EXPECT_DEATH(ltr_rssi_life(&mgt, nullptr),
                 "Assertion \\(mgt != \\(\\(void \\*\\)0\\) && rssi != \\(\\(void \\*\\)0\\)\\) "
                 "failed at qz_ltr_common:");
    EXPECT_DEATH(ltr_rssi_life(nullptr, &e), "Assertion");
}

} // namespace
