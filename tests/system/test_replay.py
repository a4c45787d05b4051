"""Two access points replay the captures of two sniffers in one room: the owner of each
station both heard reports the readings of both."""
import glob
import os
import struct

import systest
from systest import SiteTest

CAPTURES = os.path.join(systest.REPO, "..", "shared", "data", "captures")
SPEED = 8000  # a day of capture in about 11 s


def transmitters(path):
    """Individual transmitter addresses of a capture of probe requests, read without the
    daemon's parser: classic pcap, radiotap length at bytes 2-3, addr2 at 10-15."""
    with open(path, "rb") as f:
        data = f.read()
    assert struct.unpack_from("<I", data)[0] == 0xA1B2C3D4, path
    out, pos = set(), 24
    while pos + 16 <= len(data):
        caplen = struct.unpack_from("<I", data, pos + 8)[0]
        frame = data[pos + 16:pos + 16 + caplen]
        pos += 16 + caplen
        rt_len = struct.unpack_from("<H", frame, 2)[0]
        ta = frame[rt_len + 10:rt_len + 16]
        if len(ta) == 6 and not ta[0] & 1:
            out.add(":".join(f"{b:02x}" for b in ta))
    return out


class Replay(SiteTest):
    def test_stations_both_sniffers_heard_carry_both_readings(self):
        caps = [glob.glob(os.path.join(CAPTURES, f"*_position_{i}.pcap")) for i in (1, 2)]
        if not all(len(c) == 1 for c in caps):
            self.skipTest(f"the two-sniffer captures are not in {CAPTURES}")
        common = transmitters(caps[0][0]) & transmitters(caps[1][0])
        self.assertGreater(len(common), 0)
        site = self.make_site(aps=2, radios=1)
        for ap, cap in zip(site.aps, caps):
            ap.write_config([p.ip for p in site.aps if p is not ap],
                            radio_lines=('driver = "pcap"', f'capture = "{cap[0]}"',
                                         f"speed = {SPEED}", "loop = true"))
        site.start(interval=1)
        srv = site.server
        mark = srv.mark()
        srv.send("start all")
        srv.wait_for(lambda m: m.get("op") == "ack", 10, mark, "the start to be acknowledged")
        for ap in site.aps:  # every station the sniffers heard, not a list
            ap.ctl("no", "location-tracking", "list-match")
        ap_macs = {ap.mac for ap in site.aps}
        both = set()

        def all_shared_seen():
            for m in srv.since(mark, lambda m: m.get("op") == "rssi report"):
                for st in m.get("stations", []):
                    if {r["ap_mac"] for r in st["readings"]} == ap_macs:
                        both.add(st["mac"])
            return common <= both
        systest.ltrsite.wait_until(all_shared_seen, 30,
                                   f"both readings for {sorted(common - both)}")
        for ap in site.aps:
            status = ap.ctl("status").stdout
            self.assertNotIn(f"pcap.{ap.radios[0]}.frames_read 0\n", status)
            self.assertIn(f"pcap.{ap.radios[0]}.malformed 0\n", status)


if __name__ == "__main__":
    systest.main(__file__)
