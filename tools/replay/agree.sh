#!/bin/bash
# Agreement of the selection lab's replay with the live daemon.
#
#   tools/replay/agree.sh [SCENARIO.trace...]     (root; default: nine scenarios, about 17 minutes)
#
# AGREE_CONF=FILE runs the daemon and the replay with that configuration instead of the built-in
# defaults (e.g. AGREE_CONF=etc/mlbd.conf for the shipped one).
# AGREE_TRIALS=N runs each trace N times (AGREE_JOBS=K of them at once, each in namespaces of its
# own; the daemon mostly sleeps, so 3 at once on 2 cores keep their timing) and ends with the
# live times to leave and to return, median and worst over the trials (agree.py --trials).
#
# For each trace: in a private network namespace joined to a peer namespace by the link emulator
# (as tools/run-host.sh does), the real daemon (build/mlbd, built-in defaults) selects links for a
# game (UID 10050, tools/demo/demo.py) while `link-emulator play` plays the trace; then
# mlbd-replay replays the same trace, started where the live selection started and with the live
# main loop's phase and with the periods of its loops as its log shows them (agree.py). The
# table compares the switches (targets, order) and their times. Logs in
# build/agree/. Nothing leaves the machine: every address used lives in the two namespaces.
set -euo pipefail
here="$(cd "$(dirname "$0")/../.." && pwd)"
build="${BUILD_DIR:-$here/build}"
out="$build/agree"

