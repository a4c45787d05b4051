-- Dissectors for ltrd's two wire formats:
--   ltr     the server channel: length-framed HELLO, MESSAGE, PING, PONG over TCP
--           (plain TCP only: over TLS the frames are encrypted)
--   ltrnbr  neighbour datagrams over UDP: envelope, RSSI relays, owner messages
-- Load with `tshark -X lua_script:ltr.lua`, or drop the file into a Lua plugin folder
-- (`tshark -G folders` lists them). Field names are the display-filter names below.

local SERVER_PORT = 7420
local NBR_PORT = 7421
local RELAY_MODULE = 52     -- the daemon's module id on the neighbour channel
local OWNER_MODULE = 0xff01
local MAX_FRAME = 65536

---------------------------------------------------------------------------------------
-- Server channel
---------------------------------------------------------------------------------------

local ltr = Proto("ltr", "ltrd location server channel")

local frame_types = { [1] = "HELLO", [2] = "MESSAGE", [3] = "PING", [4] = "PONG" }
local opcodes = { [1] = "start", [2] = "stop", [3] = "modify", [4] = "query",
                  [5] = "rssi report", [6] = "ack" }
local tlv_types = { [1] = "report interval", [2] = "RSSI threshold",
                    [3] = "RSSI valid period", [4] = "MAC list", [5] = "OUI list",
                    [6] = "RSSI data", [7] = "ack code" }
local ack_codes = { [0] = "ok", [1] = "no buffer", [2] = "unknown opcode",
                    [4] = "partial", [5] = "bad message" }
-- The fixed `len` of each TLV type; the lists are checked by their count.
local tlv_fixed_len = { [1] = 6, [2] = 5, [3] = 6, [6] = 13, [7] = 5 }

local f = ltr.fields
f.length = ProtoField.uint32("ltr.length", "Length", base.DEC)
f.type = ProtoField.uint8("ltr.type", "Frame type", base.DEC, frame_types)
f.hello_mac = ProtoField.ether("ltr.hello.mac", "Management MAC")
f.hello_ip = ProtoField.ipv4("ltr.hello.ip", "Management IPv4")
f.hello_name = ProtoField.string("ltr.hello.name", "Instance name", base.UNICODE)
f.ping_data = ProtoField.bytes("ltr.ping.data", "Ping payload")
f.request = ProtoField.bool("ltr.request", "Request (server to access point)")
f.msg_type = ProtoField.uint16("ltr.msg_type", "Message type", base.DEC)
f.msg_id = ProtoField.uint32("ltr.msg_id", "Message id", base.HEX)
f.reserved = ProtoField.uint8("ltr.reserved", "Reserved", base.HEX)
f.datalen = ProtoField.uint32("ltr.datalen", "Data length", base.DEC)
f.opcode = ProtoField.uint16("ltr.opcode", "Opcode", base.DEC, opcodes)
f.len = ProtoField.uint16("ltr.len", "Length from opcode", base.DEC)
f.tlv_num = ProtoField.uint16("ltr.tlv_num", "TLV count", base.DEC)
f.trailing = ProtoField.bytes("ltr.trailing", "Bytes after the message")
f.tlv = ProtoField.none("ltr.tlv", "TLV")
f.tlv_type = ProtoField.uint16("ltr.tlv.type", "TLV type", base.DEC, tlv_types)
f.tlv_len = ProtoField.uint16("ltr.tlv.len", "TLV length", base.DEC)
f.tlv_value = ProtoField.bytes("ltr.tlv.value", "Value")
f.interval = ProtoField.uint16("ltr.interval", "Report interval (s)", base.DEC)
f.threshold = ProtoField.uint8("ltr.threshold", "RSSI threshold (dB)", base.DEC)
f.valid = ProtoField.uint16("ltr.valid", "RSSI valid period (s)", base.DEC)
f.mac_count = ProtoField.uint8("ltr.mac_count", "MAC count", base.DEC)
f.mac_all = ProtoField.bool("ltr.mac_all", "All stations")
f.mac = ProtoField.ether("ltr.mac", "Station MAC")
f.oui_count = ProtoField.uint8("ltr.oui_count", "OUI count", base.DEC)
f.oui = ProtoField.bytes("ltr.oui", "OUI", base.COLON)
f.ap_mac = ProtoField.ether("ltr.ap_mac", "Reporting AP MAC")
f.freq = ProtoField.uint16("ltr.freq", "Channel frequency (MHz)", base.DEC)
f.rssi = ProtoField.int8("ltr.rssi", "RSSI (dBm)", base.DEC)
f.ack_code = ProtoField.uint8("ltr.ack_code", "Ack code", base.DEC, ack_codes)
f.station = ProtoField.ether("ltr.station", "Station of this reading")

