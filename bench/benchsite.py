"""What the benchmarks that run a real ltrd share: the namespaces they run in, the
stations and reporters of a loaded site, the relays they send and the counters they
read. The relays are neighbour datagrams as an access point sends them: the full
header (sender, epoch, counter, one counter per datagram), tagged with the site key.
"""
import hashlib
import hmac
import os
import re
import socket
import struct
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.dirname(HERE)
sys.path.insert(0, os.path.join(REPO, "tools", "site"))
import ltrsite  # noqa: E402

STATIONS = 512
REPORTERS = 63          # relayed readings per station, besides the local one
PEER = "127.0.0.99"     # where the relays come from: a configured peer of the measured AP
NBR_PORT = 7421
NBR_VERSION = 2
RELAY_MODULE = 52
TAG_LEN = 16


def sta_mac(i):
    return f"02:aa:00:00:{i >> 8:02x}:{i & 0xff:02x}"


def enter(script, argv, build, ltrd):
    """Re-runs script with argv in private user and network namespaces (or says why not)."""
    if not ltrsite.namespaces_available():
        sys.exit("this machine does not allow user and network namespaces (unshare -Urn)")
    ltrsite.enter_namespaces([os.path.abspath(script)] + argv,
                             keep=[REPO, build] + ([os.path.dirname(ltrd)] if ltrd else []))


def site(build, ltrd, aps, key, root):
    """A site of aps access points with one radio each, measuring ltrd (default: the
    build's)."""
    s = ltrsite.Site(build, aps=aps, radios=1, key=key, root=root)
    if ltrd:
        s.bin = lambda name, b=s.bin: ltrd if name == "ltrd" else b(name)
    # A binary or plugin just linked is dirty in the page cache until written back,
    # and would count as the process's private memory.
    for f in (s.bin("ltrd"), os.path.join(os.path.dirname(s.bin("ltrd")), "ltrd-crypto.so")):
        if os.path.exists(f):
            fd = os.open(f, os.O_RDONLY)
            os.fsync(fd)
            os.close(fd)
    return s


def hear_all(ap):
    """Makes ap's radio hear every station, through radio.sock on one connection."""
    lines = "".join(f"hear {ap.radios[0]} {sta_mac(i)} -50 1 2412\n" for i in range(STATIONS))
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as s:
        s.settimeout(10)
        s.connect(ap.sock("radio.sock"))
        s.sendall(lines.encode())
        buf = b""
        while buf.count(b"\n") < STATIONS:
            chunk = s.recv(65536)
            if not chunk:
                break
            buf += chunk
    if buf.count(b"ok\n") != STATIONS:
        raise ltrsite.SiteError(f"radio.sock refused a station: {buf[-200:]!r}")
    ltrsite.wait_until(lambda: ap.ctl("show", "location-tracking", "rssi").stdout
                       .count("Station: ") >= STATIONS, 20, "every station to be heard")


class Relays:
    """The 28-byte relays of every (reporter, station), from PEER: each call to
    datagrams() numbers its datagrams after the last ones, as the peer would."""

    def __init__(self, key):
        self.key = key.encode() if key else None
        self.epoch = int(time.time() * 1000)
        self.counter = 0
        src = socket.inet_aton(PEER)
        self.payloads = []
        for r in range(REPORTERS):
            reporter = bytes([0x02, 0xfd, 0, 0, 0, r + 1])
            for i in range(STATIONS):
                self.payloads.append(
                    struct.pack(">I4sHH", 0, src, 16, 0) + bytes.fromhex(sta_mac(i).replace(":", ""))
                    + reporter + struct.pack(">BbH", 1, -60 - r % 20, 2412))

    def datagrams(self):
        out = []
        flags = 1 if self.key else 0
        head = b"QZNM" + struct.pack(">BBH", NBR_VERSION, flags, RELAY_MODULE) + socket.inet_aton(PEER)
        for p in self.payloads:
            self.counter += 1
            d = head + struct.pack(">QQ", self.epoch, self.counter) + p
            if self.key:
                d += hmac.new(self.key, d, hashlib.sha256).digest()[:TAG_LEN]
            out.append(d)
        return out


def counters(ap):
    """ltrd's status counters, by name."""
    text = ap.ctl("status").stdout
    return {k: int(v) for k, v in re.findall(r"^(\S+) (\d+)$", text, re.M)}


def drops(c):
    """The neighbour drop counters that are not zero, as text (why relays went missing)."""
    return ", ".join(f"{k} {v}" for k, v in sorted(c.items()) if k.startswith("nbr.drop") and v) \
        or "none"
