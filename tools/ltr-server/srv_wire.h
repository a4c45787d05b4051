// ltr-server's own view of the wire: channel frames, request encoding and the
// decoding of what access points send. Deliberately independent of the daemon's
// code, so that each side checks the other.
#pragma once
#include <stddef.h>
#include <stdint.h>

#include <array>
#include <span>
#include <string>
#include <vector>

namespace lsrv {

using bytes = std::vector<uint8_t>;
using mac_addr = std::array<uint8_t, 6>;
using oui_addr = std::array<uint8_t, 3>;

// ---- Channel frames: u32 big-endian length (type + payload), u8 type, payload ----

enum frame_type : uint8_t { FR_HELLO = 1, FR_MESSAGE = 2, FR_PING = 3, FR_PONG = 4 };
constexpr uint32_t FRAME_MAX = 65536;

void frame_put(bytes &out, uint8_t type, std::span<const uint8_t> payload);

enum frame_rc { FRAME_OK, FRAME_MORE, FRAME_TOO_LONG, FRAME_EMPTY };
struct frame {
    uint32_t length = 0;
    uint8_t type = 0;
    std::span<const uint8_t> payload;
    size_t used = 0;
};
frame_rc frame_take(std::span<const uint8_t> buf, frame &f);

struct hello {
    mac_addr mac{};
    uint32_t ip = 0; // network order, as on the wire
    std::string name;
};
bool hello_parse(std::span<const uint8_t> p, hello &h);

// ---- Messages ----

enum opcode : uint16_t { OP_START = 1, OP_STOP = 2, OP_MODIF = 3, OP_QUERY = 4, OP_RSSI_REPORT = 5, OP_ACK = 6 };
enum tlv_type : uint16_t {
    TLV_REPORT_INTERVAL = 1,
    TLV_RSSI_THRESHOLD = 2,
    TLV_RSSI_VALID_PERIOD = 3,
    TLV_MAC_LIST = 4,
    TLV_OUI_LIST = 5,
    TLV_RSSI_DATA = 6,
    TLV_ACK_CODE = 7,
};
constexpr uint8_t MAC_LIST_ALL = 255;
constexpr size_t MAC_LIST_MAX = 254; // 255 means "all"
constexpr size_t OUI_LIST_MAX = 255;
constexpr size_t REQ_HEAD = 17;      // server to AP
constexpr size_t REPLY_HEAD = 16;    // AP to server
constexpr size_t TLV_HEAD = 4;

const char *opcode_name(uint16_t op);  // "start", ..., "" when unknown
const char *ack_code_name(int code);    // "ok", "no_buffer", ...; "unknown"
const char *tlv_name(uint16_t type);   // "report_interval", ...; "unknown"

// Whole TLVs, in wire order.
bytes tlv_u16(uint16_t type, uint16_t v);
bytes tlv_u8(uint16_t type, uint8_t v);
bytes tlv_mac_list(std::span<const mac_addr> macs);
bytes tlv_mac_all();
bytes tlv_oui_list(std::span<const oui_addr> ouis);
bytes tlv_raw(uint16_t type, std::span<const uint8_t> value); // len = 4 + value size

// A request as the AP receives it: 17-byte header (msg_id written big-endian),
// then the TLVs back to back.
bytes encode_request(uint16_t op, uint32_t msg_id, std::span<const bytes> tlvs);

// ---- Decoding a message from an AP (16-byte header) ----

struct rssi_reading {
    mac_addr ap{};
    uint16_t freq = 0;
    int8_t rssi = 0;
};
struct station {
    mac_addr mac{};
    std::vector<rssi_reading> readings;
};
struct tlv_item {
    uint16_t type = 0;
    uint16_t len = 0;
    std::span<const uint8_t> value; // into the decoded buffer
};
struct decoded {
    std::string error;              // empty: well formed
    std::vector<std::string> notes; // oddities that do not stop decoding
    uint16_t msg_type = 0;
    uint32_t msg_id = 0;            // the four bytes read big-endian
    uint32_t datalen = 0;
    uint16_t op = 0, len = 0, tlv_num = 0;
    std::vector<tlv_item> tlvs;
    // Interpretation by opcode.
    int ack_code = -1;
    std::vector<mac_addr> refused_macs;
    std::vector<oui_addr> refused_ouis;
    std::vector<station> stations;
};
// Decodes msg (which must outlive the result). Never reads past msg.
decoded decode_reply(std::span<const uint8_t> msg);

// ---- Text forms ----

std::string mac_str(const uint8_t *m);       // aa:bb:cc:dd:ee:ff
std::string oui_str(const uint8_t *o);       // aa:bb:cc
std::string ip_str(uint32_t net_order);
// The forms of mac_text.h.
bool parse_mac(const std::string &s, mac_addr &out);
bool parse_oui(const std::string &s, oui_addr &out);
bool parse_hex(const std::string &s, bytes &out);    // even number of hex digits
std::string hex_str(std::span<const uint8_t> b);

} // namespace lsrv
