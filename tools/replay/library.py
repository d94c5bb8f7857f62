#!/usr/bin/env python3
"""The scenario library's table under one configuration (the selection lab).

  library.py [--replay build/tools/mlbd-replay] [--config FILE] [--set KEY=VALUE]... [--seeds 5]

Replays every trace of tools/replay/scenarios with seeds 1..N and prints, per scenario, its label
(what a good selector does), the switches and socket resets, the time to leave and to return
(median over the seeds, "missed" when most seeds missed), false switches, time on the metered
link, and a verdict.
"""
import argparse
import json
import os
import statistics
import subprocess

HERE = os.path.dirname(os.path.abspath(__file__))


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--replay", default=os.path.join(HERE, "../../build/tools/mlbd-replay"))
    ap.add_argument("--scenarios", default=os.path.join(HERE, "scenarios"))
    ap.add_argument("--config")
    ap.add_argument("--set", action="append", default=[])
    ap.add_argument("--seeds", type=int, default=5)
    a = ap.parse_args()
    traces = sorted(os.path.join(a.scenarios, f) for f in os.listdir(a.scenarios)
                    if f.endswith(".trace"))
    args = [a.replay] + (["--config", a.config] if a.config else [])
    for s in a.set:
        args += ["--set", s]
    runs = {}
    for seed in range(1, a.seeds + 1):
        out = subprocess.run(args + ["--seed", str(seed)] + traces, check=True,
                             capture_output=True, text=True).stdout
        for line in out.splitlines():
            r = json.loads(line)
            runs.setdefault(r["trace"], []).append(r)
    print("| Scenario | Label | Switches | Resets | Leave s | Return s | False switches | "
          "Metered s | Verdict |")
    print("|---|---|---|---|---|---|---|---|---|")
    for trace in traces:
        rs = runs[trace]
        kinds = sorted({e["kind"] for e in rs[0]["expectations"]} - ({"stay"} if any(
            e["kind"] != "stay" for e in rs[0]["expectations"]) else set()))

        def summary(kind):
            times = [e for r in rs for e in r["expectations"] if e["kind"] == kind]
            if not times:
                return "-", False
            missed = sum(e["missed"] for e in times)
            got = [float(e["time_s"]) for e in times if not e["missed"]]
            if missed * 2 > len(times):
                return f"missed ({missed}/{len(times)})", True
            return f"{statistics.median(got):.1f}" + (f" ({missed} missed)" if missed else ""), \
                False
        leave, missed_leave = summary("leave")
        ret, missed_ret = summary("return")
        med = lambda key: statistics.median(float(r[key]) for r in rs)
        false = med("false_switches")
        bad = []
        if false:
            bad.append("false switch")
        if missed_leave:
            bad.append("missed leave")
        if missed_ret:
            bad.append("missed return")
        print(f"| {os.path.basename(trace)[:-6]} | {', '.join(kinds)} | {med('switches'):g} | "
              f"{med('socket_resets'):g} | {leave} | {ret} | {false:g} | "
              f"{med('time_on_metered_s'):.0f} | {'; '.join(bad) or 'good'} |")


if __name__ == "__main__":
    main()
