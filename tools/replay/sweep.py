#!/usr/bin/python3
"""Sweep of the selection settings over the scenario library (the selection lab).

  sweep.py [--replay build/tools/mlbd-replay] [--seeds 3] [--random 300] [--jobs 2]
           [--out build/sweep] [--config etc/mlbd.conf] [--from-json build/sweep/sweep.json]

Every setting is replayed over every scenario of tools/replay/scenarios with several seeds (the
seed moves the main loop's phase and the per-packet draws). Per setting it reports, over the
whole library: the median and 90th percentile time to leave a degraded link, missed leaves, false
switches (changes of the game's link that no expectation explains, stay windows included), the
median time to return and missed returns, socket resets per hour and probe traffic.

Settings: the built-in defaults, the configuration given with --config (the shipped file), each
key varied alone around the defaults, and --random settings drawn from the grid below. Writes
sweep.json, sweep.md (the table) and front.png (time to leave against false switches and resets,
the trade-off front marked) into --out.
"""
import argparse
import itertools
import json
import os
import random
import statistics
import subprocess
import sys
from concurrent.futures import ThreadPoolExecutor

HERE = os.path.dirname(os.path.abspath(__file__))
GRID = {
    "alpha_percent": [40, 60, 80, 100],
    "min_ping_times": [2, 3, 5, 8],
    "ping_interval_ms": [100, 250, 500, 1000],
    "mini_est_interval": [250, 500, 1000],
    "rtt_entry_threshold": [70, 90, 110],
    "rtt_exit_threshold": [110, 130, 160, 200],
    "n_hyst": [1, 2],
    "t_hyst_s": [0, 5, 30],
    "failback_interval_s": [0, 10, 20, 30, 60],
    "stall_leave_ms": [0, 1500, 2000, 2500, 3000],
    "slow_leave_checks": [0, 1, 2, 3],
}
DEFAULTS = {"alpha_percent": 60, "min_ping_times": 5, "ping_interval_ms": 500,
            "mini_est_interval": 1000, "rtt_entry_threshold": 90, "rtt_exit_threshold": 130,
            "n_hyst": 1, "t_hyst_s": 0, "failback_interval_s": 0, "stall_leave_ms": 0,
            "slow_leave_checks": 0}


def pct(values, p):
    if not values:
        return None
    v = sorted(values)
    return v[min(len(v) - 1, int(round(p / 100 * (len(v) - 1))))]


def run(replay, traces, setting, seeds, config_lines):
    args = [replay]
    for line in config_lines:
        args += ["--set", line]
    for k, v in setting.items():
        args += ["--set", f"{k}={v}"]
    results = []
    for seed in range(1, seeds + 1):
        p = subprocess.run(args + ["--seed", str(seed)] + traces, capture_output=True, text=True)
        if p.returncode != 0:
            raise RuntimeError(p.stderr)
        results += [json.loads(l) for l in p.stdout.splitlines() if l.strip()]
    leave, ret, false, missed_l, missed_r, resets, hours, probes, pbytes = \
        [], [], 0, 0, 0, 0, 0.0, 0, 0
    stay_false = 0
    for r in results:
        hours += float(r["duration_s"]) / 3600
        resets += r["socket_resets"]
        false += r["false_switches"]
        probes += r["probes"]
        pbytes += r["probe_bytes"]
        for e in r["expectations"]:
            if e["kind"] == "leave":
                if e["missed"]:
                    missed_l += 1
                else:
                    leave.append(float(e["time_s"]))
            elif e["kind"] == "return":
                if e["missed"]:
                    missed_r += 1
                else:
                    ret.append(float(e["time_s"]))
            else:
                stay_false += e["false_switches"]
    runs = len(results) or 1
    minutes = hours * 60 or 1
    return {
        "setting": setting,
        "leave_median_s": pct(leave, 50), "leave_p90_s": pct(leave, 90),
        "missed_leaves": missed_l / seeds, "false_switches": false / seeds,
        "stay_false_switches": stay_false / seeds,
        "return_median_s": pct(ret, 50), "missed_returns": missed_r / seeds,
        "resets_per_hour": resets / hours if hours else 0,
        "probes_per_min": probes / minutes, "probe_kb_per_min": pbytes / minutes / 1000,
        "runs": runs,
    }


