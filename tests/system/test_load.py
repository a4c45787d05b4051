"""A site under load: every station heard gets one owner that hears it and reaches the
server, and relays arriving at a high rate survive the heaviest cycles."""
import re
import socket
import struct
import time

import systest
from systest import SiteTest, counters

STATIONS = 512


def sta_mac(i, group=0):
    return f"02:aa:00:{group:02x}:{i >> 8:02x}:{i & 0xff:02x}"


def use_world(site, users, groups=1, assoc=None, assoc_radio=0):
    """A world for the site's access points, used by those in users: access points
    200 m apart, each of the first `groups` with STATIONS standing within a few metres,
    heard by it only; with assoc, associated with that access point."""
    lines = []
    for i, ap in enumerate(site.aps):
        lines += ["[[ap]]", f'name = "{ap.name}"', f"position = [{200.0 * i}, 0.0]",
                  "radios = [" + ", ".join(["2412"] * len(ap.radios)) + "]"]
    for g in range(groups):
        for i in range(STATIONS):
            lines += ["[[station]]", f'mac = "{sta_mac(i, g)}"',
                      f"position = [{200.0 * g + 1 + (i % 32) * 0.125}, {1.0 + (i // 32) * 0.25}]"]
            if assoc:
                lines += [f'assoc = "{assoc}"', f"assoc_radio = {assoc_radio}"]
    path = f"{site.root}/site.world.toml"
    with open(path, "w") as f:
        f.write("\n".join(lines) + "\n")
    for ap in users:
        with open(ap.config) as f:
            text = f.read()
        with open(ap.config, "w") as f:
            f.write(text.replace("[sim]\n", f'[sim]\nworld = "{path}"\n', 1))


def owners(ap):
    """Station MAC (aa:bb:...) -> owner text, as the access point shows them."""
    show = ap.ctl("show", "location-tracking", "rssi").stdout
    return dict(re.findall(r"Station: (\S+), Owner: (\S+),", show))


class Load(SiteTest):
    def test_every_station_gets_an_owner_that_hears_it_and_reaches_the_server(self):
        # 3 x 512 stations, each heard by one access point only, 1 s interval.
        site = self.make_site(aps=3)
        use_world(site, site.aps, groups=3)
        site.start(interval=1)
        srv = site.server
        mark = srv.mark()
        srv.send("start all interval=1 oui=02:aa:00")
        t0 = time.monotonic()

        def all_owned():
            return all(list(owners(ap).values()) == [ap.ip] * STATIONS for ap in site.aps)
        systest.wait_until(all_owned, 5, "every station to be owned by the AP that hears it")

        seen = set()

        def all_seen():
            nonlocal mark
            for m in srv.since(mark, lambda m: m.get("op") == "rssi report"):
                seen.update(st["mac"] for st in m.get("stations", []))
            mark = srv.mark()
            return len(seen) == STATIONS * len(site.aps)
        systest.wait_until(all_seen, max(0.1, 10 - (time.monotonic() - t0)),
                                   "the server to see all 1,536 stations")
        for ap in site.aps:
            self.assertEqual(counters(ap).get("owner.drop.backlog", 0), 0)

    def test_relays_are_not_lost_while_the_heaviest_cycles_run(self):
        site = self.make_site(aps=2, radios=4)
        ap1, ap2 = site.aps
        use_world(site, [ap1], assoc="ap1", assoc_radio=3)
        srv = site.start_server()
        ap1.start()
        srv.wait_for(lambda m: m.get("event") == "hello" and m.get("ap") == "ap1", 10)
        ap1.ctl("location-tracking", "report-interval", "1")
        ap1.ctl("location-tracking", "enable")
        srv.send("start all interval=1 oui=02:aa:00")
        # Every station heard on four radios, owned here: the association lookup walks
        # all radios for each of 2,048 records.
        systest.wait_until(lambda: list(owners(ap1).values()) == [ap1.ip] * STATIONS,
                                   10, "ap1 to own every station")

        # Relays as ap2 would send them, 5,000 a second for 3 seconds.
        src = socket.inet_aton(ap2.ip)
        dgrams = []
        for i in range(STATIONS):
            relay = struct.pack(">I4sHH", 0, src, 16, 0) + bytes.fromhex(
                sta_mac(i).replace(":", "") + ap2.mac.replace(":", "")) + struct.pack(">BbH", 1, -60, 2412)
            # No site key here: sender, epoch and counter are carried but not checked.
            dgrams.append(b"QZNM" + bytes([2, 0]) + struct.pack(">H", 52) + src +
                          struct.pack(">QQ", 1, i + 1) + relay)
        before = counters(ap1)
        s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        s.bind((ap2.ip, 0))
        sent, start = 0, time.monotonic()
        while sent < 15000:
            due = int((time.monotonic() - start) * 5000)
            while sent < min(due, 15000):
                s.sendto(dgrams[sent % STATIONS], (ap1.ip, 7421))
                sent += 1
            time.sleep(0.002)
        s.close()

        def rx_lost():
            now = counters(ap1)
            return (now.get("nbr.rx", 0) - before.get("nbr.rx", 0),
                    now.get("nbr.drop.overflow", 0) - before.get("nbr.drop.overflow", 0))
        systest.wait_until(lambda: rx_lost()[0] >= sent or rx_lost()[1], 10,
                                   "every relay to be delivered, or one lost")
        self.assertEqual(rx_lost(), (sent, 0))


if __name__ == "__main__":
    systest.main(__file__)
