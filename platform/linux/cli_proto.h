// Wire format of cli.sock, shared by the agent and its client ltrctl: frames of a
// big-endian u32 length and a body; request kinds, reply codes and limits.
#pragma once
#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

namespace cli_proto {

enum kind : uint8_t {
    REQ_COMMAND = 1,    // u16 number, u8 negated, IPC structure (24 to 28 bytes)
    REQ_RUNNING = 2,    // nothing more
    REQ_DEBUG = 3,      // u8 on/off, module\0category\0
    REQ_STATUS = 4,     // nothing more
};

// Reply codes of the agent itself (a handler answers 0 or -1). A reply with one of
// these codes carries an error text after the code, whatever the request kind.
constexpr int32_t E_MALFORMED = -22; // the request does not parse
constexpr int32_t E_UNKNOWN = -2;    // no such command, module or category

constexpr size_t IPC_HEAD = 8;       // type (host order u16) and 6 unused bytes
constexpr size_t BLOCK_MIN = 12;
constexpr size_t BLOCK_MAX = 20;
constexpr size_t COMMAND_HEAD = 4;   // kind, number, negated
constexpr size_t MAX_REQUEST = 4096; // larger request frames close the connection
constexpr size_t MAX_REPLY = 64u << 20;

inline void put_u16(std::vector<uint8_t> &b, uint16_t v)
{
    b.push_back((uint8_t)(v >> 8));
    b.push_back((uint8_t)v);
}
inline void put_u32(std::vector<uint8_t> &b, uint32_t v)
{
    put_u16(b, (uint16_t)(v >> 16));
    put_u16(b, (uint16_t)v);
}
inline uint16_t get_u16(const uint8_t *p) { return (uint16_t)(p[0] << 8 | p[1]); }
inline uint32_t get_u32(const uint8_t *p)
{
    return (uint32_t)p[0] << 24 | (uint32_t)p[1] << 16 | (uint32_t)p[2] << 8 | p[3];
}

// A whole frame: length, then the body.
inline std::vector<uint8_t> frame(const std::vector<uint8_t> &body)
{
    std::vector<uint8_t> f;
    f.reserve(body.size() + 4);
    put_u32(f, (uint32_t)body.size());
    f.insert(f.end(), body.begin(), body.end());
    return f;
}

// One running-configuration entry as the agent sends it.
struct cfg_entry {
    uint16_t cmd_id;
    std::vector<uint8_t> block;
};

} // namespace cli_proto
