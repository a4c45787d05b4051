"""What an access point keeps across restarts and crashes (saving and replaying a
configuration on a fresh daemon is the CLI round-trip script's), and across changes
around it: the location server going away and coming back, a radio going down and up."""
import os
import random
import signal
import subprocess
import time

import systest
from systest import SiteTest, ltrsite, wait_report

MACS = [f"02:bb:00:00:00:{i:02x}" for i in range(1, 9)]
STA = "02:cc:00:00:00:01"


def track_rows(ap):
    out = ap.ctl("show", "location-tracking", "track-list").stdout.splitlines()
    return [l.split() for l in out[3:] if l.strip()]


class Persistence(SiteTest):
    aps = 1

    def test_kill_during_list_edits_reloads_a_consistent_list(self):
        site = self.make_site()
        site.start(enable=True)
        ap = site.aps[0]
        rnd = random.Random(int(os.environ.get("LTR_SEED", "7")))
        print(f"seed {os.environ.get('LTR_SEED', '7')}")
        for round_ in range(5):
            edits = []
            for _ in range(40):
                m = rnd.choice(MACS)
                edits.append(("no " if rnd.random() < 0.4 else "") + f"location-tracking mac {m}")
            p = subprocess.Popen([site.bin("ltrctl"), "-k", "-s", ap.sock("cli.sock"), "-f", "-"],
                                 stdin=subprocess.PIPE, stdout=subprocess.DEVNULL,
                                 stderr=subprocess.DEVNULL, text=True)
            p.stdin.write("\n".join(edits) + "\n")
            p.stdin.close()
            time.sleep(rnd.uniform(0.0, 0.15))
            ap.stop(signal.SIGKILL)
            p.wait(timeout=10)
            ap.start()
            rows = track_rows(ap)
            macs = [r[2] for r in rows]
            self.assertEqual(len(macs), len(set(macs)), f"round {round_}: duplicates {rows}")
            self.assertEqual({r[1] for r in rows} - {"mac"}, set(), f"round {round_}: {rows}")
            self.assertEqual([int(r[0]) for r in rows], list(range(1, len(rows) + 1)))

    def test_restart_keeps_every_setting_and_puts_the_list_back_on_the_radios(self):
        site = self.make_site()
        site.start(interval=1)
        ap = site.aps[0]
        radio = ap.radios[0]
        # A lone access point without a site key: anybody could speak to it.
        self.assertIn("NEIGHBOUR MESSAGING IS OPEN", ap.log_tail(100))
        listed, unlisted = MACS[0], MACS[1]
        ap.ctl("-f", "-", stdin=(
            f"location-tracking mac {MACS[4]}\nlocation-tracking rssi-threshold 6\n"
            "location-tracking valid-period 90\nlocation-tracking hold-time 2\n"
            "location-tracking suppress 4\nlocation-tracking oui 0a:1b:2c\n"
            f"location-tracking mac {listed}\nlocation-tracking list-match\n"))
        saved = sorted(ap.ctl("show", "running-config").stdout.splitlines())
        for sig in (signal.SIGTERM, signal.SIGKILL):
            ap.stop(sig)
            ap.start()
            # The list comes back in the store's order, not the order it was made in.
            self.assertEqual(sorted(ap.ctl("show", "running-config").stdout.splitlines()), saved)
            # The simulated radios start with tracking off and no objects: only the
            # daemon can have set them.
            state = ap.radio(f"state {radio}")
            for want in ("track 1", "lmatch 1", f"obj mac {listed}"):
                self.assertIn(want, state, f"after {sig.name}")
            mark = site.server.mark()
            ap.radio(f"hear {radio} {unlisted} -40 1 2412")
            ap.radio(f"hear {radio} {listed} -50 1 2412")
            wait_report(site.server, "ap1", listed, mark, f"a report of {listed} after {sig.name}", 15)
            reported = {st["mac"] for m in site.server.since(mark)
                        if m.get("op") == "rssi report" for st in m.get("stations", [])}
            self.assertNotIn(unlisted, reported, f"after {sig.name}")

    def test_reports_queued_during_a_server_outage_arrive_in_order(self):
        site = self.make_site()
        site.start(interval=1)
        ap = site.aps[0]
        ap.ctl("location-tracking", "rssi-threshold", "0")
        ap.radio(f"assoc {ap.radios[0]} {STA} 2412")
        srv = site.server
        mark = srv.mark()
        srv.send(f"start ap1 mac={STA}")
        srv.wait_for(lambda m: m.get("op") == "ack", 10, mark, "the start ack")
        # The station's RSSI falls by one dB a second, so each report is newer than the last.
        rssi = [-30]

        def step():
            rssi[0] -= 1
            ap.radio(f"hear {ap.radios[0]} {STA} {rssi[0]} 1 2412")

        step()
        srv.wait_for(lambda m: m.get("op") == "rssi report", 10, mark, "a first report")
        srv.close()
        for _ in range(5):
            step()
            time.sleep(1)
        site.server = None
        site.start_server()
        for _ in range(3):
            step()
            time.sleep(1)
        got = [st["readings"][0]["rssi"] for m in site.server.since(0)
               if m.get("op") == "rssi report" for st in m["stations"] if st["mac"] == STA]
        self.assertGreaterEqual(len(got), 5, got)
        self.assertEqual(got, sorted(got, reverse=True), got)
        # The values heard while the server was away are among them.
        self.assertTrue(any(v <= -33 for v in got[:4]), got)

    def test_radio_coming_up_gets_tracking_applied_again(self):
        site = self.make_site()
        site.start(interval=1)
        ap = site.aps[0]
        ap.ctl("debug", "location-tracking", "event")
        ap.ctl("debug", "location-tracking", "info")
        ap.ctl("location-tracking", "mac", STA)
        radio = ap.radios[0]
        subprocess.run(["ip", "link", "set", radio, "down"], check=True)
        time.sleep(0.5)
        subprocess.run(["ip", "link", "set", radio, "up"], check=True)
        ltrsite.wait_until(lambda: "handle radio up event: access 1" in ap.log_tail(200), 10,
                           "the radio-up handling in the log")
        state = ap.radio(f"state {radio}")
        self.assertIn("track 1", state)
        self.assertIn(f"obj mac {STA}", state)


if __name__ == "__main__":
    systest.main(__file__)
