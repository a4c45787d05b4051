"""Shared start of the system tests: find the build, enter the namespaces, run."""
import argparse
import os
import re
import sys
import unittest
import warnings

HERE = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.abspath(os.path.join(HERE, "..", ".."))
sys.path.insert(0, os.path.join(REPO, "tools", "site"))
import ltrsite  # noqa: E402

BUILD = None
wait_until = ltrsite.wait_until


def counters(ap):
    """The access point's status counters, by name."""
    return {k: int(v) for k, v in re.findall(r"^(\S+) (\d+)$", ap.ctl("status").stdout, re.M)}


def report_of(m, ap, sta):
    """The station entry of an RSSI report from ap (any access point: None), or None."""
    if m.get("op") != "rssi report" or ap and m.get("ap") != ap:
        return None
    return next((st for st in m.get("stations", []) if st["mac"] == sta), None)


def readers(st):
    """A reported station's readings by the MAC of the access point that made them."""
    return {r["ap_mac"]: r for r in st["readings"]}


def wait_report(srv, ap, sta, since, what, timeout=30, by=None):
    """The first report from ap naming sta (with by: with readings of exactly those MACs)."""
    return srv.wait_for(lambda m: (st := report_of(m, ap, sta)) is not None
                        and (by is None or set(readers(st)) == set(by)), timeout, since, what)


def request(srv, cmd, op="ack"):
    """Sends a server command; the reply carrying its message id."""
    mark = srv.mark()
    srv.send(cmd)
    sent = srv.wait_for(lambda m: m.get("event") == "sent", 5, mark, f"'{cmd}' to go out")
    return srv.wait_for(lambda m: m.get("op") == op and m.get("msg_id") == sent["msg_id"],
                        10, mark, f"the reply to '{cmd}'")


def main(script):
    global BUILD
    p = argparse.ArgumentParser()
    p.add_argument("--build", default=os.path.join(REPO, "build", "release"))
    args, rest = p.parse_known_args()
    BUILD = os.path.abspath(args.build)
    flags, why = ltrsite.namespace_flags()
    if not flags:
        print(f"SKIP: system tests need namespaces: {why}")
        sys.exit(77)
    ltrsite.enter_namespaces([os.path.abspath(script), "--build", BUILD] + rest,
                             keep=[REPO, BUILD])
    warnings.simplefilter("ignore", ResourceWarning)
    unittest.main(argv=[script] + rest, verbosity=2)


class SiteTest(unittest.TestCase):
    """A test with a fresh site per test; everything lives under its own /tmp root."""
    aps = 2
    radios = 1
    key = None
    world = None
    tls = False

    def make_site(self, **kw):
        n = getattr(self, "_n", 0) + 1
        self._n = n
        root = f"/tmp/{self.id().split('.')[-1]}-{n}"
        site = ltrsite.Site(BUILD, root=root, aps=kw.get("aps", self.aps),
                            radios=kw.get("radios", self.radios), key=kw.get("key", self.key),
                            world=kw.get("world", self.world), tls=kw.get("tls", self.tls))
        self.addCleanup(site.close)
        return site
