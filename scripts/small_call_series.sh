#!/usr/bin/env bash
# Runs the small-call benchmark RUNS times, GAP seconds apart, and prints each
# run's four cases (median and p99 against the raw ping-pong) with the time
# and load. With --busy, one thread beside it is busy 7 ms and idle 3 ms, over
# and over, as a busy desktop application would be; with --both, each run is
# measured once alone and once beside that thread.
#   scripts/small_call_series.sh [--busy|--both] [RUNS] [GAP]    (defaults 10, 400)
set -euo pipefail
ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
BIN="$ROOT/build-bench/bench/wz_bench"
mode=alone
case "${1:-}" in
  --busy) mode=busy; shift ;;
  --both) mode=both; shift ;;
esac
RUNS="${1:-10}"
GAP="${2:-400}"
[ -x "$BIN" ] || { echo "no $BIN: run scripts/dev.sh bench first" >&2; exit 2; }
command -v python3 >/dev/null || { echo "python3 is needed to read the results" >&2; exit 2; }

load_pid=""
stop_load() {
  [ -z "$load_pid" ] || kill "$load_pid" 2>/dev/null || true
  load_pid=""
}
trap stop_load EXIT
start_load() {
  python3 -c '
import time
while True:
    t = time.perf_counter() + 0.007
    while time.perf_counter() < t:
        pass
    time.sleep(0.003)' &
  load_pid=$!
}

measure() {
  echo "--- $1, load $(cut -d' ' -f1-3 /proc/loadavg)"
  "$BIN" --benchmark_filter='SmallCall' --benchmark_format=json 2>/dev/null | python3 -c '
import json, sys
for b in json.load(sys.stdin)["benchmarks"]:
    print("%-44s call %6.1f p99 %6.0f  raw %5.1f p99 %5.0f  ratios %.2f %.2f" % (
        b["name"], b["call_median_us"], b["call_p99_us"], b["raw_median_us"],
        b["raw_p99_us"], b["median_ratio"], b["p99_ratio"]))'
}

if [ "$mode" = busy ]; then
  start_load
  sleep 20 # lets the load average show it
fi
for i in $(seq 1 "$RUNS"); do
  start=$(date +%s)
  echo "=== run $i $(date -u +%H:%M:%S)"
  case "$mode" in
    alone) measure alone ;;
    busy) measure "beside a busy thread" ;;
    both)
      measure alone
      start_load
      sleep 3
      measure "beside a busy thread"
      stop_load
      ;;
  esac
  [ "$i" -lt "$RUNS" ] || break
  left=$((GAP - ($(date +%s) - start)))
  [ "$left" -le 0 ] || sleep "$left"
done
