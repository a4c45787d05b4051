// Validation of received server messages, and the outgoing buffer's growth.
#include "engine_test.h"
#include "ltr_alloc.h"

using namespace eng;

namespace {

class EngineMsg : public LtrTest {
  protected:
    void SetUp() override
    {
        LtrTest::SetUp();
        ltr_debug_flags = LTR_DBG_ERROR;
    }
    int validate(const bytes &b, size_t n)
    {
        fake::clear_calls();
        fake::clear_text();
        delivery d(b, n);
        return ltr_msg_validate(&mgt, (ltr_srv_msg *)d.p.get(), d.len);
    }
    int validate(const bytes &b) { return validate(b, b.size()); }
};

const char *const count_failed = "tlv number validate failed.\n";

} // namespace

TEST_F(EngineMsg, HeaderFaultsDropTheMessageWithoutReply)
{
    bytes m = msg(LTR_OP_START, {tlv(2, {1})});
    for (size_t n = 0; n < sizeof(ltr_srv_msg); n++)
        EXPECT_EQ(validate(m, n), -1) << n;
    EXPECT_EQ(dbg_lines(), std::vector<std::string>{"short msg: 16 bytes, dropped.\n"});
    EXPECT_EQ(validate(msg(LTR_OP_START, {}, -1, -1, 3)), -1);
    EXPECT_EQ(dbg_lines(), std::vector<std::string>{"corrupted msg: msg_type 3, datalen 100.\n"});
    EXPECT_EQ(validate(msg(LTR_OP_START, {}, -1, -1, LTR_MSG_TYPE, 5)), -1);
    EXPECT_EQ(fake::capwap_sent().size(), 0u);
    // datalen is compared unsigned and not otherwise used.
    EXPECT_EQ(validate(msg(LTR_OP_START, {}, -1, -1, LTR_MSG_TYPE, 6)), 0);
    EXPECT_EQ(validate(msg(LTR_OP_START, {}, -1, -1, LTR_MSG_TYPE, 0x80000000u)), 0);
}

TEST_F(EngineMsg, LengthAndCountRules)
{
    bytes t = tlv(1, u16v(60));
    struct tc {
        bytes m;
        std::vector<std::string> errors; // empty: accepted
    };
    auto bad_len = [](int type, int len) {
        return "tlv validate failed: type " + std::to_string(type) + ", len " + std::to_string(len) + "\n";
    };
    const tc cases[] = {
        {msg(4, {tlv(1, u16v(1)), tlv(2, {3}), tlv(3, u16v(1)), tlv(6, bytes(9)), tlv(7, {0})}), {}},
        {msg(4, {mac_all(), mac_list({sta1, sta2}), oui_list({}), oui_list({{1, 2, 3}})}), {}},
        {msg(4, {}), {}}, // len 6, no TLV
        {msg(4, {tlv(1, {60})}), {bad_len(1, 5), count_failed}},
        {msg(4, {tlv(7, {})}), {bad_len(7, 4), count_failed}},
        {msg(4, {tlv(4, {255, 1, 2, 3, 4, 5, 6})}), {bad_len(4, 11), count_failed}},
        {msg(4, {tlv(4, {2, 1, 2, 3, 4, 5, 6})}), {bad_len(4, 11), count_failed}},
        {msg(4, {tlv(4, {})}), {bad_len(4, 4), count_failed}},
        {msg(4, {tlv(5, {1, 1, 2})}), {bad_len(5, 7), count_failed}},
        {msg(4, {}, 4, 2), {count_failed}},         // len below 6
        {msg(4, {}, 6, 1), {count_failed}},         // a count left over
        {msg(4, {t, t}, -1, 1), {count_failed}},    // bytes left over
        {msg(4, {t}, 11), {count_failed}},          // a TLV past len
        {msg(4, {tlv(9, {1, 2, 3, 4}), t}), {"unknown tlv type 9.\n"}},
        // A zero-length TLV does not move the walk; the count still ends it.
        {msg(4, {tlv(0, {}, 0), t}, 12, 2), {"unknown tlv type 0.\n", "unknown tlv type 0.\n", count_failed}},
        // Read twice, a head is judged twice as received.
        {msg(4, {tlv(256, {}, 0), t}, 12, 2), {"unknown tlv type 256.\n", "unknown tlv type 256.\n", count_failed}},
        // Overlapping heads: each is read as received, not as an earlier head left it.
        {msg(4, {overlap_len2, tlv(2, {7})}, -1, 2), {"unknown tlv type 9.\n"}},
        {msg(4, {overlap_len1, tlv(0xc00, bytes(252)), t}, -1, 3),
         {"unknown tlv type 12.\n", "unknown tlv type 3072.\n"}},
        {msg(4, {overlap_len3, tlv(0x309, bytes(4))}, -1, 2), {"unknown tlv type 11.\n", "unknown tlv type 777.\n"}},
        {msg(4, {bytes{0, 0}, tlv(2, {7}, 4)}, -1, 2), {"unknown tlv type 0.\n", bad_len(2, 4), count_failed}},
    };
    std::vector<std::string> stuck(300, "unknown tlv type 0.\n"); // the whole count on one head
    stuck.push_back(count_failed);
    std::vector<tc> all(std::begin(cases), std::end(cases));
    all.push_back({msg(4, {tlv(0, {}, 0), t}, 12, 300), stuck});
    for (auto &c : all) {
        bool ok = c.errors.empty() || c.errors.back() != count_failed;
        EXPECT_EQ(validate(c.m), ok ? 0 : -1);
        EXPECT_EQ(dbg_lines(), c.errors);
        if (ok)
            EXPECT_EQ(fake::capwap_sent().size(), 0u);
        else
            expect_plain_ack(LTR_ACK_BAD_MSG);
    }
}