if [ "${1:-}" = "--inside" ]; then
    # ---- Inside the private namespace: one live run of trace $2 into folder $3 ----
    trace="$2" dir="$3"
    stop_all() {
        trap - EXIT INT TERM
        local pids
        mapfile -t pids < <(jobs -p)
        [ ${#pids[@]} -eq 0 ] || kill "${pids[@]}" 2>/dev/null || true
        wait 2>/dev/null || true
    }
    trap stop_all EXIT
    trap 'exit 130' INT TERM
    wait_for() {
        local tries=$(($1 * 10)); shift
        until "$@"; do ((--tries > 0)) || return 1; sleep 0.1; done
    }
    ip link set lo up
    unshare --net -- sleep infinity &
    peer=$!
    inpeer=(nsenter -t "$peer" -n --)
    peer_apart() { [ "$(readlink "/proc/$peer/ns/net")" != "$(readlink /proc/$$/ns/net)" ]; }
    wait_for 5 peer_apart
    "${inpeer[@]}" ip link set lo up
    "${inpeer[@]}" ip addr add 1.1.1.1/32 dev lo
    "${inpeer[@]}" ip addr add 10.200.0.1/32 dev lo
    # The links start as the trace's first settings.
    first() { sed -n "s/^link $1 .*rtt=\([0-9]*\)ms.*/\1/p" "$trace"; }
    export LINK_EMULATOR_SOCKET="$MLBD_ROOT/link-emulator.sock"
    "$build/tools/link-emulator" run --peer-netns "/proc/$peer/ns/net" \
        --link "wlan0:wlan0-net:delay=$(first wlan0)ms" \
        --link "rmnet_data0:rmnet0-net:delay=$(first rmnet_data0)ms" >"$dir/link-emulator.log" 2>&1 &
    wait_for 5 grep -qs "link-emulator ready" "$dir/link-emulator.log"
    ip addr add 10.77.1.2 peer 10.77.1.1 dev wlan0
    ip addr add 10.77.2.2 peer 10.77.2.1 dev rmnet_data0
    "${inpeer[@]}" ip addr add 10.77.1.1 peer 10.77.1.2 dev wlan0-net
    "${inpeer[@]}" ip addr add 10.77.2.1 peer 10.77.2.2 dev rmnet0-net
    ip route add default dev wlan0 metric 10
    ip route add default dev rmnet_data0 metric 20
    "$MLBD_ROOT/system/bin/ip-wrapper-1.0" route add default dev wlan0 table wlan0
    "$MLBD_ROOT/system/bin/ip-wrapper-1.0" route add default dev rmnet_data0 table rmnet_data0
    ln -sf /proc/net/nf_conntrack "$MLBD_ROOT/proc/net/nf_conntrack"
    demo=(python3 "$here/tools/demo/demo.py")
    "${inpeer[@]}" "$build/tools/rtt-responder" --address 1.1.1.1 --port 443 2>/dev/null &
    "${inpeer[@]}" "${demo[@]}" game-server 10.200.0.1 5000 &
    "$build/tools/sla-standin" --root "$MLBD_ROOT" --iface wlan0 --iface rmnet_data0 \
        2>"$dir/sla-standin.log" &
    wait_for 5 test -p "$MLBD_ROOT/proc/sla/config"
    "$build/mlbd" 2>"$dir/mlbd.log" &
    wait_for 10 test -S "$MLBD_ROOT/dev/socket/mlbd"
    "${demo[@]}" game 10050 10.200.0.1 5000 10.77.1.2=wlan0,10.77.2.2=rmnet_data0 \
        >"$dir/game.log" 2>&1 &
    wait_for 10 grep -qs "plays over" "$dir/game.log"
    # Selection starts with the trace.
    "$build/tools/link-emulator" play "$trace" >"$dir/play.log" &
    play=$!
    # A real link changes at a moment that has nothing to do with the daemon's loops: the start of
    # selection (and so the phase of the monitor and of the probes against the trace) is drawn.
    sleep "$(printf '0.%03d' $((RANDOM % 1000)))"
    "$build/tools/mlbdctl" start-sls 10050 >/dev/null
    wait "$play"
    exit 0
fi

if [ "$(id -u)" -ne 0 ]; then
    echo "agree.sh needs root (network namespaces, iptables)" >&2
    exit 1
fi
cmake --build "$build" --target mlbd mlbdctl sla-standin link-emulator rtt-responder mlbd-replay \
    >/dev/null
traces=("$@")
if [ ${#traces[@]} -eq 0 ]; then
    for s in step-300 step-150 spike-3s drift outage-10s outage-2s bufferbloat wifi-recovers \
        outage-60s; do
        traces+=("$here/tools/replay/scenarios/$s.trace")
    done
fi
mkdir -p "$out"
trials="${AGREE_TRIALS:-1}"
jobs="${AGREE_JOBS:-1}"
run_one() {
    local trace="$1" dir="$2" name root
    name="$(basename "$trace" .trace)"
    rm -rf "$dir" && mkdir -p "$dir"
    root="$(mktemp -d /tmp/mlbd-agree.XXXXXX)"
    mkdir -p "$root/vendor/etc/sla" "$root/properties" "$root/dev/socket" "$root/proc/sla" \
        "$root/proc/net" "$root/system/bin"
    if [ -n "${AGREE_CONF:-}" ]; then
        cp "$AGREE_CONF" "$root/vendor/etc/sla/mlbd.conf"
    else
        : >"$root/vendor/etc/sla/mlbd.conf"  # the built-in defaults
    fi
    printf 'wlan0,rmnet_data0\n' >"$root/properties/vendor.sla.ifaces"
    printf '1\n' >"$root/properties/vendor.sla.mode"
    printf '1\n' >"$root/properties/vendor.sla.enabled"
    install -m 0755 "$here/tools/host/iptables-wrapper-1.0" "$here/tools/host/ip-wrapper-1.0" \
        "$root/system/bin/"
    echo "agree.sh: $name (live, $(sed -n 's/^duration //p' "$trace"))" >&2
    MLBD_ROOT="$root" BUILD_DIR="$build" unshare --net -- "$0" --inside "$trace" "$dir" || true
    rm -rf "$root"
    python3 "$here/tools/replay/agree.py" "$build/tools/mlbd-replay" "$trace" "$dir" \
        >"$dir/result.json" || true
}
results=()
for trace in "${traces[@]}"; do
    name="$(basename "$trace" .trace)"
    for ((i = 1; i <= trials; i++)); do
        dir="$out/$name"
        [ "$trials" -gt 1 ] && dir="$out/$name.$i"
        results+=("$dir/result.json")
        while [ "$(jobs -rp | wc -l)" -ge "$jobs" ]; do wait -n || true; done
        run_one "$trace" "$dir" &
    done
done
wait
python3 "$here/tools/replay/agree.py" --table "${results[@]}"
[ "$trials" -gt 1 ] && python3 "$here/tools/replay/agree.py" --trials "${results[@]}"
exit 0
