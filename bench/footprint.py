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
import os
import re
import socket
import time

import benchsite as bs
from benchsite import ltrsite

SITE_KEY = "footprint-key"


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


def dirty_by_mapping(pid, top=20):
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


def by_mapping(pid):
    print("  private dirty by mapping (KiB): " +
          ", ".join(f"{n} {v}" for v, n in dirty_by_mapping(pid)))


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


def main():
    p = argparse.ArgumentParser()
    p.add_argument("--build", default=os.path.join(bs.REPO, "build", "release"))
    p.add_argument("--ltrd", help="ltrd to measure (default: the build's)")
    p.add_argument("--key", action="store_true", help="authenticate neighbours with a site key")
    p.add_argument("--idle-seconds", type=int, default=60)
    a = p.parse_args()
    build = os.path.abspath(a.build)
    ltrd = os.path.abspath(a.ltrd) if a.ltrd else None
    argv = ["--build", build, "--idle-seconds", str(a.idle_seconds)]
    argv += (["--ltrd", ltrd] if ltrd else []) + (["--key"] if a.key else [])
    bs.enter(__file__, argv, build, ltrd)

    site = bs.site(build, ltrd, 2, SITE_KEY if a.key else None, "/tmp/footprint")
    ap1, ap2 = site.aps
    ap1.write_config([ap2.ip, bs.PEER])
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
        by_mapping(pid)

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
        bs.hear_all(ap1)
        relays = bs.Relays(SITE_KEY if a.key else None)
        s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        s.bind((bs.PEER, 0))
        rx0 = bs.counters(ap1).get("nbr.rx", 0)
        sent = 0
        for _ in range(2):  # two rounds: the second finds every reading in place
            for i, d in enumerate(relays.datagrams()):
                s.sendto(d, (ap1.ip, bs.NBR_PORT))
                sent += 1
                if i % 256 == 255:
                    time.sleep(0.002)  # within the socket buffer
        s.close()
        try:
            ltrsite.wait_until(lambda: bs.counters(ap1).get("nbr.rx", 0) - rx0 >= sent, 20,
                               "every relay to be taken in")
        except ltrsite.SiteError as e:
            c = bs.counters(ap1)
            raise ltrsite.SiteError(f"{e}: {c.get('nbr.rx', 0) - rx0} of {sent}; "
                                    f"neighbour drops: {bs.drops(c)}") from None
        show("full load", proc_figures(pid))
        by_mapping(pid)
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
