// The daemon's show and status text read back into JSON fields, so that scripts need
// not scrape columns. Labels become lower_case keys; numbers, yes/no, times and
// addresses become JSON values of their kind.
#include "ltrctl_json.h"

#include <ctype.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "mac_text.h"

namespace ltrctl {
namespace {

using json = nlohmann::ordered_json;

std::string trim(const std::string &s)
{
    size_t a = s.find_first_not_of(" \t"), b = s.find_last_not_of(" \t\r");
    return a == std::string::npos ? "" : s.substr(a, b - a + 1);
}

// "Report valid period:" -> "report_valid_period"; "My MAC (mgt0):" -> "my_mac_mgt0".
std::string key_of(const std::string &label)
{
    std::string k;
    for (char c : label) {
        if (isalnum((unsigned char)c))
            k += (char)tolower((unsigned char)c);
        else if (!k.empty() && k.back() != '_')
            k += '_';
    }
    while (!k.empty() && k.back() == '_')
        k.pop_back();
    return k;
}

bool is_int(const std::string &v)
{
    size_t at = v[0] == '-' ? 1 : 0;
    return v.size() > at && v.size() - at <= 18 &&
           v.find_first_not_of("0123456789", at) == std::string::npos;
}

json value_of(const std::string &raw)
{
    std::string v = trim(raw);
    uint8_t mac[6];
    if (v.empty())
        return "";
    if (is_int(v))
        return std::stoll(v);
    if (v == "yes" || v == "no")
        return v == "yes";
    if (v == "not started")
        return nullptr;
    if (v.back() == 's' && is_int(v.substr(0, v.size() - 1)))
        return std::stoll(v.substr(0, v.size() - 1)); // seconds
    if (ltr_mac_parse(v, mac))
        return ltr_mac_text(mac);
    return v;
}

// One document a line, so that a batch gives JSON lines; bytes that are not UTF-8
// are replaced rather than refused.
std::string line(const json &j) { return j.dump(-1, ' ', false, json::error_handler_t::replace) + "\n"; }

std::vector<std::string> lines_of(const std::string &text)
{
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string l; std::getline(in, l);)
        out.push_back(l);
    return out;
}

// "Label:      value" into obj; false when the line has no label.
bool labelled(const std::string &line, json &obj)
{
    size_t colon = line.find(':');
    if (colon == std::string::npos || colon == 0)
        return false;
    obj[key_of(line.substr(0, colon))] = value_of(line.substr(colon + 1));
    return true;
}

bool fields(const std::string &text, json &doc, std::string &err)
{
    doc = json::object();
    for (auto &l : lines_of(text))
        if (!trim(l).empty() && !labelled(l, doc)) {
            err = "line without a label: '" + l + "'";
            return false;
        }
    return true;
}

std::vector<std::string> split(const std::string &s)
{
    std::vector<std::string> w;
    std::istringstream in(s);
    for (std::string t; in >> t;)
        w.push_back(t);
    return w;
}

bool track_list(const std::string &text, json &doc, std::string &err)
{
    auto ls = lines_of(text);
    const std::string head = "Match track list enabled:";
    if (ls.size() < 3 || ls[0].rfind(head, 0) != 0) {
        err = "no '" + head + "' line";
        return false;
    }
    doc = json::object();
    doc["list_match"] = value_of(ls[0].substr(head.size()));
    doc["entries"] = json::array();
    for (size_t i = 3; i < ls.size(); i++) {
        auto w = split(ls[i]);
        uint8_t a[6];
        if (w.empty())
            continue;
        if (w.size() != 3 || !ltr_mac_parse(w[2], a)) {
            err = "track list row '" + ls[i] + "'";
            return false;
        }
        doc["entries"].push_back(
            {{"type", w[1]}, {"address", w[1] == "oui" ? ltr_oui_text(a) : ltr_mac_text(a)}});
    }
    return true;
}

// "Station: M, Owner: IP, RptAge N, SupCnt N, RSSI list:"
bool station_head(const std::string &l, json &st)
{
    char mac[32], owner[32];
    int age, sup;
    uint8_t m[6];
    if (sscanf(l.c_str(), "Station: %31[^,], Owner: %31[^,], RptAge %d, SupCnt %d, RSSI list:", mac,
               owner, &age, &sup) != 4 ||
        !ltr_mac_parse(mac, m))
        return false;
    st = {{"mac", ltr_mac_text(m)}, {"owner", owner}, {"report_age", age},
          {"suppress_count", sup}, {"readings", json::array()}};
    return true;
}

bool rssi_lists(const std::string &text, json &doc, std::string &err)
{
    auto ls = lines_of(text);
    int count = -1;
    doc = json::object();
    json stations = json::array();
    for (size_t i = 0; i < ls.size(); i++) {
        const std::string &l = ls[i];
        json st;
        if (sscanf(l.c_str(), "Number of stations in tracking: %d", &count) == 1)
            continue;
        if (!station_head(l, st))
            continue; // the legend, the column heads, blank lines
        for (i += 3; i < ls.size() && !trim(ls[i]).empty(); i++) {
            auto w = split(ls[i]);
            uint8_t ap[6];
            if (w.size() != 7 || !ltr_mac_parse(w[1], ap) || !is_int(w[2]) || !is_int(w[3]) ||
                !is_int(w[5]) || !is_int(w[6])) {
                err = "RSSI row '" + ls[i] + "'";
                return false;
            }
            st["readings"].push_back({{"reporter", ltr_mac_text(ap)},
                                      {"rssi", std::stoi(w[2])},
                                      {"freq", std::stoi(w[3])},
                                      {"active", w[4] == "yes"},
                                      {"last_power_reported", std::stoi(w[5])},
                                      {"life_count", std::stoi(w[6])}});
        }
        stations.push_back(st);
    }
    if (count < 0) {
        err = "no station count";
        return false;
    }
    doc["stations_in_tracking"] = count;
    doc["stations"] = stations;
    return true;
}

bool driver_stats(const std::string &text, json &doc, std::string &err)
{
    const std::string head = "ltr statistics counter for ";
    json radios = json::array();
    for (auto &l : lines_of(text)) {
        if (trim(l).empty())
            continue;
        if (l.rfind(head, 0) == 0 && l.back() == ':') {
            radios.push_back({{"radio", l.substr(head.size(), l.size() - head.size() - 1)}});
            continue;
        }
        if (radios.empty() || !labelled(l, radios.back())) {
            err = "driver counter line '" + l + "'";
            return false;
        }
    }
    doc = {{"radios", radios}};
    return true;
}

bool status(const std::string &text, json &doc, std::string &err)
{
    doc = json::object();
    for (auto &l : lines_of(text)) {
        auto w = split(l);
        if (w.empty())
            continue;
        if (w.size() != 2 || !is_int(w[1])) {
            err = "status line '" + l + "'";
            return false;
        }
        doc[w[0]] = std::stoll(w[1]);
    }
    return true;
}

// Which show's text each parser reads, by command id.
using show_parser = bool (*)(const std::string &, json &, std::string &);
struct show_row {
    int32_t cmd_id;
    show_parser parse;
};
constexpr show_row show_rows[] = {
    {1884, fields},       // parameters
    {1891, fields},       // state
    {1887, track_list},   // the tracking list
    {1888, rssi_lists},   // readings: all, by MAC, by OUI
    {1889, rssi_lists},
    {1890, rssi_lists},
    {1892, driver_stats}, // driver counters
};

} // namespace

bool show_json(const request &r, const std::string &text, std::string &doc, std::string &err)
{
    json j = {{"result", 0}, {"text", text}};
    bool ok = true;
    if (r.kind == req_kind::status)
        ok = status(text, j, err);
    else
        for (const show_row &row : show_rows)
            if (row.cmd_id == r.cmd_id) {
                j = json();
                ok = row.parse(text, j, err);
                break;
            }
    if (ok)
        doc = line(j);
    return ok;
}

std::string result_json(int32_t result, const std::string &text)
{
    return line({{"result", result}, {"text", text}});
}

std::string running_json(const std::vector<std::string> &lines,
                         const std::vector<std::string> &skipped, int32_t result)
{
    return line({{"result", result}, {"commands", lines}, {"skipped", skipped}});
}

} // namespace ltrctl
