// The server's requests: dispatch by opcode, start with its refusals, stop, modify
// and query, each with its reply.
#include "engine_test.h"
#include "ltr_event.h"
#include "ltr_node.h"
#include "ltr_rssi.h"

using namespace eng;

namespace {

// Tracking started as the daemon starts it, on one radio; requests go in through the
// server-message event handler, as the event thread delivers them.
class EngineSrv : public LtrTest {
  protected:
    ltr_cfg *cfg = nullptr;
    void SetUp() override
    {
        LtrTest::SetUp();
        fake::set_radios({{"wifi0", 4}});
        fake::set_mgt({0x02, 0, 0, 0, 0, 1}, ltr_ip(10, 0, 0, 1));
        ASSERT_EQ(ltr_mgt_init(), 0);
        ASSERT_EQ(ltr_start_tracking(), 0);
        cfg = mgt.cfg;
        fake::clear_calls();
        fake::clear_text();
        ltr_debug_flags = LTR_DBG_ERROR;
    }
    // One request through the event handler; calls and replies of earlier ones are dropped.
    void handle(const bytes &b)
    {
        fake::clear_calls();
        delivery d(b);
        ltr_handle_msg_in(d.p.get(), d.len);
    }
    bool tracked(const uint8_t *addr, uint32_t type)
    {
        ltr_track_key k = ltr_track_key_make(addr, type);
        return ltr_track_obj_find(&k) != nullptr;
    }
};

const std::array<uint8_t, 3> oui1{0x00, 0x11, 0x22};
const uint8_t oui1_key[6] = {0x00, 0x11, 0x22, 0, 0, 0};

fake::mac_t nth_mac(int i) { return {0x02, 0xaa, 0, 0, (uint8_t)(i >> 8), (uint8_t)i}; }
std::array<uint8_t, 3> nth_oui(int i) { return {0x0e, (uint8_t)(i >> 8), (uint8_t)i}; }

} // namespace

TEST_F(EngineSrv, StartAcksCodeZeroOrListsWhatWasRefused)
{
    handle(msg(LTR_OP_START, {tlv(1, u16v(30)), tlv(2, {9}), mac_list({sta1}), oui_list({oui1}), tlv(6, bytes(9))}));
    reply r = only_reply();
    EXPECT_EQ(r.opcode, LTR_OP_ACK);
    EXPECT_EQ(r.id, msg_id);
    EXPECT_EQ(r.tlvs, (tlvs_t{{LTR_TLV_ACK_CODE, {LTR_ACK_OK}}}));
    EXPECT_EQ(cfg->rpt_interval, 30);
    EXPECT_TRUE(tracked(sta1.data(), LTR_TRACK_MAC) && tracked(oui1_key, LTR_TRACK_OUI));
    EXPECT_TRUE(fake::dbg_has("unhandled tlv type 6, len 13.\n"));

    // The radio refuses the second address and the OUI; the rest still applies.
    for (int res : {0, -1, 0, -1})
        fake::script("qz_dcd_set_lta_trackobj", res);
    handle(msg(LTR_OP_START, {tlv(2, {6}), mac_list({sta1, sta2, sta3}), oui_list({oui1})}));
    r = only_reply();
    EXPECT_EQ(r.tlv_num, 3);
    EXPECT_EQ(r.tlvs, (tlvs_t{{LTR_TLV_ACK_CODE, {LTR_ACK_PARTIAL}},
                              {LTR_TLV_MAC_LIST, list_value<6>({sta2})},
                              {LTR_TLV_OUI_LIST, {1, 0x00, 0x11, 0x22}}}));
    EXPECT_EQ(cfg->rssi_threshold, 6);

    // Track-all that cannot be switched on is logged, not refused.
    fake::script("qz_dcd_set_lta_lmatch_enable", -1);
    handle(msg(LTR_OP_START, {mac_all()}));
    EXPECT_TRUE(fake::dbg_has("enable track all failed.\n"));
    EXPECT_EQ(only_reply().tlvs, (tlvs_t{{LTR_TLV_ACK_CODE, {LTR_ACK_OK}}}));

    // Without a buffer nothing is applied and nothing answered.
    ltr_engine_ops.cleanup(&mgt);
    handle(msg(LTR_OP_START, {tlv(2, {1}), mac_list({nth_mac(9)})}));
    EXPECT_EQ(fake::capwap_sent().size(), 0u);
    EXPECT_EQ(cfg->rssi_threshold, 6);
    EXPECT_FALSE(tracked(nth_mac(9).data(), LTR_TRACK_MAC));
}

