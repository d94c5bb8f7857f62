#!/usr/bin/env bash
# Builds the libFuzzer targets of fuzz/ with clang (-fsanitize=fuzzer,address,undefined) and runs
# each one briefly from a small generated seed corpus and from the minimized corpus kept in the
# tree (fuzz/corpus/<target>, the result of deep runs). Any crash, leak, sanitizer report or
# timeout fails the script.
#
#   tools/run-fuzz.sh                 # 20 s per target
#   FUZZ_SECONDS=300 tools/run-fuzz.sh
#   BUILD_DIR=/tmp/fz tools/run-fuzz.sh fuzz_nl80211_packet   # one target only
set -euo pipefail
src="$(cd "$(dirname "$0")/.." && pwd)"
build="${BUILD_DIR:-$src/build-fuzz}"
seconds="${FUZZ_SECONDS:-20}"
targets=(fuzz_sockdiag_dump fuzz_nl80211_attribute fuzz_nl80211_nested fuzz_nl80211_packet
         fuzz_netlink_receive fuzz_control_record fuzz_config_file fuzz_property_texts)
[ $# -gt 0 ] && targets=("$@")

command -v clang++ >/dev/null || { echo "run-fuzz: clang++ is needed" >&2; exit 1; }
CC=clang CXX=clang++ cmake -S "$src" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DMLBD_FUZZ=ON >/dev/null
if ! grep -q "fuzz_nl80211_packet" "$build/build.ninja"; then
    echo "run-fuzz: the top-level CMakeLists.txt does not add fuzz/ (add_subdirectory(fuzz))" >&2
    exit 1
fi
cmake --build "$build" -j "${FUZZ_JOBS:-2}" --target "${targets[@]}"

# Seeds: well-formed kernel replies of each kind, written little-endian as the kernel does, and
# control records (host order, little-endian on every supported host) of each id.
corpus="$build/fuzz-corpus"
rm -rf "$corpus"
python3 - "$corpus" "$src" <<'PY'
import os, struct, sys
root, src = sys.argv[1], sys.argv[2]

def attr(t, payload):
    a = struct.pack("<HH", 4 + len(payload), t) + payload
    return a + b"\0" * (-len(a) % 4)

def nlmsg(t, payload, flags=2, seq=0):
    m = struct.pack("<IHHII", 16 + len(payload), t, flags, seq, 0) + payload
    return m + b"\0" * (-len(m) % 4)

def genl(t, cmd, attrs, flags=0, seq=1):
    return nlmsg(t, bytes([cmd, 1, 0, 0]) + attrs, flags, seq)

def chunks(*parts):
    return b"".join(struct.pack("<H", len(p)) + p for p in parts)

def diag(family, state, uid, attrs=b""):
    msg = bytes([family, state, 0, 0]) + struct.pack(">HH", 40000, 443)
    msg += bytes([127, 0, 0, 1]) + b"\0" * 12 + bytes([10, 0, 0, 2]) + b"\0" * 12
    msg += struct.pack("<IIIIIIII", 1, 0, 0, 0, 0, 0, uid, 99)
    return nlmsg(20, msg + attrs)

tcp_info = bytes([1, 0, 0, 0, 0, 7, 0x77, 0]) + struct.pack("<56I", *range(56))[:224]
done = nlmsg(3, struct.pack("<i", 0))
error = nlmsg(2, struct.pack("<i", -22) + b"\0" * 16)
station = attr(21, attr(7, bytes([0xc6])) + attr(1, struct.pack("<I", 5)))
groups = attr(7, attr(1, attr(1, b"scan\0") + attr(2, struct.pack("<I", 5))) +
                 attr(2, attr(1, b"mlme\0") + attr(2, struct.pack("<I", 6))))
family = genl(16, 1, attr(1, struct.pack("<H", 0x1c)) + attr(2, b"nl80211\0") + groups)

def rec(cid, text, length=None):
    text = text.encode() if isinstance(text, str) else text
    length = len(text) if length is None else length
    return struct.pack("<ii", cid, length) + text.ljust(1024, b"\0")

seeds = {
    "fuzz_sockdiag_dump": [
        b"\x01" + chunks(diag(2, 1, 10001, attr(2, tcp_info)) + diag(10, 1, 0), done),
        b"\x00" + chunks(diag(2, 10, 10001) + diag(2, 1, 10002) + done),
        b"\x86" + chunks(diag(10, 1, 10001) + error),
    ],
    "fuzz_nl80211_attribute": [
        b"\x07\x00" + genl(0x1c, 19, attr(3, struct.pack("<I", 2)) + station),
        b"\x02\x00" + family,
    ],
    "fuzz_nl80211_nested": [station, groups, attr(1, b"")],
    "fuzz_nl80211_packet": [family, done, error, genl(0x1c, 19, station)],
    "fuzz_netlink_receive": [
        b"\x00" + chunks(genl(0x1c, 19, station)),
        b"\x00" + chunks(genl(0x1c, 19, station, flags=2) + genl(0x1c, 19, station, flags=2),
                         nlmsg(3, b"\0" * 4, seq=1)),
        b"\x00" + chunks(nlmsg(2, struct.pack("<i", -2) + b"\0" * 16, seq=1)),
        b"\x01" + chunks(family),
    ],
    "fuzz_control_record": [
        rec(1, "10123,10234") + rec(1, "10123,10234") + rec(7, "10345") + rec(1, "NULL"),
        rec(4, "100") + rec(4, "200") + rec(4, "200") + rec(4, "12x"),
        rec(5, "10123,10234") + rec(5, "10123") + rec(6, "") + rec(6, ""),
        rec(8, "0") + rec(8, "10123") + rec(8, "10456") + rec(8, "0"),
        rec(9, "aa:bb:cc:dd:ee:ff") + rec(2, "wlan1") + rec(3, "ccmni0"),
        rec(0, "x") + rec(10, "x") + rec(4, "300", length=1024) + rec(4, "300", length=-1) +
            rec(9, b"a" * 1024),
        # A short last receive: only the id is new, the rest is the previous record's.
        rec(5, "10123") + struct.pack("<i", 1),
    ],
    "fuzz_config_file": [
        open(os.path.join(src, "etc", "mlbd.conf"), "rb").read(),
        b"mini_est_interval = 200\n  # c\nping_interval_ms=500# ms\nrtt_server=a=b\nSLAEnabled\n"
        b"interface_0=wlan0,0,wlan0,0x5A,1,0,0,0\ninterface_1=rmnet_data0,1,x,,1,0,0\r\n"
        b"uid_whitelist=10010,,123456,10011\nn_hyst=-99999999999999999999\t\n",
    ],
    "fuzz_property_texts": [
        chunks(b"wlan0,rmnet_data0", b"1", b"10010,10011", b"NULL", b"10050,10051"),
        chunks(b"wlan0,wlan1,ccmni0,rmnet_data1,rmnet_data2", b"0", b"0", b"", b",,00,1"),
        chunks(b"wlan 0,,/x,rmnet_data0\n", b"abc", b"1" * 120, b"12345678901", b"-1,+2"),
    ],
}
for target, items in seeds.items():
    os.makedirs(os.path.join(root, target), exist_ok=True)
    for i, data in enumerate(items):
        with open(os.path.join(root, target, "seed%d" % i), "wb") as f:
            f.write(data)
PY

status=0
for t in "${targets[@]}"; do
    work="$build/fuzz-work/$t"
    rm -rf "$work"
    mkdir -p "$work/corpus"
    cp "$corpus/$t"/* "$work/corpus/"
    if [ -d "$src/fuzz/corpus/$t" ]; then cp "$src/fuzz/corpus/$t"/* "$work/corpus/"; fi
    echo "== $t: ${seconds}s"
    if ! ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
          "$build/fuzz/$t" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
          -max_len=20000 -print_final_stats=1 -artifact_prefix="$work/" "$work/corpus" \
          >"$work/log" 2>&1; then
        echo "run-fuzz: $t FAILED; see $work/log" >&2
        tail -n 40 "$work/log" >&2
        status=1
    else
        grep -E "stat::number_of_executed_units|cov: " "$work/log" | tail -n 2
    fi
done
[ "$status" -eq 0 ] && echo "run-fuzz: all ${#targets[@]} targets ran clean"
exit "$status"
