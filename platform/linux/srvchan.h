// Server channel: the TCP link from this access point to the location server.
// Framing helpers, the outgoing queue, and the seams that tests use.
#pragma once
#include <stddef.h>
#include <stdint.h>

#include <span>
#include <string>
#include <vector>

// Frame: u32 big-endian length (bytes after it), u8 type, payload.
enum srv_frame_type : uint8_t {
    SRV_FRAME_HELLO = 1,   // AP to server, first frame: MAC(6) IPv4(4) instance name
    SRV_FRAME_MESSAGE = 2, // both ways: one location-server message
    SRV_FRAME_PING = 3,    // either side; the peer answers with PONG
    SRV_FRAME_PONG = 4,    // answer to PING, echoing its payload
};
constexpr size_t SRV_FRAME_HEAD = 5;       // length + type
constexpr uint32_t SRV_FRAME_MAX = 65536;  // largest length field (type + payload)
constexpr size_t SRV_HELLO_FIXED = 10;     // MAC + IPv4 before the instance name
// Unwritten output (PONGs, messages, pings) past which the server's PINGs are not
// read; it can exceed this by one frame. A server that leaves it full for the
// keep-alive time is disconnected.
constexpr size_t SRV_OUT_LIMIT = 256 << 10;
static_assert(SRV_FRAME_HEAD == sizeof(uint32_t) + sizeof(uint8_t));

// Appends one whole frame to out.
void srv_frame_put(std::string &out, uint8_t type, const void *payload, size_t len);

// Result of taking one frame off the front of a receive buffer.
enum srv_frame_status {
    SRV_FRAME_OK,        // a frame was taken: type/payload set, used = bytes consumed
    SRV_FRAME_NEED_MORE, // the buffer ends inside a frame
    SRV_FRAME_TOO_LONG,  // length field above SRV_FRAME_MAX
    SRV_FRAME_EMPTY,     // length field 0: no type byte
};
struct srv_frame_view {
    uint32_t length = 0; // the length field as received
    uint8_t type = 0;
    std::span<const uint8_t> payload;
    size_t used = 0;
};
srv_frame_status srv_frame_take(std::span<const uint8_t> buf, srv_frame_view &out);

// The HELLO payload for the given addresses (ip in network order) and name.
std::string srv_hello_payload(const uint8_t mac[6], uint32_t ip, const std::string &name);

// Splits "host:port" (or "[v6]:port"); false on a malformed address.
bool srv_split_address(const std::string &addr, std::string &host, std::string &port);

// Timing of the channel. Defaults: ping after 10 s without traffic from the
// server, give up after 30 s of silence, back-off 1 s doubling to 30 s.
struct srvchan_timing {
    int ping_idle_ms = 10000;
    int dead_ms = 30000;
    int backoff_first_ms = 1000;
    int backoff_max_ms = 30000;
    int connect_timeout_ms = 5000;
};

// Queues one message for the server (copied). Negative when it can never be
// framed; otherwise 0, even when the queue had to drop older messages.
int srvchan_send(const void *payload, int len);

// Starts the channel thread if it is not running (rt_srvchan_start calls this).
void srvchan_open();
// Stops and joins the channel thread and empties the queue (tests; the daemon's
// thread ends by itself when the runtime stops).
void srvchan_close();
bool srvchan_connected();
size_t srvchan_queue_bytes();

// Tests: replace the timing (before srvchan_open), and the delivery of inbound
// messages (default: rt_event_post with event 164). Null restores the default.
void srvchan_set_timing(const srvchan_timing &t);
typedef void (*srvchan_deliver_fn)(const void *payload, int len);
void srvchan_set_deliver(srvchan_deliver_fn fn);