TEST_F(EngineSrv, StartSplitsMoreRefusalsThanOneListHolds)
{
    // Refusals of all list TLVs together, split at what one list TLV can name.
    std::vector<fake::mac_t> m;
    std::vector<std::array<uint8_t, 3>> o;
    for (int i = 0; i < 400; i++)
        m.push_back(nth_mac(i));
    for (int i = 0; i < 300; i++)
        o.push_back(nth_oui(i));
    auto mid = [](auto &v, int from, int to) { return std::vector(v.begin() + from, v.begin() + to); };
    fake::script("qz_dcd_set_lta_trackobj", -1, 700);
    handle(msg(LTR_OP_START,
               {mac_list(mid(m, 0, 200)), oui_list(mid(o, 0, 255)), mac_list(mid(m, 200, 400)), oui_list(mid(o, 255, 300))}));
    reply r = only_reply();
    EXPECT_EQ(r.tlv_num, 5);
    EXPECT_EQ(r.tlvs, (tlvs_t{{LTR_TLV_ACK_CODE, {LTR_ACK_PARTIAL}},
                              {LTR_TLV_MAC_LIST, list_value(mid(m, 0, 254))},
                              {LTR_TLV_MAC_LIST, list_value(mid(m, 254, 400))},
                              {LTR_TLV_OUI_LIST, list_value(mid(o, 0, 255))},
                              {LTR_TLV_OUI_LIST, list_value(mid(o, 255, 300))}}));
}

TEST_F(EngineSrv, QueryReportsOwnedStationsUnderTheRequestsId)
{
    ltr_rssi_data rd{{0x02, 0, 0, 0, 0, 1}, 2412, -60, 1};
    for (auto &m : {sta1, sta2}) {
        ltr_sta *s = ltr_sta_add(&mgt.sta_tbl, m.data());
        ASSERT_NE(s, nullptr);
        ASSERT_NE(ltr_rssi_add(s, &rd), nullptr);
        s->ni_owner_ip = m == sta1 ? mgt.my_ip : ltr_ip(10, 0, 0, 2);
    }
    const tlvs_t sta1_report = {{LTR_TLV_MAC_LIST, list_value<6>({sta1})},
                                {LTR_TLV_RSSI_DATA, {0x02, 0, 0, 0, 0, 1, 0x09, 0x6c, 0xc4}}};
    handle(msg(LTR_OP_QUERY, {mac_all()}));
    reply r = only_reply();
    EXPECT_EQ(r.opcode, LTR_OP_RSSI_REPORT);
    EXPECT_EQ(r.id, msg_id);
    EXPECT_EQ(r.tlvs, sta1_report);
    handle(msg(LTR_OP_QUERY, {mac_list({sta3, sta1, sta2})}));
    EXPECT_EQ(only_reply().tlvs, sta1_report);

    // Nothing to report: an empty report all the same; no buffer: ack code 1.
    handle(msg(LTR_OP_QUERY, {tlv(2, {1})}));
    EXPECT_TRUE(fake::dbg_has("unhandled tlv type 2, len 5.\n"));
    r = only_reply();
    EXPECT_EQ(r.opcode, LTR_OP_RSSI_REPORT);
    EXPECT_EQ(r.size, 16u);
    EXPECT_EQ(r.tlv_num, 0);
    ltr_engine_ops.cleanup(&mgt);
    handle(msg(LTR_OP_QUERY, {mac_all()}));
    expect_plain_ack(LTR_ACK_NO_BUFFER);
}

