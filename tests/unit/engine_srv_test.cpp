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
class EngineSrvTest : public LtrTest {
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
    int handle(const bytes &b)
    {
        delivery d(b);
        size_t before = fake::capwap_sent().size();
        ltr_handle_msg_in(d.p.get(), d.len);
        // The handler's result shows only in the log; what the server got is what counts.
        return (int)(fake::capwap_sent().size() - before);
    }
    bool tracked(const uint8_t *addr, uint32_t type)
    {
        ltr_track_key k = ltr_track_key_make(addr, type);
        return ltr_track_obj_find(&k) != nullptr;
    }
    // The one reply sent so far.
    reply only_reply()
    {
        auto s = sent();
        EXPECT_EQ(s.size(), 1u);
        return s.empty() ? reply{} : s[0];
    }
    void expect_plain_ack(uint8_t code)
    {
        reply r = only_reply();
        EXPECT_EQ(r.opcode, LTR_OP_ACK);
        EXPECT_EQ(r.id, id_bytes());
        EXPECT_EQ(r.size, (size_t)LTR_ACK_MSG_LEN);
        EXPECT_EQ(r.tlvs, (std::vector<std::pair<uint16_t, bytes>>{{LTR_TLV_ACK_CODE, {code}}}));
    }
};

const fake::mac_t sta1{0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
const fake::mac_t sta2{0x00, 0x11, 0x22, 0x33, 0x44, 0x66};
const fake::mac_t sta3{0x00, 0x11, 0x22, 0x33, 0x44, 0x77};
const std::array<uint8_t, 3> oui1{0x00, 0x11, 0x22};
const uint8_t oui1_key[6] = {0x00, 0x11, 0x22, 0, 0, 0};

using tlvs_t = std::vector<std::pair<uint16_t, bytes>>;

bytes macs_value(const std::vector<fake::mac_t> &macs)
{
    bytes v{(uint8_t)macs.size()};
    for (auto &m : macs)
        v.insert(v.end(), m.begin(), m.end());
    return v;
}

fake::mac_t nth_mac(int i) { return {0x02, 0xaa, 0, 0, (uint8_t)(i >> 8), (uint8_t)i}; }
std::array<uint8_t, 3> nth_oui(int i) { return {0x0e, (uint8_t)(i >> 8), (uint8_t)i}; }

} // namespace

TEST_F(EngineSrvTest, OpcodesOutsideTheTableAreAckedAsUnknown)
{
    const std::pair<uint16_t, const char *> cases[] = {
        {LTR_OP_RSSI_REPORT, "unknown opcode: rssi report.\n"},
        {LTR_OP_ACK, "unknown opcode: ack.\n"},
        {0, "unknown opcode: .\n"},
        {7, "unknown opcode: .\n"},
        {0xffff, "unknown opcode: .\n"},
    };
    for (auto &[op, line] : cases) {
        fake::clear_calls();
        fake::clear_text();
        handle(msg(op, {mac_all()}));
        EXPECT_TRUE(fake::dbg_has(line)) << op;
        expect_plain_ack(LTR_ACK_UNKNOWN_OPCODE);
    }
    EXPECT_TRUE(fake::radio_state(4).trackobjs.empty());
}

TEST_F(EngineSrvTest, DispatchLogsTheOutcome)
{
    ltr_debug_flags = LTR_DBG_ERROR | LTR_DBG_INFO;
    handle(msg(LTR_OP_MODIF, {}));
    EXPECT_TRUE(fake::dbg_has("server msg (opcode: modif, len 6) handled.\n"));

    fake::clear_text();
    fake::script("qz_capwap_send_event", -1);
    handle(msg(LTR_OP_STOP, {}));
    EXPECT_TRUE(fake::dbg_has("the msg (opcode: stop) can't be handled.\n"));
    EXPECT_TRUE(fake::dbg_has("ae msg not handled"));

    // A positive send result is passed on without a line.
    fake::clear_text();
    fake::script("qz_capwap_send_event", 21);
    handle(msg(LTR_OP_MODIF, {}));
    for (auto &l : fake::dbgs())
        EXPECT_EQ(l.text.find("handled"), std::string::npos) << l.text;
}