TEST_F(EngineMsg, NothingPastTheDeliveredBytesIsRead)
{
    // Every cut of a valid message is refused with the bad-message ack, or dropped while
    // the header is incomplete; the sanitizer watches the reads.
    bytes m = msg(LTR_OP_START, {tlv(1, u16v(60)), tlv(9, {1, 2, 3}), mac_list({sta1, sta2}),
                                 oui_list({{1, 2, 3}}), tlv(6, bytes(9, 7)), tlv(7, {0})});
    for (size_t n = 0; n < m.size(); n++) {
        EXPECT_EQ(validate(m, n), -1) << n;
        EXPECT_EQ(fake::capwap_sent().size(), n < sizeof(ltr_srv_msg) ? 0u : 1u) << n;
    }
    EXPECT_EQ(validate(m, m.size() - 1), -1);
    EXPECT_TRUE(fake::dbg_has("msg len 62 exceeds the 72 bytes delivered.\n"));
    bytes longer = m;
    longer.insert(longer.end(), {1, 2, 3}); // bytes after len are ignored
    EXPECT_EQ(validate(longer), 0);

    // A head that crosses the delivery is refused; delivered whole, its length of 2
    // fills len exactly and it passes.
    bytes head = msg(LTR_OP_START, {bytes{0, 9}}, 8, 1);
    EXPECT_EQ(validate(head), -1);
    EXPECT_EQ(dbg_lines(), (std::vector<std::string>{"tlv at offset 17 crosses the end of the msg.\n", count_failed}));
    head.insert(head.end(), {0, 2});
    EXPECT_EQ(validate(head), 0);
    EXPECT_EQ(validate(msg(LTR_OP_START, {tlv(9, {1, 2}, 20)})), -1);
    EXPECT_TRUE(fake::dbg_has("tlv crosses the end of the msg: type 9, len 20.\n"));
}

TEST_F(EngineMsg, ReceivedMessagesDumpAsTheyTravel)
{
    // The dump that validation writes shows the same lines as the dump of the message
    // in wire order, overlapping heads included.
    ltr_debug_flags = LTR_DBG_PACKET;
    const bytes msgs[] = {
        msg(LTR_OP_START, {tlv(1, u16v(30)), tlv(2, {0xc4}), mac_list({sta1, sta2}), oui_list({{1, 2, 3}}),
                           tlv(6, {2, 0, 0, 0, 0, 1, 0x09, 0x6c, 0xc4}), tlv(7, {4}), mac_all()}),
        msg(LTR_OP_MODIF, {overlap_len2, tlv(2, {7}), overlap_len1, tlv(0xc00, bytes(252)), tlv(3, u16v(90))}, -1, 5),
        msg(LTR_OP_START, {overlap_len3, tlv(0x309, bytes(4)), mac_list({sta1})}, -1, 3),
    };
    for (auto &m : msgs) {
        ASSERT_EQ(validate(m), 0);
        std::vector<std::string> received;
        for (auto &d : fake::dbgs())
            if (d.tag == LTR_TAG_PACKET)
                received.push_back(d.text);
        fake::clear_text();
        bytes wire = m;
        ltr_msg_dump((const ltr_msg_body *)(wire.data() + offsetof(ltr_srv_msg, opcode)),
                     (int)(wire.size() - offsetof(ltr_srv_msg, opcode)));
        EXPECT_EQ(received, dbg_lines());
        EXPECT_GE(received.size(), 2u);
    }

    // A zero-length TLV holds the dump on one head for the rest of the count: it shows
    // nothing, and what follows it is never reached.
    fake::clear_text();
    bytes stuck = msg(LTR_OP_START, {tlv(1, u16v(30)), tlv(0, {}, 0), tlv(3, u16v(90))}, -1, 300);
    ltr_msg_dump((const ltr_msg_body *)(stuck.data() + offsetof(ltr_srv_msg, opcode)),
                 (int)(stuck.size() - offsetof(ltr_srv_msg, opcode)));
    EXPECT_EQ(dbg_lines(), std::vector<std::string>{"report interval 30"});
}

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

TEST_F(EngineOmsg, NeverGrowsBeyondItsLimit)
{
    mgt.omsg->max_size = 1500; // a limit that is not a whole number of steps
    ASSERT_EQ(add(1400), 0);
    EXPECT_EQ(mgt.omsg->cur_size, 1500);
    EXPECT_EQ(mgt.omsg->space_left, 100);
    EXPECT_EQ(add(101), -1);
    EXPECT_EQ(add(100), 0);
}
