// Event dispatch: unknown ids, short deliveries, the interface-change filter, the
// radio-up handler, the management address and server messages.
#include "core_util.h"
#include "ltr_engine.h"
#include "ltr_event.h"
#include "ltr_rssi.h"
#include "ltr_track.h"

namespace {

// An engine that records what the message handler asks of it.
struct probe {
    int validate_result = 0;
    int dispatch_result = 0;
    int validated = 0, dispatched = 0, last_len = -1;
} P;
int p_validate(ltr_mgt *, ltr_srv_msg *, int len)
{
    P.validated++;
    P.last_len = len;
    return P.validate_result;
}
int p_dispatch(ltr_mgt *, ltr_srv_msg *)
{
    P.dispatched++;
    return P.dispatch_result;
}
const ltr_engine_ops_t probe_ops = {nullptr, nullptr, p_validate, p_dispatch,
                                    nullptr, nullptr, nullptr,    nullptr};

class CoreEvent : public LtrTest {
  protected:
    ltr_cfg cfg = core_defaults();
    void SetUp() override
    {
        LtrTest::SetUp();
        mgt.cfg = &cfg;
        P = probe{};
        fake::set_radios({{"wifi0", 4}, {"wifi1", 6}});
        pthread_t t;
        ASSERT_EQ(ltr_event_init(&t), 0);
        pthread_join(t, nullptr);
    }
};

TEST_F(CoreEvent, SubscribesAndUnsubscribes)
{
    auto subs = fake::calls_of("qz_event_subscribe");
    ASSERT_EQ(subs.size(), 3u);
    EXPECT_EQ(subs[0].args[0], 280);
    EXPECT_EQ(subs[1].args[0], 157);
    EXPECT_EQ(subs[2].args[0], 164);
    EXPECT_EQ(fake::calls_of("qz_event_init")[0].args[0], 52);

    EXPECT_EQ(ltr_event_cleanup(), 0);
    EXPECT_FALSE(fake::subscribed(164));
    EXPECT_FALSE(fake::ksubscribed(19));
    EXPECT_EQ(fake::call_names().back(), "qz_event_cleanup");

    fake::reset();
    fake::script("qz_event_init", -1);
    pthread_t t;
    EXPECT_EQ(ltr_event_init(&t), -1);
    EXPECT_EQ(fake::count("qz_event_subscribe"), 0u);
}

TEST_F(CoreEvent, UnknownIdsAreLogged)
{
    ltr_event_handler(999, 0, nullptr);
    ltr_kevent_handler(20, 0, nullptr);
    ltr_kevent_handler(3, 0, nullptr);
    ltr_kevent_handler(53, 0, nullptr);
    ltr_kevent_handler(42, 0, nullptr);
    ASSERT_EQ(fake::logs().size(), 5u);
    EXPECT_EQ(fake::logs()[0].text, "receive unknown event 999");
    EXPECT_EQ(fake::logs()[0].severity, 3);
    EXPECT_EQ(fake::logs()[1].text, "receive unknown kevent 20 (RADIO_CHAN_CHANGE)");
    EXPECT_EQ(fake::logs()[2].text, "receive unknown kevent 3 (n/a)");
    EXPECT_EQ(fake::logs()[3].text, "receive unknown kevent 53 (n/a)");
    EXPECT_EQ(fake::logs()[4].text, "receive unknown kevent 42 (reset button pressed)");
}

TEST_F(CoreEvent, ShortDeliveriesAreDroppedUnread)
{
    mgt.my_ip = ltr_ip(10, 0, 0, 1);
    fake::bytes ip(23, 0xee);
    fake::deliver_event(LTR_EVT_MGT_IP, ip);
    EXPECT_EQ(mgt.my_ip, ltr_ip(10, 0, 0, 1));

    // Count 2 promises 22 bytes; one record short.
    ltr_debug_flags = LTR_DBG_EVENT;
    fake::bytes reply = {2, 0};
    reply.resize(12);
    fake::deliver_event(LTR_EVT_OWNER_REPLY, reply);
    fake::deliver_event(LTR_EVT_OWNER_REPLY, {1});
    for (auto &d : fake::dbgs())
        EXPECT_EQ(d.text.find("station"), std::string::npos);

    // Header only; a name without its NUL.
    fake::deliver_kevent(19, fake::bytes(12));
    auto noname = core_ifchange(1, 4, 1, "wifi0");
    noname.pop_back();
    fake::deliver_kevent(19, noname);
    EXPECT_EQ(fake::count("qz_dcd_set_lta_track_enable"), 0u);

    ASSERT_EQ(fake::logs().size(), 5u);
    EXPECT_EQ(fake::logs()[0].text, "drop short event 280 (MGT_IP_CHANGE): 23 bytes, need 24\n");
    EXPECT_EQ(fake::logs()[1].text, "drop short event 157 (STA_OWNER_REPLY): 12 bytes, need 22\n");
    EXPECT_EQ(fake::logs()[2].text, "drop short event 157 (STA_OWNER_REPLY): 1 bytes, need 2\n");
    EXPECT_EQ(fake::logs()[3].text, "drop short kevent 19 (ifchange): 12 bytes, need 13\n");
    EXPECT_EQ(fake::logs()[4].text, "drop short kevent 19 (ifchange): 17 bytes, need 18\n");
}

TEST_F(CoreEvent, OwnerReplyRecordsAreTracedBeforeTheHandler)
{
    ltr_debug_flags = LTR_DBG_EVENT;
    fake::bytes reply = {1, 0, 0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 192, 168, 1, 20};
    fake::deliver_event(LTR_EVT_OWNER_REPLY, reply);
    ASSERT_GE(fake::dbgs().size(), 2u);
    EXPECT_EQ(fake::dbgs()[0].text, "receive event (STA_OWNER_REPLY):\n");
    EXPECT_EQ(fake::dbgs()[0].tag, "ltr_event");
    EXPECT_EQ(fake::dbgs()[1].text, "station 0011.2233.4455, owner 192.168.1.20.\n");
}

TEST_F(CoreEvent, ManagementAddressUpdatesEvenWhenDisabled)
{
    fake::bytes evt(24, 0xee);
    uint32_t ip = ltr_ip(172, 16, 0, 9);
    memcpy(evt.data() + 20, &ip, 4);
    fake::deliver_event(LTR_EVT_MGT_IP, evt);
    EXPECT_EQ(mgt.my_ip, ip);

    // Longer records are fine; an address of 0 means none again.
    evt.assign(40, 0);
    fake::deliver_event(LTR_EVT_MGT_IP, evt);
    EXPECT_EQ(mgt.my_ip, 0u);
}

TEST_F(CoreEvent, InterfaceChangeActsOnlyOnUpWithUsableFlags)
{
    struct {
        uint32_t type, flags;
        int want_enable; // -1: no driver call
    } cases[] = {
        {1, 0x1, 0},   {1, 0x3, 0},  {1, 0x0, -1}, {1, 0x9, -1}, {1, 0x8, -1},
        {2, 0x1, -1},  {0, 0x1, -1}, {7, 0x1, -1}, {1, 0x11, 0},
    };
    cfg.enabled = 1;
    for (auto &c : cases) {
        SCOPED_TRACE(::testing::Message() << "type " << c.type << " flags " << c.flags);
        fake::clear_calls();
        fake::deliver_kevent(19, core_ifchange(c.type, 6, c.flags, "wifi1"));
        auto en = fake::calls_of("qz_dcd_set_lta_track_enable");
        if (c.want_enable < 0) {
            EXPECT_TRUE(en.empty());
            continue;
        }
        ASSERT_EQ(en.size(), 1u);
        EXPECT_EQ(en[0].args[0], 6);
        // 0x2 means no access: switched off whatever enabled says.
        EXPECT_EQ(en[0].args[1], (c.flags & 0x2) ? 0 : 1);
    }
}

TEST_F(CoreEvent, InterfaceChangeTrace)
{
    ltr_debug_flags = LTR_DBG_EVENT;
    fake::deliver_kevent(19, core_ifchange(9, 4, 0x1, "wifi0"));
    fake::deliver_kevent(19, core_ifchange(10, 4, 0x1, "wifi0"));
    ASSERT_EQ(fake::dbgs().size(), 2u);
    EXPECT_EQ(fake::dbgs()[0].text, "receive wifi0 ifchange event, type: IF_IPV6_ADDR_DEL");
    EXPECT_EQ(fake::dbgs()[1].text, "receive wifi0 ifchange event, type: n/a");
}

TEST_F(CoreEvent, RadioUpFollowsTheSettings)
{
    ASSERT_EQ(ltr_track_list_init(), 0);
    fake::clear_calls();
    // Disabled: only the switch, from enabled.
    cfg.lmatch = 0;
    ltr_handle_radio_up(4, 1);
    EXPECT_EQ(fake::call_names(), (std::vector<std::string>{"qz_dcd_set_lta_track_enable"}));
    EXPECT_EQ(fake::radio_state(4).track_enable, 0);

    // Enabled: switch, list match and every tracking-list object.
    const uint8_t mac[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
    const uint8_t oui[6] = {0xa0, 0xb0, 0xc0, 0, 0, 0};
    ltr_track_key k1 = ltr_track_key_make(mac, LTR_TRACK_MAC);
    ltr_track_key k2 = ltr_track_key_make(oui, LTR_TRACK_OUI);
    ASSERT_EQ(ltr_track_obj_add(&k1), 0);
    ASSERT_EQ(ltr_track_obj_add(&k2), 0);
    cfg.enabled = 1;
    fake::clear_calls();
    fake::script("qz_dcd_set_lta_trackobj", -1); // one refusal does not stop the others
    ltr_handle_radio_up(6, 1);
    EXPECT_EQ(fake::radio_state(6).track_enable, 1);
    EXPECT_EQ(fake::radio_state(6).lmatch, 0);
    EXPECT_EQ(fake::count("qz_dcd_set_lta_trackobj"), 2u);
    ASSERT_EQ(fake::radio_state(6).trackobjs.size(), 1u);
    EXPECT_EQ(fake::count("qz_dcd_set_lta_lmatch_enable"), 1u);

    // Without access: off, nothing else.
    fake::clear_calls();
    ltr_handle_radio_up(6, 0);
    EXPECT_EQ(fake::call_names(), (std::vector<std::string>{"qz_dcd_set_lta_track_enable"}));
    EXPECT_EQ(fake::radio_state(6).track_enable, 0);

    // An index without an interface.
    fake::clear_calls();
    ltr_handle_radio_up(99, 1);
    EXPECT_TRUE(fake::calls().empty());
    EXPECT_TRUE(fake::log_has("invalid ifindex 99!\n"));
}

TEST_F(CoreEvent, ServerMessageOnlyWhileStarted)
{
    fake::bytes msg(30, 0);
    fake::deliver_event(LTR_EVT_SRV_MSG_IN, msg);
    cfg.enabled = 1; // engine still null: a stop in progress
    fake::deliver_event(LTR_EVT_SRV_MSG_IN, msg);
    cfg.enabled = 0;
    mgt.engine = &probe_ops;
    fake::deliver_event(LTR_EVT_SRV_MSG_IN, msg);
    EXPECT_EQ(P.validated, 0);
    EXPECT_TRUE(fake::capwap_sent().empty());

    cfg.enabled = 1;
    fake::deliver_event(LTR_EVT_SRV_MSG_IN, msg);
    EXPECT_EQ(P.validated, 1);
    EXPECT_EQ(P.last_len, 30);
    EXPECT_EQ(P.dispatched, 1);

    P.validate_result = -1;
    fake::deliver_event(LTR_EVT_SRV_MSG_IN, msg);
    EXPECT_EQ(P.dispatched, 1);

    ltr_debug_flags = LTR_DBG_ERROR;
    P.validate_result = 0;
    P.dispatch_result = -1;
    fake::deliver_event(LTR_EVT_SRV_MSG_IN, msg);
    EXPECT_TRUE(fake::dbg_has("ae msg not handled"));
    EXPECT_EQ(pthread_mutex_trylock(&mgt.lock), 0);
    pthread_mutex_unlock(&mgt.lock);
}

TEST_F(CoreEvent, NullPayloadIsAProgrammingError)
{
    EXPECT_DEATH(ltr_handle_msg_in(nullptr, 0),
                 "Assertion \\(in_msg != \\(\\(void \\*\\)0\\)\\) failed at qz_ltr_common:");
    EXPECT_DEATH(ltr_handle_mgt_ip(nullptr),
                 "Assertion \\(evt != \\(\\(void \\*\\)0\\)\\) failed at qz_ltr_common:");
}

} // namespace
