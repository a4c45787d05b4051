// ltr-server's encoder and decoder against byte vectors written out by hand.
#include <gtest/gtest.h>

#include <chrono>
#include <regex>

#include "srv_print.h"
#include "srv_wire.h"

using namespace lsrv;

TEST(ServerEncode, RequestsCarryTheSeventeenByteHeaderAndTlvsInOrder)
{
    const mac_addr macs[] = {{0x00, 0x11, 0x22, 0x33, 0x44, 0x55}, {0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff}};
    const oui_addr ouis[] = {{0x00, 0x50, 0xf2}};
    std::vector<bytes> tlvs = {tlv_u16(TLV_REPORT_INTERVAL, 30), tlv_u8(TLV_RSSI_THRESHOLD, 5),
                               tlv_u16(TLV_RSSI_VALID_PERIOD, 300), tlv_mac_list(macs), tlv_oui_list(ouis)};
    const bytes start = {
        0x00, 0x02, 0x12, 0x34, 0x56, 0x78, 0x00,       // msg_type, msg_id, unused
        0x00, 0x00, 0x00, 0x30, 0x00, 0x01, 0x00, 0x30, // datalen = len = 48, opcode start
        0x00, 0x05,                                     // tlv_num
        0x00, 0x01, 0x00, 0x06, 0x00, 0x1e,             // interval 30
        0x00, 0x02, 0x00, 0x05, 0x05,                   // threshold 5
        0x00, 0x03, 0x00, 0x06, 0x01, 0x2c,             // valid 300
        0x00, 0x04, 0x00, 0x11, 0x02, 0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff,
        0x00, 0x05, 0x00, 0x08, 0x01, 0x00, 0x50, 0xf2, // oui list, 1 OUI
    };
    EXPECT_EQ(encode_request(OP_START, 0x12345678, tlvs), start);
    // The "all" MAC list is a bare count of 255.
    EXPECT_EQ(encode_request(OP_STOP, 7, std::vector<bytes>{tlv_mac_all()}),
              (bytes{0x00, 0x02, 0x00, 0x00, 0x00, 0x07, 0x00, 0x00, 0x00, 0x00, 0x0b, 0x00, 0x02, 0x00, 0x0b, 0x00,
                     0x01, 0x00, 0x04, 0x00, 0x05, 0xff}));
    // No TLV: len 6 keeps datalen above 5.
    EXPECT_EQ(encode_request(OP_QUERY, 9, {}), (bytes{0x00, 0x02, 0x00, 0x00, 0x00, 0x09, 0x00, 0x00, 0x00,
                                                      0x00, 0x06, 0x00, 0x04, 0x00, 0x06, 0x00, 0x00}));
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
    decoded d = decode_reply(report);
    ASSERT_EQ(d.error, "");
    ASSERT_EQ(d.stations.size(), 2u);
    ASSERT_EQ(d.stations[0].readings.size(), 2u);
    EXPECT_EQ(d.stations[0].readings[0].rssi, -60);
    EXPECT_EQ(d.stations[0].readings[1].rssi, 127);
    EXPECT_TRUE(d.stations[1].readings.empty());

    ap_ident ap;
    ap.id = 2;
    ap.peer = "127.0.0.1:5000";
    ap.name = "ap \"b\"";
    // Stamped in UTC with the moment it is printed; the rest as the server always wrote it.
    auto before = std::chrono::system_clock::now() - std::chrono::milliseconds(1);
    std::string line = show_message(ap, report, d, true);
    auto after = std::chrono::system_clock::now() + std::chrono::milliseconds(1);
    std::smatch m;
    ASSERT_TRUE(std::regex_search(line, m, std::regex(R"re(^\{"time":"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z)",)re")))
        << line;
    EXPECT_LE(utc_stamp(before), m[1].str());
    EXPECT_GE(utc_stamp(after), m[1].str());
    EXPECT_EQ(utc_stamp(std::chrono::system_clock::time_point(std::chrono::milliseconds(1700000000123))),
              "2023-11-14T22:13:20.123Z");
    EXPECT_EQ("{" + line.substr(m[0].length()),
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
}

TEST(ServerDecode, RefusesWhatDoesNotAddUpAndNeverReadsPastTheEnd)
{
    const bytes ack = {0x00, 0x02, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x0b, 0x00,
                       0x06, 0x00, 0x0b, 0x00, 0x01, 0x00, 0x07, 0x00, 0x05, 0x00};
    auto edit = [&](std::initializer_list<std::pair<size_t, uint8_t>> e, size_t keep = 21) {
        bytes b(ack.begin(), ack.begin() + std::ptrdiff_t(keep));
        for (auto [i, v] : e)
            b[i] = v;
        return b;
    };
    bytes ack6 = edit({{9, 0x0c}, {13, 0x0c}, {19, 6}});
    ack6.push_back(0);
    const std::pair<bytes, const char *> cases[] = {
        {edit({}, 15), "short message"},
        {edit({}, 20), "len 11 claims 21 bytes"},
        {edit({{13, 4}}), "len 4 below 6"},
        {edit({{15, 2}}), "tlv_num 2 but 1"},
        {edit({{15, 0}}), "5 bytes left after 0 TLVs"},
        {ack6, "ack_code TLV has len 6, expected 5"},
        {edit({{19, 3}}), "TLV type 7 at offset 16 has len 3"},
        {edit({{19, 9}}), "TLV type 7 at offset 16 has len 9"},
    };
    for (const auto &[msg, error_starts] : cases)
        EXPECT_EQ(decode_reply(msg).error.rfind(error_starts, 0), 0u) << error_starts << ": " << decode_reply(msg).error;

    // A MAC list of count 255 is exact at len 5; an unknown type is noted, not refused.
    decoded d = decode_reply(bytes{0x00, 0x03, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x0b, 0x00, 0x06,
                                   0x00, 0x13, 0x00, 0x02, 0x00, 0x04, 0x00, 0x05, 0xff, 0x00, 0x09, 0x00,
                                   0x08, 0x01, 0x02, 0x03, 0x04, 0xee});
    EXPECT_EQ(d.error, "");
    std::string notes;
    for (const auto &n : d.notes)
        notes += n + ";";
    EXPECT_EQ(notes, "msg_type 3 (expected 2);datalen 11 differs from len 19;1 bytes after the message;"
                     "unknown TLV type 9;unexpected mac_list TLV in an ack;unexpected unknown TLV in an "
                     "ack;ack without an ack code;");
}
