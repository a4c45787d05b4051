// ltrctl's command table: words, argument kinds, value ranges, and the conversion of
// running-configuration blocks back to words.
#include "ltrctl_cmd.h"

#include <ctype.h>
#include <string.h>

#include <algorithm>
#include <sstream>

#include "cli_proto.h"
#include "mac_text.h"

namespace ltrctl {
namespace {

enum class arg_kind { none, value, mac, oui };

struct cmd_def {
    const char *words; // after an optional "no"
    uint16_t id;
    arg_kind arg;
    bool negatable;
    uint32_t min, max; // value range
    const char *what;  // help text
};

constexpr uint32_t FLAG_ARG = 0x1u;
constexpr uint32_t FLAG_NEG = 0x80000000u;

// Longer word lists first, so "rssi mac" wins over "rssi".
const cmd_def defs[] = {
    {"location-tracking enable", 1882, arg_kind::none, true, 0, 0,
     "enable location tracking (no: disable it, emptying the tracking list)"},
    {"location-tracking suppress", 1883, arg_kind::value, true, 0, 65535,
     "report suppressing parameter, cycles (no: 0)"},
    {"location-tracking report-interval", 1893, arg_kind::value, true, 1, 65535,
     "RSSI report interval, seconds (no: 60)"},
    {"location-tracking rssi-threshold", 1894, arg_kind::value, true, 0, 255,
     "RSSI change update threshold, dB (no: 3)"},
    {"location-tracking valid-period", 1895, arg_kind::value, true, 0, 65535,
     "RSSI valid time period, seconds (no: 60)"},
    {"location-tracking hold-time", 1897, arg_kind::value, true, 0, 255,
     "RSSI hold time, cycles (no: 0)"},
    {"location-tracking list-match", 1896, arg_kind::none, true, 0, 0,
     "report only stations on the tracking list (no: report every station)"},
    {"location-tracking mac", 1885, arg_kind::mac, true, 0, 0,
     "track a station (no: stop tracking it; without a MAC: every MAC)"},
    {"location-tracking oui", 1886, arg_kind::oui, true, 0, 0,
     "track every station of an OUI (no: stop; without an OUI: every OUI)"},
    {"show location-tracking rssi mac", 1889, arg_kind::mac, false, 0, 0,
     "RSSI list of one station"},
    {"show location-tracking rssi oui", 1890, arg_kind::oui, false, 0, 0,
     "RSSI lists of the stations of an OUI"},
    {"show location-tracking rssi", 1888, arg_kind::none, false, 0, 0,
     "RSSI lists of every station"},
    {"show location-tracking track-list", 1887, arg_kind::none, false, 0, 0, "the tracking list"},
    {"show location-tracking state", 1891, arg_kind::none, false, 0, 0,
     "engine state: shared memory, addresses, timers, buffer"},
    {"show location-tracking driver-stats", 1892, arg_kind::none, false, 0, 0,
     "the driver's counters of every radio"},
    {"show location-tracking", 1884, arg_kind::none, false, 0, 0, "parameters and status"},
};

const char *const debug_categories[] = {"error", "event", "info",   "packet",
                                        "all",   "scdlib", "dcdlib", "alllib"};

const cmd_def *find_def(uint16_t id)
{
    for (auto &d : defs)
        if (d.id == id)
            return &d;
    return nullptr;
}

// Number of leading words of w (from index at) that spell d.words; 0 if no match.
size_t match(const cmd_def &d, const std::vector<std::string> &w, size_t at)
{
    std::vector<std::string> dw = words(d.words);
    if (w.size() - at < dw.size())
        return 0;
    for (size_t i = 0; i < dw.size(); i++)
        if (w[at + i] != dw[i])
            return 0;
    return dw.size();
}

void put_le32(std::vector<uint8_t> &b, size_t at, uint32_t v)
{
    for (int i = 0; i < 4; i++)
        b[at + (size_t)i] = (uint8_t)(v >> (8 * i));
}
uint32_t get_le32(const std::vector<uint8_t> &b, size_t at)
{
    return (uint32_t)b[at] | (uint32_t)b[at + 1] << 8 | (uint32_t)b[at + 2] << 16 |
           (uint32_t)b[at + 3] << 24;
}

bool parse_value(const std::string &s, uint32_t &v)
{
    if (s.empty() || s.size() > 10)
        return false;
    uint64_t x = 0;
    for (char c : s) {
        if (c < '0' || c > '9')
            return false;
        x = x * 10 + (uint64_t)(c - '0');
    }
    if (x > 0xFFFFFFFFu)
        return false;
    v = (uint32_t)x;
    return true;
}

// The words that may follow w[at..] when w is the start of longer commands, as
// "a, b, c"; "" when no command starts so. A "no" form lists only what it undoes.
std::string next_words(const std::vector<std::string> &w, size_t at)
{
    std::vector<std::string> spelled;
    for (auto &d : defs)
        if (at == 0 || d.negatable)
            spelled.push_back(d.words);
    if (at == 0)
        spelled.insert(spelled.end(), {"show running-config", "status", "help"});
    spelled.push_back("debug location-tracking <category>");
    std::vector<std::string> next;
    for (auto &text : spelled) {
        std::vector<std::string> dw = words(text);
        if (dw.size() <= w.size() - at || !std::equal(w.begin() + (long)at, w.end(), dw.begin()))
            continue;
        const std::string &n = dw[w.size() - at];
        if (std::find(next.begin(), next.end(), n) == next.end())
            next.push_back(n);
    }
    std::string out;
    for (auto &n : next)
        out += (out.empty() ? "" : ", ") + n;
    return out;
}

std::string spell(const cmd_def &d, bool negated)
{
    return (negated ? "no " : "") + std::string(d.words);
}

} // namespace

std::vector<std::string> words(const std::string &line)
{
    std::vector<std::string> w;
    std::istringstream in(line);
    std::string t;
    while (in >> t) {
        if (w.empty() && (t[0] == '#' || t[0] == '!'))
            break;
        w.push_back(t);
    }
    return w;
}

// The requests that are not agent commands: running configuration, status, help and
// debug switches. False when line is none of them; else ok says whether it parsed.
bool parse_special(const std::vector<std::string> &w, bool neg, request &out, std::string &err,
                   bool &ok)
{
    ok = true;
    size_t at = neg ? 1 : 0, rest = w.size() - at;
    if (!neg && w == std::vector<std::string>{"show", "running-config"}) {
        out.kind = req_kind::running_config;
        return true;
    }
    if (!neg && w == std::vector<std::string>{"status"}) {
        out.kind = req_kind::status;
        return true;
    }
    if (!neg && w[0] == "help") {
        out.kind = req_kind::help;
        return true;
    }
    if (rest < 1 || w[at] != "debug")
        return false;
    ok = false;
    if (rest != 3 || w[at + 1] != "location-tracking") {
        err = "usage: [no] debug location-tracking <category>";
        return true;
    }
    const std::string &cat = w[at + 2];
    bool known = false;
    for (auto c : debug_categories)
        known |= cat == c;
    if (!known) {
        err = "debug: unknown category '" + cat +
              "' (error, event, info, packet, all, scdlib, dcdlib, alllib)";
        return true;
    }
    out.kind = req_kind::debug;
    out.debug_on = !neg;
    out.module = "ltr";
    out.category = cat;
    ok = true;
    return true;
}

// A MAC or OUI argument: how it is read, what a bad one is told, its argument block.
struct addr_arg {
    bool (*parse)(std::string_view, uint8_t *);
    const char *what;  // after "is not "
    const char *group; // after the argument
    size_t len, block;
};
constexpr addr_arg mac_arg = {
    ltr_mac_parse, "a MAC address (aa:bb:cc:dd:ee:ff, aa-bb-cc-dd-ee-ff or aabb.ccdd.eeff)",
    " is a group (multicast or broadcast) address, not a station", 6, 20};
constexpr addr_arg oui_arg = {ltr_oui_parse, "an OUI (aa:bb:cc, aa-bb-cc or aabb.cc)",
                              " has the group bit set: only multicast addresses are in it", 3, 16};

// The argument block of a command with its one argument a (flags without the
// argument flag); false with err set when a does not fit the command.
bool put_argument(const cmd_def &d, const std::string &name, const std::string &a,
                  uint32_t flags, request &out, std::string &err)
{
    flags |= FLAG_ARG;
    if (d.arg == arg_kind::value) {
        uint32_t v;
        if (!parse_value(a, v)) {
            err = name + ": '" + a + "' is not a number";
            return false;
        }
        if (v < d.min || v > d.max) {
            err = name + ": " + a + " is out of range (" + std::to_string(d.min) + "-" +
                  std::to_string(d.max) + ")";
            return false;
        }
        out.block.assign(16, 0);
        put_le32(out.block, 12, v);
    } else {
        const addr_arg &k = d.arg == arg_kind::mac ? mac_arg : oui_arg;
        uint8_t addr[6];
        if (!k.parse(a, addr)) {
            err = name + ": '" + a + "' is not " + k.what;
            return false;
        }
        if (!(flags & FLAG_NEG) && d.negatable && ltr_mac_is_group(addr)) {
            err = name + ": " + a + k.group;
            return false;
        }
        out.block.assign(k.block, 0);
        memcpy(&out.block[12], addr, k.len);
    }
    put_le32(out.block, 0, flags);
    return true;
}

bool parse(const std::string &line, request &out, std::string &err)
{
    out = request{};
    std::vector<std::string> w = words(line);
    if (w.empty()) {
        err = "empty command";
        return false;
    }
    bool neg = w[0] == "no", ok = false;
    size_t at = neg ? 1 : 0;
    if (parse_special(w, neg, out, err, ok))
        return ok;

    const cmd_def *d = nullptr;
    size_t n = 0;
    for (auto &c : defs)
        if ((n = match(c, w, at)) != 0) {
            d = &c;
            break;
        }
    if (!d) {
        std::string next = next_words(w, at);
        if (!next.empty()) {
            err = "'" + line.substr(line.find_first_not_of(" \t")) +
                  "' is incomplete; it goes on with: " + next;
            return false;
        }
        err = "unknown command '" + line.substr(line.find_first_not_of(" \t")) + "' (try help)";
        return false;
    }
    if (neg && !d->negatable) {
        err = "'" + std::string(d->words) + "' has no 'no' form";
        return false;
    }
    std::vector<std::string> args(w.begin() + (long)(at + n), w.end());
    const std::string name = spell(*d, neg);
    out.kind = req_kind::command;
    out.cmd_id = d->id;
    out.negated = neg;
    uint32_t flags = neg ? FLAG_NEG : 0;

    bool takes_none = d->arg == arg_kind::none || (neg && d->arg == arg_kind::value);
    if (args.size() > (takes_none ? 0u : 1u)) {
        err = name + ": unexpected '" + args[takes_none ? 0 : 1] + "'";
        return false;
    }
    if (!args.empty())
        return put_argument(*d, name, args[0], flags, out, err);
    if (!takes_none && !neg) {
        const char *what = d->arg == arg_kind::value ? "a value"
                           : d->arg == arg_kind::mac ? "a MAC address"
                                                     : "an OUI";
        err = name + ": needs " + what;
        return false;
    }
    out.block.assign(cli_proto::BLOCK_MIN, 0); // also "no ... mac": every MAC
    put_le32(out.block, 0, flags);
    return true;
}

bool entry_words(uint16_t cmd_id, const std::vector<uint8_t> &b, std::string &line,
                 std::string &err)
{
    const cmd_def *d = find_def(cmd_id);
    if (!d || !d->negatable) {
        err = "command " + std::to_string(cmd_id) + " is not a configuration command";
        return false;
    }
    if (b.size() < cli_proto::BLOCK_MIN || b.size() > cli_proto::BLOCK_MAX) {
        err = "command " + std::to_string(cmd_id) + ": block of " + std::to_string(b.size()) +
              " bytes";
        return false;
    }
    uint32_t flags = get_le32(b, 0);
    bool neg = flags & FLAG_NEG;
    bool has_arg = flags & FLAG_ARG;
    line = spell(*d, neg);
    if (d->arg == arg_kind::none || !has_arg) {
        if (!neg && d->arg != arg_kind::none) {
            err = line + ": block without its argument";
            return false;
        }
        return true;
    }
    size_t need = d->arg == arg_kind::mac ? 20 : 16;
    if (b.size() < need) {
        err = line + ": block of " + std::to_string(b.size()) + " bytes, argument needs " +
              std::to_string(need);
        return false;
    }
    if (d->arg == arg_kind::value) {
        uint32_t v = get_le32(b, 12);
        if (neg)
            return true; // the "no" form takes no value
        line += " " + std::to_string(v);
    } else if (d->arg == arg_kind::mac) {
        line += " " + ltr_mac_text(&b[12]);
    } else {
        line += " " + ltr_oui_text(&b[12]);
    }
    return true;
}

std::vector<uint8_t> encode(const request &r)
{
    using namespace cli_proto;
    std::vector<uint8_t> b;
    switch (r.kind) {
    case req_kind::command: {
        b.push_back(REQ_COMMAND);
        put_u16(b, r.cmd_id);
        b.push_back(r.negated ? 1 : 0);
        uint16_t type = 17; // the IPC structure's type, in host order
        uint8_t t[2];
        memcpy(t, &type, 2);
        b.push_back(t[0]);
        b.push_back(t[1]);
        b.resize(b.size() + 6, 0);
        b.insert(b.end(), r.block.begin(), r.block.end());
        break;
    }
    case req_kind::running_config:
        b.push_back(REQ_RUNNING);
        break;
    case req_kind::status:
        b.push_back(REQ_STATUS);
        break;
    case req_kind::debug:
        b.push_back(REQ_DEBUG);
        b.push_back(r.debug_on ? 1 : 0);
        b.insert(b.end(), r.module.begin(), r.module.end());
        b.push_back(0);
        b.insert(b.end(), r.category.begin(), r.category.end());
        b.push_back(0);
        break;
    case req_kind::help:
        break;
    }
    return b;
}

std::string help_text()
{
    std::string s = "Commands ('no' before a configuration command undoes it):\n";
    auto row = [&](std::string cmd, const std::string &what) {
        if (cmd.size() < 50)
            cmd.resize(50, ' ');
        else
            cmd += "\n" + std::string(50, ' ');
        s += "  " + cmd + what + "\n";
    };
    for (auto &d : defs) {
        std::string c = d.words;
        if (d.arg == arg_kind::value)
            c += " <" + std::to_string(d.min) + "-" + std::to_string(d.max) + ">";
        else if (d.arg == arg_kind::mac)
            c += " <mac>";
        else if (d.arg == arg_kind::oui)
            c += " <oui>";
        row((d.negatable ? "[no] " : "") + c, d.what);
    }
    row("[no] debug location-tracking <category>",
        "debug output: error, event, info, packet, all, scdlib, dcdlib, alllib");
    row("show running-config", "the configuration as commands, replayable with -f");
    row("status", "the platform's counters");
    row("help", "this text");
    s += "MAC: aa:bb:cc:dd:ee:ff, aa-bb-cc-dd-ee-ff or aabb.ccdd.eeff; "
         "OUI: aa:bb:cc, aa-bb-cc or aabb.cc\n";
    return s;
}

} // namespace ltrctl
