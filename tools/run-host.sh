#!/usr/bin/env bash
# Builds mlbd and shows it at work on this host, in well under a minute, inside a private network
# namespace (the "phone") joined to a peer namespace (the networks behind its links) by two
# dual-stack emulated links: wlan0 (20 ms, 1000 kbit/s) and rmnet_data0 (160 ms, 4000 kbit/s),
# each with an IPv4 and an IPv6 address. The shipped configuration has ipv6=1, so mlbd steers
# both families. The host's own network configuration is never touched and no packet leaves the
# machine.
#
#   1 start   mlbd, the SLA module's stand-in and the RTT responder; the web app's UID is
#             whitelisted with mlbdctl
#   2 web     the web app opens many short connections to port 80, over IPv4 and over IPv6; the
#             daemon measures each link's rate and splits new connections of both families by
#             it (Wi-Fi's share is its rate over the Wi-Fi threshold, cellular takes the rest)
#   3 game    a game keeps a TCP connection to its server over IPv6; mlbdctl starts link
#             selection for it (the probes then measure that server over IPv6)
#   4 slow    Wi-Fi's delay rises to 300 ms: the game's RTT crosses the exit threshold (130 ms),
#             mlbd probes both links, steers the game to rmnet_data0 and resets its socket
#   5 back    Wi-Fi's delay falls to 20 ms: the probes see it and the game returns to wlan0 (the
#             probes go on only while the game's RTT is high, hence cellular's 160 ms)
#   6 stop    vendor.sla.enabled=2: mlbd removes its rules and parks; the demo ends it
# "mlbdctl status" is printed after each phase. mlbd serves one control client for its whole
# life, so tools/demo/demo.py holds that connection and relays each mlbdctl run onto it; the
# same file plays the apps and their servers. The daemon's log and its timeline picture
# (tools/mlbd-timeline) are kept in $BUILD_DIR/host-run with the other logs; the temporary
# MLBD_ROOT, the namespaces and every process go when the demo ends, also on Ctrl-C.
#
#   tools/run-host.sh                   # build, then run the demo
#   KEEP=1 tools/run-host.sh            # keep the temporary MLBD_ROOT for inspection
#   MLBD_ROOT=/tmp/x tools/run-host.sh  # use (and keep) this root instead
#   BUILD_DIR=/tmp/b tools/run-host.sh  # build there instead of ./build
set -euo pipefail
here="$(cd "$(dirname "$0")/.." && pwd)"
build="${BUILD_DIR:-$here/build}"
out="$build/host-run"

