// ltr-server output in text and JSON-lines form.
#include "srv_print.h"

#include <stdio.h>

namespace lsrv {

namespace {

std::string id_hex(uint32_t id)
{
    char b[11];
    snprintf(b, sizeof b, "0x%08x", id);
    return b;
}

std::string q(const std::string &s) { return "\"" + json_escape(s) + "\""; }

std::string ap_label(const ap_ident &ap)
{
    std::string s = "ap#" + std::to_string(ap.id);
    if (ap.hello && !ap.name.empty())
        s += "(" + ap.name + ")";
    return s;
}

std::string ap_json(const ap_ident &ap)
{
    std::string s = "\"ap\":" + q(ap.name) + ",\"ap_id\":" + std::to_string(ap.id);
    if (ap.hello)
        s += ",\"ap_mac\":" + q(mac_str(ap.mac.data())) + ",\"ap_ip\":" + q(ip_str(ap.ip));
    if (!ap.cert.empty())
        s += ",\"ap_cert\":" + q(ap.cert);
    return s + ",\"peer\":" + q(ap.peer);
}

uint16_t be16(const uint8_t *p) { return uint16_t(p[0] << 8 | p[1]); }

std::string tlv_json(const tlv_item &t)
{
    const uint8_t *v = t.value.data();
    std::string s = "{\"type\":" + std::to_string(t.type) + ",\"name\":" + q(tlv_name(t.type)) +
                    ",\"len\":" + std::to_string(t.len);
    switch (t.type) {
    case TLV_REPORT_INTERVAL:
    case TLV_RSSI_VALID_PERIOD:
        s += ",\"seconds\":" + std::to_string(be16(v));
        break;
    case TLV_RSSI_THRESHOLD:
        s += ",\"db\":" + std::to_string(v[0]);
        break;
    case TLV_MAC_LIST:
        if (v[0] == MAC_LIST_ALL) {
            s += ",\"count\":255,\"all\":true";
            break;
        }
        s += ",\"count\":" + std::to_string(v[0]) + ",\"macs\":[";
        for (size_t i = 0; i < v[0]; ++i)
            s += (i ? "," : "") + q(mac_str(v + 1 + 6 * i));
        s += "]";
        break;
    case TLV_OUI_LIST:
        s += ",\"count\":" + std::to_string(v[0]) + ",\"ouis\":[";
        for (size_t i = 0; i < v[0]; ++i)
            s += (i ? "," : "") + q(oui_str(v + 1 + 3 * i));
        s += "]";
        break;
    case TLV_RSSI_DATA:
        s += ",\"ap_mac\":" + q(mac_str(v)) + ",\"freq\":" + std::to_string(be16(v + 6)) +
             ",\"rssi\":" + std::to_string(int8_t(v[8]));
        break;
    case TLV_ACK_CODE:
        s += ",\"code\":" + std::to_string(v[0]) + ",\"meaning\":" + q(ack_code_name(v[0]));
        break;
    default:
        s += ",\"hex\":" + q(hex_str(t.value));
    }
    return s + "}";
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

std::string json_escape(const std::string &s)
{
    std::string o;
    for (unsigned char c : s) {
        if (c == '"' || c == '\\') {
            o += '\\';
            o += char(c);
        } else if (c < 0x20) {
            char b[7];
            snprintf(b, sizeof b, "\\u%04x", c);
            o += b;
        } else {
            o += char(c); // UTF-8 passes through
        }
    }
    return o;
}

std::string show_message(const ap_ident &ap, std::span<const uint8_t> msg, const decoded &d, bool json)
{
    if (json) {
        std::string s = "{\"event\":\"message\"," + ap_json(ap) + ",\"size\":" + std::to_string(msg.size());
        if (msg.size() >= REPLY_HEAD)
            s += ",\"opcode\":" + std::to_string(d.op) + ",\"op\":" + q(opcode_name(d.op)) +
                 ",\"msg_id\":" + q(id_hex(d.msg_id)) + ",\"len\":" + std::to_string(d.len) +
                 ",\"tlv_num\":" + std::to_string(d.tlv_num);
        if (!d.error.empty()) {
            s += ",\"error\":" + q(d.error) + ",\"hex\":" + q(hex_str(msg));
        } else {
            s += ",\"tlvs\":[";
            for (size_t i = 0; i < d.tlvs.size(); ++i)
                s += (i ? "," : "") + tlv_json(d.tlvs[i]);
            s += "]";
            if (d.op == OP_ACK) {
                s += ",\"ack_code\":" + std::to_string(d.ack_code) + ",\"ack\":" +
                     q(ack_code_name(d.ack_code));
                s += ",\"refused_macs\":[";
                for (size_t i = 0; i < d.refused_macs.size(); ++i)
                    s += (i ? "," : "") + q(mac_str(d.refused_macs[i].data()));
                s += "],\"refused_ouis\":[";
                for (size_t i = 0; i < d.refused_ouis.size(); ++i)
                    s += (i ? "," : "") + q(oui_str(d.refused_ouis[i].data()));
                s += "]";
            }
            if (d.op == OP_RSSI_REPORT) {
                s += ",\"stations\":[";
                for (size_t i = 0; i < d.stations.size(); ++i) {
                    const station &st = d.stations[i];
                    s += (i ? "," : "") + std::string("{\"mac\":") + q(mac_str(st.mac.data())) +
                         ",\"readings\":[";
                    for (size_t j = 0; j < st.readings.size(); ++j) {
                        const rssi_reading &r = st.readings[j];
                        s += (j ? "," : "") + std::string("{\"ap_mac\":") + q(mac_str(r.ap.data())) +
                             ",\"freq\":" + std::to_string(r.freq) +
                             ",\"rssi\":" + std::to_string(r.rssi) + "}";
                    }
                    s += "]}";
                }
                s += "]";
            }
        }
        if (!d.notes.empty()) {
            s += ",\"notes\":[";
            for (size_t i = 0; i < d.notes.size(); ++i)
                s += (i ? "," : "") + q(d.notes[i]);
            s += "]";
        }
        return s + "}\n";
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
    if (json)
        return "{\"event\":\"sent\"," + ap_json(ap) + ",\"opcode\":" + std::to_string(op) +
               ",\"op\":" + q(opcode_name(op)) + ",\"msg_id\":" + q(id_hex(msg_id)) +
               ",\"size\":" + std::to_string(size) + "}\n";
    std::string name = opcode_name(op);
    if (name.empty())
        name = "opcode " + std::to_string(op);
    return "-> " + ap_label(ap) + " " + name + " msg_id " + id_hex(msg_id) + " (" +
           std::to_string(size) + " bytes)\n";
}

std::string show_conn(const ap_ident &ap, const char *event, const std::string &why, bool json)
{
    if (json) {
        std::string s = "{\"event\":" + q(event) + "," + ap_json(ap);
        if (!why.empty())
            s += ",\"reason\":" + q(why);
        return s + "}\n";
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
        return "{\"event\":\"list\"," + ap_json(ap) + "}\n";
    char b[160];
    snprintf(b, sizeof b, "#%-3u %-20s %-17s %-15s %s", ap.id,
             ap.hello ? ap.name.c_str() : "(no hello)", ap.hello ? mac_str(ap.mac.data()).c_str() : "-",
             ap.hello ? ip_str(ap.ip).c_str() : "-", ap.peer.c_str());
    return b + (ap.cert.empty() ? "" : " cert \"" + ap.cert + "\"") + "\n";
}

} // namespace lsrv
