"""A site over mutual TLS: the access points check the server's certificate, the
server sees which access point speaks, and certificates that do not fit are refused."""
import os
import shutil
import subprocess

import systest
from systest import SiteTest
import ltrsite  # noqa: E402 (found through systest)

STA = "02:cc:00:00:00:01"


class Tls(SiteTest):
    tls = True

    def setUp(self):
        if not shutil.which("openssl"):
            self.skipTest("needs the openssl command (scripts/deps.sh installs it)")

    def test_readings_reach_the_server_over_tls_from_named_access_points(self):
        site = self.make_site(aps=2)
        site.start(interval=1)
        ap1, ap2 = site.aps
        srv = site.server
        hellos = srv.since(0, lambda m: m.get("event") == "hello")
        self.assertEqual({(m["ap"], m.get("ap_cert")) for m in hellos}, {("ap1", "ap1"), ("ap2", "ap2")})
        ap1.radio(f"assoc {ap1.radios[0]} {STA} 2412")
        ap1.radio(f"hear {ap1.radios[0]} {STA} -40 1 2412")
        ap2.radio(f"hear {ap2.radios[0]} {STA} -70 1 2437")
        mark = srv.mark()
        srv.send(f"start all mac={STA}")

        def both(m):
            if m.get("op") != "rssi report" or m.get("ap") != "ap1":
                return False
            return any(st["mac"] == STA and {r["ap_mac"] for r in st["readings"]} == {ap1.mac, ap2.mac}
                       for st in m.get("stations", []))
        srv.wait_for(both, 30, mark, "a report of ap1 with the readings of both")
        for ap in site.aps:
            log = ap.log_tail(200)
            self.assertIn(f'certificate for "{ltrsite.TLS_NAME}" verified', log)
            self.assertNotIn("plain TCP", log)

    def test_certificates_that_do_not_fit_get_no_session(self):
        site = self.make_site(aps=2)
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
