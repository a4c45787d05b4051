#!/usr/bin/env python3
"""A location server that floods a real ltrd with 64 KiB PINGs and never reads:
ltrd's VmRSS must stay under the bound. Usage: ltrd_flood.py LTRD LTRCTL"""
import os
import select
import shutil
import socket
import struct
import subprocess
import sys
import tempfile
import time

RSS_BOUND_KB = 48 * 1024  # baseline ~10 MiB plus the link's bounds
FRAMES = 3000             # 190 MiB: far past any kernel buffer
PING = 3


def frame(kind, payload):
    return struct.pack(">IB", len(payload) + 1, kind) + payload


def rss_kb(pid):
    with open(f"/proc/{pid}/status") as f:
        for line in f:
            if line.startswith("VmRSS:"):
                return int(line.split()[1])
    return 0


def flood(conn, data, pid):
    """Sends data FRAMES times without reading; stops once ltrd takes nothing for a
    second. Returns (frames sent, highest VmRSS seen)."""
    conn.setblocking(False)
    sent, off, peak = 0, 0, rss_kb(pid)
    while sent < FRAMES:
        try:
            off += conn.send(data[off:])
        except BlockingIOError:
            if not select.select([], [conn], [], 1.0)[1]:
                break
            continue
        if off == len(data):
            sent, off = sent + 1, 0
            if sent % 16 == 0:
                peak = max(peak, rss_kb(pid))
    time.sleep(0.2)  # what ltrd read last is in its memory now
    return sent, max(peak, rss_kb(pid))


def main():
    ltrd, ltrctl = sys.argv[1], sys.argv[2]
    d = tempfile.mkdtemp(prefix="ltrd-flood.")
    lsock = socket.socket()
    lsock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    lsock.bind(("127.0.0.1", 0))
    lsock.listen(4)
    lsock.settimeout(20)
    port = lsock.getsockname()[1]
    with open(f"{d}/p.toml", "w") as f:
        f.write(f'instance = "flood{os.getpid()}"\nruntime_dir = "{d}/run"\nforeground = true\n'
                f'[log]\nsyslog = false\nfile = "{d}/ltrd.log"\n'
                f'[mgt]\nmac = "02:11:22:33:44:55"\nip = "127.0.0.1"\n'
                f'[server]\naddress = "127.0.0.1:{port}"\n'
                f'[neighbours]\nport = {port + 1 if port < 65535 else port - 1}\nbind = "127.0.0.1"\n'
                f'[store]\ndir = "{d}/store"\n')
    env = dict(os.environ, QZ_PLATFORM_CONFIG=f"{d}/p.toml")
    proc = subprocess.Popen([ltrd], env=env)
    failed = []
    try:
        for _ in range(100):
            if os.path.exists(f"{d}/run/cli.sock"):
                break
            time.sleep(0.1)
        subprocess.run([ltrctl, "-s", f"{d}/run/cli.sock", "location-tracking", "enable"],
                       check=True, stdout=subprocess.DEVNULL)
        conn, _ = lsock.accept()
        sent, peak = flood(conn, frame(PING, b"\x5a" * 65530), proc.pid)
        print(f"{sent} PINGs of 64 KiB sent, ltrd VmRSS peak {peak} kB")
        if peak > RSS_BOUND_KB:
            failed.append(f"VmRSS {peak} kB over {RSS_BOUND_KB} kB")
        conn.close()
        proc.terminate()
        if proc.wait(timeout=20) != 0:
            failed.append(f"ltrd exit status {proc.returncode} after SIGTERM")
    finally:
        if proc.poll() is None:
            proc.kill()
            proc.wait()
        if failed:
            sys.stderr.write(open(f"{d}/ltrd.log").read()[-4000:])
        shutil.rmtree(d, ignore_errors=True)
    for f in failed:
        print("FAIL:", f, file=sys.stderr)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
