#!/usr/bin/env bash
# Builds mlbd and runs it on this host, in the foreground, inside a private network namespace with
# two virtual links named wlan0 and rmnet_data0. The host's own network configuration is never
# touched. After RUN_SECONDS (default 14) it writes 2 to vendor.sla.enabled, waits for the daemon to
# shut its steering down, and ends it (the daemon itself parks for ever).
# The SLA kernel module is played by build/tools/sla-standin (see its --help); UDP traffic from the
# peer namespace, Wi-Fi first slow then fast, makes the daemon reprogram the split on the way.
# The links are emulated (build/tools/link-emulator: Wi-Fi 20 ms, cellular 60 ms) with the RTT
# probe server (build/tools/rtt-responder) behind them on 1.1.1.1:443, inside the peer namespace;
# build/tools/sls-probe runs the daemon's link selection beside it, and halfway through Wi-Fi's
# delay rises to 300 ms, so the choice moves from wlan0 to rmnet_data0.
#
#   tools/run-host.sh                 # build, prepare a sample MLBD_ROOT, run
#   MLBD_ROOT=/tmp/x tools/run-host.sh
#   RUN_SECONDS=30 tools/run-host.sh
set -euo pipefail
here="$(cd "$(dirname "$0")/.." && pwd)"

if [ "${1:-}" != "--inside" ]; then
    if [ "$(id -u)" -ne 0 ]; then
        echo "run-host.sh needs root (network namespaces, iptables); try: sudo $0" >&2
        exit 1
    fi
    "$here/tools/install-deps.sh"
    cmake -S "$here" -B "$here/build" -G Ninja >/dev/null
    cmake --build "$here/build" --target mlbd sla-standin link-emulator rtt-responder sls-probe \
        >/dev/null

    export MLBD_ROOT="${MLBD_ROOT:-$(mktemp -d /tmp/mlbd-root.XXXXXX)}"
    mkdir -p "$MLBD_ROOT/vendor/etc/sla" "$MLBD_ROOT/properties" "$MLBD_ROOT/dev/socket" \
             "$MLBD_ROOT/proc/sla" "$MLBD_ROOT/proc/net" "$MLBD_ROOT/system/bin"
    cp "$here/etc/mlbd.conf" "$MLBD_ROOT/vendor/etc/sla/mlbd.conf"
    printf 'wlan0,rmnet_data0\n' >"$MLBD_ROOT/properties/vendor.sla.ifaces"
    printf '1\n' >"$MLBD_ROOT/properties/vendor.sla.mode"
    printf '1\n' >"$MLBD_ROOT/properties/vendor.sla.enabled"
    # The packet-filter and routing front-ends: host stand-ins that forward to iptables and ip
    # and refuse to run outside a private network namespace (see tools/host/).
    install -m 0755 "$here/tools/host/iptables-wrapper-1.0" "$here/tools/host/ip-wrapper-1.0" \
        "$MLBD_ROOT/system/bin/"
    echo "MLBD_ROOT=$MLBD_ROOT"
    exec unshare --net -- "$0" --inside
fi

# ---- Inside the private network namespace ----
ip link set lo up

# The peer namespace stands for the networks behind the two links.
unshare --net -- sleep infinity &
peer=$!
cleanup() {
    for pid in ${probe:-} ${daemon:-} ${standin:-} ${responder:-} ${emulator:-} "$peer"; do
        kill "$pid" 2>/dev/null || true
    done
}
trap cleanup EXIT
sleep 0.2
inpeer() { nsenter -t "$peer" -n -- "$@"; }
inpeer ip link set lo up

# The two links: TUN delay lines to the peer, Wi-Fi 20 ms and cellular 60 ms of round trip.
export LINK_EMULATOR_SOCKET="$MLBD_ROOT/link-emulator.sock"
"$here/build/tools/link-emulator" run --peer-netns "/proc/$peer/ns/net" \
    --link wlan0:wlan0-net:delay=20ms --link rmnet_data0:rmnet0-net:delay=60ms \
    >"$MLBD_ROOT/link-emulator.out" &
emulator=$!
for _ in $(seq 1 50); do
    grep -q "link-emulator ready" "$MLBD_ROOT/link-emulator.out" 2>/dev/null && break
    sleep 0.1