local e_frame = ProtoExpert.new("ltr.bad_frame", "Bad frame",
                                expert.group.MALFORMED, expert.severity.ERROR)
local e_msg = ProtoExpert.new("ltr.bad_message", "Bad message",
                              expert.group.MALFORMED, expert.severity.ERROR)
local e_note = ProtoExpert.new("ltr.note", "Note", expert.group.PROTOCOL, expert.severity.NOTE)
ltr.experts = { e_frame, e_msg, e_note }

ltr.prefs.port = Pref.uint("Server TCP port", SERVER_PORT,
                           "The TCP port location servers listen on")

-- TLVs follow the access point's walk: the next one starts `len` bytes after the head
-- of the one before (even when that overlaps), tlv_num of them, never past `stop`.
-- In a report each reading belongs to the one-address MAC list before it.
local function dissect_tlvs(tvb, tree, pos, stop, count, report)
    local first = pos
    local station = nil
    for i = 1, count do
        if pos + 4 > stop then
            tree:add_proto_expert_info(e_msg, string.format(
                "TLV %d of %d: its head crosses the end of the message", i, count))
            return
        end
        local t = tvb(pos, 2):uint()
        local l = tvb(pos + 2, 2):uint()
        local body = math.max(0, math.min(l, stop - pos))
        local sub = tree:add(f.tlv, tvb(pos, math.max(body, 4)))
        sub:set_text(string.format("TLV %s (%d), len %d", tlv_types[t] or "unknown", t, l))
        sub:add(f.tlv_type, tvb(pos, 2))
        sub:add(f.tlv_len, tvb(pos + 2, 2))
        if pos + l > stop then
            sub:add_proto_expert_info(e_msg, "TLV body crosses the end of the message")
            return
        end
        local want = tlv_fixed_len[t]
        local bad = (want and l ~= want)
            or (t == 4 and l >= 5 and not (l == 5 + 6 * tvb(pos + 4, 1):uint()
                                           or (l == 5 and tvb(pos + 4, 1):uint() == 255)))
            or (t == 4 and l < 5)
            or (t == 5 and (l < 5 or l ~= 5 + 3 * tvb(pos + 4, 1):uint()))
        if bad then
            sub:add_proto_expert_info(e_msg, string.format("wrong len %d for TLV type %d", l, t))
            if l > 4 then sub:add(f.tlv_value, tvb(pos + 4, l - 4)) end
        elseif t == 1 then
            sub:add(f.interval, tvb(pos + 4, 2))
        elseif t == 2 then
            sub:add(f.threshold, tvb(pos + 4, 1))
        elseif t == 3 then
            sub:add(f.valid, tvb(pos + 4, 2))
        elseif t == 4 then
            local n = tvb(pos + 4, 1):uint()
            sub:add(f.mac_count, tvb(pos + 4, 1))
            if n == 255 then
                sub:add(f.mac_all, tvb(pos + 4, 1), true)
                sub:append_text(": all stations")
            else
                for k = 0, n - 1 do sub:add(f.mac, tvb(pos + 5 + 6 * k, 6)) end
            end
            station = (n == 1) and tvb(pos + 5, 6) or nil
        elseif t == 5 then
            local n = tvb(pos + 4, 1):uint()
            sub:add(f.oui_count, tvb(pos + 4, 1))
            for k = 0, n - 1 do sub:add(f.oui, tvb(pos + 5 + 3 * k, 3)) end
        elseif t == 6 then
            sub:add(f.ap_mac, tvb(pos + 4, 6))
            sub:add(f.freq, tvb(pos + 10, 2))
            sub:add(f.rssi, tvb(pos + 12, 1))
            if report and station then
                sub:add(f.station, station):set_generated()
            end
        elseif t == 7 then
            sub:add(f.ack_code, tvb(pos + 4, 1))
        else
            sub:add_proto_expert_info(e_note, "unknown TLV type: skipped")
            if l > 4 then sub:add(f.tlv_value, tvb(pos + 4, l - 4)) end
        end
        if l == 0 then
            tree:add_proto_expert_info(e_msg, "TLV len 0: the walk does not move on")
            return
        end
        pos = pos + l
    end
    if pos ~= stop then
        tree:add_proto_expert_info(e_msg, string.format(
            "the TLVs fill %d bytes, len says %d", pos - first, stop - first))
    end
