// ltr-server's encoder and decoder against byte vectors written out by hand.
#include <gtest/gtest.h>

#include "srv_print.h"
#include "srv_wire.h"

using namespace lsrv;

namespace {

mac_addr mac(std::initializer_list<uint8_t> b)
{
    mac_addr m{};
    std::copy(b.begin(), b.end(), m.begin());
    return m;
}

} // namespace

TEST(ServerEncode, RequestsCarryTheSeventeenByteHeaderAndTlvsInOrder)
{
    const mac_addr macs[] = {mac({0x00, 0x11, 0x22, 0x33, 0x44, 0x55}),
                             mac({0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff})};
    const oui_addr ouis[] = {{0x00, 0x50, 0xf2}};
    std::vector<bytes> tlvs = {tlv_u16(TLV_REPORT_INTERVAL, 30), tlv_u8(TLV_RSSI_THRESHOLD, 5),
                               tlv_u16(TLV_RSSI_VALID_PERIOD, 300), tlv_mac_list(macs),
                               tlv_oui_list(ouis)};
    const bytes start = {
        0x00, 0x02,                   // msg_type
        0x12, 0x34, 0x56, 0x78,       // msg_id
        0x00,                         // unused
        0x00, 0x00, 0x00, 0x30,       // datalen = len
        0x00, 0x01,                   // opcode start
        0x00, 0x30,                   // len: 6 + 6 + 5 + 6 + 17 + 8 = 48
        0x00, 0x05,                   // tlv_num
        0x00, 0x01, 0x00, 0x06, 0x00, 0x1e,             // interval 30
        0x00, 0x02, 0x00, 0x05, 0x05,                   // threshold 5
        0x00, 0x03, 0x00, 0x06, 0x01, 0x2c,             // valid 300
        0x00, 0x04, 0x00, 0x11, 0x02,                   // mac list, 2 addresses
        0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff,
        0x00, 0x05, 0x00, 0x08, 0x01, 0x00, 0x50, 0xf2, // oui list, 1 OUI
    };
    EXPECT_EQ(encode_request(OP_START, 0x12345678, tlvs), start);

    // The "all" MAC list is a bare count of 255.
    const bytes stop_all = {0x00, 0x02, 0x00, 0x00, 0x00, 0x07, 0x00, 0x00, 0x00, 0x00, 0x0b,
                            0x00, 0x02, 0x00, 0x0b, 0x00, 0x01, 0x00, 0x04, 0x00, 0x05, 0xff};
    std::vector<bytes> all = {tlv_mac_all()};
    EXPECT_EQ(encode_request(OP_STOP, 7, all), stop_all);

    // No TLV: len 6 keeps datalen above 5.
    const bytes query = {0x00, 0x02, 0x00, 0x00, 0x00, 0x09, 0x00, 0x00, 0x00,
                         0x00, 0x06, 0x00, 0x04, 0x00, 0x06, 0x00, 0x00};
    EXPECT_EQ(encode_request(OP_QUERY, 9, {}), query);

    // Any TLV, raw: its len is the head plus the value.
    EXPECT_EQ(tlv_raw(9, bytes{1, 2, 3, 4}), (bytes{0x00, 0x09, 0x00, 0x08, 1, 2, 3, 4}));
    const oui_addr none[1] = {};
    EXPECT_EQ(tlv_oui_list(std::span(none, 0)), (bytes{0x00, 0x05, 0x00, 0x05, 0x00}));
}

TEST(ServerDecode, AcksPlainAndPartial)
{
    const bytes plain = {0x00, 0x02, 0xde, 0xad, 0xbe, 0xef, 0x00, 0x00, 0x00, 0x0b, 0x00,
                         0x06, 0x00, 0x0b, 0x00, 0x01, 0x00, 0x07, 0x00, 0x05, 0x05};
    decoded d = decode_reply(plain);
    ASSERT_EQ(d.error, "");
    EXPECT_TRUE(d.notes.empty());
    EXPECT_EQ(d.op, OP_ACK);
    EXPECT_EQ(d.msg_id, 0xdeadbeefu);
    EXPECT_EQ(d.ack_code, 5);
    EXPECT_STREQ(ack_code_name(d.ack_code), "bad_msg");

    // Code 4, then the refused MAC list, then the refused OUI list: tlv_num 3.
    const bytes partial = {0x00, 0x02, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x24, 0x00, 0x06,
                           0x00, 0x24, 0x00, 0x03,
                           0x00, 0x07, 0x00, 0x05, 0x04,
                           0x00, 0x04, 0x00, 0x11, 0x02, 0x00, 0x11, 0x22, 0x33, 0x44, 0x55,
                           0x66, 0x77, 0x88, 0x99, 0xaa, 0xbb,
                           0x00, 0x05, 0x00, 0x08, 0x01, 0x00, 0x50, 0xf2};
    d = decode_reply(partial);
    ASSERT_EQ(d.error, "");
    EXPECT_EQ(d.ack_code, 4);
    ASSERT_EQ(d.refused_macs.size(), 2u);
    EXPECT_EQ(mac_str(d.refused_macs[1].data()), "66:77:88:99:aa:bb");
    ASSERT_EQ(d.refused_ouis.size(), 1u);
    EXPECT_EQ(oui_str(d.refused_ouis[0].data()), "00:50:f2");
}

