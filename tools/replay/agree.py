#!/usr/bin/env python3
"""Compares a live run of the daemon over `link-emulator play TRACE` with mlbd-replay (agree.sh).

  agree.py MLBD_REPLAY TRACE DIR      one scenario: DIR holds play.log and mlbd.log of the live run;
                                      prints a JSON result
  agree.py --table RESULT.json...     the agreement table (Markdown)
  agree.py --trials RESULT.json...    live times to leave and to return per scenario over repeated
                                      runs: median and worst against the trace's expectations
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


POLL = re.compile(r"Mlbd-SocketMonitor: checkGamingServerRtt rtt is")
CHOICE = re.compile(r"Mlbd-SlaPing: getFastestInterface SLA_RTT fastest Interface is")
EARLY = re.compile(r"sleepUntilNextCycle SLA_RTT choice wanted before the next cycle")
RESET_DONE = re.compile(r"SLA_GAMING (Error )?destroying UDP sockets")
PROBE_RTT = re.compile(r"TCPing cacla rtt is (\d+),")
PROBE_START = re.compile(r"Mlbd-Tcping: populateTcpingSocket server is")
PROBE_END = re.compile(r"Mlbd-Tcping: (TCPing cacla rtt|connect failed|recieve failed)")


def median_cost(times, period_us, limit_us):
    """The median excess of consecutive periods over `period_us`, ms (periods above limit_us
    are gaps, not periods)."""
    d = sorted(b - a - period_us for a, b in zip(times, times[1:]) if 0 < b - a < limit_us)
    return max(0.0, d[len(d) // 2] / 1000) if d else 0.0


def live(dir_):
    with open(os.path.join(dir_, "play.log")) as f:
        t0 = int(re.search(r"play start (\d+)", f.read()).group(1))
    year = time.localtime(t0 / 1e6).tm_year
    switches, sls, ticks, polls, choices, pauses, ended = [], None, [], [], [], [], {}
    switch_costs, switched_at, started, extra, first_probe = [], None, {}, [], None
    early = False
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
                switched_at = t
            if RESET_DONE.search(line) and switched_at is not None:
                switch_costs.append(t - switched_at)
                switched_at = None
            if TICK.search(line):
                ticks.append(t)
            if POLL.search(line):
                polls.append(t)
            if EARLY.search(line):
                early = True
            elif CHOICE.search(line):
                # A choice the main loop's pause ran early (slow_leave_checks) is off its tick.
                if not early:
                    choices.append(t)
                early = False
            tid = line.split()[3] if len(line.split()) > 3 else ""
            if PROBE_END.search(line):
                ended[tid] = t
                m = PROBE_RTT.search(line)
                if m and tid in started:
                    # Beyond the handshake and ten round trips at the reported RTT.
                    extra.append((t - started[tid] - 11 * int(m.group(1)) * 1000) / 10)
            elif PROBE_START.search(line):
                started[tid] = t
                if first_probe is None:
                    first_probe = t
                if tid in ended:
                    # A pause, not the wait of a thread whose probing was stopped in between
                    # (or of a single refresh probe).
                    pause = t - ended.pop(tid)
                    if pause < 1000000:
                        pauses.append(pause)
    pauses.sort()
    switch_costs.sort()
    costs = (median_cost(sorted(choices + ticks), 1000000, 1100000),
             median_cost(polls, 1000000, 1500000),
             max(0.0, (pauses[len(pauses) // 2] - 500000) / 1000) if pauses else 0.0,
             switch_costs[len(switch_costs) // 2] / 1000 if switch_costs else 0.0,
             max(0.0, sorted(extra)[len(extra) // 2] / 1000) if extra else 0.0)
    return t0, sls, ticks, choices, switches, costs, first_probe


def one(replay, trace, dir_):
    t0, sls, ticks, choices, switches, costs, first_probe = live(dir_)
    if sls is None:
        return {"scenario": os.path.basename(trace), "error": "selection never started"}
    # The replay starts selection where the live daemon did, with the live loop's phase.
    sls_ms = max(0, (sls - t0) // 1000)
    # The main loop's phase from its first choice: its ticks are visible only while the choice
    # runs (before that, only rule rebuilds log, and they shift the loop's phase by their own
    # length), and only ticks that choose matter.
    period = 1000 + costs[0]
    after = [t for t in choices if t >= sls] or [t for t in ticks if t >= sls]
    phase = int(((after[0] - t0) / 1000) % period) if after else -1
    # Where the probe threads' cycle stood: their first probe after probing was resumed.
    probe_phase = int(((first_probe - sls) / 1000) % 500) if first_probe else 0
    with open(trace) as f:
        text = f.read()
    shifted = os.path.join(dir_, "replay.trace")
    with open(shifted, "w") as f:
        f.write(text + f"\nsls {sls_ms}ms\n")
    # The periods of the live run's loops, as measured in its log.
    args = [replay, "--costs", ",".join(f"{c:.1f}" for c in costs), "--probe-phase", str(probe_phase),
            "--log", os.path.join(dir_, "replay.log"), shifted]
    if phase >= 0:
        args[1:1] = ["--loop-phase", str(phase)]
    if os.environ.get("AGREE_CONF"):
        args[1:1] = ["--config", os.environ["AGREE_CONF"]]
    summary = json.loads(subprocess.run(args, check=True, capture_output=True, text=True).stdout)
    rep = [(s["t_s"] if isinstance(s["t_s"], float) else float(s["t_s"]), s["to"])
           for s in summary["switch_list"]]
    same = [s[1] for s in switches] == [s[1] for s in rep]
    diff = max((abs(a[0] - b[0]) for a, b in zip(switches, rep)), default=0.0) if same else None
    return {"scenario": os.path.basename(trace)[:-len(".trace")], "trace": os.path.abspath(trace),
            "sls_start_s": sls_ms / 1000,
            "loop_phase_ms": phase, "probe_phase_ms": probe_phase, "costs_ms": costs, "live": switches, "replay": rep, "same_order": same,
            "max_diff_s": diff}


def results(paths):
    """(path, result) of each readable result.json."""
    for p in paths:
        try:
            with open(p) as f:
                yield p, json.load(f)
        except (OSError, ValueError):
            continue


def table(paths):
    print("| Scenario | Switches live | Switches replay | Same order | Largest time difference |")
    print("|---|---|---|---|---|")
    for _, r in results(paths):
        if "error" in r:
            print(f"| {r['scenario']} | {r['error']} | | | |")
            continue
        fmt = lambda l: ", ".join(f"{to} at {t:.2f} s" for t, to in l) or "none"
        diff = "-" if r["max_diff_s"] is None else f"{r['max_diff_s']:.2f} s"
        print(f"| {r['scenario']} | {fmt(r['live'])} | {fmt(r['replay'])} | "
              f"{'yes' if r['same_order'] else 'NO'} | {diff} |")


EXPECT = re.compile(r"^expect (leave|return) (\S+) at ([\d.]+)s(?: until ([\d.]+)s)?")
STAY = re.compile(r"^expect stay(?: until ([\d.]+)s)?")


def trials(paths):
    """Per scenario and expectation: the live time from the event to the switch that does it."""
    rows = {}
    for p, r in results(paths):
        if "error" in r or "trace" not in r:
            rows.setdefault((os.path.basename(os.path.dirname(p)).split(".")[0], "run"), []).append(None)
            continue
        with open(r["trace"]) as f:
            lines = f.read().splitlines()
        for line in lines:
            m = EXPECT.match(line)
            stay = STAY.match(line)
            if stay:
                # Changes of the game's link, from the trace's first link (the default route's).
                until = float(stay.group(1)) if stay.group(1) else float("inf")
                on = next(l.split()[1] for l in lines if l.startswith("link "))
                n = 0
                for t, to in r["live"]:
                    if t < until and to != on:
                        n, on = n + 1, to
                rows.setdefault((r["scenario"], "false switches"), []).append(n)
            if not m:
                continue
            kind, link, at = m.group(1), m.group(2), float(m.group(3))
            until = float(m.group(4)) if m.group(4) else float("inf")
            got = None
            for t, to in r["live"]:
                if at <= t < until and ((to != link) if kind == "leave" else (to == link)):
                    got = t - at
                    break
            rows.setdefault((r["scenario"], kind), []).append(got)
    print("| Scenario | Measure | Trials | Median s | Worst s | Missed |")
    print("|---|---|---|---|---|---|")
    for (scenario, kind), values in sorted(rows.items()):
        got = sorted(v for v in values if v is not None)
        med = f"{got[len(got) // 2]:.2f}" if got else "-"
        if len(got) % 2 == 0 and got:
            med = f"{(got[len(got) // 2 - 1] + got[len(got) // 2]) / 2:.2f}"
        worst = f"{got[-1]:.2f}" if got else "-"
        print(f"| {scenario} | {kind} | {len(values)} | {med} | {worst} | "
              f"{sum(v is None for v in values)} |")


if __name__ == "__main__":
    if len(sys.argv) > 1 and sys.argv[1] == "--table":
        table(sys.argv[2:])
    elif len(sys.argv) > 1 and sys.argv[1] == "--trials":
        trials(sys.argv[2:])
    elif len(sys.argv) == 4:
        print(json.dumps(one(*sys.argv[1:])))
    else:
        sys.exit(__doc__)
