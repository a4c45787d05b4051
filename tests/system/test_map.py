"""The location server's outputs on a live site: the JSON API, the map page in a
headless browser, MQTT through a real broker (one that starts late, too), and positions
from real reports of walking stations: at least nearly twice as close as the nearest
access point and closer than the RSSI-weighted centroid (the accuracy benchmark, shortened).
LTR_MAP_SCREENSHOT=FILE saves the page as the page test left it (the README's picture)."""
import json
import os
import shutil
import socket
import subprocess
import sys
import types
import unittest
import urllib.error
import urllib.request

import systest
from systest import SiteTest
import cdp

sys.path.insert(0, os.path.join(systest.REPO, "bench", "locate"))
import accuracy  # noqa: E402

wait_until = systest.wait_until
STA = "02:aa:00:00:00:01"
HTTP_PORT = 8080
HTTP = f"127.0.0.1:{HTTP_PORT}"
# ap1 is found by its MAC, ap2 by its address, ap3 by its name (from their hellos).
SITE = """
[model]
ref_rssi = -40.0
exponent = 3.0

[[ap]]
name = "ap1"
mac = "02:fe:00:00:00:01"
position = [0.0, 0.0]

[[ap]]
name = "ap2"
ip = "127.0.0.12"
position = [20.0, 0.0]

[[ap]]
name = "ap3"
position = [10.0, 15.0]
floor = 0
"""


def get(path):
    with urllib.request.urlopen(f"http://{HTTP}{path}", timeout=5) as r:
        return json.loads(r.read())


def up():
    try:
        return get("/api/stats")
    except OSError:
        return None


def station(mac=STA):
    try:
        return get(f"/api/stations/{mac}")
    except urllib.error.HTTPError:
        return None


def medians(text):
    """Row name -> median error, from the evaluator's table."""
    rows = text.split("error in metres", 1)[1].splitlines()[1:]
    return {r[:32].strip(): float(r[32:].split()[0]) for r in rows if r[32:].strip()[:1].isdigit()}


