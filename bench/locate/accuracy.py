#!/usr/bin/env python3
"""Accuracy of the position engine on a simulated site, from real reports.

Runs the site of office.world.toml on this machine (one ltrd per access point, their
simulated radios on one shared world clock, one ltr-server), tracks every station for
--duration seconds, records each RSSI report as the server prints it, and then has
ltr_locate_eval score the engine and two baselines against the world's true positions.
"""
import argparse
import os
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
REPO = os.path.abspath(os.path.join(HERE, "..", ".."))
sys.path.insert(0, os.path.join(REPO, "tools", "site"))
import ltrsite  # noqa: E402


def parse():
    p = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    p.add_argument("--build", default=os.path.join(REPO, "build", "release"),
                   help="build directory with ltrd, ltrctl, ltr-server and ltr_locate_eval")
    p.add_argument("--world", default=os.path.join(HERE, "office.world.toml"))
    p.add_argument("--aps", type=int, default=5, help="access points ap1..apN of the world")
    p.add_argument("--duration", type=float, default=120, help="seconds of reports to score")
    p.add_argument("--interval", type=int, default=1, help="report interval in seconds")
    p.add_argument("--seed", type=int, default=7)
    p.add_argument("--calibrate", type=float, default=20,
                   help="seconds at the start whose readings calibrate the model")
    p.add_argument("--reports", default=None,
                   help="also keep the recorded reports in this file (outside /tmp)")
    return p.parse_args()


def record(args, path):
    """Runs the site and writes one line per station per report to path."""
    epoch = round(time.time() + 2, 3)  # world time 0 just after the site is up
    site = ltrsite.Site(args.build, aps=args.aps, radios=2, world=args.world, seed=args.seed,
                        epoch=epoch)
    names = {ap.mac: ap.name for ap in site.aps}
    # Monotonic stamps of the server reader, on the Unix clock of the epoch.
    to_unix = time.time() - time.monotonic()
    n = 0
    try:
        site.start(interval=args.interval)
        srv = site.server
        mark = srv.mark()
        srv.send(f"start all interval={args.interval} oui=02:00:00")
        for ap in site.aps:
            srv.wait_for(lambda m, a=ap.name: m.get("op") == "ack" and m.get("ap") == a, 10, mark,
                         f"the ack of {ap.name}")
        seen = srv.mark()
        first = srv.wait_for(lambda m: m.get("op") == "rssi report", 20, seen, "a first report")
        end = first["_t"] + args.duration
        with open(path, "w") as out:
            while time.monotonic() < end + 0.5:
                time.sleep(0.2)
                for m in srv.since(seen):
                    seen += 1
                    if m.get("op") != "rssi report" or m["_t"] > end:
                        continue
                    t = m["_t"] + to_unix - epoch
                    for st in m.get("stations", []):
                        rd = [f"{names[r['ap_mac']]}:{r['freq']}:{r['rssi']}"
                              for r in st.get("readings", []) if r["ap_mac"] in names]
                        if rd:
                            out.write(f"{t:.3f} {st['mac']} {' '.join(rd)}\n")
                            n += 1
        srv.send("stop all mac=all")
    finally:
        site.close()
    return n


def main():
    args = parse()
    if not ltrsite.namespaces_available():
        sys.exit("accuracy: this machine does not allow user and network namespaces (unshare -Urn)")
    keep = [REPO, args.build, os.path.dirname(os.path.abspath(args.world))]
    if args.reports:
        args.reports = os.path.abspath(args.reports)
        keep.append(os.path.dirname(args.reports))
    ltrsite.enter_namespaces([os.path.abspath(__file__)] + sys.argv[1:], keep=keep)
    evaluate = os.path.join(args.build, "bench", "ltr_locate_eval")
    if not os.path.exists(evaluate):
        sys.exit(f"accuracy: {evaluate} is missing; build the target ltr_locate_eval")
    path = args.reports or "/tmp/site/reports.txt"
    os.makedirs(os.path.dirname(path), exist_ok=True)
    print(f"accuracy: {args.aps} access points, world {os.path.relpath(args.world, REPO)}, "
          f"seed {args.seed}, report interval {args.interval} s, {args.duration:g} s of reports",
          flush=True)
    n = record(args, path)
    print(f"recorded {n} station reports\n", flush=True)
    os.execv(evaluate, [evaluate, args.world, path, str(args.calibrate)])


if __name__ == "__main__":
    main()
