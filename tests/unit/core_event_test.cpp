// Event dispatch: short deliveries and the interface-change filter.
#include "core_util.h"
#include "ltr_event.h"
#include "ltr_rssi.h"

namespace {

fake::bytes ifchange(uint32_t type, int32_t ifindex, uint32_t flags, const char *name)
{
    size_t n = strlen(name) + 1;
    fake::bytes b(12 + n);
    memcpy(b.data(), &type, 4);
    memcpy(b.data() + 4, &ifindex, 4);
    memcpy(b.data() + 8, &flags, 4);
    memcpy(b.data() + 12, name, n);
    return b;
}

class CoreEvent : public LtrTest {
  protected:
    ltr_cfg cfg = core_defaults();
    void SetUp() override
    {
        LtrTest::SetUp();
        mgt.cfg = &cfg;
        fake::set_radios({{"wifi0", 4}, {"wifi1", 6}});
        pthread_t t;
        ASSERT_EQ(ltr_event_init(&t), 0);
        pthread_join(t, nullptr);
        fake::clear_calls();
    }
};

TEST_F(CoreEvent, ShortDeliveriesAreDroppedUnread)
{
    ltr_debug_flags = LTR_DBG_EVENT;
    mgt.my_ip = 7;
    fake::deliver_event(LTR_EVT_MGT_IP, fake::bytes(23, 0xee));
    EXPECT_EQ(mgt.my_ip, 7u);
    fake::bytes reply = {2, 0, 0, 0x11, 0x22, 0x33, 0x44, 0x55, 192, 168, 1, 20};
    fake::deliver_event(LTR_EVT_OWNER_REPLY, reply); // count 2 needs 22 bytes
    fake::deliver_event(LTR_EVT_OWNER_REPLY, {1});
    fake::deliver_kevent(19, fake::bytes(12));
    auto noname = ifchange(1, 4, 1, "wifi0");
    noname.pop_back();
    fake::deliver_kevent(19, noname);
    EXPECT_EQ(fake::count("qz_dcd_set_lta_track_enable"), 0u);
    std::vector<std::string> texts;
    for (auto &l : fake::logs())
        texts.push_back(l.text);
    EXPECT_EQ(texts, (std::vector<std::string>{
                         "drop short event 280 (MGT_ADDR_CHANGE): 23 bytes, need 24\n",
                         "drop short event 157 (STA_OWNER_REPLY): 12 bytes, need 22\n",
                         "drop short event 157 (STA_OWNER_REPLY): 1 bytes, need 2\n",
                         "drop short kevent 19 (ifchange): 12 bytes, need 13\n",
                         "drop short kevent 19 (ifchange): 17 bytes, need 18\n"}));

}

TEST_F(CoreEvent, InterfaceChangeActsOnlyOnUpWithUsableFlags)
{
    struct {
        uint32_t type, flags;
        int want; // the switch written, -1: no driver call
    } cases[] = {{1, 0x1, 1},  {1, 0x3, 0},  {1, 0x11, 1}, {1, 0x0, -1}, {1, 0x9, -1},
                 {1, 0x8, -1}, {2, 0x1, -1}, {0, 0x1, -1}, {7, 0x1, -1}};
    cfg.enabled = 1;
    ltr_debug_flags = LTR_DBG_EVENT;
    for (auto &c : cases) {
        SCOPED_TRACE(::testing::Message() << "type " << c.type << " flags " << c.flags);
        fake::clear_calls();
        fake::deliver_kevent(19, ifchange(c.type, 6, c.flags, "wifi1"));
        auto en = fake::calls_of("qz_dcd_set_lta_track_enable");
        ASSERT_EQ(en.size(), c.want < 0 ? 0u : 1u);
        if (c.want >= 0) {
            EXPECT_EQ(en[0].args, (std::vector<int64_t>{6, c.want}));
        }
    }
    EXPECT_TRUE(fake::dbg_has("receive wifi1 ifchange event, type: IF_GOING_DOWN"));
}

} // namespace
