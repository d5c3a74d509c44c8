#!/usr/bin/env bash
# Runs the benchmarks of a Windows build under Wine and prints their tables.
#   usage: scripts/run-bench.sh [BUILD_DIR] [BENCHMARK_ARGS...]   (default build/win)
# Expects a display and Wine prefix, as scripts/with-display.sh provides.
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
repo=$(dirname "$here")
build=${1:-$repo/build/win}
[ $# -gt 0 ] && shift
build=$(cd "$build" && pwd)

cd "$build/bin"
rc=0
for name in bench_logging bench_socket bench_agent; do
  exe=$build/bin/$name.exe
  if [ ! -f "$exe" ]; then
    echo "run-bench: $exe is missing; build the win preset first" >&2
    exit 1
  fi
  echo "== $name"
  # bench_agent prints a table of its own and takes none of Google Benchmark's options.
  if [ "$name" = bench_agent ]; then
    "$repo/cmake/wine-run.sh" --root="$build" "$exe" || rc=1
  else
    "$repo/cmake/wine-run.sh" --root="$build" "$exe" --benchmark_min_time=0.5 "$@" || rc=1
  fi
done
exit $rc
