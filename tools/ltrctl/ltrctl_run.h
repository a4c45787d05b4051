// Running ltrctl commands against the daemon: one line, a batch, and the decoding of
// the running configuration.
#pragma once
#include <stdint.h>

#include <iosfwd>
#include <string>
#include <vector>

#include "ltrctl_cmd.h"
#include "ltrctl_conn.h"

namespace ltrctl {

// Exit statuses.
constexpr int EXIT_OK = 0;
constexpr int EXIT_FAILED = 1; // the daemon refused or the command failed
constexpr int EXIT_USAGE = 2;  // bad words or values: nothing was sent
constexpr int EXIT_NOLINK = 3; // no daemon, or a broken reply

// Turns a running-configuration reply into command lines. Entries that are not
// configuration commands go to `skipped`. False (and err) when the reply is malformed.
bool decode_running(const std::vector<uint8_t> &reply, int32_t &result,
                    std::vector<std::string> &lines, std::vector<std::string> &skipped,
                    std::string &err);

// Runs one parsed request on an open connection; prints what the daemon printed, or
// with json its JSON document.
int run_request(conn &c, const request &r, std::ostream &out, std::ostream &err,
                bool json = false);

// Runs the lines of a batch. Every line is checked first: a bad line stops the batch
// before anything is sent, unless keep_going, which skips bad lines and failing
// commands and reports them. The connection is opened on first need from `path`.
int run_batch(const std::vector<std::string> &lines, bool keep_going, const std::string &path,
              std::ostream &out, std::ostream &err, int timeout_ms = DEFAULT_TIMEOUT_MS,
              bool json = false);

} // namespace ltrctl
