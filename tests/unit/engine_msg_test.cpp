// Validation of received server messages, the packet dump and the TLV builders.
#include "engine_test.h"

using namespace eng;

namespace {

class EngineMsgTest : public EngineTest {
  protected:
    void SetUp() override
    {
        EngineTest::SetUp();
        ltr_debug_flags = LTR_DBG_ERROR;
    }
    int validate(const bytes &b, size_t n) { return ltr_msg_validate(&mgt, delivery(b, n).in(), (int)n); }
    int validate(const bytes &b) { return validate(b, b.size()); }
    std::vector<std::string> lines()
    {
        std::vector<std::string> out;
        for (auto &d : fake::dbgs())
            out.push_back(d.text);
        return out;
    }
    // The one ack sent so far must be a bad-message ack echoing msg_id.
    void expect_bad_msg_ack()
    {
        auto s = sent();
        ASSERT_EQ(s.size(), 1u);
        EXPECT_EQ(s[0].opcode, LTR_OP_ACK);
        EXPECT_EQ(s[0].id, id_bytes());
        ASSERT_EQ(s[0].tlvs.size(), 1u);
        EXPECT_EQ(s[0].tlvs[0], (std::pair<uint16_t, bytes>{LTR_TLV_ACK_CODE, {LTR_ACK_BAD_MSG}}));
    }
};

const fake::mac_t sta1{0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
const fake::mac_t sta2{0x00, 0x11, 0x22, 0x33, 0x44, 0x66};

bytes full_start()
{
    return msg(LTR_OP_START, {tlv(LTR_TLV_REPORT_INTERVAL, u16v(30)), tlv(LTR_TLV_RSSI_THRESHOLD, {5}),
                              mac_list({sta1, sta2}), oui_list({{0x00, 0x11, 0x22}})});
}

} // namespace

TEST_F(EngineMsgTest, HeaderFaultsDropTheMessageWithoutReply)
{
    // Nothing of a short delivery is trusted or touched.
    bytes m = full_start();
    for (size_t n = 0; n < sizeof(ltr_srv_msg); n++) {
        delivery d(m, n);
        EXPECT_EQ(ltr_msg_validate(&mgt, d.in(), d.len), -1) << n;
        EXPECT_EQ(0, memcmp(d.p.get(), m.data(), n));
    }
    EXPECT_TRUE(fake::dbg_has("short msg: 16 bytes, dropped.\n"));

    EXPECT_EQ(validate(msg(LTR_OP_START, {}, -1, -1, 3)), -1);
    EXPECT_TRUE(fake::dbg_has("corrupted msg: msg_type 3, datalen 100.\n"));
    EXPECT_EQ(validate(msg(LTR_OP_START, {}, -1, -1, LTR_MSG_TYPE, 5)), -1);
    EXPECT_TRUE(fake::dbg_has("corrupted msg: msg_type 2, datalen 5.\n"));
    EXPECT_EQ(fake::capwap_sent().size(), 0u);

    // datalen is compared unsigned and is not otherwise used.
    EXPECT_EQ(validate(msg(LTR_OP_START, {}, -1, -1, LTR_MSG_TYPE, 6)), 0);
    EXPECT_EQ(validate(msg(LTR_OP_START, {}, -1, -1, LTR_MSG_TYPE, 0x80000000u)), 0);
}

TEST_F(EngineMsgTest, AcceptedMessageIsLeftInHostOrderWithValuesAsReceived)
{
    bytes m = full_start();
    delivery d(m);
    ltr_debug_flags |= LTR_DBG_INFO;
    ASSERT_EQ(ltr_msg_validate(&mgt, d.in(), d.len), 0);
    ltr_srv_msg *in = d.in();
    EXPECT_EQ(in->msg_type, 2);
    EXPECT_EQ(in->datalen, 100u);
    EXPECT_EQ(in->opcode, LTR_OP_START);
    EXPECT_EQ(in->len, m.size() - 11);
    EXPECT_EQ(in->tlv_num, 4);
    EXPECT_EQ(0, memcmp(in->msg_id, msg_id, 4));
    const uint8_t *t = d.p.get() + 17;
    EXPECT_EQ(((const ltr_tlv *)t)->type, LTR_TLV_REPORT_INTERVAL);
    EXPECT_EQ(((const ltr_tlv *)t)->len, 6);
    EXPECT_EQ(t[4], 0); // value still big-endian
    EXPECT_EQ(t[5], 30);
    const ltr_tlv *oui = (const ltr_tlv *)(t + 6 + 5 + 17);
    EXPECT_EQ(oui->type, LTR_TLV_OUI_LIST);
    EXPECT_EQ(oui->len, 8);
    EXPECT_EQ(lines(), std::vector<std::string>{"get an msg from server: opcode: start, len 42"});
    EXPECT_EQ(fake::capwap_sent().size(), 0u);
}

TEST_F(EngineMsgTest, KnownTlvsMustHaveTheirCatalogueLength)
{
    struct tc {
        bytes t;
        bool ok;
    };
    const tc cases[] = {
        {tlv(1, u16v(60)), true},
        {tlv(1, {60}), false},
        {tlv(2, {3}), true},
        {tlv(2, u16v(3)), false},
        {tlv(3, u16v(60)), true},
        {tlv(3, {1, 2, 3}), false},
        {mac_all(), true},
        {tlv(LTR_TLV_MAC_LIST, {255, 1, 2, 3, 4, 5, 6}), false},
        {mac_list({sta1, sta2}), true},
        {tlv(LTR_TLV_MAC_LIST, {2, 1, 2, 3, 4, 5, 6}), false},
        {tlv(LTR_TLV_MAC_LIST, {}), false},
        {oui_list({}), true},
        {oui_list({{1, 2, 3}, {4, 5, 6}}), true},
        {tlv(LTR_TLV_OUI_LIST, {1, 1, 2}), false},
        {tlv(6, bytes(9, 0)), true},
        {tlv(6, bytes(8, 0)), false},
        {tlv(7, {0}), true},
        {tlv(7, {}), false},
    };
    for (auto &c : cases) {
        fake::clear_text();
        fake::clear_calls();
        bytes m = msg(LTR_OP_START, {c.t});
        EXPECT_EQ(validate(m), c.ok ? 0 : -1) << "type " << c.t[1] << " len " << c.t.size();
        if (c.ok)
            continue;
        char first[64];
        snprintf(first, sizeof(first), "tlv validate failed: type %d, len %d\n", c.t[1], (int)c.t.size());
        EXPECT_EQ(lines(), (std::vector<std::string>{first, "tlv number validate failed.\n"}));
        expect_bad_msg_ack();
    }
}

TEST_F(EngineMsgTest, TlvsMustFillLenExactlyUnderTlvNum)
{
    bytes t = tlv(1, u16v(60));
    EXPECT_EQ(validate(msg(LTR_OP_STOP, {})), 0); // len 6, no TLV
    EXPECT_EQ(validate(msg(LTR_OP_STOP, {t, t})), 0);

    const bytes bad[] = {
        msg(LTR_OP_STOP, {}, 4, 0),     // len below 6
        msg(LTR_OP_STOP, {}, 4, 3),     //
        msg(LTR_OP_STOP, {}, 6, 1),     // count left over
        msg(LTR_OP_STOP, {t, t}, 12),   // a TLV beyond len
        msg(LTR_OP_STOP, {t, t}, -1, 1), // bytes left over
        msg(LTR_OP_STOP, {t}, 11),      // TLV runs past len
    };
    for (auto &m : bad) {
        fake::clear_text();
        fake::clear_calls();
        EXPECT_EQ(validate(m), -1);
        EXPECT_EQ(lines(), std::vector<std::string>{"tlv number validate failed.\n"});
        expect_bad_msg_ack();
    }
}

TEST_F(EngineMsgTest, UnknownTlvTypesAreSkippedByTheirLength)
{
    bytes m = msg(LTR_OP_START, {tlv(9, {1, 2, 3, 4}), tlv(2, {4})});
    EXPECT_EQ(validate(m), 0);
    EXPECT_TRUE(fake::dbg_has("unknown tlv type 9.\n"));

    // A zero-length TLV does not move the walk; the count still ends it.
    fake::clear_text();
    bytes zero = tlv(0, {}, 0);
    EXPECT_EQ(validate(msg(LTR_OP_START, {zero, tlv(2, {4})}, 11, 3)), -1);
    EXPECT_EQ(lines(), (std::vector<std::string>{"unknown tlv type 0.\n", "unknown tlv type 0.\n",
                                                 "unknown tlv type 0.\n", "tlv number validate failed.\n"}));
}

TEST_F(EngineMsgTest, NothingPastTheDeliveredBytesIsRead)
{
    // Every cut of a valid message is refused with one bad-message ack, or dropped when
    // the header is incomplete; the sanitizer watches the reads.
    bytes m = msg(LTR_OP_START, {tlv(1, u16v(60)), tlv(9, {1, 2, 3}), mac_list({sta1, sta2}),
                                 oui_list({{1, 2, 3}}), tlv(6, bytes(9, 7)), tlv(7, {0})});
    for (size_t n = 0; n < m.size(); n++) {
        fake::clear_calls();
        EXPECT_EQ(validate(m, n), -1) << n;
        EXPECT_EQ(fake::capwap_sent().size(), n < sizeof(ltr_srv_msg) ? 0u : 1u) << n;
    }
    fake::clear_calls();
    EXPECT_EQ(validate(m), 0);

    // Bytes after len are allowed and ignored.
    bytes longer = m;
    longer.insert(longer.end(), {1, 2, 3});
    EXPECT_EQ(validate(longer), 0);
}

TEST_F(EngineMsgTest, LengthsBeyondTheDeliveryAreNamedInTheLog)
{
    bytes m = msg(LTR_OP_START, {tlv(1, u16v(60))});
    EXPECT_EQ(validate(m, m.size() - 1), -1);
    EXPECT_EQ(lines(), (std::vector<std::string>{"msg len 12 exceeds the 22 bytes delivered.\n",
                                                 "tlv number validate failed.\n"}));
    expect_bad_msg_ack();

    // A TLV head that would start within len but end past the delivery.
    fake::clear_text();
    fake::clear_calls();
    bytes head = msg(LTR_OP_START, {bytes{0, 9}}, 8, 1);
    EXPECT_EQ(validate(head), -1);
    EXPECT_EQ(lines(), (std::vector<std::string>{"tlv at offset 17 crosses the end of the msg.\n",
                                                 "tlv number validate failed.\n"}));
    expect_bad_msg_ack();
    // Delivered in full, the same head is read; its length of 2 fills len exactly.
    bytes whole = head;
    whole.insert(whole.end(), {0, 2});
    EXPECT_EQ(validate(whole), 0);

    // A TLV body running past the delivery (and past len).
    fake::clear_text();
    EXPECT_EQ(validate(msg(LTR_OP_START, {tlv(9, {1, 2}, 20)})), -1);
    EXPECT_EQ(lines(), (std::vector<std::string>{"unknown tlv type 9.\n", "tlv crosses the end of the msg: type 9, len 20.\n",
                                                 "tlv number validate failed.\n"}));
}

TEST_F(EngineMsgTest, PacketFlagDumpsEveryTlvAsItTravels)
{
    bytes m = msg(LTR_OP_START,
                  {tlv(1, u16v(300)), tlv(2, {0xfe}), tlv(3, u16v(90)), mac_list({sta1, sta2}), mac_all(),
                   oui_list({{0x00, 0x0a, 0xbc}, {0xff, 0x01, 0x02}}),
                   tlv(6, {0xa0, 0xb0, 0xc0, 0xd0, 0xe0, 0xf0, 0x09, 0x6c, 0xc4}), tlv(7, {4}), tlv(12, {1})});
    const std::vector<std::string> dump = {
        "report interval 300",
        "rssi change update threshold -2",
        "rssi valid period 90",
        "number of sta mac 2",
        "sta mac addr is 0011.2233.4466",
        "sta mac addr is 0011.2233.4455",
        "number of mac 0xff",
        "number of oui 2",
        "OUI 0x00:0x0a:0xbc",
        "OUI 0xff:0x01:0x02",
        "ap_mac a0b0.c0d0.e0f0, chan_freq 2412, power -60",
        "ack code 4",
    };
    ltr_debug_flags = LTR_DBG_PACKET;
    delivery d(m);
    ASSERT_EQ(ltr_msg_validate(&mgt, d.in(), d.len), 0);
    ASSERT_EQ(fake::calls_of("qz_hexdump").size(), 1u);
    EXPECT_EQ(fake::calls_of("qz_hexdump")[0].args[0], (int64_t)m.size() - 11);
    std::vector<std::string> got;
    for (auto &l : fake::dbgs())
        if (l.tag == LTR_TAG_PACKET)
            got.push_back(l.text);
    EXPECT_EQ(got, dump);

    // The same bytes in wire order, as when sent, dump the same lines.
    fake::clear_text();
    ltr_msg_dump((const ltr_msg_body *)(m.data() + 11), (int)m.size() - 11, false);
    EXPECT_EQ(lines(), dump);

    // Off, nothing; an empty message, nothing.
    fake::clear_text();
    ltr_debug_flags = LTR_DBG_ALL & ~LTR_DBG_PACKET;
    ltr_msg_dump((const ltr_msg_body *)(m.data() + 11), (int)m.size() - 11, false);
    ltr_debug_flags = LTR_DBG_PACKET;
    bytes empty = msg(LTR_OP_STOP, {});
    ltr_msg_dump((const ltr_msg_body *)(empty.data() + 11), 6, false);
    EXPECT_TRUE(fake::dbgs().empty());
}

TEST_F(EngineMsgTest, OpcodeNames)
{
    const char *names[] = {"", "start", "stop", "modif", "query", "rssi report", "ack", ""};
    for (uint16_t op = 0; op < 8; op++)
        EXPECT_STREQ(ltr_opcode_name(op), names[op]);
    EXPECT_STREQ(ltr_opcode_name(0xffff), "");
}

TEST_F(EngineMsgTest, BuildersWriteWholeTlvsInWireOrder)
{
    uint8_t buf[64];
    uint8_t macs[12] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    EXPECT_EQ(ltr_tlv_build_mac_list(buf, macs, 2), 17);
    EXPECT_EQ(bytes(buf, buf + 17), tlv(LTR_TLV_MAC_LIST, {2, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}));
    EXPECT_EQ(ltr_tlv_build_oui_list(buf, macs, 3), 14);
    EXPECT_EQ(bytes(buf, buf + 14), tlv(LTR_TLV_OUI_LIST, {3, 1, 2, 3, 4, 5, 6, 7, 8, 9}));
    EXPECT_EQ(ltr_tlv_build_oui_list(buf, macs, 0), 5);
    EXPECT_EQ(bytes(buf, buf + 5), tlv(LTR_TLV_OUI_LIST, {0}));
    ltr_rssi_data r{{0xa, 0xb, 0xc, 0xd, 0xe, 0xf}, 5180, -71, 1};
    EXPECT_EQ(ltr_tlv_build_rssi_data(buf, &r), 13);
    EXPECT_EQ(bytes(buf, buf + 13), tlv(LTR_TLV_RSSI_DATA, {0xa, 0xb, 0xc, 0xd, 0xe, 0xf, 0x14, 0x3c, 0xb9}));
    EXPECT_EQ(ltr_tlv_build_ack_code(buf, LTR_ACK_PARTIAL), 5);
    EXPECT_EQ(bytes(buf, buf + 5), tlv(LTR_TLV_ACK_CODE, {4}));
}

TEST_F(EngineMsgTest, NullArgumentsStopTheProcess)
{
    bytes m = full_start();
    EXPECT_DEATH(ltr_msg_validate(&mgt, nullptr, 20), "mgt != \\(\\(void \\*\\)0\\) && in != \\(\\(void \\*\\)0\\)");
    EXPECT_DEATH(ltr_tlv_build_mac_list(nullptr, m.data(), 1), "Assertion");
}
