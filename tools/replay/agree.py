#!/usr/bin/env python3
"""Compares a live run of the daemon over `link-emulator play TRACE` with mlbd-replay (agree.sh).

  agree.py MLBD_REPLAY TRACE DIR      one scenario: DIR holds play.log and mlbd.log of the live run;
                                      prints a JSON result
  agree.py --table RESULT.json...     the agreement table (Markdown)
"""
import json
import os
import re
import subprocess
import sys
import time

HEADER = re.compile(r"^(\d\d)-(\d\d) (\d\d):(\d\d):(\d\d)\.(\d{3}) ")
SWITCH = re.compile(r"SLA_RTT_SELECTED perform switch (\S+)")
# Selection has started when the socket monitor, resumed by the start, polls for the first time.
START = re.compile(r"Mlbd-SocketMonitor: ")
# Lines of the main loop's cycle: the split calculation and the choice.
TICK = re.compile(r"Mlbd-SlaStatsImpl: calcSlaRatios|Mlbd-SlaPing: getFastestInterface")


def stamp_us(line, year):
    m = HEADER.match(line)
    if not m:
        return None
    mo, d, h, mi, s, ms = (int(x) for x in m.groups())
    return int(time.mktime((year, mo, d, h, mi, s, 0, 0, -1))) * 1000000 + ms * 1000


def live(dir_):
    with open(os.path.join(dir_, "play.log")) as f:
        t0 = int(re.search(r"play start (\d+)", f.read()).group(1))
    year = time.localtime(t0 / 1e6).tm_year
    switches, sls, ticks = [], None, []
    with open(os.path.join(dir_, "mlbd.log"), errors="replace") as f:
        for line in f:
            t = stamp_us(line, year)
            if t is None:
                continue
            if sls is None and START.search(line):
                sls = t
            m = SWITCH.search(line)
            if m:
                switches.append(((t - t0) / 1e6, m.group(1)))
            if TICK.search(line):
                ticks.append(t)
    return t0, sls, ticks, switches


def one(replay, trace, dir_):
    t0, sls, ticks, switches = live(dir_)
    if sls is None:
        return {"scenario": os.path.basename(trace), "error": "selection never started"}
    # The replay starts selection where the live daemon did, with the live loop's phase.
    sls_ms = max(0, (sls - t0) // 1000)
    period = 1000
    after = [t for t in ticks if t >= sls]
    phase = ((after[0] - t0) // 1000) % period if after else -1
    with open(trace) as f:
        text = f.read()
    shifted = os.path.join(dir_, "replay.trace")
    with open(shifted, "w") as f:
        f.write(text + f"\nsls {sls_ms}ms\n")
    args = [replay, "--log", os.path.join(dir_, "replay.log"), shifted]
    if phase >= 0:
        args[1:1] = ["--loop-phase", str(phase)]
    summary = json.loads(subprocess.run(args, check=True, capture_output=True, text=True).stdout)
    rep = [(s["t_s"] if isinstance(s["t_s"], float) else float(s["t_s"]), s["to"])
           for s in summary["switch_list"]]
    same = [s[1] for s in switches] == [s[1] for s in rep]
    diff = max((abs(a[0] - b[0]) for a, b in zip(switches, rep)), default=0.0) if same else None
    return {"scenario": os.path.basename(trace)[:-len(".trace")], "sls_start_s": sls_ms / 1000,
            "loop_phase_ms": phase, "live": switches, "replay": rep, "same_order": same,
            "max_diff_s": diff}


def table(paths):
    print("| Scenario | Switches live | Switches replay | Same order | Largest time difference |")
    print("|---|---|---|---|---|")
    for p in paths:
        try:
            with open(p) as f:
                r = json.load(f)
        except (OSError, ValueError):
            continue
        if "error" in r:
            print(f"| {r['scenario']} | {r['error']} | | | |")
            continue
        fmt = lambda l: ", ".join(f"{to} at {t:.2f} s" for t, to in l) or "none"
        diff = "-" if r["max_diff_s"] is None else f"{r['max_diff_s']:.2f} s"
        print(f"| {r['scenario']} | {fmt(r['live'])} | {fmt(r['replay'])} | "
              f"{'yes' if r['same_order'] else 'NO'} | {diff} |")


if __name__ == "__main__":
    if len(sys.argv) > 1 and sys.argv[1] == "--table":
        table(sys.argv[2:])
    elif len(sys.argv) == 4:
        print(json.dumps(one(*sys.argv[1:])))
    else:
        sys.exit(__doc__)
