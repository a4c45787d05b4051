// The outgoing message buffer: creation, growth and its limit, flush, sending and
// the ack reply.
#include "engine_test.h"
#include "ltr_alloc.h"

using namespace eng;

namespace {

class EngineOmsgTest : public EngineTest {
  protected:
    void SetUp() override
    {
        EngineTest::SetUp();
        ltr_debug_flags = LTR_DBG_ERROR;
        ASSERT_EQ(ltr_engine_ops.reset(&mgt), 0);
    }
    int add(int n, int size, uint8_t fill = 0xab)
    {
        bytes b((size_t)size, fill);
        return ltr_engine_ops.add_tlvs(&mgt, n, b.data(), size);
    }
    void expect_state(int cur, int left, int offset)
    {
        EXPECT_EQ(mgt.omsg->max_size, LTR_OMSG_MAX);
        EXPECT_EQ(mgt.omsg->cur_size, cur);
        EXPECT_EQ(mgt.omsg->space_left, left);
        EXPECT_EQ(mgt.omsg->offset, offset);
    }
    const ltr_srv_out *hdr() { return (const ltr_srv_out *)mgt.omsg->buf; }
};

} // namespace

TEST_F(EngineOmsgTest, ShowAfterInit)
{
    qz_cli_cmd cmd{};
    EXPECT_GT(ltr_omsg_show(&cmd, mgt.omsg), 0);
    EXPECT_EQ(fake::cli_text(), "Omsg buffer max size:                   16384\n"
                                "Omsg buffer current size:               1024\n"
                                "Omsg buffer space left:                 1024\n"
                                "Omsg buffer offset:                     0\n");
}

TEST_F(EngineOmsgTest, InitFailureLeavesNothingAllocated)
{
    for (int nth : {1, 2}) {
        ltr_engine_ops.cleanup(&mgt);
        EXPECT_EQ(ltr_engine_ops.cleanup(&mgt), 0); // no record: nothing to do
        fake::clear_text();
        ltr_alloc_fail_at = nth;
        EXPECT_EQ(ltr_engine_ops.init(&mgt), -1);
        EXPECT_EQ(mgt.omsg, nullptr);
        EXPECT_TRUE(fake::dbg_has("no memory.\n"));
    }
}

TEST_F(EngineOmsgTest, AppendKeepsCountersAndHeaderInStep)
{
    bytes sta = mac_list({fake::mac_t{1, 2, 3, 4, 5, 6}});
    ASSERT_EQ(ltr_engine_ops.add_tlvs(&mgt, 1, sta.data(), (int)sta.size()), 0);
    expect_state(1024, 1013, 11);
    EXPECT_EQ(hdr()->len, 17);
    EXPECT_EQ(hdr()->tlv_num, 1);
    ASSERT_EQ(add(2, 26), 0);
    EXPECT_EQ(hdr()->len, 43);
    EXPECT_EQ(hdr()->tlv_num, 3);
    EXPECT_EQ(bytes(mgt.omsg->buf + 16, mgt.omsg->buf + 27), sta);

    ASSERT_EQ(ltr_engine_ops.reset(&mgt), 0);
    expect_state(1024, 1024, 0);
    EXPECT_EQ(hdr()->len, 6);
    EXPECT_EQ(hdr()->tlv_num, 0);
    EXPECT_EQ(bytes(mgt.omsg->buf, mgt.omsg->buf + 12), bytes(12, 0));
}

TEST_F(EngineOmsgTest, GrowsInWholeStepsAndNeverShrinks)
{
    ASSERT_EQ(add(1, 1500, 0x11), 0);
    expect_state(2048, 548, 1500);
    ASSERT_EQ(add(1, 548 + 1024), 0); // shortfall of exactly one step
    expect_state(3072, 0, 3072);
    ASSERT_EQ(add(1, 1025), 0); // one byte more takes two
    expect_state(5120, 1023, 4097);
    EXPECT_EQ(mgt.omsg->buf[16], 0x11); // contents survive the moves
    EXPECT_EQ(mgt.omsg->buf[16 + 1499], 0x11);

    ASSERT_EQ(ltr_engine_ops.reset(&mgt), 0);
    expect_state(5120, 5120, 0);
}

TEST_F(EngineOmsgTest, LimitIsSixteenKilobytesOfTlvs)
{
    ASSERT_EQ(add(1, LTR_OMSG_MAX - 5), 0);
    expect_state(16384, 5, 16379);
    EXPECT_EQ(add(1, 13), -1);
    EXPECT_TRUE(fake::dbg_has("new requested size exceeds limit.\n"));
    expect_state(16384, 5, 16379);
    EXPECT_EQ(hdr()->tlv_num, 1);
    ASSERT_EQ(add(1, 5), 0);
    expect_state(16384, 0, 16384);
    EXPECT_EQ(hdr()->len, 16390);
}

TEST_F(EngineOmsgTest, FailedGrowthChangesNothing)
{
    ASSERT_EQ(add(1, 1000, 0x22), 0);
    ltr_alloc_fail_at = 1;
    EXPECT_EQ(add(1, 100), -1);
    EXPECT_TRUE(fake::dbg_has("realloc osg buffer failed.\n"));
    expect_state(1024, 24, 1000);
    EXPECT_EQ(hdr()->len, 1006);
    EXPECT_EQ(mgt.omsg->buf[16 + 999], 0x22);
}