done
ip addr add 10.77.1.2 peer 10.77.1.1 dev wlan0
ip addr add 10.77.2.2 peer 10.77.2.1 dev rmnet_data0
inpeer ip addr add 10.77.1.1 peer 10.77.1.2 dev wlan0-net
inpeer ip addr add 10.77.2.1 peer 10.77.2.2 dev rmnet0-net
ip route add default dev wlan0 metric 10
ip route add default dev rmnet_data0 metric 20
# The default probe target, inside the peer: nothing leaves the machine.
inpeer ip addr add 1.1.1.1/32 dev lo
nsenter -t "$peer" -n -- "$here/build/tools/rtt-responder" --address 1.1.1.1 --port 443 &
responder=$!
# Routing tables named after the interfaces, as on the device; the ip wrapper maps each name to
# a fixed table number, so these routes and the daemon's "table <iface>" rules meet. The daemon's
# connection count reads this namespace's tracking table.
"$MLBD_ROOT/system/bin/ip-wrapper-1.0" route add default dev wlan0 table wlan0
"$MLBD_ROOT/system/bin/ip-wrapper-1.0" route add default dev rmnet_data0 table rmnet_data0
ln -sf /proc/net/nf_conntrack "$MLBD_ROOT/proc/net/nf_conntrack"

# The SLA kernel module's stand-in serves $MLBD_ROOT/proc/sla from this namespace's counters;
# it prints each link's received rate once a second.
"$here/build/tools/sla-standin" --root "$MLBD_ROOT" --iface wlan0 --iface rmnet_data0 --verbose \
    2> >(tee "$MLBD_ROOT/sla-standin.log" >&2) &
standin=$!
for _ in $(seq 1 50); do
    [ -p "$MLBD_ROOT/proc/sla/config" ] && break
    sleep 0.1
done

# Sends UDP at about KBIT kbit/s (1 kbit = 1024 bits) from the peer namespace to ADDR for
# SECONDS, in the background; nothing listens, the bytes only have to arrive over the link.
traffic() {
    inpeer python3 - "$@" <<'PY' &
import socket, sys, time
addr, kbit, seconds = sys.argv[1], float(sys.argv[2]), float(sys.argv[3])
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
payload = b"\0" * 1000
per_second = kbit * 128 / 1042  # 1000 bytes + UDP, IP and Ethernet headers on the wire
start = time.monotonic()
sent = 0
while time.monotonic() - start < seconds:
    while sent < int((time.monotonic() - start) * per_second):
        try:
            s.sendto(payload, (addr, 9))
        except OSError:
            pass
        sent += 1
    time.sleep(0.005)
PY
}

log="$MLBD_ROOT/mlbd.log"
"$here/build/mlbd" 2> >(tee "$log" >&2) &
daemon=$!
# The daemon's link selection, on its own: speeds and choices once a second.
"$here/build/tools/sls-probe" 2>"$MLBD_ROOT/sls-probe.log" &
probe=$!

# Traffic in two phases, so that the split changes: first Wi-Fi slower than the Wi-Fi threshold
# (aggregation: cellular fills the shortfall), then Wi-Fi well above it (Wi-Fi only).
run="${RUN_SECONDS:-14}"
half=$((run / 2))
traffic 10.77.2.2 2000 "$run"
traffic 10.77.1.2 600 "$half"
sleep "$half"
traffic 10.77.1.2 4000 "$((run - half))"
echo "run-host.sh: raising Wi-Fi's delay to 300 ms" >&2
"$here/build/tools/link-emulator" set wlan0 delay=300ms >/dev/null
sleep "$((run - half))"
kill "$probe" 2>/dev/null || true
echo 2 >"$MLBD_ROOT/properties/vendor.sla.enabled"
for _ in $(seq 1 100); do
    grep -q "Slm disabled, starting cleanup" "$log" && break
    sleep 0.1
done
sleep 1
if grep -q "Slm disabled, starting cleanup" "$log"; then
    echo "run-host.sh: mlbd shut its steering down and parked; stopping it." >&2
else
    echo "run-host.sh: mlbd did not shut down" >&2
    exit 1
fi