end

-- Requests come from the server's port; replies have no reserved byte.
local function is_request(tvb, pinfo)
    if pinfo.src_port == ltr.prefs.port then return true end
    if pinfo.dst_port == ltr.prefs.port then return false end
    local op = tvb:len() >= 12 and tvb(10, 2):uint() or 0
    return not (op == 5 or op == 6)
end

local function dissect_message(tvb, tree, pinfo)
    local n = tvb:len()
    local req = is_request(tvb, pinfo)
    local head = req and 17 or 16
    tree:add(f.request, req):set_generated()
    if n < head then
        tree:add_proto_expert_info(e_msg, string.format(
            "%d bytes: shorter than the %d-byte header", n, head))
        return "short message"
    end
    tree:add(f.msg_type, tvb(0, 2))
    tree:add(f.msg_id, tvb(2, 4))
    local o = 6
    if req then
        tree:add(f.reserved, tvb(6, 1))
        o = 7
    end
    tree:add(f.datalen, tvb(o, 4))
    local op = tvb(o + 4, 2):uint()
    tree:add(f.opcode, tvb(o + 4, 2))
    local len_item = tree:add(f.len, tvb(o + 6, 2))
    tree:add(f.tlv_num, tvb(o + 8, 2))
    local len = tvb(o + 6, 2):uint()
    local info = string.format("%s msg_id 0x%08x", opcodes[op] or ("opcode " .. op),
                               tvb(2, 4):uint())
    if tvb(0, 2):uint() ~= 2 then
        tree:add_proto_expert_info(e_msg, "msg_type is not 2")
    end
    if req and tvb(7, 4):uint() <= 5 then
        tree:add_proto_expert_info(e_msg, "datalen is 5 or less")
    end
    local stop = o + 4 + len
    if len < 6 or stop > n then
        len_item:add_proto_expert_info(e_msg, string.format(
            "len %d: the message holds %d bytes from the opcode", len, n - o - 4))
        return info
    end
    dissect_tlvs(tvb, tree, head, stop, tvb(o + 8, 2):uint(), op == 5 and not req)
    if stop < n then
        tree:add(f.trailing, tvb(stop, n - stop))
    end
    return info
end

