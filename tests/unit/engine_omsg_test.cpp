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

TEST_F(EngineOmsg, CreationAndItsFailures)
{
    qz_cli_cmd cmd{};
    EXPECT_GT(ltr_omsg_show(&cmd, mgt.omsg), 0);
    EXPECT_EQ(fake::cli_text(), "Omsg buffer max size:                   16384\n"
                                "Omsg buffer current size:               1024\n"
                                "Omsg buffer space left:                 1024\n"
                                "Omsg buffer offset:                     0\n");
    for (int nth : {1, 2}) { // the record, then the buffer
        ltr_engine_ops.cleanup(&mgt);
        ltr_alloc_fail_at = nth;
        EXPECT_EQ(ltr_engine_ops.init(&mgt), -1);
        EXPECT_EQ(mgt.omsg, nullptr);
        EXPECT_EQ(ltr_engine_ops.cleanup(&mgt), 0);
        EXPECT_EQ(ltr_engine_ops.reset(&mgt), -1);
        EXPECT_EQ(add(5), -1);
    }
    EXPECT_EQ(fake::dbg_text(), "no memory.\nomsg buffer is not inited yet.\nno memory.\nomsg buffer is not inited yet.\n");
}

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

TEST_F(EngineOmsg, FlushSendsAReportOnlyWhenItHoldsTlvs)
{
    EXPECT_EQ(ltr_engine_ops.flush(&mgt), 0);
    EXPECT_EQ(fake::count("qz_capwap_send_event"), 0u);
    ltr_debug_flags = LTR_DBG_INFO;
    bytes sta = mac_list({fake::mac_t{1, 2, 3, 4, 5, 6}});
    ltr_engine_ops.add_tlvs(&mgt, 1, sta.data(), (int)sta.size());
    EXPECT_EQ(ltr_engine_ops.finish(&mgt), 0);
    fake::script("qz_capwap_send_event", -3);
    EXPECT_EQ(ltr_engine_ops.flush(&mgt), -3); // the platform's result, passed up
    EXPECT_TRUE(fake::dbg_has("send msg to server: opcode: rssi report, numbers of tlv 1, total len 17"));
    auto c = fake::calls_of("qz_capwap_send_event");
    ASSERT_EQ(c.size(), 1u);
    reply r = parse(c[0].data);
    EXPECT_EQ(r.opcode, LTR_OP_RSSI_REPORT);
    EXPECT_EQ(r.id, (bytes{0, 0, 0, 0}));
    EXPECT_EQ(r.tlvs, (tlvs_t{{LTR_TLV_MAC_LIST, {1, 1, 2, 3, 4, 5, 6}}}));
}
