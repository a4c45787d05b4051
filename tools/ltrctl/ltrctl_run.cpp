// ltrctl's runner: sends requests, prints replies, and replays batches.
#include "ltrctl_run.h"

#include <ostream>

#include "cli_proto.h"
#include "ltrctl_json.h"

namespace ltrctl {

using cli_proto::get_u16;
using cli_proto::get_u32;

bool decode_running(const std::vector<uint8_t> &r, int32_t &result, std::vector<std::string> &lines,
                    std::vector<std::string> &skipped, std::string &err)
{
    if (r.size() < 6) {
        err = "running configuration reply of " + std::to_string(r.size()) + " bytes";
        return false;
    }
    result = (int32_t)get_u32(r.data());
    size_t count = get_u16(&r[4]), at = 6;
    for (size_t i = 0; i < count; i++) {
        if (r.size() - at < 4) {
            err = "running configuration reply cut short at entry " + std::to_string(i + 1);
            return false;
        }
        uint16_t id = get_u16(&r[at]), len = get_u16(&r[at + 2]);
        at += 4;
        if (r.size() - at < len) {
            err = "running configuration entry " + std::to_string(i + 1) + " cut short";
            return false;
        }
        std::vector<uint8_t> block(r.begin() + (long)at, r.begin() + (long)(at + len));
        at += len;
        std::string line, why;
        if (entry_words(id, block, line, why))
            lines.push_back(line);
        else
            skipped.push_back(why);
    }
    if (at != r.size()) {
        err = "running configuration reply has " + std::to_string(r.size() - at) +
              " bytes after its last entry";
        return false;
    }
    return true;
}

int run_request(conn &c, const request &r, std::ostream &out, std::ostream &err, bool json)
{
    if (r.kind == req_kind::help) {
        out << help_text();
        return EXIT_OK;
    }
    std::vector<uint8_t> reply;
    std::string why;
    if (!c.exchange(encode(r), reply, why)) {
        err << "ltrctl: " << why << "\n";
        return EXIT_NOLINK;
    }
    int32_t result = (int32_t)get_u32(reply.data());
    std::string text(reply.begin() + 4, reply.end());
    // The agent's own refusals carry their reason as text, whatever the request.
    if (result == cli_proto::E_MALFORMED || result == cli_proto::E_UNKNOWN) {
        err << "ltrctl: daemon: " << text;
        if (json)
            out << result_json(result, text);
        return EXIT_FAILED;
    }
    if (r.kind == req_kind::running_config) {
        std::vector<std::string> lines, skipped;
        if (!decode_running(reply, result, lines, skipped, why)) {
            err << "ltrctl: " << why << "\n";
            return EXIT_NOLINK;
        }
        if (json)
            out << running_json(lines, skipped, result);
        else
            for (auto &l : lines)
                out << l << "\n";
        for (auto &s : skipped)
            err << "ltrctl: running configuration: skipped " << s << "\n";
        if (result != 0)
            err << "ltrctl: the configuration generator failed (" << result << ")\n";
        return result == 0 && skipped.empty() ? EXIT_OK : EXIT_FAILED;
    }
    if (json && result == 0) {
        std::string doc;
        if (!show_json(r, text, doc, why)) {
            err << "ltrctl: the daemon's reply does not read as JSON fields: " << why << "\n";
            return EXIT_NOLINK;
        }
        out << doc;
    } else if (json) {
        out << result_json(result, text);
    } else {
        out << text;
    }
    if (result != 0) {
        if (r.kind == req_kind::debug)
            err << "ltrctl: debug: the daemon does not know " << r.module << " " << r.category
                << "\n";
        return EXIT_FAILED;
    }
    return EXIT_OK;
}

int run_batch(const std::vector<std::string> &lines, bool keep_going, const std::string &path,
              std::ostream &out, std::ostream &err, int timeout_ms, bool json)
{
    std::vector<std::pair<size_t, request>> todo;
    bool bad = false;
    for (size_t i = 0; i < lines.size(); i++) {
        if (words(lines[i]).empty())
            continue;
        request r;
        std::string why;
        if (!parse(lines[i], r, why)) {
            err << "ltrctl: line " << i + 1 << ": " << why << "\n";
            bad = true;
            continue;
        }
        todo.emplace_back(i + 1, r);
    }
    if (bad && !keep_going) {
        err << "ltrctl: nothing sent\n";
        return EXIT_USAGE;
    }
    conn c;
    c.timeout_ms = timeout_ms;
    bool opened = false;
    int status = bad ? EXIT_FAILED : EXIT_OK;
    for (auto &[no, r] : todo) {
        if (r.kind != req_kind::help && !opened) {
            std::string why;
            if (!c.open(path, why)) {
                err << "ltrctl: " << why << "\n";
                return EXIT_NOLINK;
            }
            opened = true;
        }
        int s = run_request(c, r, out, err, json);
        if (s == EXIT_NOLINK)
            return s;
        if (s != EXIT_OK) {
            err << "ltrctl: line " << no << ": '" << lines[no - 1] << "' failed\n";
            status = EXIT_FAILED;
            if (!keep_going)
                return status;
        }
    }
    return status;
}

} // namespace ltrctl
