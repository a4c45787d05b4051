#!/usr/bin/env python3
"""Relay ingest of a real ltrd against a bare UDP receive loop, in the same run.

One sender (bench program relay_blast, sendmmsg) sends 28-byte relays for 512 known
stations, each from one of 63 reporters, as fast as it can for a few seconds: once to
a bare receive loop (relay_blast sink) and once to ltrd (tracking on, the stations
heard by its radio), without and with a site key. For each: datagrams per second
taken in (ltrd: nbr.rx, every one delivered to the relay handler), the relayed
readings held afterwards, drops (sent but never taken in), and the CPU time each
datagram cost the receiver: on a machine that other work shares, the ratio of those
says what one free core would take in.

Usage: bench/relay_ingest.py [--build DIR] [--ltrd PATH] [--seconds N]
"""
import argparse
import os
import re
import struct
import subprocess
import time

import benchsite as bs

PEER = bs.PEER
KEY = "relay-ingest-key"


def datagrams(key):
    """Every (reporter, station) relay in the neighbour envelope, tagged with key, each
    as a u16 big-endian length and its bytes."""
    return b"".join(struct.pack(">H", len(d)) + d for d in bs.Relays(key).datagrams())


def blast(tool, path, dst, port, seconds, key):
    r = subprocess.run([tool, "send", path, PEER, dst, str(port), str(seconds)]
                       + ([key] if key else []),
                       capture_output=True, text=True, check=True)
    return int(re.search(r"sent (\d+)", r.stdout).group(1))


def bare(tool, path, seconds, key):
    sink = subprocess.Popen([tool, "sink", "127.0.0.50", "7500", str(seconds + 5)],
                            stdout=subprocess.PIPE, text=True)
    sink.stdout.readline()  # ready
    sent = blast(tool, path, "127.0.0.50", 7500, seconds, key)
    out = sink.communicate()[0]
    got, secs, cpu = re.search(r"received (\d+) in ([\d.]+) s, cpu ([\d.]+) s", out).groups()
    return sent, int(got), float(secs), float(cpu)


def cpu_by_thread(pid):
    """CPU seconds of each thread of pid (schedstat: nanoseconds on a CPU)."""
    out = {}
    for tid in os.listdir(f"/proc/{pid}/task"):
        try:
            with open(f"/proc/{pid}/task/{tid}/schedstat") as f:
                out[tid] = int(f.read().split()[0]) / 1e9
        except OSError:
            pass
    return out


def ingest(ap, tool, path, seconds, key):
    """Sends to ap while watching nbr.rx; returns sent, taken in, seconds until the
    last one was taken in, and the kernel's count of datagrams it dropped."""
    before = bs.counters(ap)
    cpu0 = cpu_by_thread(ap.proc.pid)
    t0 = time.monotonic()
    sender = subprocess.Popen([tool, "send", path, PEER, ap.ip, "7421", str(seconds)]
                              + ([key] if key else []),
                              stdout=subprocess.PIPE, text=True)
    rx, last_change, last_rx = before.get("nbr.rx", 0), t0, before.get("nbr.rx", 0)
    while sender.poll() is None or time.monotonic() - last_change < 0.5:
        time.sleep(0.05)
        rx = bs.counters(ap).get("nbr.rx", 0)
        if rx != last_rx:
            last_rx, last_change = rx, time.monotonic()
    sent = int(re.search(r"sent (\d+)", sender.stdout.read()).group(1))
    after = bs.counters(ap)
    return (sent, after.get("nbr.rx", 0) - before.get("nbr.rx", 0), last_change - t0,
            after.get("nbr.drop.overflow", 0) - before.get("nbr.drop.overflow", 0),
            # the receiving thread: the one that worked most (the status polls above
            # and the report cycle run on others)
            max(v - cpu0.get(t, 0) for t, v in cpu_by_thread(ap.proc.pid).items()))


def run(build, ltrd, key, seconds):
    tool = os.path.join(build, "bench", "relay_blast")
    site = bs.site(build, ltrd, 1, key, f"/tmp/relay-{'key' if key else 'plain'}")
    ap = site.aps[0]
    ap.write_config([PEER])
    path = f"{site.root}/relays.bin"
    with open(path, "wb") as f:
        f.write(datagrams(key))
    try:
        site.start(enable=True, interval=1)
        site.server.send("start all interval=1 oui=02:aa:00")
        bs.hear_all(ap)
        b_sent, b_got, b_secs, b_cpu = bare(tool, path, seconds, key)
        l_sent, l_got, l_secs, l_overflow, l_cpu = ingest(ap, tool, path, seconds, key)
        show = ap.ctl("show", "location-tracking", "rssi").stdout
        stored = len(re.findall(r"^\d+ +02fd\.", show, re.M))
        b_rate, l_rate = b_got / b_secs, l_got / l_secs
        # CPU per datagram: what one free core could take in, whatever else ran.
        b_us, l_us = b_cpu / b_got * 1e6, l_cpu / l_got * 1e6
        label = "with site key" if key else "no key"
        print(f"{label}: bare loop {b_rate:,.0f}/s (sent {b_sent:,}, dropped {b_sent - b_got:,}, "
              f"{b_us:.2f} us CPU each); ltrd {l_rate:,.0f}/s (sent {l_sent:,}, taken in "
              f"{l_got:,}, dropped {l_sent - l_got:,}, socket overflow {l_overflow:,}, "
              f"{l_us:.2f} us CPU each; relayed readings held {stored:,}); "
              f"ratio {l_rate / b_rate:.2f}, per core {b_us / l_us:.2f}", flush=True)
    finally:
        site.close()


def main():
    p = argparse.ArgumentParser()
    p.add_argument("--build", default=os.path.join(bs.REPO, "build", "release"))
    p.add_argument("--ltrd", help="ltrd to measure (default: the build's)")
    p.add_argument("--seconds", type=float, default=3)
    a = p.parse_args()
    build = os.path.abspath(a.build)
    ltrd = os.path.abspath(a.ltrd) if a.ltrd else None
    bs.enter(__file__, ["--build", build, "--seconds", str(a.seconds)] + (["--ltrd", ltrd] if ltrd else []),
             build, ltrd)
    print(f"relay ingest of {ltrd or os.path.join(build, 'ltrd')}, "
          f"{time.strftime('%Y-%m-%d %H:%M UTC', time.gmtime())}, {a.seconds:g} s per run, one sender")
    for key in (None, KEY):
        run(build, ltrd, key, a.seconds)


if __name__ == "__main__":
    main()