TEST(ServerDecode, ReportGroupsReadingsUnderTheStationBeforeThem)
{
    const bytes report = {
        // len = 6 + 11 + 13 + 13 + 11 = 54
        0x00, 0x02, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x36, 0x00, 0x05, 0x00, 0x36, 0x00, 0x04,
        0x00, 0x04, 0x00, 0x0b, 0x01, 0xaa, 0xbb, 0xcc, 0x00, 0x00, 0x01,             // station 1
        0x00, 0x06, 0x00, 0x0d, 0x02, 0x00, 0x00, 0x00, 0x00, 0x0a, 0x09, 0x6c, 0xc4, // 2412, -60
        0x00, 0x06, 0x00, 0x0d, 0x02, 0x00, 0x00, 0x00, 0x00, 0x0b, 0x14, 0x3c, 0x7f, // 5180, 127
        0x00, 0x04, 0x00, 0x0b, 0x01, 0xaa, 0xbb, 0xcc, 0x00, 0x00, 0x02,             // station 2
    };
    const bytes &r = report;
    decoded d = decode_reply(r);
    ASSERT_EQ(d.error, "");
    ASSERT_EQ(d.stations.size(), 2u);
    EXPECT_EQ(mac_str(d.stations[0].mac.data()), "aa:bb:cc:00:00:01");
    ASSERT_EQ(d.stations[0].readings.size(), 2u);
    EXPECT_EQ(d.stations[0].readings[0].freq, 2412);
    EXPECT_EQ(d.stations[0].readings[0].rssi, -60);
    EXPECT_EQ(mac_str(d.stations[0].readings[1].ap.data()), "02:00:00:00:00:0b");
    EXPECT_EQ(d.stations[0].readings[1].freq, 5180);
    EXPECT_EQ(d.stations[0].readings[1].rssi, 127);
    EXPECT_TRUE(d.stations[1].readings.empty());

    ap_ident ap;
    ap.id = 2;
    ap.peer = "127.0.0.1:5000";
    ap.name = "ap \"b\"";
    EXPECT_EQ(show_message(ap, r, d, true),
              "{\"event\":\"message\",\"ap\":\"ap \\\"b\\\"\",\"ap_id\":2,\"peer\":\"127.0.0.1:5000\","
              "\"size\":64,\"opcode\":5,\"op\":\"rssi report\",\"msg_id\":\"0x00000000\",\"len\":54,"
              "\"tlv_num\":4,\"tlvs\":[{\"type\":4,\"name\":\"mac_list\",\"len\":11,\"count\":1,"
              "\"macs\":[\"aa:bb:cc:00:00:01\"]},{\"type\":6,\"name\":\"rssi_data\",\"len\":13,"
              "\"ap_mac\":\"02:00:00:00:00:0a\",\"freq\":2412,\"rssi\":-60},{\"type\":6,\"name\":"
              "\"rssi_data\",\"len\":13,\"ap_mac\":\"02:00:00:00:00:0b\",\"freq\":5180,\"rssi\":127},"
              "{\"type\":4,\"name\":\"mac_list\",\"len\":11,\"count\":1,\"macs\":[\"aa:bb:cc:00:00:02\"]}],"
              "\"stations\":[{\"mac\":\"aa:bb:cc:00:00:01\",\"readings\":[{\"ap_mac\":\"02:00:00:00:00:0a\","
              "\"freq\":2412,\"rssi\":-60},{\"ap_mac\":\"02:00:00:00:00:0b\",\"freq\":5180,\"rssi\":127}]},"
              "{\"mac\":\"aa:bb:cc:00:00:02\",\"readings\":[]}]}\n");

    // The empty report answering a query: len 6, no TLV.
    const bytes empty = {0x00, 0x02, 0x00, 0x00, 0x00, 0x04, 0x00, 0x00,
                         0x00, 0x06, 0x00, 0x05, 0x00, 0x06, 0x00, 0x00};
    d = decode_reply(empty);
    EXPECT_EQ(d.error, "");
    EXPECT_EQ(d.msg_id, 4u);
    EXPECT_TRUE(d.stations.empty());
}

