// Server requests, relays, owner replies, CLI commands and shows, tracking switched off
// and on, and report cycles and owner checks, all hitting one daemon at once for a
// bounded time. Run under ThreadSanitizer: any race is a failure, a deadlock a timeout.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <string.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <random>
#include <thread>
#include <vector>

#include "../unit/engine_test.h"
#include "fake_platform.h"
#include "ltr_cli.h"
#include "ltr_engine.h"
#include "ltr_event.h"
#include "ltr_mgt.h"
#include "ltr_rssi.h"

namespace {

using namespace eng;

std::array<uint8_t, 6> sta(int i)
{
    return {0x02, 0x55, 0x00, 0x00, uint8_t(i >> 8), uint8_t(i)};
}

constexpr int STATIONS = 96;

} // namespace

TEST(Stress, EveryEntryPointAtOnce)
{
    fake::reset();
    fake::set_recording(false);
    fake::set_radios({{"wlan0", 10}, {"wlan1", 11}});
    for (int r : {10, 11}) {
        auto &rs = fake::radio_state(r);
        for (int i = 0; i < STATIONS; i++) {
            lta_rpt_entry e{};
            auto m = sta(i);
            memcpy(e.mac, m.data(), 6);
            e.active = 1;
            e.rssi = int8_t(-40 - (i + r) % 40);
            e.chan_freq = r == 10 ? 2412 : 5180;
            rs.rpt.push_back(e);
        }
        rs.assoc[sta(1)] = 2437;
    }
    ASSERT_EQ(ltr_mgt_init(), 0);
    ASSERT_EQ(ltr_set_enabled(1), 0);
    const uint32_t my_ip = mgt.my_ip;
    const uint32_t other_ip = htonl(0x0a000002);

    std::atomic<bool> stop{false};
    std::atomic<long> rounds{0};
    unsigned seed = unsigned(std::random_device{}());
    printf("seed %u\n", seed);

    auto worker = [&](std::function<void(std::mt19937 &)> body, unsigned salt) {
        return std::thread([&, body, salt] {
            std::mt19937 rnd(seed + salt);
            while (!stop.load(std::memory_order_relaxed)) {
                body(rnd);
                rounds++;
            }
        });
    };

    std::vector<std::thread> threads;
    // Timer service: report cycles and owner checks.
    threads.push_back(worker([](std::mt19937 &) { ltr_rssi_cycle(mgt.rssi_fetch_timer, &mgt); }, 1));
    threads.push_back(worker([](std::mt19937 &) {
        ltr_owner_check_timeout(mgt.owner_flush_timer, &mgt);
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }, 2));
    // Event thread: server requests of every kind, owner replies, address changes.
    threads.push_back(worker([&](std::mt19937 &rnd) {
        int i = int(rnd() % STATIONS);
        bytes m;
        switch (rnd() % 5) {
        case 0: m = msg(LTR_OP_START, {tlv(LTR_TLV_REPORT_INTERVAL, u16v(uint16_t(1 + rnd() % 90))), mac_list({sta(i)})}); break;
        case 1: m = msg(LTR_OP_STOP, {mac_list({sta(i)})}); break;
        case 2: m = msg(LTR_OP_MODIF, {tlv(LTR_TLV_REPORT_INTERVAL, u16v(uint16_t(rnd() % 120)))}); break;
        case 3: m = msg(LTR_OP_QUERY, {mac_list({sta(i), sta(i + 1)})}); break;
        default: m = msg(LTR_OP_QUERY, {}); break;
        }
        ltr_event_handler(LTR_EVT_SRV_MSG_IN, int(m.size()), m.data());

        bytes r(2 + 10);
        uint16_t one = 1;
        memcpy(r.data(), &one, 2);
        auto s = sta(i);
        memcpy(r.data() + 2, s.data(), 6);
        uint32_t owner = rnd() % 2 ? my_ip : other_ip;
        memcpy(r.data() + 8, &owner, 4);
        ltr_event_handler(LTR_EVT_OWNER_REPLY, int(r.size()), r.data());

        bytes ip(24);
        memcpy(ip.data() + LTR_MGT_IP_OFFSET, &my_ip, 4);
        ltr_event_handler(LTR_EVT_MGT_IP, int(ip.size()), ip.data());
    }, 3));
    // Neighbour messaging: relays from another access point.
    threads.push_back(worker([&](std::mt19937 &rnd) {
        uint8_t msg[LTR_RELAY_MSG_LEN] = {};
        ltr_lta_msg h{htonl(LTR_LTA_RSSI_RELAY), other_ip, htons(16), 0};
        memcpy(msg, &h, sizeof(h));
        ltr_rssi_relay rel{};
        auto s = sta(int(rnd() % STATIONS));
        memcpy(rel.sta_mac, s.data(), 6);
        uint8_t ap[6] = {0x02, 0xee, 0, 0, 0, 2};
        memcpy(rel.ap_mac, ap, 6);
        rel.active = 1;
        rel.rssi = int8_t(-50 - int(rnd() % 30));
        rel.chan_freq = htons(2437);
        memcpy(msg + sizeof(h), &rel, sizeof(rel));
        ltr_lta_msg_recv(nullptr, sizeof(msg), msg);
    }, 4));
    // CLI agent: setters, list edits, shows, and now and then tracking off and on.
    threads.push_back(worker([&](std::mt19937 &rnd) {
        qz_cli_cmd cmd{};
        auto s = sta(int(rnd() % STATIONS));
        switch (rnd() % 9) {
        case 0: ltr_mgt_set_rpt_interval(uint16_t(rnd() % 100)); break;
        case 1: ltr_mgt_set_rssi_threshold(uint16_t(rnd() % 10)); break;
        case 2: ltr_mgt_set_suppress(uint16_t(rnd() % 3)); break;
        case 3: ltr_mgt_add_mac(s.data()); break;
        case 4: ltr_mgt_del_mac(s.data()); break;
        case 5: ltr_mgt_set_lmatch(rnd() % 2); break;
        case 6: {
            ltr_rssi_filter f{};
            ltr_show_rssi(&cmd, &f);
            ltr_dump_state(&cmd);
            fake::clear_text();
            break;
        }
        case 7:
            if (rnd() % 20 == 0) {
                ltr_set_enabled(0);
                ltr_set_enabled(1);
            }
            break;
        default: {
            std::vector<fake::cfg_tlv> out;
            ltr_cli_cfg_gen(&out);
            break;
        }
        }
    }, 5));

    std::this_thread::sleep_for(std::chrono::seconds(3));
    stop = true;
    for (auto &t : threads)
        t.join();
    EXPECT_GT(rounds.load(), 100);
    EXPECT_EQ(ltr_set_enabled(0), 0);
    EXPECT_EQ(mgt.sta_tbl.sta_cnt, 0);
}