TEST_F(EngineSrv, OverlappingHeadsAreHandledAsValidationWalkedThem)
{
    const bytes after_len1 = tlv(0xc00, bytes(252, 0xee)), after_len3 = tlv(0x309, bytes(4, 0xee));
    auto unhandled = [](int type, int len) {
        return fake::dbg_has("unhandled tlv type " + std::to_string(type) + ", len " + std::to_string(len) + ".\n");
    };
    handle(msg(LTR_OP_MODIF, {overlap_len2, tlv(2, {7}), overlap_len1, after_len1, tlv(1, u16v(45))}, -1, 5));
    expect_plain_ack(LTR_ACK_OK);
    EXPECT_EQ(cfg->rssi_threshold, 7);
    EXPECT_EQ(cfg->rpt_interval, 45);
    EXPECT_TRUE(unhandled(9, 2) && unhandled(12, 1) && unhandled(3072, 256));

    handle(msg(LTR_OP_START, {overlap_len3, after_len3, mac_list({sta1, sta2}), overlap_len2, tlv(2, {4})}, -1, 5));
    EXPECT_EQ(only_reply().tlvs, (tlvs_t{{LTR_TLV_ACK_CODE, {LTR_ACK_OK}}}));
    EXPECT_TRUE(tracked(sta1.data(), LTR_TRACK_MAC) && tracked(sta2.data(), LTR_TRACK_MAC));
    EXPECT_EQ(cfg->rssi_threshold, 4);
    EXPECT_TRUE(unhandled(11, 3) && unhandled(777, 8));

    handle(msg(LTR_OP_STOP, {overlap_len1, after_len1, mac_list({sta1})}, -1, 3));
    expect_plain_ack(LTR_ACK_OK);
    EXPECT_FALSE(tracked(sta1.data(), LTR_TRACK_MAC));
    EXPECT_TRUE(tracked(sta2.data(), LTR_TRACK_MAC));

    ltr_rssi_data rd{{0x02, 0, 0, 0, 0, 1}, 2412, -60, 1};
    ltr_sta *s = ltr_sta_add(&mgt.sta_tbl, sta2.data());
    ASSERT_TRUE(s && ltr_rssi_add(s, &rd));
    s->ni_owner_ip = mgt.my_ip;
    handle(msg(LTR_OP_QUERY, {overlap_len3, after_len3, mac_all()}, -1, 3));
    reply r = only_reply();
    EXPECT_EQ(r.opcode, LTR_OP_RSSI_REPORT);
    EXPECT_EQ(r.tlvs.size(), 2u);

    // An unknown TLV of len 2 whose len is read as the type of a threshold of len 4: the
    // message is refused, and nothing is walked past its 23 bytes.
    fake::clear_text();
    handle(bytes{0x00, 0x02, 0, 0, 0, 1, 0, 0, 0, 0, 0x0c, 0, 3, 0, 0x0c, 0, 2, 0, 0, 0, 2, 0, 4});
    EXPECT_EQ(dbg_lines(), (std::vector<std::string>{"unknown tlv type 0.\n", "tlv validate failed: type 2, len 4\n",
                                                     "tlv number validate failed.\n"}));
    reply ack = only_reply();
    EXPECT_EQ(ack.id, (bytes{0, 0, 0, 1}));
    EXPECT_EQ(ack.tlvs, (tlvs_t{{LTR_TLV_ACK_CODE, {LTR_ACK_BAD_MSG}}}));
    EXPECT_EQ(cfg->rssi_threshold, 4);
}

TEST_F(EngineSrv, AHandlerGivenAMessageValidationDidNotAcceptWalksOnlyItsLen)
{
    delivery a(msg(LTR_OP_MODIF, {tlv(2, {8})})), b(msg(LTR_OP_MODIF, {}));
    auto *in = (ltr_srv_msg *)a.p.get();
    ASSERT_EQ(ltr_msg_validate(&mgt, in, a.len), 0);
    ASSERT_EQ(ltr_msg_validate(&mgt, (ltr_srv_msg *)b.p.get(), b.len), 0);
    in->tlv_num = 3; // more TLVs than its 22 bytes hold
    fake::clear_calls();
    ltr_srv_modif(&mgt, in);
    expect_plain_ack(LTR_ACK_OK);
    EXPECT_EQ(cfg->rssi_threshold, 8);
}