-- One whole frame (length field included).
local function dissect_frame(tvb, tree, pinfo)
    local t = tvb(4, 1):uint()
    local sub = tree:add(ltr, tvb())
    sub:add(f.length, tvb(0, 4))
    sub:add(f.type, tvb(4, 1))
    local blen = tvb:len() - 5
    local info = frame_types[t] or ("type " .. t)
    if t == 1 then
        if blen < 10 then
            sub:add_proto_expert_info(e_frame, "HELLO shorter than 10 bytes")
        else
            sub:add(f.hello_mac, tvb(5, 6))
            sub:add(f.hello_ip, tvb(11, 4))
            local name = blen > 10 and tvb(15, blen - 10):string(ENC_UTF_8) or ""
            if blen > 10 then sub:add(f.hello_name, tvb(15, blen - 10), name) end
            info = string.format("HELLO %s (%s, %s)", name, tostring(tvb(5, 6):ether()),
                                 tostring(tvb(11, 4):ipv4()))
        end
    elseif t == 2 and blen == 0 then
        sub:add_proto_expert_info(e_frame, "MESSAGE without a message")
    elseif t == 2 then
        info = dissect_message(tvb(5):tvb(), sub, pinfo)
    elseif t == 3 or t == 4 then
        if blen > 0 then sub:add(f.ping_data, tvb(5, blen)) end
    else
        sub:add_proto_expert_info(e_frame, "unknown frame type " .. t)
    end
    sub:append_text(": " .. info)
    return info
end