TEST_F(EngineOmsgTest, MissingBuffer)
{
    ltr_engine_ops.cleanup(&mgt);
    EXPECT_EQ(ltr_engine_ops.reset(&mgt), -1);
    EXPECT_EQ(fake::dbgs().size(), 0u);
    EXPECT_EQ(add(1, 5), -1);
    EXPECT_TRUE(fake::dbg_has("omsg buffer is not inited yet.\n"));
}

TEST_F(EngineOmsgTest, FlushSendsAReportOnlyWhenItHoldsTlvs)
{
    EXPECT_EQ(ltr_engine_ops.flush(&mgt), 0);
    EXPECT_EQ(fake::count("qz_capwap_send_event"), 0u);

    bytes sta = mac_list({fake::mac_t{1, 2, 3, 4, 5, 6}});
    bytes rssi = tlv(LTR_TLV_RSSI_DATA, {1, 2, 3, 4, 5, 7, 0x09, 0x6c, 0xc4});
    ltr_engine_ops.add_tlvs(&mgt, 1, sta.data(), (int)sta.size());
    ltr_engine_ops.add_tlvs(&mgt, 1, rssi.data(), (int)rssi.size());
    ltr_engine_ops.finish(&mgt);
    EXPECT_EQ(ltr_engine_ops.flush(&mgt), 0);
    auto c = fake::calls_of("qz_capwap_send_event");
    ASSERT_EQ(c.size(), 1u);
    EXPECT_EQ(c[0].args, (std::vector<int64_t>{LTR_EVT_SRV_MSG_OUT, 40}));
    reply r = parse(c[0].data);
    EXPECT_EQ(r.size, 40u);
    EXPECT_EQ(r.msg_type, 2);
    EXPECT_EQ(r.id, (bytes{0, 0, 0, 0}));
    EXPECT_EQ(r.datalen, 30u);
    EXPECT_EQ(r.opcode, LTR_OP_RSSI_REPORT);
    EXPECT_EQ(r.len, 30);
    EXPECT_EQ(r.tlv_num, 2);
    EXPECT_EQ(bytes(c[0].data.begin() + 16, c[0].data.end()), [&] {
        bytes t = sta;
        t.insert(t.end(), rssi.begin(), rssi.end());
        return t;
    }());
}

TEST_F(EngineOmsgTest, SendLogsDumpsAndPassesTheResultUp)
{
    ltr_debug_flags = LTR_DBG_INFO | LTR_DBG_PACKET;
    bytes ack = tlv(LTR_TLV_ACK_CODE, {0});
    ltr_engine_ops.add_tlvs(&mgt, 1, ack.data(), 5);
    fake::script("qz_capwap_send_event", -3);
    EXPECT_EQ(ltr_send_msg(&mgt, (ltr_srv_out *)mgt.omsg->buf, LTR_OP_ACK, msg_id), -3);
    EXPECT_TRUE(fake::dbg_has("send msg to server: opcode: ack, numbers of tlv 1, total len 11"));
    EXPECT_TRUE(fake::dbg_has("ack code 0"));
    auto h = fake::calls_of("qz_hexdump");
    ASSERT_EQ(h.size(), 1u);
    EXPECT_EQ(h[0].data, (bytes{0, 6, 0, 11, 0, 1, 0, 7, 0, 5, 0}));
}

TEST_F(EngineOmsgTest, AckIsTwentyOneBytesWithTheRequestsId)
{
    bytes req = msg(LTR_OP_STOP, {});
    EXPECT_EQ(ltr_send_ack(&mgt, (const ltr_srv_msg *)req.data(), LTR_ACK_UNKNOWN_OPCODE), 0);
    ASSERT_EQ(fake::capwap_sent().size(), 1u);
    EXPECT_EQ(fake::capwap_sent()[0].id, (uint32_t)LTR_EVT_SRV_MSG_OUT);
    EXPECT_EQ(fake::capwap_sent()[0].data,
              (bytes{0, 2, 0xde, 0xad, 0xbe, 0xef, 0, 0, 0, 11, 0, 6, 0, 11, 0, 1, 0, 7, 0, 5, 2}));
    // The ack does not touch the outgoing buffer.
    expect_state(1024, 1024, 0);
}

TEST_F(EngineOmsgTest, NullArgumentsStopTheProcess)
{
    qz_cli_cmd cmd{};
    EXPECT_DEATH(ltr_engine_ops.add_tlvs(&mgt, 1, nullptr, 5),
                 "Assertion \\(mgt != \\(\\(void \\*\\)0\\) && tlvs != \\(\\(void \\*\\)0\\)\\) failed at qz_ltr_engine");
    EXPECT_DEATH(ltr_send_msg(&mgt, nullptr, LTR_OP_ACK, msg_id), "Assertion");
    EXPECT_DEATH(ltr_omsg_show(&cmd, nullptr), "Assertion");
}