TEST(ServerDecode, RefusesWhatDoesNotAddUpAndNeverReadsPastTheEnd)
{
    const bytes ack = {0x00, 0x02, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x0b, 0x00,
                       0x06, 0x00, 0x0b, 0x00, 0x01, 0x00, 0x07, 0x00, 0x05, 0x00};
    struct bad_case {
        const char *what;
        bytes msg;
        const char *error_starts;
    };
    auto edit = [&](std::initializer_list<std::pair<size_t, uint8_t>> e, size_t keep = 21) {
        bytes b(ack.begin(), ack.begin() + std::ptrdiff_t(keep));
        for (auto [i, v] : e)
            b[i] = v;
        return b;
    };
    const bad_case cases[] = {
        {"below the header", edit({}, 15), "short message"},
        {"len claims more than delivered", edit({}, 20), "len 11 claims 21 bytes"},
        {"len below 6", edit({{13, 4}}), "len 4 below 6"},
        {"count left over", edit({{15, 2}}), "tlv_num 2 but 1"},
        {"bytes left over", edit({{15, 0}}), "5 bytes left after 0 TLVs"},
        {"ack code of len 6", {0x00, 0x02, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x0c, 0x00, 0x06,
                               0x00, 0x0c, 0x00, 0x01, 0x00, 0x07, 0x00, 0x06, 0x00, 0x00},
         "ack_code TLV has len 6, expected 5"},
        {"tlv len below its head", edit({{19, 3}}), "TLV type 7 at offset 16 has len 3"},
        {"tlv len past the end", edit({{19, 9}}), "TLV type 7 at offset 16 has len 9"},
    };
    for (const auto &c : cases) {
        decoded d = decode_reply(c.msg);
        EXPECT_EQ(d.error.rfind(c.error_starts, 0), 0u) << c.what << ": " << d.error;
    }

    // A MAC list of count 255 is exact at len 5; an unknown type is noted, not refused.
    const bytes odd = {0x00, 0x03, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x0b, 0x00, 0x06,
                       0x00, 0x13, 0x00, 0x02, 0x00, 0x04, 0x00, 0x05, 0xff,
                       0x00, 0x09, 0x00, 0x08, 0x01, 0x02, 0x03, 0x04, 0xee};
    decoded d = decode_reply(odd);
    EXPECT_EQ(d.error, "");
    std::string notes;
    for (const auto &n : d.notes)
        notes += n + ";";
    EXPECT_EQ(notes, "msg_type 3 (expected 2);datalen 11 differs from len 19;1 bytes after the message;"
                     "unknown TLV type 9;unexpected mac_list TLV in an ack;unexpected unknown TLV in an "
                     "ack;ack without an ack code;");
}

TEST(ServerFrames, FramesHelloAndLimits)
{
    bytes out;
    frame_put(out, FR_PONG, bytes{'z'});
    EXPECT_EQ(out, (bytes{0, 0, 0, 2, 4, 'z'}));
    frame f;
    EXPECT_EQ(frame_take(out, f), FRAME_OK);
    EXPECT_EQ(f.type, FR_PONG);
    EXPECT_EQ(frame_take(std::span(out).first(5), f), FRAME_MORE);
    EXPECT_EQ(frame_take(bytes{0, 1, 0, 1}, f), FRAME_TOO_LONG);
    EXPECT_EQ(frame_take(bytes{0, 0, 0, 0}, f), FRAME_EMPTY);

    hello h;
    const bytes p = {2, 0, 0, 0, 0, 1, 127, 0, 0, 9, 'a', 'p', '-', '1'};
    ASSERT_TRUE(hello_parse(p, h));
    EXPECT_EQ(mac_str(h.mac.data()), "02:00:00:00:00:01");
    EXPECT_EQ(ip_str(h.ip), "127.0.0.9");
    EXPECT_EQ(h.name, "ap-1");
    EXPECT_FALSE(hello_parse(std::span(p).first(9), h));
}