function ltr.dissector(tvb, pinfo, tree)
    local n = tvb:len()
    local off = 0
    local infos = {}
    while off < n do
        if n - off < 4 then
            pinfo.desegment_offset = off
            pinfo.desegment_len = DESEGMENT_ONE_MORE_SEGMENT
            break
        end
        local flen = tvb(off, 4):uint()
        if flen == 0 or flen > MAX_FRAME then
            local it = tree:add(ltr, tvb(off))
            it:add(f.length, tvb(off, 4))
            it:add_proto_expert_info(e_frame, string.format(
                "frame length %d: must be 1 to %d", flen, MAX_FRAME))
            infos[#infos + 1] = "bad frame length"
            break
        end
        if n - off < 4 + flen then
            pinfo.desegment_offset = off
            pinfo.desegment_len = 4 + flen - (n - off)
            break
        end
        infos[#infos + 1] = dissect_frame(tvb(off, 4 + flen):tvb(), tree, pinfo)
        off = off + 4 + flen
    end
    if #infos > 0 then
        -- A segment that ends one reassembled frame and starts others comes here twice.
        local text = table.concat(infos, ", ")
        if tostring(pinfo.cols.protocol) == "LTR" then
            pinfo.cols.info:append(", " .. text)
        else
            pinfo.cols.protocol = "LTR"
            pinfo.cols.info = text
        end
    end
    -- All of it is ours, the part waiting for more segments too.
    return n
end

---------------------------------------------------------------------------------------
-- Neighbour datagrams
---------------------------------------------------------------------------------------

local nbr = Proto("ltrnbr", "ltrd neighbour datagram")

local owner_types = { [1] = "hello", [2] = "ask", [3] = "answer" }
local relay_types = { [0] = "RSSI relay" }
local nf = nbr.fields
nf.magic = ProtoField.string("ltrnbr.magic", "Magic")
nf.version = ProtoField.uint8("ltrnbr.version", "Version", base.DEC)
nf.flags = ProtoField.uint8("ltrnbr.flags", "Flags", base.HEX)
nf.tagged = ProtoField.bool("ltrnbr.tagged", "Tagged", 8, nil, 0x01)
nf.module = ProtoField.uint16("ltrnbr.module", "Module id", base.HEX_DEC,
                              { [RELAY_MODULE] = "ltrd", [OWNER_MODULE] = "owner service" })
nf.sender = ProtoField.ipv4("ltrnbr.sender", "Sender")
nf.epoch = ProtoField.uint64("ltrnbr.epoch", "Epoch (µs)", base.DEC)
nf.counter = ProtoField.uint64("ltrnbr.counter", "Counter", base.DEC)
nf.payload = ProtoField.bytes("ltrnbr.payload", "Payload")
nf.tag = ProtoField.bytes("ltrnbr.tag", "Tag (HMAC-SHA256, first 16 bytes)")
nf.relay_type = ProtoField.uint32("ltrnbr.relay.type", "Message type", base.DEC, relay_types)
nf.relay_src = ProtoField.ipv4("ltrnbr.relay.src_ip", "Source IPv4")
nf.relay_len = ProtoField.uint16("ltrnbr.relay.len", "Payload length", base.DEC)
nf.relay_reserved = ProtoField.uint16("ltrnbr.relay.reserved", "Reserved", base.HEX)
nf.relay_sta = ProtoField.ether("ltrnbr.relay.sta", "Station MAC")
nf.relay_ap = ProtoField.ether("ltrnbr.relay.ap_mac", "Relaying AP MAC")
nf.relay_active = ProtoField.uint8("ltrnbr.relay.active", "Active", base.DEC)
nf.relay_rssi = ProtoField.int8("ltrnbr.relay.rssi", "RSSI (dBm)", base.DEC)
nf.relay_freq = ProtoField.uint16("ltrnbr.relay.freq", "Channel frequency (MHz)", base.DEC)
nf.owner_type = ProtoField.uint8("ltrnbr.owner.type", "Owner message", base.DEC, owner_types)
nf.owner_reserved = ProtoField.uint8("ltrnbr.owner.reserved", "Reserved", base.HEX)
nf.owner_count = ProtoField.uint16("ltrnbr.owner.count", "Records", base.DEC)
nf.owner_seq = ProtoField.uint32("ltrnbr.owner.seq", "Sequence", base.DEC)
nf.owner_sta = ProtoField.ether("ltrnbr.owner.sta", "Station MAC")
nf.owner_flags = ProtoField.uint8("ltrnbr.owner.flags", "Flags", base.HEX)
nf.owner_assoc = ProtoField.bool("ltrnbr.owner.associated", "Associated", 8, nil, 0x01)
nf.owner_heard = ProtoField.bool("ltrnbr.owner.heard", "Heard", 8, nil, 0x02)

local e_nbr = ProtoExpert.new("ltrnbr.malformed", "Malformed",
                              expert.group.MALFORMED, expert.severity.ERROR)
nbr.experts = { e_nbr }

nbr.prefs.port = Pref.uint("UDP port", NBR_PORT, "The neighbour messaging port")
nbr.prefs.relay_module = Pref.uint("ltrd module id", RELAY_MODULE,
                                   "The module id under which ltrd relays readings")

local function dissect_relay(tvb, tree)
    local n = tvb:len()
    if n < 12 then
        tree:add_proto_expert_info(e_nbr, "relay shorter than its 12-byte header")
        return "short relay"
    end
    tree:add(nf.relay_type, tvb(0, 4))
    tree:add(nf.relay_src, tvb(4, 4))
    tree:add(nf.relay_len, tvb(8, 2))
    tree:add(nf.relay_reserved, tvb(10, 2))
    local plen = tvb(8, 2):uint()
    if plen + 12 ~= n then
        tree:add_proto_expert_info(e_nbr, string.format(
            "payload length %d, %d bytes delivered", plen, n - 12))
        return "bad relay"
    end
    if tvb(0, 4):uint() ~= 0 or plen ~= 16 then
        return "message type " .. tvb(0, 4):uint()
    end
    tree:add(nf.relay_sta, tvb(12, 6))
    tree:add(nf.relay_ap, tvb(18, 6))
    tree:add(nf.relay_active, tvb(24, 1))
    tree:add(nf.relay_rssi, tvb(25, 1))
    tree:add(nf.relay_freq, tvb(26, 2))
    return string.format("relay %s heard by %s: %d dBm on %d MHz",
                         tostring(tvb(12, 6):ether()), tostring(tvb(18, 6):ether()),
                         tvb(25, 1):int(), tvb(26, 2):uint())
end

local function dissect_owner(tvb, tree)
    local n = tvb:len()
    if n < 8 then
        tree:add_proto_expert_info(e_nbr, "owner message shorter than its 8-byte header")
        return "short owner message"
    end
    local t = tvb(0, 1):uint()
    local count = tvb(2, 2):uint()
    tree:add(nf.owner_type, tvb(0, 1))
    tree:add(nf.owner_reserved, tvb(1, 1))
    tree:add(nf.owner_count, tvb(2, 2))
    tree:add(nf.owner_seq, tvb(4, 4))
    local size = (t == 2 and 6) or (t == 3 and 7) or 0
    if 8 + count * size ~= n then
        tree:add_proto_expert_info(e_nbr, string.format(
            "%d records of %d bytes do not fill %d bytes", count, size, n - 8))
        return "bad owner message"
    end
    for k = 0, count - 1 do
        local p = 8 + k * size
        local r = tree:add(nf.owner_sta, tvb(p, 6))
        if size == 7 then
            r:add(nf.owner_flags, tvb(p + 6, 1))
            r:add(nf.owner_assoc, tvb(p + 6, 1))
            r:add(nf.owner_heard, tvb(p + 6, 1))
        end
    end
    return string.format("owner %s seq %d, %d record(s)", owner_types[t] or tostring(t),
                         tvb(4, 4):uint(), count)
end

function nbr.dissector(tvb, pinfo, tree)
    local n = tvb:len()
    if n < 6 or tvb(0, 4):string() ~= "QZNM" then return 0 end
    pinfo.cols.protocol = "LTRNBR"
    local sub = tree:add(nbr, tvb())
    sub:add(nf.magic, tvb(0, 4))
    sub:add(nf.version, tvb(4, 1))
    sub:add(nf.flags, tvb(5, 1))
    sub:add(nf.tagged, tvb(5, 1))
    local v = tvb(4, 1):uint()
    if v ~= 2 then
        sub:add_proto_expert_info(e_nbr, "version " .. v .. " is not spoken")
        pinfo.cols.info = "version " .. v
        return n
    end
    local tagged = bit.band(tvb(5, 1):uint(), 1) == 1
    local tail = tagged and 16 or 0
    if n < 28 + tail then
        sub:add_proto_expert_info(e_nbr, "shorter than its header" .. (tagged and " and tag" or ""))
        pinfo.cols.info = "short datagram"
        return n
    end
    local module = tvb(6, 2):uint()
    sub:add(nf.module, tvb(6, 2))
    sub:add(nf.sender, tvb(8, 4))
    sub:add(nf.epoch, tvb(12, 8))
    sub:add(nf.counter, tvb(20, 8))
    local plen = n - 28 - tail
    local info = "module " .. module
    if plen > 0 then
        local pl = tvb(28, plen)
        local ptree = sub:add(nf.payload, pl)
        if module == nbr.prefs.relay_module then
            info = dissect_relay(pl:tvb(), ptree)
        elseif module == OWNER_MODULE then
            info = dissect_owner(pl:tvb(), ptree)
        end
    end
    if tagged then sub:add(nf.tag, tvb(n - 16, 16)) end
    sub:append_text(": " .. info)
    pinfo.cols.info = string.format("%s #%s: %s", tostring(tvb(8, 4):ipv4()),
                                    tostring(tvb(20, 8):uint64()), info)
    return n
end

---------------------------------------------------------------------------------------
-- Registration on the ports the preferences name
---------------------------------------------------------------------------------------

local tcp_port, udp_port = 0, 0

local function register_ports()
    local tcp = DissectorTable.get("tcp.port")
    local udp = DissectorTable.get("udp.port")
    if tcp_port ~= 0 then tcp:remove(tcp_port, ltr) end
    if udp_port ~= 0 then udp:remove(udp_port, nbr) end
    tcp_port, udp_port = ltr.prefs.port, nbr.prefs.port
    if tcp_port ~= 0 then tcp:add(tcp_port, ltr) end
    if udp_port ~= 0 then udp:add(udp_port, nbr) end
end

ltr.prefs_changed = register_ports
nbr.prefs_changed = register_ports
register_ports()
