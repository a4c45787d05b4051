// ltrctl --json: one JSON document per command, from the daemon's reply.
#pragma once
#include <stdint.h>

#include <string>
#include <vector>

#include "ltrctl_cmd.h"

namespace ltrctl {

// The document of a show's or status's reply text (any other command: result and
// text); false (and err) when the text does not read as the show prints it.
bool show_json(const request &r, const std::string &text, std::string &doc, std::string &err);
// {"result": result, "text": text}
std::string result_json(int32_t result, const std::string &text);
// {"result": result, "commands": [...], "skipped": [...]}
std::string running_json(const std::vector<std::string> &lines,
                         const std::vector<std::string> &skipped, int32_t result);

} // namespace ltrctl
