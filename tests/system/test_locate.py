"""Positions from real reports: on a site of walking stations, the position engine is
at least nearly twice as close as the nearest access point and closer than the
RSSI-weighted centroid (the accuracy benchmark, shortened)."""
import os
import subprocess
import sys
import types

import systest
from systest import SiteTest

sys.path.insert(0, os.path.join(systest.REPO, "bench", "locate"))
import accuracy  # noqa: E402


def medians(text):
    """Row name -> median error, from the evaluator's table."""
    rows = text.split("error in metres", 1)[1].splitlines()[1:]
    return {r[:32].strip(): float(r[32:].split()[0]) for r in rows if r[32:].strip()[:1].isdigit()}


class Locate(SiteTest):
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
