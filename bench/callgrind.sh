#!/usr/bin/env bash
# callgrind.sh TOOL NAME SCENARIO... -- TOOL_ARGS...
#
# Profiles one run of TOOL with valgrind's callgrind against the throughput
# harness's stand-in service (blaster), started with SCENARIO (for example
# `storm 20000` or `listlive 2000 2000`). Instruction counts hardly vary from run
# to run, so two builds can be compared while the machine is busy. Writes NAME.cg (the
# profile), NAME.out (the tool's stdout), NAME.annotate and NAME.top (the functions
# with the most instructions of their own) into OUT (default: ./profiles).
#
#   bench/callgrind.sh build/cli/devupdate storm storm 20000 -- --file=fw.bin
#   bench/callgrind.sh build/cli/devupdate live listlive 2000 2000 -- --list --long-lived
#
# Keep the long-lived case small: the blaster does not wait long for the closing
# handshake of a client slowed down this much, and such a client then loses the end
# of the stream (its output is then short of the 3 x N lines it must have).
#
# The blaster comes from the harness's own build (run its bench.sh once first);
# PERF_WORK moves that build as it does for bench.sh.
set -euo pipefail

[ $# -ge 4 ] || { echo "usage: callgrind.sh TOOL NAME SCENARIO... -- TOOL_ARGS..." >&2; exit 2; }
tool=$(cd "$(dirname "$1")" && pwd)/$(basename "$1")
name=$2
shift 2
scenario=()
while [ $# -gt 0 ] && [ "$1" != -- ]; do
    scenario+=("$1")
    shift
done
[ $# -gt 0 ] || { echo "callgrind.sh: missing -- before the tool's arguments" >&2; exit 2; }
shift

blaster=${PERF_WORK:-${XDG_CACHE_HOME:-$HOME/.cache}/devupdate-perf}/build/blaster
[ -x "$blaster" ] || { echo "callgrind.sh: no $blaster (run the harness's bench.sh once)" >&2; exit 2; }
command -v valgrind >/dev/null || { echo "callgrind.sh: valgrind is missing (apt-get install valgrind)" >&2; exit 2; }

out=$(mkdir -p "${OUT:-profiles}" && cd "${OUT:-profiles}" && pwd)
run=$(mktemp -d)
server=
trap '[ -n "$server" ] && kill "$server" 2>/dev/null; rm -rf "$run"' EXIT
head -c 1048576 /dev/urandom >"$run/fw.bin"

"$blaster" --port-file="$run/port" "${scenario[@]}" >"$out/$name.server.log" 2>&1 &
server=$!
for _ in $(seq 1 300); do
    [ -s "$run/port" ] && break
    sleep 0.1
done
[ -s "$run/port" ] || { echo "callgrind.sh: blaster did not start" >&2; exit 1; }

# A long-lived run ends with status 1 when the service closes: not an error here.
(cd "$run" && valgrind --tool=callgrind --callgrind-out-file="$out/$name.cg" \
    "$tool" "$@" --port="$(cat "$run/port")" >"$out/$name.out" 2>"$out/$name.err") || true
grep -h 'Collected' "$out/$name.err" | sed 's/^==[0-9]*== //'
callgrind_annotate --inclusive=no "$out/$name.cg" >"$out/$name.annotate" 2>/dev/null
sed -n '/^Ir /,$p' "$out/$name.annotate" | sed -n '1,40p' >"$out/$name.top"
