#!/usr/bin/env bash
# A short tour of devupdate against the simulated device update service.
#
#   demo/demo.sh [BUILD_DIR]      (default: build)
#
# Starts devsim with its built-in fleet on port $DEMO_PORT (default 7071, so a
# real service on 7070 is left alone), lists the devices, updates every
# normal-mode device, recovers the safe-mode and failsafe-mode ones, and lists
# them again. devsim is stopped however the script ends. Every command is printed
# as it can be typed again in the source tree, devsim's first; the firmware image
# stays in BUILD_DIR/demo for that.
set -uo pipefail

build=${1:-build}
port=${DEMO_PORT:-7071}
devsim="$build/devsim/devsim"
devupdate="$build/cli/devupdate"
for program in "$devsim" "$devupdate"; do
  if [[ ! -x $program ]]; then
    echo "demo: $program is missing; build first (make build)" >&2
    exit 1
  fi
done

work=$(mktemp -d "${TMPDIR:-/tmp}/devupdate-demo.XXXXXX")
sim_pid=""
tool_pid=""
cleanup() {
  for pid in $tool_pid $sim_pid; do
    if kill -0 "$pid" 2>/dev/null; then
      kill "$pid" 2>/dev/null
      wait "$pid" 2>/dev/null
    fi
  done
  rm -rf "$work"
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

# A firmware image: the header line says what it installs; the rest is payload.
# It names no manufacturer or model, so every normal-mode device accepts it.
fw=$build/demo/fw.bin
mkdir -p "$build/demo"
printf 'DEVFW1 version=5.0.0\n' > "$fw"
head -c 4096 /dev/zero >> "$fw"

# Slow enough to watch the progress bars, about a second and a half per job.
# It writes its port file once it listens; until then it is starting or gone.
sim_args=(--port="$port" --tick-ms=150 --progress-steps=10)
"$devsim" "${sim_args[@]}" --port-file="$work/port" > /dev/null 2> "$work/devsim.log" &
sim_pid=$!
until [[ -s $work/port ]]; do
  if ! kill -0 "$sim_pid" 2>/dev/null; then
    echo "demo: devsim did not start:" >&2
    cat "$work/devsim.log" >&2
    exit 1
  fi
  sleep 0.05
done

failures=0
step() {
  local title=$1
  shift
  printf '\n== %s\n$' "$title"
  printf ' %q' "$devupdate" --port="$port" "$@"
  printf '\n'
  # Waited for in the background so that a signal reaches the trap at once.
  "$devupdate" --port="$port" "$@" &
  tool_pid=$!
  wait "$tool_pid"
  local status=$?
  tool_pid=""
  printf '(exit status %d)\n' "$status"
  [[ $status -eq 0 ]] || failures=$((failures + 1))
}

echo "devsim is serving its built-in fleet on 127.0.0.1:$port, started as:"
printf '$'
printf ' %q' "$devsim" "${sim_args[@]}"
printf ' &\n'
step "1. The devices the service knows" --list
step "2. Update every normal-mode device, then reboot each" --file="$fw" --all --reboot
step "3. Recover the safe-mode and failsafe-mode devices" --recover-safe --recover-failsafe --all
step "4. The devices again, now on their new versions" --list

if [[ $failures -ne 0 ]]; then
  printf '\ndemo: %d step(s) did not succeed; devsim log:\n' "$failures"
  cat "$work/devsim.log"
  exit 1
fi
printf '\nDone.\n'