class Map(SiteTest):
    aps = 3

    def start(self, extra=()):
        site = self.make_site(world=None)
        path = os.path.join(site.root, "site.toml")
        with open(path, "w") as f:
            f.write(SITE)
        site.start_server(["--site", path, "--timeout", "4", *extra])
        site.start(interval=1)
        return site

    def hear(self, site, rssis):
        for ap, rssi in zip(site.aps, rssis):
            ap.radio(f"hear {ap.radios[0]} {STA} {rssi} 1 2412")

    def test_api_live_page_and_mqtt_with_a_late_broker(self):
        # The broker is down at first: the server runs and places stations meanwhile.
        site = self.start(["--http", HTTP, "--mqtt", "127.0.0.1:1883", "--mqtt-id", "srv1"])
        ap1, ap2, ap3 = site.aps
        ap1.radio(f"assoc {ap1.radios[0]} {STA} 2412")
        self.hear(site, (-40, -75, -75))
        site.server.send(f"start all mac={STA}")
        st = wait_until(lambda: (s := station()) and len(s["readings"]) == 3 and s, 30,
                        "the station with readings of all three access points")
        self.assertTrue(st["present"])
        self.assertEqual(st["owner"], "ap1")
        self.assertEqual({r["ap"] for r in st["readings"]}, {"ap1", "ap2", "ap3"})
        self.assertEqual({r["rssi"] for r in st["readings"] if r["ap"] == "ap1"}, {-40})
        self.assertLess(st["position"]["x"], 10, "placed on the far side from ap1")
        self.assertGreater(st["position"]["radius"], 0)
        self.assertEqual(station("02aa.0000.0001")["mac"], STA)
        self.assertIsNone(station("02:aa:00:00:00:99"))
        self.assertIn(STA, [s["mac"] for s in get("/api/stations")])
        aps = {a["name"]: a for a in get("/api/aps")}
        self.assertEqual(set(aps), {"ap1", "ap2", "ap3"})
        for ap in site.aps:
            a = aps[ap.name]
            self.assertEqual((a["mac"], a["connected"], a["in_site"]), (ap.mac, True, True))
        self.assertEqual((aps["ap2"]["x"], aps["ap3"]["y"]), (20.0, 15.0))
        self.assertGreater(get("/api/stats")["reports"], 0)
        # A dozen open pages hold their event streams; the API still answers.
        streams = []
        for _ in range(12):
            c = socket.create_connection(("127.0.0.1", HTTP_PORT))
            self.addCleanup(c.close)
            c.sendall(b"GET /events HTTP/1.1\r\nHost: x\r\n\r\n")
            streams.append(c)
        for c in streams:
            c.settimeout(10)
            got = b""
            while b"event: snapshot" not in got:
                chunk = c.recv(65536)
                self.assertTrue(chunk, got)
                got += chunk
        self.assertEqual(get(f"/api/stations/{STA}")["mac"], STA)
        self.page(site)
        self.mqtt(site)

    def page(self, site):
        if not cdp.chromium():
            print("SKIP the page: chromium is not installed (scripts/deps.sh installs it)")
            return
        b = cdp.Browser(os.path.join(site.root, "chromium"))
        self.addCleanup(b.close)
        b.open(f"http://{HTTP}/")
        marker = ("(() => { const g = document.querySelector('g.station[data-mac=\"%s\"]');"
                  " return g && [+g.dataset.x, +g.dataset.y]; })()" % STA)
        wait_until(lambda: b.eval("document.querySelectorAll('g.ap').length") == 3
                   and b.eval(marker), 20, "the page to draw 3 access points and the station")
        self.assertEqual(sorted(b.eval("[...document.querySelectorAll('g.ap')].map(g => g.dataset.name)")),
                         ["ap1", "ap2", "ap3"])
        before = b.eval(marker)
        # Hovering shows the readings.
        b.eval("document.querySelector('g.station .dot').dispatchEvent(new MouseEvent('mouseenter'));"
               "document.querySelector('g.station').dispatchEvent(new MouseEvent('mouseenter'))")
        self.assertEqual(b.eval("document.querySelectorAll('#detail table.readings tbody tr').length"), 3)
        # Now ap2 hears it best: the next report moves the marker towards ap2.
        self.hear(site, (-75, -40, -75))
        after = wait_until(lambda: (p := b.eval(marker)) and p[0] > before[0] + 5 and p, 20,
                           "the marker to move towards ap2")
        self.assertEqual(b.eval("document.getElementById('status').textContent"), "live")
        if os.environ.get("LTR_MAP_SCREENSHOT"):
            b.screenshot(os.environ["LTR_MAP_SCREENSHOT"])
        self.crowd(site, b)
        self.assertEqual(b.errors(), [])

    def crowd(self, site, b):
        """Faint stations, each heard by ap1 alone, have areas wider than the site: they tint
        it once however many there are, under the access points and the other dots."""
        def centre(sel):
            return b.eval("(() => { const r = document.querySelector('%s').getBoundingClientRect();"
                          " return [r.x + r.width / 2, r.y + r.height / 2]; })()" % sel)

        def drawn(macs):
            return all(b.eval(f"!!document.querySelector('g.station[data-mac=\"{m}\"]')") for m in macs)
        ap1 = site.aps[0]
        ap1.ctl("no", "location-tracking", "list-match")
        ap3 = centre("g.ap[data-name=ap3] rect")
        spot = (ap3[0] + 30, ap3[1] + 30)
        bare = b.pixel(*spot)
        faint = [f"02:bb:00:00:00:0{i}" for i in (1, 2, 3)]
        tints = []
        for macs in (faint[:1], faint):
            for m in macs:
                ap1.radio(f"hear {ap1.radios[0]} {m} -95 1 2412")
            wait_until(lambda: drawn(macs), 20, f"the page to draw {macs}")
            tints.append(b.pixel(*spot))
        def near(got, want, what):  # a unit or two of blending rounding
            self.assertLessEqual(max(abs(a - b) for a, b in zip(got, want)), 3, f"{what}: {got} {want}")
        self.assertGreater(max(abs(a - b) for a, b in zip(tints[0], bare)), 10,
                           "the site under a faint station's area")
        near(tints[1], tints[0], "three areas over the spot tint it as one does")
        near(b.pixel(*ap3), (0x2b, 0x3a, 0x4a), "ap3 under the areas")
        near(b.pixel(*centre(f'g.station[data-mac="{STA}"] .dot')), (0x1d, 0x6f, 0xd0), f"{STA} under the areas")

    def mqtt(self, site):
        if not (shutil.which("mosquitto") and shutil.which("mosquitto_sub")):
            print("SKIP MQTT: mosquitto and mosquitto-clients are not installed (scripts/deps.sh)")
            return
        conf = os.path.join(site.root, "mosquitto.conf")
        with open(conf, "w") as f:
            # Root inside the namespace: stay so, dropping to a user of the host fails here.
            f.write("listener 1883 127.0.0.1\nallow_anonymous true\nuser root\n")
        broker = subprocess.Popen(["mosquitto", "-c", conf], stdout=subprocess.DEVNULL,
                                  stderr=subprocess.DEVNULL)
        self.addCleanup(lambda: (broker.terminate(), broker.wait()))

        def retained(topic):
            r = subprocess.run(["mosquitto_sub", "-h", "127.0.0.1", "-p", "1883", "-t", topic,
                                "--retained-only", "-C", "1", "-W", "2"],
                               capture_output=True, text=True)
            return r.stdout.strip() if r.returncode == 0 else None

        topic = "ltr/station/02aa00000001"
        state = json.loads(wait_until(lambda: retained(topic + "/state"), 60,
                                      "the retained state after the broker came up"))
        self.assertEqual((state["mac"], state["owner"], state["present"]), (STA, "ap1", True))
        self.assertEqual(len(state["readings"]), 3)
        self.assertIn("radius", state["position"])
        self.assertEqual(retained(topic + "/presence"), "present")
        self.assertEqual(retained("ltr/server/srv1"), "online")

        events = subprocess.Popen(["mosquitto_sub", "-h", "127.0.0.1", "-p", "1883", "-t", "ltr/event",
                                   "-W", "30"], stdout=subprocess.PIPE, text=True)
        self.addCleanup(lambda: events.poll() is None and events.kill())
        # Tracking off everywhere empties the station tables: no more reports of it. The
        # page's faint stations leave too; wait for this one's event.
        for ap in site.aps:
            ap.ctl("no", "location-tracking", "enable")
        ev = {}
        for line in events.stdout:
            ev = json.loads(line)
            if ev.get("mac") == STA:
                break
        events.kill()
        self.assertEqual((ev["event"], ev["mac"]), ("leave", STA))
        self.assertEqual(retained(topic + "/presence"), "left")
        self.assertFalse(json.loads(retained(topic + "/state"))["present"])

    def test_load_generator_measures_the_server(self):
        site = self.make_site(aps=0)
        path = os.path.join(site.root, "load.toml")
        load = site.bin("ltr-load")
        subprocess.run([load, "--site-out", path, "--aps", "20"], check=True)
        srv = site.start_server(["--site", path, "--http", HTTP, "--quiet"])
        wait_until(up, 10, "the HTTP API")
        r = subprocess.run([load, "--aps", "20", "--stations", "5", "--seconds", "1", "--json",
                            "--stats", HTTP, "--server", f"127.0.0.1:{site.server_port}"],
                           capture_output=True, text=True, timeout=60)
        self.assertEqual(r.returncode, 0, r.stderr)
        m = json.loads(r.stdout)
        self.assertGreater(m["reports_per_s"], 0)
        # Every station of the load is heard by access points of the site: each update solves.
        self.assertAlmostEqual(m["solves_per_s"], m["station_updates_per_s"], delta=1)
        wait_until(lambda: get("/api/stats")["stations"] == 100, 10, "all 100 stations counted")
        self.assertEqual(srv.errors, [])


    def test_engine_beats_both_baselines_on_a_walking_site(self):
        evaluate = os.path.join(systest.BUILD, "bench", "ltr_locate_eval")
        if not os.path.exists(evaluate):
            self.skipTest("ltr_locate_eval is not built (LTR_BENCH=OFF)")
        args = types.SimpleNamespace(
            build=systest.BUILD, aps=5, seed=7, interval=1, duration=30,
            world=os.path.join(systest.REPO, "bench", "locate", "office.world.toml"))
        path = "/tmp/locate-reports.txt"
        self.assertGreater(accuracy.record(args, path), 12 * 20)  # most seconds, every station
        out = subprocess.run([evaluate, args.world, path, "20"], capture_output=True, text=True,
                             check=True).stdout
        m = medians(out)
        engine, nearest, centroid = (m["engine, calibrated model"], m["nearest access point"],
                                     m["RSSI-weighted centroid"])
        self.assertLess(engine, 0.6 * nearest, out)
        self.assertLess(engine, centroid, out)


if __name__ == "__main__":
    systest.main(__file__)
