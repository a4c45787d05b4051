"""The Wireshark dissectors (dissectors/ltr.lua) read a captured site exchange as the test
sent it and as ltr-server decoded it: a second, independent reading of both wire formats."""
import collections
import os
import shutil
import socket
import subprocess
import threading
import xml.etree.ElementTree as ET

import systest
from systest import SiteTest

DISSECTOR = os.path.join(systest.REPO, "dissectors", "ltr.lua")
STA = "02:aa:00:00:00:01"
# Enough addresses that the start request spans several TCP segments at the MTU below.
MANY = [STA] + [f"0a:1b:2c:00:01:{i:02x}" for i in range(1, 30)]
LO_MTU = 200
RELAY_MODULE, OWNER_MODULE = "0x0034", "0xff01"  # module ids as the dissector shows them


class Capture:
    """dumpcap on the namespace's loopback, through a pipe: it flushes every packet."""

    def __init__(self, path):
        self.path, self.data = path, bytearray()
        with open(path + ".err", "w") as err:
            self.proc = subprocess.Popen(["dumpcap", "-i", "lo", "-q", "-w", "-"],
                                         stdout=subprocess.PIPE, stderr=err)
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()
        try:
            self.sync("the capture to start")
        except systest.ltrsite.SiteError as e:
            with open(path + ".err") as err:
                raise systest.ltrsite.SiteError(f"{e}; dumpcap: {err.read()[-500:]}")

    def _read(self):
        while chunk := self.proc.stdout.read1(65536):
            self.data += chunk

    def sync(self, what):
        """Once a marker sent now has come through, everything before it has too."""
        marker = os.urandom(16)

        def seen():
            with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
                s.sendto(marker, ("127.0.0.1", 9))
            return marker in self.data
        systest.wait_until(seen, 10, what)

    def stop(self):
        if self.proc.poll() is None:
            self.sync("the capture to catch up")
            self.proc.terminate()
            self.proc.wait(10)
            self.reader.join(10)
            with open(self.path, "wb") as f:
                f.write(self.data)


def fields(elem):
    """Every field below elem, by name, in order."""
    out = collections.defaultdict(list)
    for f in elem.iter("field"):
        out[f.get("name")].append(f.get("show"))
    return out


def tlv_of(t):
    """(type, len, value) of a dissected TLV element; a refused one keeps its bytes."""
    f = fields(t)
    typ, ln = int(f["ltr.tlv.type"][0]), int(f["ltr.tlv.len"][0])
    one = {1: "ltr.interval", 2: "ltr.threshold", 3: "ltr.valid", 7: "ltr.ack_code"}
    if typ in one and f[one[typ]]:
        v = int(f[one[typ]][0])
    elif typ == 4 and f["ltr.mac_count"]:
        v = "all" if f["ltr.mac_all"] else tuple(f["ltr.mac"])
    elif typ == 5 and f["ltr.oui_count"]:
        v = tuple(f["ltr.oui"])
    elif typ == 6 and f["ltr.ap_mac"]:
        v = (f["ltr.ap_mac"][0], int(f["ltr.freq"][0]), int(f["ltr.rssi"][0]))
    else:
        v = f["ltr.tlv.value"][0].replace(":", "") if f["ltr.tlv.value"] else ""
    return (typ, ln, v)


def tlv_of_json(t):
    """The same from ltr-server's decoding."""
    typ = t["type"]
    v = {1: lambda: t["seconds"], 2: lambda: t["db"], 3: lambda: t["seconds"],
         4: lambda: "all" if t.get("all") else tuple(t["macs"]),
         5: lambda: tuple(t["ouis"]), 6: lambda: (t["ap_mac"], t["freq"], t["rssi"]),
         7: lambda: t["code"]}.get(typ, lambda: t["hex"])()
    return (typ, t["len"], v)


