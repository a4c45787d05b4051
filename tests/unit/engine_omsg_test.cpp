// The outgoing message buffer: creation, growth and its limit, flush.
#include "engine_test.h"
#include "ltr_alloc.h"

using namespace eng;

namespace {

class EngineOmsg : public LtrTest {
  protected:
    void SetUp() override
    {
        LtrTest::SetUp();
        ltr_debug_flags = LTR_DBG_ERROR;
        ASSERT_EQ(ltr_engine_ops.init(&mgt), 0);
        ASSERT_EQ(ltr_engine_ops.reset(&mgt), 0);
    }
    int add(int size, uint8_t fill = 0xab)
    {
        bytes b((size_t)size, fill);
        return ltr_engine_ops.add_tlvs(&mgt, 1, b.data(), size);
    }
    // cur_size, space_left, offset, then the header's len and tlv_num.
    std::vector<int> state()
    {
        const ltr_omsg *o = mgt.omsg;
        const ltr_srv_out *h = (const ltr_srv_out *)o->buf;
        EXPECT_EQ(o->max_size, LTR_OMSG_MAX);
        return {o->cur_size, o->space_left, o->offset, h->len, h->tlv_num};
    }
};

} // namespace

TEST_F(EngineOmsg, GrowsInWholeStepsUpToTheLimitAndNeverShrinks)
{
    ASSERT_EQ(add(11, 0x11), 0);
    EXPECT_EQ(state(), (std::vector<int>{1024, 1013, 11, 17, 1}));
    ASSERT_EQ(ltr_engine_ops.reset(&mgt), 0);
    ASSERT_EQ(add(1500, 0x11), 0);
    EXPECT_EQ(state(), (std::vector<int>{2048, 548, 1500, 1506, 1}));
    ASSERT_EQ(add(548 + 1024), 0); // a shortfall of exactly one step
    EXPECT_EQ(state()[0], 3072);
    ASSERT_EQ(add(1025), 0); // one byte more takes two
    EXPECT_EQ(state()[0], 5120);
    EXPECT_EQ(mgt.omsg->buf[16 + 1499], 0x11); // contents survive the moves

    ltr_alloc_fail_at = 1;
    EXPECT_EQ(add(2000), -1);
    EXPECT_TRUE(fake::dbg_has("realloc osg buffer failed.\n"));
    EXPECT_EQ(state(), (std::vector<int>{5120, 1023, 4097, 4103, 3}));

    ASSERT_EQ(ltr_engine_ops.reset(&mgt), 0);
    EXPECT_EQ(state(), (std::vector<int>{5120, 5120, 0, 6, 0}));
    ASSERT_EQ(add(LTR_OMSG_MAX - 5), 0);
    EXPECT_EQ(add(13), -1);
    EXPECT_TRUE(fake::dbg_has("new requested size exceeds limit.\n"));
    EXPECT_EQ(state(), (std::vector<int>{16384, 5, 16379, 16385, 1}));
    ASSERT_EQ(add(5), 0);
    EXPECT_EQ(state(), (std::vector<int>{16384, 0, 16384, 16390, 2}));
}