def score(r):
    # What a player minds most: being moved for nothing, then staying on a bad link, then slow
    # leaves, then resets.
    return (r["false_switches"] + r["missed_leaves"], r["leave_median_s"] or 1e9,
            r["resets_per_hour"])


def front(rows):
    """The settings no other setting beats in time to leave, false switches plus missed leaves,
    and resets per hour; of settings with equal figures, the one that changes fewest keys."""
    def key(r):
        return (r["leave_median_s"] or 1e9, r["false_switches"] + r["missed_leaves"],
                round(r["resets_per_hour"], 1))
    best = {}
    for r in rows:
        k = key(r)
        if k not in best or len(label(r["setting"]).split(",")) < len(label(best[k]["setting"]).split(",")):
            best[k] = r
    return [r for k, r in best.items()
            if not any(all(x <= y for x, y in zip(o, k)) and o != k for o in best)]


def fmt(v, d=2):
    return "-" if v is None else (f"{v:.{d}f}" if isinstance(v, float) else str(v))


def label(setting):
    diff = {k: v for k, v in setting.items() if DEFAULTS.get(k) != v}
    return ", ".join(f"{k}={v}" for k, v in diff.items()) or "(defaults)"


def markdown(rows, title):
    lines = [f"### {title}", "",
             "| Setting | Leave median s | Leave p90 s | Missed leaves | False switches | "
             "Return median s | Missed returns | Resets/h | Probes/min | Probe kB/min |",
             "|---|---|---|---|---|---|---|---|---|---|"]
    for r in rows:
        lines.append(f"| {r.get('name') or label(r['setting'])} | {fmt(r['leave_median_s'])} | "
                     f"{fmt(r['leave_p90_s'])} | {fmt(r['missed_leaves'], 1)} | "
                     f"{fmt(r['false_switches'], 1)} | {fmt(r['return_median_s'])} | "
                     f"{fmt(r['missed_returns'], 1)} | {fmt(r['resets_per_hour'], 1)} | "
                     f"{fmt(r['probes_per_min'], 1)} | {fmt(r['probe_kb_per_min'], 1)} |")
    return "\n".join(lines) + "\n"