TEST_F(EngineSrvTest, ModifySetsParametersAndIgnoresLists)
{
    handle(msg(LTR_OP_MODIF, {tlv(LTR_TLV_RSSI_THRESHOLD, {7}), mac_list({sta1}),
                              tlv(LTR_TLV_RSSI_VALID_PERIOD, u16v(0x0102)), tlv(LTR_TLV_REPORT_INTERVAL, u16v(45))}));
    EXPECT_EQ(cfg->rssi_threshold, 7);
    EXPECT_EQ(cfg->valid_period, 0x0102);
    EXPECT_EQ(cfg->rpt_interval, 45);
    EXPECT_TRUE(fake::dbg_has("unhandled tlv type 4, len 11.\n"));
    EXPECT_FALSE(tracked(sta1.data(), LTR_TRACK_MAC));
    expect_plain_ack(LTR_ACK_OK);
}

TEST_F(EngineSrvTest, StartWithEverythingAcceptedAcksWithCodeZero)
{
    handle(msg(LTR_OP_START, {tlv(LTR_TLV_REPORT_INTERVAL, u16v(30)), tlv(LTR_TLV_RSSI_THRESHOLD, {9}),
                              mac_list({sta1, sta2}), oui_list({oui1}), tlv(LTR_TLV_RSSI_DATA, bytes(9, 1))}));
    reply r = only_reply();
    EXPECT_EQ(r.opcode, LTR_OP_ACK);
    EXPECT_EQ(r.id, id_bytes());
    EXPECT_EQ(r.tlv_num, 1);
    EXPECT_EQ(r.tlvs, (tlvs_t{{LTR_TLV_ACK_CODE, {LTR_ACK_OK}}}));
    EXPECT_EQ(cfg->rpt_interval, 30);
    EXPECT_EQ(cfg->rssi_threshold, 9);
    EXPECT_TRUE(tracked(sta1.data(), LTR_TRACK_MAC));
    EXPECT_TRUE(tracked(sta2.data(), LTR_TRACK_MAC));
    EXPECT_TRUE(tracked(oui1_key, LTR_TRACK_OUI));
    EXPECT_EQ(fake::radio_state(4).trackobjs.size(), 3u);
    EXPECT_TRUE(fake::dbg_has("unhandled tlv type 6, len 13.\n"));

    fake::clear_calls();
    handle(msg(LTR_OP_START, {}));
    EXPECT_EQ(only_reply().tlvs, (tlvs_t{{LTR_TLV_ACK_CODE, {LTR_ACK_OK}}}));
}

TEST_F(EngineSrvTest, StartListsRefusedEntriesAfterCodeFour)
{
    // The radio refuses the second address and the OUI.
    for (int r : {0, -1, 0, -1})
        fake::script("qz_dcd_set_lta_trackobj", r);
    handle(msg(LTR_OP_START, {tlv(LTR_TLV_RSSI_THRESHOLD, {6}), mac_list({sta1, sta2, sta3}), oui_list({oui1})}));
    reply r = only_reply();
    EXPECT_EQ(r.opcode, LTR_OP_ACK);
    EXPECT_EQ(r.tlv_num, 3);
    EXPECT_EQ(r.tlvs, (tlvs_t{{LTR_TLV_ACK_CODE, {LTR_ACK_PARTIAL}},
                              {LTR_TLV_MAC_LIST, macs_value({sta2})},
                              {LTR_TLV_OUI_LIST, {1, 0x00, 0x11, 0x22}}}));
    EXPECT_EQ(r.len, 6 + 5 + 11 + 8);
    EXPECT_EQ(cfg->rssi_threshold, 6); // a refusal undoes nothing else

    // Refusals of several list TLVs go into one list.
    fake::clear_calls();
    for (int r : {-1, 0, -1})
        fake::script("qz_dcd_set_lta_trackobj", r);
    handle(msg(LTR_OP_START, {mac_list({nth_mac(1)}), mac_list({nth_mac(2), nth_mac(3)})}));
    EXPECT_EQ(only_reply().tlvs, (tlvs_t{{LTR_TLV_ACK_CODE, {LTR_ACK_PARTIAL}},
                                         {LTR_TLV_MAC_LIST, macs_value({nth_mac(1), nth_mac(3)})}}));
}

