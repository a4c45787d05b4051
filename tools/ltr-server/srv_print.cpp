// ltr-server output in text and JSON-lines form.
#include "srv_print.h"

#include <stdio.h>
#include <time.h>

#include <nlohmann/json.hpp>

namespace lsrv {

namespace {

using ojson = nlohmann::ordered_json;

std::string id_hex(uint32_t id)
{
    char b[11];
    snprintf(b, sizeof b, "0x%08x", id);
    return b;
}

std::string ap_label(const ap_ident &ap)
{
    std::string s = "ap#" + std::to_string(ap.id);
    if (ap.hello && !ap.name.empty())
        s += "(" + ap.name + ")";
    return s;
}

ojson ap_json(const ap_ident &ap)
{
    ojson j = {{"ap", ap.name}, {"ap_id", ap.id}};
    if (ap.hello) {
        j["ap_mac"] = mac_str(ap.mac.data());
        j["ap_ip"] = ip_str(ap.ip);
    }
    if (!ap.cert.empty())
        j["ap_cert"] = ap.cert;
    j["peer"] = ap.peer;
    return j;
}

// One line: the names come from outside, so bytes that are not UTF-8 are replaced.
std::string line(const ojson &j) { return j.dump(-1, ' ', false, ojson::error_handler_t::replace) + "\n"; }

// When, what, and the access point's fields.
ojson event_json(const char *event, const ap_ident &ap)
{
    ojson j = {{"time", utc_stamp(std::chrono::system_clock::now())}, {"event", event}};
    j.update(ap_json(ap));
    return j;
}

uint16_t be16(const uint8_t *p) { return uint16_t(p[0] << 8 | p[1]); }

ojson tlv_json(const tlv_item &t)
{
    const uint8_t *v = t.value.data();
    ojson j = {{"type", t.type}, {"name", tlv_name(t.type)}, {"len", t.len}};
    switch (t.type) {
    case TLV_REPORT_INTERVAL:
    case TLV_RSSI_VALID_PERIOD:
        j["seconds"] = be16(v);
        break;
    case TLV_RSSI_THRESHOLD:
        j["db"] = v[0];
        break;
    case TLV_MAC_LIST:
        if (v[0] == MAC_LIST_ALL) {
            j["count"] = 255;
            j["all"] = true;
            break;
        }
        j["count"] = v[0];
        j["macs"] = ojson::array();
        for (size_t i = 0; i < v[0]; ++i)
            j["macs"].push_back(mac_str(v + 1 + 6 * i));
        break;
    case TLV_OUI_LIST:
        j["count"] = v[0];
        j["ouis"] = ojson::array();
        for (size_t i = 0; i < v[0]; ++i)
            j["ouis"].push_back(oui_str(v + 1 + 3 * i));
        break;
    case TLV_RSSI_DATA:
        j["ap_mac"] = mac_str(v);
        j["freq"] = be16(v + 6);
        j["rssi"] = int8_t(v[8]);
        break;
    case TLV_ACK_CODE:
        j["code"] = v[0];
        j["meaning"] = ack_code_name(v[0]);
        break;
    default:
        j["hex"] = hex_str(t.value);
    }
    return j;
}

std::string tlv_text(const tlv_item &t)
{
    const uint8_t *v = t.value.data();
    switch (t.type) {
    case TLV_REPORT_INTERVAL:
        return "interval " + std::to_string(be16(v));
    case TLV_RSSI_VALID_PERIOD:
        return "valid " + std::to_string(be16(v));
    case TLV_RSSI_THRESHOLD:
        return "threshold " + std::to_string(v[0]);
    case TLV_MAC_LIST: {
        if (v[0] == MAC_LIST_ALL)
            return "mac all";
        std::string s = "mac[" + std::to_string(v[0]) + "]";
        for (size_t i = 0; i < v[0]; ++i)
            s += " " + mac_str(v + 1 + 6 * i);
        return s;
    }
    case TLV_OUI_LIST: {
        std::string s = "oui[" + std::to_string(v[0]) + "]";
        for (size_t i = 0; i < v[0]; ++i)
            s += " " + oui_str(v + 1 + 3 * i);
        return s;
    }
    case TLV_RSSI_DATA:
        return "rssi ap " + mac_str(v) + " freq " + std::to_string(be16(v + 6)) + " rssi " +
               std::to_string(int8_t(v[8]));
    case TLV_ACK_CODE:
        return "code " + std::to_string(v[0]) + " (" + ack_code_name(v[0]) + ")";
    default:
        return "tlv " + std::to_string(t.type) + ":" + hex_str(t.value);
    }
}

} // namespace

std::string utc_stamp(std::chrono::system_clock::time_point t)
{
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(t.time_since_epoch()).count();
    time_t secs = time_t(ms / 1000);
    tm u;
    gmtime_r(&secs, &u);
    char b[40];
    size_t n = strftime(b, sizeof b, "%Y-%m-%dT%H:%M:%S", &u);
    snprintf(b + n, sizeof b - n, ".%03dZ", int(ms % 1000));
    return b;
}

std::string show_message(const ap_ident &ap, std::span<const uint8_t> msg, const decoded &d, bool json)
{
    if (json) {
        ojson j = event_json("message", ap);
        j["size"] = msg.size();
        if (msg.size() >= REPLY_HEAD) {
            j["opcode"] = d.op;
            j["op"] = opcode_name(d.op);
            j["msg_id"] = id_hex(d.msg_id);
            j["len"] = d.len;
            j["tlv_num"] = d.tlv_num;
        }
        if (!d.error.empty()) {
            j["error"] = d.error;
            j["hex"] = hex_str(msg);
        } else {
            j["tlvs"] = ojson::array();
            for (const tlv_item &t : d.tlvs)
                j["tlvs"].push_back(tlv_json(t));
            if (d.op == OP_ACK) {
                j["ack_code"] = d.ack_code;
                j["ack"] = ack_code_name(d.ack_code);
                j["refused_macs"] = ojson::array();
                for (const mac_addr &m : d.refused_macs)
                    j["refused_macs"].push_back(mac_str(m.data()));
                j["refused_ouis"] = ojson::array();
                for (const oui_addr &o : d.refused_ouis)
                    j["refused_ouis"].push_back(oui_str(o.data()));
            }
            if (d.op == OP_RSSI_REPORT) {
                j["stations"] = ojson::array();
                for (const station &st : d.stations) {
                    ojson readings = ojson::array();
                    for (const rssi_reading &r : st.readings)
                        readings.push_back({{"ap_mac", mac_str(r.ap.data())}, {"freq", r.freq}, {"rssi", r.rssi}});
                    j["stations"].push_back({{"mac", mac_str(st.mac.data())}, {"readings", readings}});
                }
            }
        }
        if (!d.notes.empty())
            j["notes"] = d.notes;
        return line(j);
    }

    std::string s = "<- " + ap_label(ap) + " ";
    if (!d.error.empty()) {
        s += "malformed message (" + std::to_string(msg.size()) + " bytes): " + d.error + "\n   " +
             hex_str(msg) + "\n";
    } else if (d.op == OP_RSSI_REPORT) {
        s += "rssi report msg_id " + id_hex(d.msg_id) + ", " + std::to_string(d.stations.size()) +
             " station(s)\n";
        for (const station &st : d.stations) {
            s += "   sta " + mac_str(st.mac.data()) + (st.readings.empty() ? " (no reading)" : "") + "\n";
            for (const rssi_reading &r : st.readings)
                s += "      ap " + mac_str(r.ap.data()) + " freq " + std::to_string(r.freq) +
                     " rssi " + std::to_string(r.rssi) + "\n";
        }
    } else if (d.op == OP_ACK) {
        s += "ack msg_id " + id_hex(d.msg_id) + " code " + std::to_string(d.ack_code) + " (" +
             ack_code_name(d.ack_code) + ")";
        if (!d.refused_macs.empty()) {
            s += ", refused mac";
            for (const mac_addr &m : d.refused_macs)
                s += " " + mac_str(m.data());
        }
        if (!d.refused_ouis.empty()) {
            s += ", refused oui";
            for (const oui_addr &o : d.refused_ouis)
                s += " " + oui_str(o.data());
        }
        s += "\n";
    } else {
        s += "opcode " + std::to_string(d.op) + " msg_id " + id_hex(d.msg_id) + ":";
        for (const tlv_item &t : d.tlvs)
            s += " " + tlv_text(t) + ";";
        s += "\n";
    }
    for (const std::string &n : d.notes)
        s += "   note: " + n + "\n";
    return s;
}

std::string show_sent(const ap_ident &ap, uint16_t op, uint32_t msg_id, size_t size, bool json)
{
    if (json) {
        ojson j = event_json("sent", ap);
        j["opcode"] = op;
        j["op"] = opcode_name(op);
        j["msg_id"] = id_hex(msg_id);
        j["size"] = size;
        return line(j);
    }
    std::string name = opcode_name(op);
    if (name.empty())
        name = "opcode " + std::to_string(op);
    return "-> " + ap_label(ap) + " " + name + " msg_id " + id_hex(msg_id) + " (" +
           std::to_string(size) + " bytes)\n";
}

std::string show_conn(const ap_ident &ap, const char *event, const std::string &why, bool json)
{
    if (json) {
        ojson j = event_json(event, ap);
        if (!why.empty())
            j["reason"] = why;
        return line(j);
    }
    std::string s = "== " + ap_label(ap) + " " + event;
    if (std::string(event) == "hello")
        s += ": mac " + mac_str(ap.mac.data()) + " ip " + ip_str(ap.ip) +
             (ap.cert.empty() ? "" : " cert \"" + ap.cert + "\"");
    else
        s += " (" + ap.peer + ")";
    if (!why.empty())
        s += ": " + why;
    return s + "\n";
}

std::string show_list_row(const ap_ident &ap, bool json)
{
    if (json)
        return line(event_json("list", ap));
    char b[160];
    snprintf(b, sizeof b, "#%-3u %-20s %-17s %-15s %s", ap.id,
             ap.hello ? ap.name.c_str() : "(no hello)", ap.hello ? mac_str(ap.mac.data()).c_str() : "-",
             ap.hello ? ip_str(ap.ip).c_str() : "-", ap.peer.c_str());
    return b + (ap.cert.empty() ? "" : " cert \"" + ap.cert + "\"") + "\n";
}

} // namespace lsrv
