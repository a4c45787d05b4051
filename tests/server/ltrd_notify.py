#!/usr/bin/env python3
"""ltrd under a service manager's eye: READY=1 only once its CLI serves, a status
line that follows tracking, and watchdog kicks while it runs.
Usage: ltrd_notify.py LTRD LTRCTL"""
import os
import signal
import socket
import subprocess
import sys
import tempfile


def shm_key(instance, key=66049):
    """The settings segment's System V key, as the runtime mixes it with the instance."""
    h = 2166136261
    for c in f"{instance}:{key}".encode():
        h = ((h ^ c) * 16777619) & 0xFFFFFFFF
    return 1 if h in (0, 0xFFFFFFFF) else h


def main():
    ltrd, ltrctl = sys.argv[1:3]
    tmp = tempfile.mkdtemp(prefix="ltrd_notify.")
    inst = f"notify{os.getpid()}"
    cfg = os.path.join(tmp, "p.toml")
    with open(cfg, "w") as f:
        f.write(f'instance = "{inst}"\nruntime_dir = "{tmp}/run"\nforeground = true\n'
                f'[log]\nsyslog = false\nfile = "{tmp}/ltrd.log"\n'
                '[mgt]\nmac = "02:00:00:00:00:31"\nip = "127.0.0.1"\n'
                f'[neighbours]\nbind = "127.0.0.1"\nport = {21000 + os.getpid() % 20000}\n'
                f'[store]\ndir = "{tmp}/store"\n[[radio]]\nname = "lo"\ndriver = "sim"\n')
    sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
    sock.bind(os.path.join(tmp, "notify"))
    sock.settimeout(20)
    env = dict(os.environ, QZ_PLATFORM_CONFIG=cfg, NOTIFY_SOCKET=os.path.join(tmp, "notify"),
               WATCHDOG_USEC="400000")
    env.pop("WATCHDOG_PID", None)
    cli = os.path.join(tmp, "run", "cli.sock")
    # LTRD_WRAP: a command that runs ltrd under restrictions (a sandbox of the unit's).
    wrap = os.environ.get("LTRD_WRAP", "").split()
    proc = subprocess.Popen(wrap + [ltrd], env=env)
    failures = []

    def ctl(*args):
        return subprocess.run([ltrctl, "-s", cli, *args], capture_output=True, text=True)

    def until(pred, what):
        """Messages until pred holds for one; the ones seen on the way."""
        seen = []
        try:
            while True:
                m = sock.recv(4096).decode()
                seen.append(m)
                if pred(m):
                    return seen
        except socket.timeout:
            failures.append(f"no {what} in 20 s; got {seen[-5:]}")
            return seen

    try:
        seen = until(lambda m: "READY=1" in m, "READY=1")
        # Whoever waits for READY=1 may use the daemon at once.
        r = ctl("status")
        if r.returncode != 0:
            failures.append(f"READY=1 came before the CLI served: status {r.returncode} {r.stderr}")
        ready = [m for m in seen if "READY=1" in m]
        if ready and ready[0] != "READY=1\nSTATUS=tracking off, server not connected":
            failures.append(f"ready message {ready[0]!r}")
        for _ in range(3):  # idle, the daemon keeps kicking
            until(lambda m: m == "WATCHDOG=1", "WATCHDOG=1")
        if ctl("location-tracking", "enable").returncode != 0:
            failures.append("location-tracking enable failed")
        until(lambda m: m == "STATUS=tracking on 1 of 1 radio, server not connected",
              "status with tracking on")
        proc.send_signal(signal.SIGTERM)
        rc = proc.wait(timeout=30)
        if rc != 0:
            failures.append(f"exit status {rc} after SIGTERM")
    finally:
        if proc.poll() is None:
            proc.kill()
            proc.wait()
        subprocess.run(["ipcrm", "-M", str(shm_key(inst))], stderr=subprocess.DEVNULL)
        if failures:
            with open(os.path.join(tmp, "ltrd.log")) as f:
                sys.stderr.write(f.read()[-3000:])
        subprocess.run(["rm", "-rf", tmp])
    for f in failures:
        print("FAIL:", f, file=sys.stderr)
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