TEST_F(EngineSrvTest, StartSplitsMoreRefusalsThanOneListHolds)
{
    fake::script("qz_dcd_set_lta_trackobj", -1, 700);
    std::vector<fake::mac_t> a, b;
    for (int i = 0; i < 200; i++) {
        a.push_back(nth_mac(i));
        b.push_back(nth_mac(200 + i));
    }
    std::vector<std::array<uint8_t, 3>> o1, o2;
    for (int i = 0; i < 255; i++)
        o1.push_back(nth_oui(i));
    for (int i = 0; i < 45; i++)
        o2.push_back(nth_oui(255 + i));
    handle(msg(LTR_OP_START, {mac_list(a), oui_list(o1), mac_list(b), oui_list(o2)}));

    reply r = only_reply();
    ASSERT_EQ(r.tlvs.size(), 5u);
    EXPECT_EQ(r.tlv_num, 5);
    EXPECT_EQ(r.tlvs[0], (std::pair<uint16_t, bytes>{LTR_TLV_ACK_CODE, {LTR_ACK_PARTIAL}}));
    std::vector<fake::mac_t> all = a;
    all.insert(all.end(), b.begin(), b.end());
    EXPECT_EQ(r.tlvs[1].second, macs_value({all.begin(), all.begin() + 254}));
    EXPECT_EQ(r.tlvs[2].second, macs_value({all.begin() + 254, all.end()}));
    EXPECT_EQ(r.tlvs[3].first, LTR_TLV_OUI_LIST);
    EXPECT_EQ(r.tlvs[3].second.size(), 1u + 3 * 255);
    EXPECT_EQ(r.tlvs[3].second[0], 255);
    ASSERT_EQ(r.tlvs[4].second.size(), 1u + 3 * 45);
    EXPECT_EQ(bytes(r.tlvs[4].second.begin(), r.tlvs[4].second.begin() + 7),
              (bytes{45, 0x0e, 0, 0xff, 0x0e, 1, 0})); // OUIs 255 and 256 lead the second list
    EXPECT_EQ(r.len, 6 + 5 + (5 + 6 * 254) + (5 + 6 * 146) + (5 + 3 * 255) + (5 + 3 * 45));
}

TEST_F(EngineSrvTest, StartTrackAllFailureStillAcksWithCodeZero)
{
    fake::script("qz_dcd_set_lta_lmatch_enable", -1);
    handle(msg(LTR_OP_START, {mac_all()}));
    EXPECT_TRUE(fake::dbg_has("enable track all failed.\n"));
    EXPECT_EQ(only_reply().tlvs, (tlvs_t{{LTR_TLV_ACK_CODE, {LTR_ACK_OK}}}));
}

TEST_F(EngineSrvTest, StartWithoutBufferGivesUpWithoutReply)
{
    ltr_engine_ops.cleanup(&mgt);
    EXPECT_EQ(handle(msg(LTR_OP_START, {tlv(LTR_TLV_RSSI_THRESHOLD, {9}), mac_list({sta1})})), 0);
    EXPECT_EQ(cfg->rssi_threshold, 3);
    EXPECT_FALSE(tracked(sta1.data(), LTR_TRACK_MAC));
    EXPECT_TRUE(fake::dbg_has("the msg (opcode: start) can't be handled.\n"));
}

