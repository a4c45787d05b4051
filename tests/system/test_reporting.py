"""Readings flow from the radios of several access points to the owner and on to the
location server over mutual TLS; the server's requests are carried out and answered;
certificates and keys that do not fit keep an access point out."""
import os
import shutil
import struct
import socket
import subprocess

import systest
from systest import SiteTest, ltrsite, report_of, readers, request, wait_report

STA = "02:aa:00:00:00:01"
STA2 = "0a:1b:2c:00:00:02"
STA3 = "02:aa:00:00:00:03"


def hear(site, sta, rssis, freqs=(2412, 2437, 2462)):
    """sta associated with ap1's first radio, heard by each access point at its RSSI."""
    ap1 = site.aps[0]
    ap1.radio(f"assoc {ap1.radios[0]} {sta} 2412")
    for ap, rssi, freq in zip(site.aps, rssis, freqs):
        ap.radio(f"hear {ap.radios[0]} {sta} {rssi} 1 {freq}")


class Reporting(SiteTest):
    def test_owner_reports_its_own_and_relayed_readings_over_tls(self):
        # Without the openssl command (it makes the certificates) over plain TCP.
        site = self.make_site(aps=3, tls=bool(shutil.which("openssl")))
        site.start(interval=1)
        ap1, ap2, ap3 = site.aps
        srv = site.server
        # The server knows each access point by its client certificate.
        hellos = srv.since(0, lambda m: m.get("event") == "hello")
        self.assertEqual({(m["ap"], m.get("ap_cert")) for m in hellos},
                         {(ap.name, ap.name if site.pki else None) for ap in site.aps})
        hear(site, STA, (-40, -70, -80))
        mark = srv.mark()
        srv.send(f"start all mac={STA}")
        msg = wait_report(srv, "ap1", STA, mark, "a report of ap1 with the readings of all three",
                          by={ap1.mac, ap2.mac, ap3.mac})
        r = readers(report_of(msg, "ap1", STA))
        self.assertEqual({m: (r[m]["rssi"], r[m]["freq"]) for m in r},
                         {ap1.mac: (-40, 2412), ap2.mac: (-70, 2437), ap3.mac: (-80, 2462)})
        # Only the owner reports the station.
        for other in ("ap2", "ap3"):
            self.assertFalse(srv.since(mark, lambda m, o=other: report_of(m, o, STA)))
        # The owner's table shows the relayed readings, the others' their own only.
        show = ap1.ctl("show", "location-tracking", "rssi").stdout
        self.assertIn("Number of stations in tracking: 1", show)
        self.assertEqual(show.count("\n1  ") + show.count("\n2  ") + show.count("\n3  "), 3)
        for ap in site.aps if site.pki else ():
            log = ap.log_tail(200)
            self.assertIn(f'certificate for "{ltrsite.TLS_NAME}" verified', log)
            self.assertNotIn("plain TCP", log)

    def test_stopped_station_is_not_reported_again(self):
        """After a stop every access point drops the station and its radios no longer
        report it, while a station still tracked goes on being reported."""
        site = self.make_site(aps=3)
        site.start(interval=1)
        ap1 = site.aps[0]
        srv = site.server
        for sta in (STA, STA3):
            hear(site, sta, (-40, -70, -80), (2412,) * 3)
        mark = srv.mark()
        srv.send(f"start all mac={STA},{STA3}")
        wait_report(srv, "ap1", STA, mark, "a report of ap1 with three readings",
                    by={ap.mac for ap in site.aps})
        mark = srv.mark()
        srv.send(f"stop all mac={STA}")
        for ap in site.aps:
            ack = srv.wait_for(lambda m, n=ap.name: m.get("op") == "ack" and m.get("ap") == n,
                               10, mark, f"the ack of {ap.name}")
            self.assertEqual(ack["ack_code"], 0)
        after = srv.mark()
        # Cycles go on: five more reports of the other station.
        ltrsite.wait_until(
            lambda: len(srv.since(after, lambda m: report_of(m, "ap1", STA3))) >= 5, 30,
            "five reports of the station still tracked")
        for m in srv.since(after):
            for ap in site.aps:
                self.assertIsNone(report_of(m, ap.name, STA), m)
        for ap in site.aps:
            self.assertIn("Number of stations in tracking: 1",
                          ap.ctl("show", "location-tracking", "rssi").stdout)
            self.assertNotIn(f"obj mac {STA}", ap.radio(f"state {ap.radios[0]}"))

    def test_start_modify_query_stop_and_unknown_opcode(self):
        site = self.make_site(aps=1)
        site.start(interval=1)
        ap = site.aps[0]
        srv = site.server
        ap.radio(f"assoc {ap.radios[0]} {STA} 2412")
        ap.radio(f"hear {ap.radios[0]} {STA} -50 1 2412")
        ap.radio(f"hear {ap.radios[0]} {STA2} -60 1 2412")
        request = lambda cmd, op="ack": systest.request(srv, cmd, op)  # noqa: E731

        def shows(*want, what=()):
            out = ap.ctl("show", "location-tracking", *what).stdout
            for w in want:
                self.assertIn(w, out)
            return out

        ack = request(f"start ap1 interval=1 threshold=5 valid=30 mac={STA} oui=0a:1b:2c")
        self.assertEqual((ack["ack_code"], ack["tlv_num"]), (0, 1))
        shows(f"{'RSSI change update threshold:':<40}5\n", f"{'Report valid period:':<40}30\n")
        shows("mac  02aa.0000.0001", "oui  0a1b.2c00.0000", what=("track-list",))
        self.assertEqual(request("modify ap1 interval=2 threshold=9 mac=all")["ack_code"], 0)
        shows(f"{'Report interval:':<40}2\n", f"{'RSSI change update threshold:':<40}9\n")

        # Both stations get owned here and show up in a query of all.
        def queried():
            rep = request("query ap1 mac=all", op="rssi report")
            return rep if {s["mac"] for s in rep["stations"]} == {STA, STA2} else None
        rep = ltrsite.wait_until(queried, 20, "a query answer with both stations")
        self.assertEqual(rep["stations"][0]["readings"][0]["ap_mac"], ap.mac)
        rep = request(f"query ap1 mac={STA2}", op="rssi report")
        self.assertEqual([s["mac"] for s in rep["stations"]], [STA2])
        empty = request("query ap1", op="rssi report")
        self.assertEqual((empty["len"], empty["tlv_num"]), (6, 0))

        self.assertEqual(request(f"stop ap1 mac={STA}")["ack_code"], 0)
        self.assertNotIn("02aa.0000.0001", shows(what=("track-list",)))
        self.assertEqual(request("stop ap1 mac=all")["ack_code"], 0)
        self.assertNotIn("oui", shows(what=("track-list",)).splitlines()[-1])
        # Unknown opcode: code 2. A message shorter than its header gets no answer; the
        # next one does.
        self.assertEqual(request("send ap1 9")["ack_code"], 2)
        mark = srv.mark()
        srv.send("raw ap1 00020000")
        srv.wait_for(lambda m: m.get("event") == "sent", 5, mark, "the short message to go out")
        self.assertEqual(request("send ap1 9")["ack_code"], 2)
        self.assertEqual(len(srv.since(mark, lambda m: m.get("event") == "message"
                                       and m.get("op") != "rssi report")), 1)

    def test_owner_change_hands_over_the_newest_reading(self):
        extra = '[owners]\nmode = "external"\n'
        site = self.make_site(aps=2)
        for ap in site.aps:
            ap.write_config([p.ip for p in site.aps if p is not ap], extra)
        site.start(interval=1)
        ap1, ap2 = site.aps
        srv = site.server
        ap1.radio(f"hear {ap1.radios[0]} {STA} -45 1 2412")
        ap2.radio(f"hear {ap2.radios[0]} {STA} -75 1 2437")
        mark = srv.mark()
        srv.send(f"start all mac={STA}")

        def tell_owner(owner):
            mac = bytes(int(b, 16) for b in STA.split(":"))
            payload = struct.pack("=H", 1) + mac + socket.inet_aton(owner.ip)
            for ap in site.aps:
                with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as s:
                    s.sendto(struct.pack(">BI", 1, 157) + payload, ap.sock("events.sock"))

        # Wait until both know the station, then make ap1 its owner.
        ltrsite.wait_until(
            lambda: all("Number of stations in tracking: 1" in ap.ctl(
                "show", "location-tracking", "rssi").stdout for ap in site.aps), 15, "both tables")
        tell_owner(ap1)
        wait_report(srv, "ap1", STA, mark, "ap1 to report both", 20, by={ap1.mac, ap2.mac})
        # Hand the station to ap2: ap1 relays the station's most recently added reading
        # there at once, under its own name: that is ap2's own -75 relayed to it earlier
        # (its later cycles relay ap1's own -45).
        mark = srv.mark()
        tell_owner(ap2)
        msg = srv.wait_for(lambda m: (st := report_of(m, "ap2", STA)) is not None
                           and ap1.mac in readers(st), 20, mark, "ap2 to report ap1's reading")
        self.assertIn(readers(report_of(msg, "ap2", STA))[ap1.mac]["rssi"], (-75, -45))

    def test_certificates_that_do_not_fit_get_no_session(self):
        if not shutil.which("openssl"):
            self.skipTest("needs the openssl command (scripts/deps.sh installs it)")
        site = self.make_site(aps=2, tls=True)
        ap1, ap2 = site.aps
        # ap1 expects another name than the server's certificate carries; ap2 shows
        # a certificate from a CA the server does not know.
        with open(ap1.config) as f:
            text = f.read().replace(f'server_name = "{ltrsite.TLS_NAME}"', 'server_name = "other.site.test"')
        with open(ap1.config, "w") as f:
            f.write(text)
        rogue = os.path.join(site.root, "rogue")
        subprocess.run([os.path.join(systest.REPO, "scripts", "site-certs"), rogue, "x", "ap2"],
                       check=True, capture_output=True)
        for ext in ("crt", "key"):
            os.replace(f"{rogue}/ap2.{ext}", f"{site.pki}/ap2.{ext}")
        srv = site.start_server()
        for ap in site.aps:
            ap.start()
        srv.wait_for(lambda m: m.get("event") == "disconnect" and "client certificate refused" in m.get("reason", ""),
                     10, 0, "the server to refuse ap2's certificate")
        ltrsite.wait_until(lambda: 'refused: it is not for "other.site.test"' in ap1.log_tail(50), 10,
                           "ap1 to refuse the server's certificate")
        # Both keep trying with the usual back-off, and neither ever gets a session.
        ltrsite.wait_until(lambda: len(srv.since(0, lambda m: m.get("event") == "connect")) >= 4, 10,
                           "the access points to try again")
        self.assertEqual(srv.since(0, lambda m: m.get("event") == "hello"), [])


if __name__ == "__main__":
    systest.main(__file__)
