// ltr-server commands: one text line parsed into what to do, with a clear error
// for bad input.
#pragma once
#include <string>
#include <vector>

#include "srv_wire.h"

namespace lsrv {

enum cmd_kind {
    CMD_NONE,       // blank line or comment
    CMD_HELP,
    CMD_LIST,
    CMD_REQUEST,    // start / stop / modify / query / send
    CMD_RAW,        // a whole message given in hex
    CMD_WAIT,       // wait / sleep SECONDS
    CMD_WAIT_AP,    // wait-ap COUNT [TIMEOUT]
    CMD_WAIT_REPLY, // wait-reply [TIMEOUT]
    CMD_QUIT,
};

struct command {
    cmd_kind kind = CMD_NONE;
    std::string target;       // "all", "#N", an instance name or an AP MAC
    uint16_t op = 0;
    std::vector<bytes> tlvs;  // request TLVs in the order given
    bytes raw;                // CMD_RAW: the message
    double seconds = 0;       // wait time or timeout
    unsigned count = 0;       // wait-ap
};

// Parses one line. False with err set on bad input; nothing else changes.
bool parse_command(const std::string &line, command &out, std::string &err);

extern const char *const command_help;

} // namespace lsrv