def dissect(cap, port):
    """(ltr frames, neighbour datagrams, reassembled frames) of a capture."""
    r = subprocess.run(["tshark", "-n", "-r", cap, "-X", f"lua_script:{DISSECTOR}",
                        "-o", f"ltr.port:{port}", "-T", "pdml"],
                       capture_output=True, text=True, timeout=120)
    for bad in ("Lua Error", "Dissector bug", "[Malformed Packet"):  # never past the bytes
        if bad in r.stdout:
            at = r.stdout.index(bad)
            raise AssertionError(f"tshark: {bad}: {r.stdout[at - 200:at + 300]}")
    if r.returncode != 0 or "Lua:" in r.stderr:
        raise AssertionError(f"tshark failed ({r.returncode}): {r.stderr[-2000:]}")
    frames, grams, reassembled = [], [], 0
    for pkt in ET.fromstring(r.stdout).iter("packet"):
        pf = fields(pkt)
        for proto in pkt.iter("proto"):
            name = proto.get("name")
            if name == "ltr":
                top = {f.get("name"): f.get("show") for f in proto.findall("field")}
                experts = [f.get("showname") for f in proto.iter("field")
                           if f.get("name") in ("ltr.bad_frame", "ltr.bad_message")]
                tlvs = [tlv_of(t) for t in proto.findall("field[@name='ltr.tlv']")]
                frames.append(dict(top, port=int(pf["tcp.srcport"][0]), tlvs=tlvs,
                                   experts=experts, stations=fields(proto)["ltr.station"]))
                reassembled += bool(pf["tcp.reassembled.length"])
            elif name == "ltrnbr" and not pf["icmp.type"]:  # not quoted in an ICMP error
                g = fields(proto)
                g["src"] = pf["ip.src"][0]
                grams.append(g)
    return frames, grams, reassembled


