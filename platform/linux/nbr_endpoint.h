// Neighbour messaging inside the runtime: the datagram envelope and one UDP endpoint
// with its receive thread. qz_nbrcom.cpp and the owner service sit on top of it.
#pragma once
#include <stddef.h>
#include <stdint.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

// ---- Envelope: "QZNM", version, flags, module id, sender, epoch, counter, payload, [tag] ----

struct nbr_hdr {
    uint8_t magic[4];   // "QZNM"
    uint8_t version;    // NBR_VERSION
    uint8_t flags;      // NBR_FLAG_TAGGED
    uint8_t module[2];  // big-endian
    uint8_t sender[4];  // the sender's IPv4, network order: must be the datagram's source
    uint8_t epoch[8];   // big-endian; the sender's start, larger on every start
    uint8_t counter[8]; // big-endian; per epoch, from 1, one per datagram sent
};
static_assert(sizeof(nbr_hdr) == 28);
static_assert(offsetof(nbr_hdr, version) == 4);
static_assert(offsetof(nbr_hdr, module) == 6);
static_assert(offsetof(nbr_hdr, sender) == 8);
static_assert(offsetof(nbr_hdr, epoch) == 12);
static_assert(offsetof(nbr_hdr, counter) == 20);

// 2: sender, epoch and counter joined the header. Version 1 datagrams are dropped.
constexpr uint8_t NBR_VERSION = 2;
// qz_hc_reg.version: the registration record's layout, not the envelope's.
constexpr uint32_t NBR_REG_VERSION = 1;
constexpr uint8_t NBR_FLAG_TAGGED = 0x1;
constexpr size_t NBR_TAG_LEN = 16;          // HMAC-SHA256, truncated
constexpr size_t NBR_MAX_DATAGRAM = 65507;  // largest UDP payload over IPv4
// Module ids from here up belong to the platform's own protocols.
constexpr uint16_t NBR_MODULE_RESERVED = 0xff00;
constexpr uint16_t NBR_MODULE_OWNER = 0xff01;

enum nbr_verdict {
    NBR_OK,
    NBR_SHORT,     // shorter than the header (or header + tag)
    NBR_MAGIC,
    NBR_VERSION_BAD,
    NBR_UNTAGGED,  // we hold a key, the datagram carries no tag
    NBR_BAD_TAG,
};
// Counter and log name of a verdict ("short", "magic", ...).
const char *nbr_verdict_name(nbr_verdict v);

// Who sealed a datagram, and which of its datagrams this is.
struct nbr_origin {
    uint32_t sender = 0;  // network order
    uint64_t epoch = 0;
    uint64_t counter = 0;
};

// What nbr_unseal found in a good datagram.
struct nbr_opened {
    uint16_t module = 0;
    size_t off = 0;   // payload offset
    size_t plen = 0;  // payload length
    bool tagged = false;
    nbr_origin from;
};

// Builds one datagram into out; tagged when key is not empty. False when too large.
bool nbr_seal(uint16_t module, const void *payload, size_t len, std::string_view key,
              const nbr_origin &from, std::vector<uint8_t> &out);
// Checks one received datagram of len bytes; on NBR_OK fills out. Nothing outside
// buf[0, len) is read.
nbr_verdict nbr_unseal(const uint8_t *buf, size_t len, std::string_view key, nbr_opened *out);

// ---- Replay window: per sender, the newest epoch and which recent counters came ----

constexpr uint64_t NBR_WINDOW_BITS = 1024;

struct nbr_window {
    uint64_t epoch = 0;  // 0: nothing accepted yet
    uint64_t top = 0;    // highest counter accepted in epoch
    uint64_t seen[NBR_WINDOW_BITS / 64] = {}; // bit c % NBR_WINDOW_BITS: counter c came
};

enum nbr_freshness {
    NBR_FRESH,       // accepted (and now remembered)
    NBR_RESTARTED,   // a later epoch: the sender started again; accepted
    NBR_REPLAYED,    // counter seen already, or older than the window
    NBR_STALE_EPOCH, // an epoch older than the sender's newest
};
// Decides whether (epoch, counter) is new for w and, when it is, records it.
nbr_freshness nbr_window_check(nbr_window &w, uint64_t epoch, uint64_t counter);

// Senders remembered with a window; past this new ones are refused.
constexpr size_t NBR_MAX_SENDERS = 1024;
// Windows saved by an earlier run, every counter up to each top taken as seen; a bad
// file or line is logged and skipped.
void nbr_windows_load(const std::string &path, std::map<uint32_t, nbr_window> &out);
// Replaces the file (written aside, then renamed); a failure is logged.
void nbr_windows_save(const std::string &path, const std::map<uint32_t, nbr_window> &windows);
// This start's epoch: now_us, or one more than the epoch saved in path by the last start
// when the clock went back since; saves it for the next start. Failures are logged.
uint64_t nbr_next_epoch(const std::string &path, uint64_t now_us);

// ---- Endpoint: one bound UDP socket and the thread that delivers what it receives ----

struct nbr_params {
    uint32_t bind_ip = 0;          // network order; 0 = any
    uint16_t port = 7421;          // 0 = any free port (tests)
    std::vector<uint32_t> peers;   // network order; empty = accept every source
    std::string key;               // site key; empty = no authentication
    uint64_t epoch = 0;            // 0: the wall clock at open, in microseconds (tests set it)
    std::string windows_file;      // where replay windows outlive the process; "" = nowhere
    std::string epoch_file;        // our last epoch, for the next start; "" = nowhere
};

// Receives the payload (exactly plen bytes, writable, valid during the call, never null
// even when plen is 0) and the
// sender's IPv4 address (network order). Runs on the endpoint's receive thread.
using nbr_recv_fn = std::function<void(uint32_t src_ip, uint8_t *payload, int plen)>;

struct nbr_endpoint;
struct nbr_endpoint_deleter {
    void operator()(nbr_endpoint *ep) const;
};
using nbr_endpoint_ptr = std::unique_ptr<nbr_endpoint, nbr_endpoint_deleter>;

// Binds and starts the receive thread; null with err set on failure.
nbr_endpoint_ptr nbr_endpoint_open(const nbr_params &p, std::string &err);
// The port actually bound (useful with port 0).
uint16_t nbr_endpoint_port(const nbr_endpoint *ep);
uint32_t nbr_endpoint_addr(const nbr_endpoint *ep);
// Registers fn for module (replacing an earlier one). Returns 0.
int nbr_endpoint_add(nbr_endpoint *ep, uint16_t module, nbr_recv_fn fn);
// Removes module's callback; once this returns the callback runs no more (unless
// called from the callback itself). Negative when none was registered.
int nbr_endpoint_remove(nbr_endpoint *ep, uint16_t module);
// Sends one datagram for module to dst_ip:port (network order). 0 / -1.
int nbr_endpoint_send(nbr_endpoint *ep, uint32_t dst_ip, uint16_t module, const void *payload,
                      size_t len);
// Sends to an explicit port (tests with endpoints on different ports).
int nbr_endpoint_send_to(nbr_endpoint *ep, uint32_t dst_ip, uint16_t port, uint16_t module,
                         const void *payload, size_t len);

// The process's endpoint, opened from the configuration on first use; null (logged)
// when it cannot be opened.
nbr_endpoint *nbr_global();
// Parses a dotted quad into network order; false when it is not one.
bool nbr_parse_ipv4(const std::string &text, uint32_t *ip);