TEST_F(EngineSrvTest, StopRemovesTrackingAndAlwaysAcksWithCodeZero)
{
    handle(msg(LTR_OP_START, {mac_list({sta1, sta2}), oui_list({oui1})}));
    ltr_sta_add(&mgt.sta_tbl, sta1.data());
    fake::clear_calls();

    // The radio refuses the first deletion; the station goes all the same.
    fake::script("qz_dcd_set_lta_trackobj", -1);
    fake::script("qz_dcd_set_lta_trackobj", 0);
    fake::script("qz_dcd_set_lta_trackobj", -1);
    handle(msg(LTR_OP_STOP, {mac_list({sta1, sta3}), oui_list({oui1}), tlv(1, u16v(5))}));
    EXPECT_TRUE(fake::dbg_has("stop track mac 0011.2233.4455 failed.\n"));
    EXPECT_TRUE(fake::dbg_has("stop track oui 0011.2200.0000 failed.\n"));
    EXPECT_TRUE(fake::dbg_has("unhandled tlv type 1, len 6.\n"));
    EXPECT_EQ(ltr_sta_find(&mgt.sta_tbl, sta1.data()), nullptr);
    EXPECT_FALSE(tracked(sta1.data(), LTR_TRACK_MAC));
    EXPECT_TRUE(tracked(sta2.data(), LTR_TRACK_MAC));
    EXPECT_EQ(cfg->rpt_interval, 60);
    expect_plain_ack(LTR_ACK_OK);

    // All: tracking list and station table emptied.
    fake::clear_calls();
    ltr_sta_add(&mgt.sta_tbl, sta2.data());
    handle(msg(LTR_OP_STOP, {mac_all()}));
    EXPECT_EQ(ltr_tl.obj_cnt, 0);
    EXPECT_EQ(mgt.sta_tbl.sta_cnt, 0);
    expect_plain_ack(LTR_ACK_OK);
}

TEST_F(EngineSrvTest, QueryReportsOwnedStationsUnderTheRequestsId)
{
    ltr_rssi_data rd{{0x02, 0, 0, 0, 0, 1}, 2412, -60, 1};
    for (auto &m : {sta1, sta2}) {
        ltr_sta *s = ltr_sta_add(&mgt.sta_tbl, m.data());
        ASSERT_NE(s, nullptr);
        ASSERT_NE(ltr_rssi_add(s, &rd), nullptr);
        s->ni_owner_ip = mgt.my_ip;
    }
    ltr_sta_find(&mgt.sta_tbl, sta2.data())->ni_owner_ip = ltr_ip(10, 0, 0, 2);
    const bytes rssi_tlv = {0x02, 0, 0, 0, 0, 1, 0x09, 0x6c, 0xc4};

    handle(msg(LTR_OP_QUERY, {mac_all()}));
    reply r = only_reply();
    EXPECT_EQ(r.opcode, LTR_OP_RSSI_REPORT);
    EXPECT_EQ(r.id, id_bytes());
    EXPECT_EQ(r.tlvs, (tlvs_t{{LTR_TLV_MAC_LIST, macs_value({sta1})}, {LTR_TLV_RSSI_DATA, rssi_tlv}}));

    fake::clear_calls();
    handle(msg(LTR_OP_QUERY, {mac_list({sta3, sta1, sta2})}));
    EXPECT_EQ(only_reply().tlvs, (tlvs_t{{LTR_TLV_MAC_LIST, macs_value({sta1})}, {LTR_TLV_RSSI_DATA, rssi_tlv}}));
}

TEST_F(EngineSrvTest, QueryRepliesEvenWhenItHasNothingToReport)
{
    handle(msg(LTR_OP_QUERY, {tlv(LTR_TLV_RSSI_THRESHOLD, {1})}));
    EXPECT_TRUE(fake::dbg_has("unhandled tlv type 2, len 5.\n"));
    reply r = only_reply();
    EXPECT_EQ(r.opcode, LTR_OP_RSSI_REPORT);
    EXPECT_EQ(r.id, id_bytes());
    EXPECT_EQ(r.len, 6);
    EXPECT_EQ(r.tlv_num, 0);
    EXPECT_EQ(r.size, 16u);

    // Without a buffer: ack code 1.
    fake::clear_calls();
    ltr_engine_ops.cleanup(&mgt);
    handle(msg(LTR_OP_QUERY, {mac_all()}));
    expect_plain_ack(LTR_ACK_NO_BUFFER);
}

TEST_F(EngineSrvTest, NullArgumentsStopTheProcess)
{
    bytes m = msg(LTR_OP_STOP, {});
    EXPECT_DEATH(ltr_srv_start(nullptr, (ltr_srv_msg *)m.data()), "Assertion");
    EXPECT_DEATH(ltr_srv_query(&mgt, nullptr), "Assertion");
}
