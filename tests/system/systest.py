"""Shared start of the system tests: find the build, enter the namespaces, run."""
import argparse
import os
import sys
import unittest
import warnings

HERE = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.abspath(os.path.join(HERE, "..", ".."))
sys.path.insert(0, os.path.join(REPO, "tools", "site"))
import ltrsite  # noqa: E402

BUILD = None


def main(script):
    global BUILD
    p = argparse.ArgumentParser()
    p.add_argument("--build", default=os.path.join(REPO, "build", "release"))
    args, rest = p.parse_known_args()
    BUILD = os.path.abspath(args.build)
    if not ltrsite.namespaces_available():
        print("SKIP: this machine does not allow user and network namespaces (unshare -Urn); "
              "system tests need them")
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
