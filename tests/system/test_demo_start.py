"""The demo as a new user starts it: help before any install or build, the namespaces
it can have (as root without a user namespace, as in a chroot), the true cause when it
has none, and output that fits 80 columns and, when not on a terminal, only changes.
Needs no namespaces itself."""
import argparse
import importlib.machinery
import importlib.util
import os
import subprocess
import sys
import tempfile
import time
import types
import unittest
from unittest import mock

HERE = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.abspath(os.path.join(HERE, "..", ".."))
sys.path.insert(0, os.path.join(REPO, "tools", "site"))
import ltrsite  # noqa: E402

loader = importlib.machinery.SourceFileLoader("ltr_demo", os.path.join(REPO, "tools", "site", "ltr-demo"))
demo = importlib.util.module_from_spec(importlib.util.spec_from_loader("ltr_demo", loader))
loader.exec_module(demo)


def fake_bin(d, name, body):
    path = os.path.join(d, name)
    with open(path, "w") as f:
        f.write("#!/bin/sh\n" + body + "\n")
    os.chmod(path, 0o755)


class Namespaces(unittest.TestCase):
    def probe(self, unshare_body, euid):
        """namespace_flags() with a fake unshare and ip first on PATH."""
        with tempfile.TemporaryDirectory() as d:
            fake_bin(d, "unshare", unshare_body)
            fake_bin(d, "ip", "exit 0")
            env = {k: v for k, v in os.environ.items() if not k.startswith(ltrsite.NS_ENV)}
            env["PATH"] = d + ":" + env.get("PATH", "")
            with mock.patch.dict(os.environ, env, clear=True), \
                    mock.patch.object(os, "geteuid", return_value=euid), \
                    mock.patch.object(ltrsite, "_ns_probe", None):
                return ltrsite.namespace_flags()

    REFUSE_USER = ('case "$1" in -U*) echo "unshare: unshare failed: Operation not permitted" >&2;'
                   ' exit 1;; esac; exit 0')

    def test_root_falls_back_to_namespaces_without_a_user_namespace(self):
        self.assertEqual(self.probe(self.REFUSE_USER, 0), (["-nimp"], None))
        self.assertEqual(self.probe("exit 0", 1000), (["-Urnimp"], None))

    def test_the_true_cause_when_nothing_works(self):
        flags, why = self.probe(self.REFUSE_USER, 1000)  # no fallback for a user
        self.assertIsNone(flags)
        self.assertEqual(why, "unshare -Urnimp: unshare: unshare failed: Operation not permitted")
        flags, why = self.probe('echo "ip: RTNETLINK answers: Operation not permitted" >&2; exit 2', 0)
        self.assertIsNone(flags)
        self.assertIn("unshare -nimp: ip: RTNETLINK answers: Operation not permitted", why)


class Output(unittest.TestCase):
    def setUp(self):
        self.site = types.SimpleNamespace(aps=[types.SimpleNamespace(
            name=f"ap{i}", ip=f"10.99.0.{i}", mac=f"02:00:00:00:0{i}:00") for i in (1, 2, 3)])
        loud = {ap.mac: {"rssi": -100, "freq": 5180} for ap in self.site.aps}
        self.stations = {f"02:00:00:00:00:0{i}": {"owner": "ap1", "readings": dict(loud),
                                                  "t": time.monotonic()} for i in (1, 2)}

    def test_every_line_fits_80_columns(self):
        replay = {"captures": ["/x/" + "c" * 90 + ".pcap"] * 3, "speed": 600, "span": None}
        for r in (None, replay):
            for line in demo.render(self.site, self.stations, time.monotonic() - 1e4, 60, r).split("\n"):
                self.assertLessEqual(len(line), 80, line)
        for line in demo.changes(self.site, self.stations, {}, time.monotonic() - 1e4):
            self.assertLessEqual(len(line), 80, line)

    def test_not_on_a_terminal_only_changes_are_printed(self):
        shown = {}
        self.assertEqual(len(demo.changes(self.site, self.stations, shown, 0)), 2)
        self.assertEqual(demo.changes(self.site, self.stations, shown, 0), [])
        self.stations["02:00:00:00:00:02"]["owner"] = "ap2"
        got = demo.changes(self.site, self.stations, shown, 0)
        self.assertEqual(len(got), 1)
        self.assertIn("02:00:00:00:00:02 ap2", got[0])


class Help(unittest.TestCase):
    def test_help_comes_before_installing_or_building(self):
        with tempfile.TemporaryDirectory() as d:
            log = os.path.join(d, "calls")
            for tool in ("cmake", "apt-get", "sudo", "dpkg-query", "dpkg"):
                fake_bin(d, tool, f'echo {tool} >> "{log}"; exit 1')
            env = dict(os.environ, PATH=d + ":" + os.environ.get("PATH", ""))
            r = subprocess.run(["bash", os.path.join(REPO, "scripts", "demo"), "--help"],
                               capture_output=True, text=True, env=env, timeout=60)
            self.assertEqual(r.returncode, 0, r.stderr)
            self.assertIn("usage:", r.stdout)
            self.assertIn("--duration", r.stdout)
            self.assertFalse(os.path.exists(log), open(log).read() if os.path.exists(log) else "")


if __name__ == "__main__":
    p = argparse.ArgumentParser()
    p.add_argument("--build")
    _, rest = p.parse_known_args()
    unittest.main(argv=[sys.argv[0]] + rest, verbosity=2)
