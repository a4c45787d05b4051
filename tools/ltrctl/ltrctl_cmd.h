// ltrctl's command language: operator words to cli.sock requests, and the daemon's
// running-configuration entries back to words. No I/O here.
#pragma once
#include <stdint.h>

#include <string>
#include <vector>

namespace ltrctl {

enum class req_kind { command, running_config, debug, status, help };

struct request {
    req_kind kind = req_kind::command;
    uint16_t cmd_id = 0;
    bool negated = false;
    std::vector<uint8_t> block; // 12, 16 or 20 bytes
    bool debug_on = true;
    std::string module, category;
};

// Parses one command line. On error returns false and sets err to a message that
// names the offending word.
bool parse(const std::string &line, request &out, std::string &err);
// Splits on blanks; "" and "#..." or "!..." lines give no words.
std::vector<std::string> words(const std::string &line);

// The command words of one running-configuration entry; false (and err) when the
// entry is not a configuration command or its block does not fit it.
bool entry_words(uint16_t cmd_id, const std::vector<uint8_t> &block, std::string &line,
                 std::string &err);

// cli.sock request body for a parsed request.
std::vector<uint8_t> encode(const request &r);

// The help text: every command with its arguments and ranges.
std::string help_text();

} // namespace ltrctl
