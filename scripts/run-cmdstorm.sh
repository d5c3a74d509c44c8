#!/usr/bin/env bash
# Hostile command lines against the built agent: COUNT lines in all, shared among JOBS cmdstorm
# processes side by side (each on a desktop of its own, with seeds SEED, SEED+1, ...). A line's time
# is mostly the agent waiting, so side by side they end sooner on the same cores.
#   usage: scripts/run-cmdstorm.sh BUILD_DIR COUNT SEED JOBS   (under scripts/with-display.sh)
set -uo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
build=$1 count=$2 seed=$3 jobs=$4
cd "$build/bin" || exit 2
rm -f cmdstorm-*.log
pids=()
for ((j = 0; j < jobs; ++j)); do
  n=$((count / jobs + (j < count % jobs ? 1 : 0)))
  "$here/../cmake/wine-run.sh" --root="$build" cmdstorm.exe --agent KVNXST.exe --count "$n" \
    --seed $((seed + j)) >"cmdstorm-$j.log" 2>&1 &
  pids+=($!)
done
rc=0
for pid in "${pids[@]}"; do wait "$pid" || rc=1; done
for ((j = 0; j < jobs; ++j)); do
  echo "== seed $((seed + j))"
  grep -v " lines run, " "cmdstorm-$j.log"
done
awk '/^cmdstorm: [0-9]+ lines, [0-9]+ failed/ { lines += $2; failed += $4 }
  END { printf "cmdstorm: %d lines in all, %d failed\n", lines, failed }' cmdstorm-*.log
exit $rc
