"""What an access point keeps across restarts and crashes (saving and replaying a
configuration on a fresh daemon is the CLI round-trip script's)."""
import os
import random
import signal
import subprocess
import time

import systest
from systest import SiteTest

MACS = [f"02:bb:00:00:00:{i:02x}" for i in range(1, 9)]


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
            env = dict(os.environ)
            p = subprocess.Popen([site.bin("ltrctl"), "-k", "-s", ap.sock("cli.sock"), "-f", "-"],
                                 stdin=subprocess.PIPE, stdout=subprocess.DEVNULL,
                                 stderr=subprocess.DEVNULL, text=True, env=env)
            p.stdin.write("\n".join(edits) + "\n")
            p.stdin.close()
            time.sleep(rnd.uniform(0.0, 0.15))
            ap.stop(signal.SIGKILL)
            p.wait(timeout=10)
            ap.start()
            rows = track_rows(ap)
            macs = [r[2] for r in rows]
            self.assertEqual(len(macs), len(set(macs)), f"round {round_}: duplicates {rows}")
            for r in rows:
                self.assertEqual(r[1], "mac", f"round {round_}: {rows}")
            self.assertEqual([int(r[0]) for r in rows], list(range(1, len(rows) + 1)))

    def test_restart_puts_the_tracking_list_back_on_the_radios(self):
        site = self.make_site()
        site.start(interval=1)
        ap = site.aps[0]
        radio = ap.radios[0]
        listed, unlisted = MACS[0], MACS[1]
        ap.ctl("location-tracking", "mac", listed)
        ap.ctl("location-tracking", "list-match")
        for sig in (signal.SIGTERM, signal.SIGKILL):
            ap.stop(sig)
            ap.start()
            # The simulated radios start with tracking off and no objects: only the
            # daemon can have set them.
            state = ap.radio(f"state {radio}")
            self.assertIn("track 1", state, f"after {sig.name}")
            self.assertIn("lmatch 1", state, f"after {sig.name}")
            self.assertIn(f"obj mac {listed}", state, f"after {sig.name}")
            mark = site.server.mark()
            ap.radio(f"hear {radio} {unlisted} -40 1 2412")
            ap.radio(f"hear {radio} {listed} -50 1 2412")
            site.server.wait_for(lambda m: m.get("op") == "rssi report" and any(
                st["mac"] == listed for st in m.get("stations", [])), 15, mark,
                f"a report of {listed} after {sig.name}")
            reported = {st["mac"] for m in site.server.since(mark)
                        if m.get("op") == "rssi report" for st in m.get("stations", [])}
            self.assertNotIn(unlisted, reported, f"after {sig.name}")

    def test_restart_keeps_every_setting_and_the_tracking_list(self):
        site = self.make_site()
        site.start(enable=False)
        ap = site.aps[0]
        ap.ctl("-f", "-", stdin=(
            "location-tracking enable\nlocation-tracking report-interval 7\n"
            "location-tracking rssi-threshold 6\nlocation-tracking valid-period 90\n"
            "location-tracking hold-time 2\nlocation-tracking suppress 4\n"
            "location-tracking mac 02:bb:00:00:00:05\nlocation-tracking oui 0a:1b:2c\n"
            "location-tracking mac 02:bb:00:00:00:03\nno location-tracking list-match\n"))
        saved = ap.ctl("show", "running-config").stdout
        self.assertEqual(ap.stop(), 0)
        ap.start()
        # The list comes back in the store's order, not the order it was made in.
        self.assertEqual(sorted(ap.ctl("show", "running-config").stdout.splitlines()),
                         sorted(saved.splitlines()))
        self.assertIn("Engine Status:                          enabled",
                      ap.ctl("show", "location-tracking", "state").stdout)


if __name__ == "__main__":
    systest.main(__file__)
