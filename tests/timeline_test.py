#!/usr/bin/env python3
# Checks the series tools/mlbd-timeline reads from a recorded host log (no drawing, no matplotlib).
import importlib.machinery, importlib.util, os, sys

sys.dont_write_bytecode = True

here = os.path.dirname(os.path.abspath(__file__))
loader = importlib.machinery.SourceFileLoader(
    "timeline", os.path.join(here, "..", "tools", "mlbd-timeline"))
tl_mod = importlib.util.module_from_spec(importlib.util.spec_from_loader("timeline", loader))
loader.exec_module(tl_mod)
with open(os.path.join(here, "data", "timeline-sample.log")) as f:
    tl = tl_mod.parse(f)

def pts(series):
    return {k: [(round(t, 3), v) for t, v in vs] for k, vs in series.items()}

assert pts(tl.rate) == {"wlan0": [(7.662, 604)], "rmnet_data0": [(7.662, 1966)]}, tl.rate
assert pts(tl.share) == {"wlan0": [(2.885, 0.37125)], "rmnet_data0": [(2.928, 0.62875)]}
assert pts(tl.prob) == {"wlan0": [(2.885, 0.37125)], "rmnet_data0": [(2.928, 1.0)]}
assert [v for _, v in tl.probe["wlan0"]] == [20, 20] and tl.probe["rmnet_data0"][0][1] == 60
assert [v for _, v in tl.speed["wlan0"]] == [412, -1, 46], tl.speed      # -1: failed
assert [(n, c) for _, n, c in tl.decisions] == [(None, None), ("wlan0", 1), ("wlan0", 0),
    ("rmnet_data0", 1), ("rmnet_data0", 3), ("wlan0", 2), (None, None), (None, None)]
assert [(round(t, 3), n, c) for t, n, c in tl.switches] == [
    (6.553, "wlan0", 1), (20.787, "rmnet_data0", 1), (28.861, "wlan0", 2)], tl.switches
assert (tl.entry, tl.exit) == ([(0.0, 90)], [(0.0, 130)])
assert (tl.lines, tl.foreign, tl.cut, tl.missing()) == (38, 2, 2, []), tl.notes()
# Across midnight and New Year; a log without mlbd's decisions says so.
night = tl_mod.parse(["12-31 23:59:59.500  9  9 D Mlbd-SlaPing: x\n",
                      "01-01 00:00:00.250  9  9 E Mlbd-SlaPing: SLA_RTT_SELECTED perform switch"])
assert (night.end, night.cut, len(night.missing())) == (0.75, 1, 4), night.notes()
assert tl_mod.parse(["adb: device offline\n"]).lines == 0
# The daemon's threshold line names both thresholds at once.
th = tl_mod.parse(["11-23 09:11:04.828 1 1 I Mlbd-daemon: RTT thresholds: rtt_entry_threshold=110"
                   " rtt_exit_threshold=150\n"])
assert (th.entry, th.exit, th.threshold_source) == ([(0.0, 90), (0.0, 110)],
                                                    [(0.0, 130), (0.0, 150)], "the log")
print("timeline_test: 1 passed, 0 failed")
