#!/usr/bin/env python3
"""Footprint of a real ltrd: Pss, private dirty, VmHWM, VmSize and threads from
/proc/PID/smaps_rollup and /proc/PID/status, idle and at full load (512 stations,
each with 64 readings: its own and 63 relayed), and after the two big shows; then the
process's context switches (its wake-ups) over an idle window.

A two-access-point site runs in private namespaces (tools/site): ap1 is measured,
ap2 is its live neighbour, and a location server is connected. The 63 other
reporters are relays sent from a configured peer address.

Usage: bench/footprint.py [--build DIR] [--ltrd PATH] [--key] [--idle-seconds N]
"""
import argparse
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
RELAY_PEER = "127.0.0.99"
SITE_KEY = "footprint-key"


def sta_mac(i):
    return f"02:aa:00:00:{i >> 8:02x}:{i & 0xff:02x}"


def hear_all(ap):
    """Makes ap1's radio hear every station, through radio.sock on one connection."""
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


def stacks(pid):
    """Per thread (name/tid): resident and total KiB of the mapping that holds its stack
    pointer (read from /proc/PID/task/TID/syscall while it waits): the resident part is
    what its deepest call so far touched."""
    maps = []
    with open(f"/proc/{pid}/smaps") as f:
        for line in f:
            m = re.match(r"([0-9a-f]+)-([0-9a-f]+) ", line)
            if m:
                maps.append([int(m.group(1), 16), int(m.group(2), 16), 0])
            m = re.match(r"Rss:\s+(\d+) kB", line)
            if m:
                maps[-1][2] = int(m.group(1))
    out = []
    for tid in sorted(os.listdir(f"/proc/{pid}/task"), key=int):
        try:
            with open(f"/proc/{pid}/task/{tid}/syscall") as f:
                words = f.read().split()
            with open(f"/proc/{pid}/task/{tid}/comm") as f:
                name = f.read().strip()
        except OSError:
            continue
        if len(words) < 3:
            continue  # running, not in a system call
        sp = int(words[-2], 16)
        for lo, hi, rss in maps:
            if lo <= sp < hi:
                out.append(f"{name}/{tid} {rss}/{(hi - lo) // 1024}")
    return out


def proc_figures(pid):
    """KiB figures of the whole process, and its thread count."""
    out = {}
    with open(f"/proc/{pid}/smaps_rollup") as f:
        for line in f:
            m = re.match(r"(Pss|Private_Dirty|Rss):\s+(\d+) kB", line)
            if m:
                out[m.group(1)] = int(m.group(2))
    with open(f"/proc/{pid}/status") as f:
        for line in f:
            m = re.match(r"(VmHWM|VmSize|Threads):\s+(\d+)", line)
            if m:
                out[m.group(1)] = int(m.group(2))
    return out


def dirty_by_mapping(pid, top=8):
    """The mappings holding the most private dirty memory: (KiB, name)."""
    out, name = {}, None
    with open(f"/proc/{pid}/smaps") as f:
        for line in f:
            m = re.match(r"[0-9a-f]+-[0-9a-f]+ \S+ \S+ \S+ \d+\s*(.*)$", line)
            if m:
                name = os.path.basename(m.group(1)) or "[anon]"
                continue
            m = re.match(r"Private_Dirty:\s+(\d+) kB", line)
            if m:
                out[name] = out.get(name, 0) + int(m.group(1))
    return sorted(((v, k) for k, v in out.items() if v), reverse=True)[:top]


def switches(pid):
    """Voluntary and involuntary context switches of every thread, by thread name."""
    by = {}
    for tid in os.listdir(f"/proc/{pid}/task"):
        try:
            with open(f"/proc/{pid}/task/{tid}/status") as f:
                text = f.read()
        except OSError:
            continue
        name = re.search(r"^Name:\s+(.*)$", text, re.M).group(1)
        n = sum(int(v) for v in re.findall(r"ctxt_switches:\s+(\d+)", text))
        by[f"{name}/{tid}"] = n
    return by


def show(label, fig):
    print(f"{label:<28} Pss {fig['Pss']:>6} KiB  private dirty {fig['Private_Dirty']:>6} KiB  "
          f"VmHWM {fig['VmHWM']:>6} KiB  VmSize {fig['VmSize'] // 1024:>4} MiB  "
          f"threads {fig['Threads']}", flush=True)


EPOCH = int(time.time() * 1e6)