if [ "${1:-}" != "--inside" ]; then
    if [ "$(id -u)" -ne 0 ]; then
        echo "run-host.sh needs root (network namespaces, iptables); try: sudo $0" >&2
        exit 1
    fi
    "$here/tools/install-deps.sh"
    cmake -S "$here" -B "$build" -G Ninja >/dev/null
    cmake --build "$build" --target mlbd mlbdctl sla-standin link-emulator rtt-responder >/dev/null

    temporary=""
    if [ -z "${MLBD_ROOT:-}" ]; then
        temporary="$(mktemp -d /tmp/mlbd-root.XXXXXX)"
        MLBD_ROOT="$temporary"
    fi
    finish() {
        if [ -n "$temporary" ] && [ "${KEEP:-0}" = 1 ]; then
            echo "run-host.sh: MLBD_ROOT kept in $temporary"
        elif [ -n "$temporary" ]; then
            rm -rf "$temporary"
        fi
    }
    trap finish EXIT
    export MLBD_ROOT BUILD_DIR="$build" DEMO_T0="${EPOCHREALTIME//[^0-9]/}"
    mkdir -p "$MLBD_ROOT/vendor/etc/sla" "$MLBD_ROOT/properties" "$MLBD_ROOT/dev/socket" \
             "$MLBD_ROOT/proc/sla" "$MLBD_ROOT/proc/net" "$MLBD_ROOT/system/bin"
    cp "$here/etc/mlbd.conf" "$MLBD_ROOT/vendor/etc/sla/mlbd.conf"
    printf 'wlan0,rmnet_data0\n' >"$MLBD_ROOT/properties/vendor.sla.ifaces"
    printf '1\n' >"$MLBD_ROOT/properties/vendor.sla.mode"
    printf '1\n' >"$MLBD_ROOT/properties/vendor.sla.enabled"
    # The packet-filter and routing front-ends: host stand-ins that forward to iptables and ip
    # and refuse to run outside a private network namespace (see tools/host/).
    install -m 0755 "$here/tools/host/iptables-wrapper-1.0" "$here/tools/host/ip-wrapper-1.0" \
        "$here/tools/host/ip6tables-wrapper-1.0" "$MLBD_ROOT/system/bin/"
    rm -rf "$out" && mkdir -p "$out"
    # The demo runs as a background job, so that Ctrl-C reaches this shell at once (and not the
    # demo's own commands); it is passed on as SIGTERM, and the demo cleans up before it ends.
    unshare --net -- "$0" --inside &
    inner=$! interrupted=0 rc=0
    trap 'interrupted=1; kill -TERM "$inner" 2>/dev/null || true' INT TERM
    wait "$inner" || rc=$?
    while kill -0 "$inner" 2>/dev/null; do wait "$inner" || rc=$?; done
    if [ "$interrupted" = 0 ] && [ -x "$here/tools/mlbd-timeline" ] && [ -s "$out/mlbd.log" ]; then
        if "$here/tools/mlbd-timeline" "$out/mlbd.log" -o "$out/mlbd-timeline.png" \
            >"$out/mlbd-timeline.log" 2>&1; then
            echo "run-host.sh: timeline in $out/mlbd-timeline.png"
        else
            echo "run-host.sh: no timeline (see $out/mlbd-timeline.log)"
        fi
    fi
    echo "run-host.sh: logs in $out"
    exit "$rc"
fi