class Dissector(SiteTest):
    aps = 2
    radios = 1
    key = "dissector test site key"
    tls = False  # the server channel in plain TCP, or there is nothing to read

    def test_captured_site_exchange_decodes_as_sent(self):
        if not (shutil.which("tshark") and shutil.which("dumpcap")):
            self.skipTest("tshark is not installed (scripts/deps.sh installs it)")
        # Small segments (no offload either) split frames, as a real link does.
        subprocess.run(["ip", "link", "set", "lo", "mtu", str(LO_MTU), "gso_max_size",
                        str(LO_MTU)], check=True)
        self.addCleanup(subprocess.run, ["ip", "link", "set", "lo", "mtu", "65536",
                                         "gso_max_size", "65536"])
        site = self.make_site()
        cap = Capture(os.path.join(site.root, "site.pcap"))
        self.addCleanup(cap.stop)
        site.start(interval=1)
        ap1, ap2 = site.aps
        ap1.radio(f"assoc {ap1.radios[0]} {STA} 2412")
        ap1.radio(f"hear {ap1.radios[0]} {STA} -40 1 2412")
        ap2.radio(f"hear {ap2.radios[0]} {STA} -70 1 2437")
        srv = site.server
        request = lambda cmd, op="ack": systest.request(srv, cmd, op)  # noqa: E731

        # What the test sends, TLV by TLV as they must come out of the capture.
        macs = ",".join(MANY)
        sent = {}
        for cmd, tlvs in [
                (f"start ap1 interval=1 threshold=5 valid=30 mac={macs} oui=0a:1b:2c",
                 [(1, 6, 1), (2, 5, 5), (3, 6, 30), (4, 5 + 6 * len(MANY), tuple(MANY)),
                  (5, 8, ("0a:1b:2c",))]),
                (f"start ap2 mac={STA}", [(4, 11, (STA,))]),
                ("modify ap1 interval=2 threshold=9", [(1, 6, 2), (2, 5, 9)]),
                ("send ap1 9 tlv=300:beef", [(300, 6, "beef")])]:
            sent[request(cmd)["msg_id"]] = (cmd.split()[0], tlvs)
        # The owner's report with the relayed reading of ap2.
        mark = srv.mark()
        systest.wait_report(srv, "ap1", STA, mark, "a relayed reading", by={ap1.mac, ap2.mac})
        sent[request("query ap1 mac=all", op="rssi report")["msg_id"]] = ("query", [(4, 5, "all")])
        # A threshold TLV of len 6: the access point refuses it, and so must the dissector.
        bad = request("raw ap1 " + "0002 00000063 00 0000000c 0001 000c 0001 0002 0006 0005"
                      .replace(" ", ""))
        self.assertEqual(bad["ack_code"], 5)
        sent[request("stop ap1 mac=all")["msg_id"]] = ("stop", [(4, 5, "all")])
        # A peer that claims a frame longer than any allowed.
        with socket.create_connection(("127.0.0.1", site.server_port)) as s:
            s.sendall(bytes.fromhex("0001000102"))
            s.recv(16)
        for ap in site.aps:
            ap.stop()
            srv.wait_for(lambda m, n=ap.name: m.get("event") == "disconnect" and m.get("ap") == n,
                         10, 0, f"{ap.name} to go")
        cap.stop()

        frames, grams, reassembled = dissect(cap.path, site.server_port)
        self.assertGreater(reassembled, 0, "no frame spanned segments at this MTU")
        self.assertEqual([(f["ltr.length"], f["experts"]) for f in frames if "ltr.type" not in f],
                         [("65537", ["frame length 65537: must be 1 to 65536"])])

        # HELLO: who each connection is; the connection names the later frames.
        hellos = [f for f in frames if f.get("ltr.type") == "1"]
        self.assertEqual(sorted((f["ltr.hello.name"], f["ltr.hello.mac"], f["ltr.hello.ip"])
                                for f in hellos),
                         [(ap.name, ap.mac, ap.ip) for ap in site.aps])
        ap_of = {f["port"]: f["ltr.hello.name"] for f in hellos}
        msgs = [f for f in frames if f.get("ltr.type") == "2"]

        # Requests: every one the server sent, field by field as the test asked.
        requests = {f["ltr.msg_id"]: f for f in msgs if f["ltr.request"] == "1"}
        opcodes = {"start": 1, "stop": 2, "modify": 3, "query": 4, "send": 9}
        for msg_id, (word, tlvs) in sent.items():
            f = requests[msg_id]
            self.assertEqual((int(f["ltr.opcode"]), f["tlvs"]), (opcodes[word], tlvs), word)
            self.assertEqual(int(f["ltr.len"]), 6 + sum(t[1] for t in tlvs))
            self.assertEqual(f["experts"], [])
        self.assertTrue(any("wrong len 6 for TLV type 2" in e
                            for e in requests[bad["msg_id"]]["experts"]))

        # Replies: the dissector reads every message ltr-server read, the same way.
        # (In a report, the station of each reading too.)
        def key(ap, msg_id, opcode, ln, num, tlvs, stations):
            return (ap, msg_id, int(opcode), int(ln), int(num), tuple(tlvs), tuple(stations))
        seen = collections.Counter(
            key(ap_of[f["port"]], f["ltr.msg_id"], f["ltr.opcode"], f["ltr.len"],
                f["ltr.tlv_num"], f["tlvs"], f["stations"])
            for f in msgs if f["ltr.request"] == "0")
        decoded = collections.Counter(
            key(m["ap"], m["msg_id"], m["opcode"], m["len"], m["tlv_num"],
                [tlv_of_json(t) for t in m["tlvs"]],
                [st["mac"] for st in m.get("stations", []) for _ in st["readings"]])
            for m in srv.since(0) if m.get("event") == "message")
        self.assertEqual(seen, decoded)
        self.assertIn((7, 5, 2), [t for k in seen for t in k[5]])  # the unknown opcode
        self.assertIn((6, 13, (ap2.mac, 2437, -70)), [t for k in seen for t in k[5]])

        # Neighbour datagrams: envelope, sealed by its sender, each counter once.
        ips = {ap.ip for ap in site.aps}
        for g in grams:
            self.assertEqual((g["ltrnbr.magic"], g["ltrnbr.version"], g["ltrnbr.tagged"], g["ltrnbr.sender"],
                              len(g["ltrnbr.tag"][0].split(":")), g["ltrnbr.malformed"]),
                             (["QZNM"], ["2"], ["1"], [g["src"]], 16, []))
        self.assertEqual({g["src"] for g in grams}, ips)
        stamps = [(g["src"], g["ltrnbr.epoch"][0], g["ltrnbr.counter"][0]) for g in grams]
        self.assertEqual(len(stamps), len(set(stamps)))
        # ap2's relays to ap1 carry what its radio heard.
        relays = [g for g in grams if g["ltrnbr.module"] == [RELAY_MODULE]]
        self.assertIn((ap2.ip, STA, ap2.mac, "1", "-70", "2437"),
                      {(g["ltrnbr.relay.src_ip"][0], g["ltrnbr.relay.sta"][0],
                        g["ltrnbr.relay.ap_mac"][0], g["ltrnbr.relay.active"][0],
                        g["ltrnbr.relay.rssi"][0], g["ltrnbr.relay.freq"][0]) for g in relays})
        # Owner messages: both greet; an ask about STA gets an answer with its seq.
        owner = [g for g in grams if g["ltrnbr.module"] == [OWNER_MODULE]]
        self.assertEqual({g["src"] for g in owner if g["ltrnbr.owner.type"] == ["1"]}, ips)
        asks = {(g["src"], g["ltrnbr.owner.seq"][0]) for g in owner
                if g["ltrnbr.owner.type"] == ["2"] and STA in g["ltrnbr.owner.sta"]}
        answers = [g for g in owner if g["ltrnbr.owner.type"] == ["3"]
                   and STA in g["ltrnbr.owner.sta"]]
        self.assertTrue(asks)
        self.assertTrue(any((peer, g["ltrnbr.owner.seq"][0]) in asks
                            for g in answers for peer in ips - {g["src"]}))
        # Only ap1's radio has STA associated.
        for g in answers:
            self.assertEqual(g["ltrnbr.owner.associated"], ["1" if g["src"] == ap1.ip else "0"])


if __name__ == "__main__":
    systest.main(__file__)