def relays(ap, key, rnd):
    """One datagram per (station, reporter): 28-byte relays in the neighbour envelope,
    tagged when the site has a key; counters go on from round to round (a replayed
    counter is dropped)."""
    src = socket.inet_aton(RELAY_PEER)
    out = []
    for r in range(REPORTERS):
        reporter = bytes([0x02, 0xfd, 0, 0, 0, r + 1])
        for i in range(STATIONS):
            relay = struct.pack(">I4sHH", 0, src, 16, 0) + bytes.fromhex(
                sta_mac(i).replace(":", "")) + reporter + struct.pack(">BbH", 1, -60 - r % 20, 2412)
            counter = (rnd * REPORTERS + r) * STATIONS + i + 1
            d = (b"QZNM" + bytes([2, 1 if key else 0]) + struct.pack(">H", 52) + src
                 + struct.pack(">QQ", EPOCH, counter) + relay)
            if key:
                d += hmac.new(key.encode(), d, hashlib.sha256).digest()[:16]
            out.append(d)
    return out


def counters(ap):
    text = ap.ctl("status").stdout
    return {k: int(v) for k, v in re.findall(r"^(\S+) (\d+)$", text, re.M)}


def main():
    p = argparse.ArgumentParser()
    p.add_argument("--build", default=os.path.join(REPO, "build", "release"))
    p.add_argument("--ltrd", help="ltrd to measure (default: the build's)")
    p.add_argument("--key", action="store_true", help="authenticate neighbours with a site key")
    p.add_argument("--idle-seconds", type=int, default=60)
    a = p.parse_args()
    build = os.path.abspath(a.build)
    ltrd = os.path.abspath(a.ltrd) if a.ltrd else None
    if not ltrsite.namespaces_available():
        sys.exit("this machine does not allow user and network namespaces (unshare -Urn)")
    argv = [os.path.abspath(__file__), "--build", build, "--idle-seconds", str(a.idle_seconds)]
    argv += (["--ltrd", ltrd] if ltrd else []) + (["--key"] if a.key else [])
    ltrsite.enter_namespaces(argv, keep=[REPO, build] + ([os.path.dirname(ltrd)] if ltrd else []))

    site = ltrsite.Site(build, aps=2, radios=1, key=SITE_KEY if a.key else None,
                        root="/tmp/footprint")
    if ltrd:
        site.bin = lambda name, b=site.bin: ltrd if name == "ltrd" else b(name)
    ap1, ap2 = site.aps
    ap1.write_config([ap2.ip, RELAY_PEER])
    try:
        site.start_server()
        for ap in site.aps:
            ap.start()
        for ap in site.aps:
            site.server.wait_for(lambda m, n=ap.name: m.get("event") == "hello" and m.get("ap") == n,
                                 10, what=f"{ap.name} to say hello")
        pid = ap1.proc.pid
        print(f"ltrd {site.bin('ltrd')}, site key: {'yes' if a.key else 'no'}, "
              f"{time.strftime('%Y-%m-%d %H:%M UTC', time.gmtime())}")
        time.sleep(2)
        show("idle", proc_figures(pid))
        print("  private dirty by mapping (KiB): " +
              ", ".join(f"{n} {v}" for v, n in dirty_by_mapping(pid)))

        # Idle wake-ups: every thread's context switches over the window.
        before = switches(pid)
        time.sleep(a.idle_seconds)
        after = switches(pid)
        total = 0
        for k in sorted(after):
            d = after[k] - before.get(k, 0)
            total += d
            print(f"  wake-ups {k:<24} {d}")
        print(f"idle wake-ups over {a.idle_seconds} s: {total} ({len(after)} threads)", flush=True)

        for ap in site.aps:
            ap.ctl("location-tracking", "report-interval", "1")
            ap.ctl("location-tracking", "enable")
        site.server.send("start all interval=1 oui=02:aa:00")
        hear_all(ap1)
        ltrsite.wait_until(lambda: ap1.ctl("show", "location-tracking", "rssi").stdout
                           .count("Station: ") >= STATIONS, 20, "ap1 to hear every station")
        s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        s.bind((RELAY_PEER, 0))
        rx0 = counters(ap1).get("nbr.rx", 0)
        for rnd in range(2):  # two rounds: the second finds every reading in place
            dgrams = relays(ap1, SITE_KEY if a.key else None, rnd)
            for i, d in enumerate(dgrams):
                s.sendto(d, (ap1.ip, 7421))
                if i % 256 == 255:
                    time.sleep(0.002)  # within the socket buffer
        s.close()
        ltrsite.wait_until(lambda: counters(ap1).get("nbr.rx", 0) - rx0 >= 2 * len(dgrams), 20,
                           "every relay to be taken in")
        show("full load", proc_figures(pid))
        text = ap1.ctl("show", "location-tracking", "rssi").stdout
        readings = len(re.findall(r"^\d+ +[0-9a-f]{4}\.", text, re.M))
        print(f"  show rssi: {len(text)} bytes, {text.count('Station: ')} stations, "
              f"{readings} readings")
        show("after show rssi", proc_figures(pid))
        ap1.ctl("show", "running-config")
        show("after show running-config", proc_figures(pid))
        print("  thread stacks (resident/size KiB): " + ", ".join(stacks(pid)))
    finally:
        site.close()


if __name__ == "__main__":
    main()
