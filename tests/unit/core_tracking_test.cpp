// Starting and stopping tracking as a whole, and where the lock is held meanwhile.
#include <cstring>

#include "core_util.h"
#include "ltr_alloc.h"
#include "ltr_engine.h"
#include "ltr_rssi.h"
#include "ltr_track.h"

namespace {

const uint8_t kMac[6] = {0x00, 0x0c, 0x29, 0x01, 0x02, 0x03};

class CoreTracking : public LtrTest {
  protected:
    void SetUp() override
    {
        LtrTest::SetUp();
        fake::set_radios({{"wifi0", 4}, {"wifi1", 0}, {"wifi2", 9}});
        ASSERT_EQ(ltr_mgt_init(), 0);
        fake::clear_calls();
        ltr_debug_flags = LTR_DBG_ERROR;
    }
};

TEST_F(CoreTracking, FailedStartsLeaveTrackingStopped)
{
    fake::script("qz_hc_register", -1);
    EXPECT_EQ(ltr_set_enabled(1), -1);
    EXPECT_TRUE(fake::dbg_has("register nbrcom library failed.\n"));
    EXPECT_EQ(fake::call_names(), (std::vector<std::string>{"qz_hc_register"}));

    // The engine refuses after the registration: unregistered again, under the lock.
    fake::clear_calls();
    bool locked = false;
    fake::on_call("qz_hc_unregister", [&] { locked = !core_lock_free(); });
    ltr_alloc_fail_at = 1; // the engine's buffer
    EXPECT_EQ(ltr_set_enabled(1), -1);
    EXPECT_TRUE(fake::dbg_has("register engine failed.\n"));
    EXPECT_EQ(fake::call_names(), (std::vector<std::string>{"qz_hc_register", "qz_hc_unregister"}));
    EXPECT_TRUE(locked);
    EXPECT_EQ(mgt.engine, nullptr);
    EXPECT_EQ(mgt.cfg->enabled, 0u);
    EXPECT_FALSE(fake::timer_state(mgt.rssi_fetch_timer).armed);
    EXPECT_TRUE(core_lock_free());
}

// The registration record is read by its bytes: the same 32 on every target, with the
// 32-bit pointers' slot halves zero.
TEST_F(CoreTracking, StartRegistersTheRelayReceiverWithTheRecordBytes)
{
    ASSERT_EQ(ltr_set_enabled(1), 0);
    uint8_t raw[32];
    static_assert(sizeof(raw) == sizeof(qz_hc_reg));
    std::memcpy(raw, &fake::hc_last_reg(), sizeof(raw));
    auto u32_at = [&](size_t off) {
        uint32_t v;
        std::memcpy(&v, raw + off, 4);
        return v;
    };
    EXPECT_EQ(u32_at(0), 52u);
    EXPECT_EQ(u32_at(4), 6u);
    EXPECT_EQ(u32_at(8), 1u);
    qz_hc_recv_cb cb = ltr_lta_msg_recv;
    EXPECT_EQ(std::memcmp(raw + 16, &cb, sizeof(cb)), 0);
    const uint8_t zero[16] = {};
    EXPECT_EQ(std::memcmp(raw + 16 + sizeof(cb), zero, 8 - sizeof(cb)), 0);
    EXPECT_EQ(std::memcmp(raw + 24, zero, 8), 0) << "second pointer is null";
}

TEST_F(CoreTracking, StopUndoesStartAndUnregistersWithoutTheLock)
{
    ASSERT_EQ(ltr_set_enabled(1), 0);
    ASSERT_EQ(ltr_apply_trackobj(kMac, LTR_TRACK_MAC, 1), 0);
    fake::clear_calls();
    bool seen = false;
    fake::on_call("qz_hc_unregister", [&] {
        seen = true;
        EXPECT_TRUE(core_lock_free());
        EXPECT_EQ(mgt.engine, nullptr);
        EXPECT_EQ(mgt.cfg->enabled, 1u);
    });
    EXPECT_EQ(ltr_set_enabled(0), 0);
    EXPECT_TRUE(seen);
    EXPECT_EQ(core_calls_among({"qz_dcd_set_lta_track_enable", "qz_pmpt_timer_stop",
                                "qz_hc_unregister", "qz_db_delete"}),
              (std::vector<std::string>{"qz_dcd_set_lta_track_enable",
                                        "qz_dcd_set_lta_track_enable", "qz_pmpt_timer_stop",
                                        "qz_pmpt_timer_stop", "qz_hc_unregister", "qz_db_delete"}));
    EXPECT_EQ(fake::radio_state(4).track_enable, 0);
    EXPECT_FALSE(fake::timer_state(mgt.owner_flush_timer).armed);
    EXPECT_EQ(mgt.omsg, nullptr);
    EXPECT_EQ(mgt.cfg->enabled, 0u);
    EXPECT_TRUE(core_lock_free());
    ASSERT_EQ(ltr_set_enabled(1), 0);
    EXPECT_EQ(ltr_tl.obj_cnt, 0); // the list did not come back
}

} // namespace