# ---- Inside the private network namespace ----
# Every process the demo starts is a background job of this shell; they all go when it ends.
stop_all() {
    trap - EXIT INT TERM
    local pids
    mapfile -t pids < <(jobs -p)
    [ ${#pids[@]} -eq 0 ] || kill "${pids[@]}" 2>/dev/null || true
    wait
}
trap stop_all EXIT
trap 'exit 130' INT TERM
say() { local t=$((${EPOCHREALTIME//[^0-9]/} - DEMO_T0)); printf '[%3d.%ds] %s\n' \
    $((t / 1000000)) $((t / 100000 % 10)) "$*"; }
phase() { echo; say "== $*"; }
fail() { say "run-host.sh: $* (logs in $out)" >&2; exit 1; }
wait_for() {  # SECONDS TEST...: polls TEST every 0.1 s, false if it never held
    local tries=$(($1 * 10)); shift
    until "$@"; do ((--tries > 0)) || return 1; sleep 0.1; done
}
pause() { sleep "$1" & wait $!; }  # a sleep that SIGTERM interrupts at once
demo=(python3 "$here/tools/demo/demo.py")
ctl() { say "mlbdctl $*"; "$build/tools/mlbdctl" --socket "$MLBD_ROOT/mlbdctl-relay.sock" "$@"; }
status() {
    local text rc=0
    text="$("$build/tools/mlbdctl" status 2>&1)" || rc=$?
    if [ "$rc" = 0 ] || [ "$rc" = 3 ]; then
        say "mlbdctl status:" && sed 's/^/      /' <<<"$text"
    else
        say "(no mlbdctl status: ${text%%$'\n'*})"
    fi
}
# The last probe RTT of each link, from the daemon's log.
probes() { grep -o 'TCPing cacla rtt is -*[0-9]*,device is [a-z_0-9]*' "$out/mlbd.log" |
    awk -F'[ ,]' '{ rtt[$NF] = $5 " ms" } END { printf "wlan0 %s, rmnet_data0 %s ", \
        rtt["wlan0"] ? rtt["wlan0"] : "none yet", rtt["rmnet_data0"] }'; }
steering_gone() {
    local rules
    rules="$(iptables -w -t mangle -S; iptables -w -t nat -S; ip rule; ip6tables -w -t mangle -S
        ip6tables -w -t nat -S; ip -6 rule)"
    ! grep -q 'vexa_\|^30000:' <<<"$rules"
}
link_of_game() {  # LINK: the game's latest connection plays over LINK
    [ "$(grep -so 'plays over [a-z_0-9]*' "$out/game.log" | tail -1)" = "plays over $1" ]
}

ip link set lo up
unshare --net -- sleep infinity &
peer=$!
# Background jobs in the peer use the array, so that the job is the command itself.
inpeer=(nsenter -t "$peer" -n --)
inpeer() { "${inpeer[@]}" "$@"; }
peer_apart() { [ "$(readlink "/proc/$peer/ns/net")" != "$(readlink /proc/$$/ns/net)" ]; }
wait_for 5 peer_apart || fail "no peer namespace"
inpeer ip link set lo up
# The servers live on the peer's loopback: the default probe target 1.1.1.1:443, a web server on
# both families and a game server on IPv6.
inpeer ip addr add 1.1.1.1/32 dev lo
inpeer ip addr add 10.77.0.80/32 dev lo
inpeer ip addr add fd77::80/128 dev lo
inpeer ip addr add fd77::7/128 dev lo
links=10.77.1.2=wlan0,10.77.2.2=rmnet_data0,fd00:1::2=wlan0,fd00:2::2=rmnet_data0

# The two links: TUN delay lines to the peer.
export LINK_EMULATOR_SOCKET="$MLBD_ROOT/link-emulator.sock"
"$build/tools/link-emulator" run --peer-netns "/proc/$peer/ns/net" \
    --link wlan0:wlan0-net:delay=20ms:rate=1000kbit \
    --link rmnet_data0:rmnet0-net:delay=160ms:rate=4000kbit >"$out/link-emulator.log" 2>&1 &
wait_for 5 grep -q "link-emulator ready" "$out/link-emulator.log" || fail "no link emulator"
ip addr add 10.77.1.2 peer 10.77.1.1 dev wlan0
ip addr add 10.77.2.2 peer 10.77.2.1 dev rmnet_data0
inpeer ip addr add 10.77.1.1 peer 10.77.1.2 dev wlan0-net
inpeer ip addr add 10.77.2.1 peer 10.77.2.2 dev rmnet0-net
ip route add default dev wlan0 metric 10
ip route add default dev rmnet_data0 metric 20
ip addr add fd00:1::2 peer fd00:1::1 dev wlan0 nodad
ip addr add fd00:2::2 peer fd00:2::1 dev rmnet_data0 nodad
inpeer ip addr add fd00:1::1 peer fd00:1::2 dev wlan0-net nodad
inpeer ip addr add fd00:2::1 peer fd00:2::2 dev rmnet0-net nodad
ip -6 route add default dev wlan0 metric 10
ip -6 route add default dev rmnet_data0 metric 20
# Routing tables named after the interfaces, as on the device; the ip wrapper maps each name to
# a fixed table number, so these routes and the daemon's "table <iface>" rules meet. The daemon's
# connection count reads this namespace's tracking table.
"$MLBD_ROOT/system/bin/ip-wrapper-1.0" route add default dev wlan0 table wlan0
"$MLBD_ROOT/system/bin/ip-wrapper-1.0" route add default dev rmnet_data0 table rmnet_data0
"$MLBD_ROOT/system/bin/ip-wrapper-1.0" -6 route add default dev wlan0 table wlan0
"$MLBD_ROOT/system/bin/ip-wrapper-1.0" -6 route add default dev rmnet_data0 table rmnet_data0
ln -sf /proc/net/nf_conntrack "$MLBD_ROOT/proc/net/nf_conntrack"

"${inpeer[@]}" "$build/tools/rtt-responder" --address 1.1.1.1 --port 443 \
    2>"$out/rtt-responder.log" &
"${inpeer[@]}" "${demo[@]}" web-server 10.77.0.80 80 &
"${inpeer[@]}" "${demo[@]}" web-server fd77::80 80 &
"${inpeer[@]}" "${demo[@]}" game-server fd77::7 7777 &
# The SLA module's stand-in serves $MLBD_ROOT/proc/sla from this namespace's byte counters.
"$build/tools/sla-standin" --root "$MLBD_ROOT" --iface wlan0 --iface rmnet_data0 --verbose \
    2>"$out/sla-standin.log" &
wait_for 5 test -p "$MLBD_ROOT/proc/sla/config" || fail "no SLA stand-in"

phase "1 start: mlbd on dual-stack wlan0 (20 ms, 1000 kbit/s) and rmnet_data0 (160 ms, 4000 kbit/s)"
"$build/mlbd" 2>"$out/mlbd.log" &
"${demo[@]}" relay "$MLBD_ROOT/dev/socket/mlbd" "$MLBD_ROOT/mlbdctl-relay.sock" &
wait_for 10 test -S "$MLBD_ROOT/mlbdctl-relay.sock" || fail "mlbd's control socket never came"
ctl whitelist 10010
wait_for 5 grep -q "uid-owner 10010 -j vexa_SLM" "$out/mlbd.log" || fail "whitelist not applied"
status

phase "2 web: UID 10010 loads pages for 10 s over IPv4 and IPv6; mlbd splits new connections by measured rate"
"${demo[@]}" web 10010 10.77.0.80 80 "$links" 10 > >(sed -u 's/web:/web (IPv4):/') &
web=$!
"${demo[@]}" web 10010 fd77::80 80 "$links" 10 > >(sed -u 's/web:/web (IPv6):/') &
web6=$!
pause 8
status
rates="$(tail -1 "$out/sla-standin.log")"
threshold="$(sed -n 's/^wifi_threshold=//p' "$MLBD_ROOT/vendor/etc/sla/mlbd.conf")"
say "received in the last second: ${rates#*received }. Wi-Fi's share of new web" \
    "connections is its rate over wifi_threshold ($threshold kbit/s); cellular takes the rest"
wait "$web" "$web6" || true

phase "3 game: UID 10050 plays on its server [fd77::7]:7777 over IPv6; link selection starts"
"${demo[@]}" game 10050 fd77::7 7777 "$links" > >(tee "$out/game.log") &
wait_for 5 link_of_game wlan0 || fail "the game did not connect"
ctl start-sls 10050
pause 3
status
say "(no gaming link yet: mlbd probes only once the game's RTT is high, and the game follows"
say " the default route, wlan0. With the web app gone, Wi-Fi's measured rate and share are ~0)"

phase "4 slow: Wi-Fi's delay rises to 300 ms (exit threshold 130 ms)"
"$build/tools/link-emulator" set wlan0 delay=300ms >/dev/null
say "link-emulator set wlan0 delay=300ms"
wait_for 20 link_of_game rmnet_data0 || fail "the game did not move to rmnet_data0"
say "the game's RTT passed 130 ms; probes: $(probes)-> mlbd moved UID 10050 and reset it"
pause 1
status

phase "5 back: Wi-Fi's delay falls to 20 ms"
"$build/tools/link-emulator" set wlan0 delay=20ms >/dev/null
say "link-emulator set wlan0 delay=20ms (cellular's 160 ms is above 130 ms, so probing goes on)"
wait_for 20 link_of_game wlan0 || fail "the game did not return to wlan0"
say "probes: $(probes)-> back on Wi-Fi; the game's RTT is low again and probing stops"
pause 1
status

phase "6 stop: vendor.sla.enabled=2"
echo 2 >"$MLBD_ROOT/properties/vendor.sla.enabled"
wait_for 10 grep -q "Slm disabled, starting cleanup" "$out/mlbd.log" || fail "mlbd did not stop"
wait_for 15 steering_gone || fail "mlbd left rules behind"
status
say "mlbd removed all its rules and parked; ending it and the demo"