def picture(rows, fr, marks, path):
    try:
        import matplotlib
        matplotlib.use("Agg")
        import matplotlib.pyplot as plt
    except ImportError:
        print("sweep.py: no matplotlib, no picture", file=sys.stderr)
        return
    fig, ax = plt.subplots(figsize=(8, 5.5))
    xs = [r["leave_median_s"] or 0 for r in rows]
    ys = [r["false_switches"] + r["missed_leaves"] for r in rows]
    cs = [r["resets_per_hour"] for r in rows]
    sc = ax.scatter(xs, ys, c=cs, cmap="viridis", s=18, alpha=0.7)
    fig.colorbar(sc, label="socket resets per hour")
    # The front in the picture's two figures: each step is a setting that no faster one beats.
    pts, low = [], None
    for x, y in sorted(zip(xs, ys)):
        if low is None or y < low:
            pts.append((x, y))
            low = y
    ax.step([p[0] for p in pts], [p[1] for p in pts], "r-", where="post", lw=1,
            label="trade-off front")
    for name, r in marks:
        ax.scatter([r["leave_median_s"]], [r["false_switches"] + r["missed_leaves"]], s=90,
                   marker="*", edgecolors="k", zorder=5)
        ax.annotate(name, (r["leave_median_s"], r["false_switches"] + r["missed_leaves"]),
                    textcoords="offset points", xytext=(6, 6), fontsize=8)
    ax.set_xlabel("median time to leave a degraded link, s (whole library)")
    ax.set_ylabel("false switches + missed leaves per library pass")
    ax.set_title("Selection settings over the scenario library")
    ax.legend(loc="upper right")
    fig.tight_layout()
    fig.savefig(path, dpi=110)


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    ap.add_argument("--replay", default=os.path.join(HERE, "../../build/tools/mlbd-replay"))
    ap.add_argument("--scenarios", default=os.path.join(HERE, "scenarios"))
    ap.add_argument("--seeds", type=int, default=3)
    ap.add_argument("--random", type=int, default=300)
    ap.add_argument("--jobs", type=int, default=2)
    ap.add_argument("--out", default=os.path.join(HERE, "../../build/sweep"))
    ap.add_argument("--config", default=os.path.join(HERE, "../../etc/mlbd.conf"))
    ap.add_argument("--from-json", help="redraw the tables and picture of an earlier sweep.json")
    a = ap.parse_args()
    traces = sorted(os.path.join(a.scenarios, f) for f in os.listdir(a.scenarios)
                    if f.endswith(".trace"))
    shipped = []
    with open(a.config) as f:
        shipped = [l.strip() for l in f if "=" in l and not l.lstrip().startswith("#")]
    shipped_setting = {}
    for l in shipped:
        k, v = l.split("=", 1)
        if k in DEFAULTS:
            shipped_setting[k] = int(v)
    settings = [dict(DEFAULTS)]
    for k, values in GRID.items():
        for v in values:
            if v != DEFAULTS[k]:
                settings.append(dict(DEFAULTS, **{k: v}))
    rng = random.Random(7)
    keys = list(GRID)
    seen = {tuple(sorted(s.items())) for s in settings}
    while len(settings) < 1 + sum(len(v) - 1 for v in GRID.values()) + a.random:
        s = {k: rng.choice(GRID[k]) for k in keys}
        if s["rtt_entry_threshold"] >= s["rtt_exit_threshold"] or tuple(sorted(s.items())) in seen:
            continue
        seen.add(tuple(sorted(s.items())))
        settings.append(s)
    os.makedirs(a.out, exist_ok=True)
    if a.from_json:
        with open(a.from_json) as f:
            saved = json.load(f)
        rows, shipped_row = saved["rows"], saved["shipped"]
    else:
        with ThreadPoolExecutor(a.jobs) as pool:
            rows = list(pool.map(lambda s: run(a.replay, traces, s, a.seeds, []), settings))
            shipped_row = run(a.replay, traces, {}, a.seeds, shipped)
    shipped_row["setting"] = dict(DEFAULTS, **shipped_setting)
    shipped_row["name"] = "shipped etc/mlbd.conf (" + label(shipped_row["setting"]) + ")"
    defaults_row = dict(rows[0], name="built-in defaults")
    best = min(rows, key=score)
    best_row = dict(best, name="best found (" + label(best["setting"]) + ")")
    fr = front(rows + [shipped_row])
    with open(os.path.join(a.out, "sweep.json"), "w") as f:
        json.dump({"rows": rows, "shipped": shipped_row, "best": best, "front": fr}, f, indent=1)
    md = markdown([defaults_row, shipped_row, best_row], "Defaults, shipped and best")
    md += "\n" + markdown(rows[:1 + sum(len(v) - 1 for v in GRID.values())],
                          "One key at a time around the defaults")
    md += "\n" + markdown(sorted(fr, key=lambda r: r["leave_median_s"] or 0), "Trade-off front")
    with open(os.path.join(a.out, "sweep.md"), "w") as f:
        f.write(md)
    picture(rows + [shipped_row], fr, [("defaults", defaults_row), ("shipped", shipped_row),
                                       ("best", best_row)], os.path.join(a.out, "front.png"))
    print(md)


if __name__ == "__main__":
    main()
