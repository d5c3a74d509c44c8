#!/usr/bin/env bash
# Runs the benchmarks of a Windows build under Wine and prints their tables.
#   usage: scripts/run-bench.sh [BUILD_DIR] [BENCHMARK_ARGS...]   (default build/win)
# Expects a display and Wine prefix, as scripts/with-display.sh provides. Each program has a time
# limit (KVNXST_BENCH_LIMIT seconds, default 900); one that overruns it is ended and counts as failed.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
repo=$(dirname "$here")
build=${1:-$repo/build/win}
[ $# -gt 0 ] && shift
build=$(cd "$build" && pwd)
limit=${KVNXST_BENCH_LIMIT:-900}

cd "$build/bin"
# The programs add their figures beside their comparisons here (bench/bench_summary.h).
export KVNXST_BENCH_SUMMARY=bench-summary.tsv
rm -f "$KVNXST_BENCH_SUMMARY"
rc=0
for name in bench_logging bench_socket bench_agent bench_permission bench_chat; do
  exe=$build/bin/$name.exe
  if [ ! -f "$exe" ]; then
    echo "run-bench: $exe is missing; build the win preset first" >&2
    exit 1
  fi
  echo "== $name"
  start=$SECONDS
  # bench_agent, bench_permission and bench_chat print tables of their own and take none of
  # Google Benchmark's options.
  args=(--benchmark_min_time=0.5 "$@")
  case $name in bench_agent | bench_permission | bench_chat) args=() ;; esac
  status=0
  timeout --kill-after=10 "$limit" "$repo/cmake/wine-run.sh" --root="$build" "$exe" "${args[@]}" || status=$?
  if [ "$status" = 124 ] || [ "$status" = 137 ]; then
    echo "run-bench: $name did not finish within $limit s and was ended" >&2
  elif [ "$status" != 0 ]; then
    echo "run-bench: $name failed with exit code $status" >&2
  fi
  [ "$status" = 0 ] || rc=1
  echo "== $name: $((SECONDS - start)) s"
done

echo
echo "== every figure beside its comparison, measured in this run (ratio: figure / comparison)"
[ -f "$KVNXST_BENCH_SUMMARY" ] && awk -F '\t' '
  !($1 in row) { order[++n] = $1 }
  { row[$1] = $0 }
  END {
    fmt = "%-50s %-14s %-38s %-14s %s\n"
    printf fmt, "figure", "value", "comparison", "value", "ratio"
    for (i = 1; i <= n; ++i) { split(row[order[i]], f, "\t"); printf fmt, f[1], f[2], f[3], f[4], f[5] }
  }' "$KVNXST_BENCH_SUMMARY"
exit $rc
