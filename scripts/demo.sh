#!/usr/bin/env bash
# The agent's main job on this machine: the simulator plays the service on a free port, the
# resident agent runs in the Wine virtual desktop and goes through scripts/demo-session.txt.
# Run inside scripts/with-display.sh (make demo does). Prints the simulator's trace and the agent's
# exit code (-56: ended at the service's request).
set -uo pipefail
repo=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
sim=$repo/build/host/tools/kvnxs-sim/kvnxs-sim
bin=$repo/build/win/bin
port=${KVNXST_DEMO_PORT:-7129}

"$sim" --port "$port" --no-udp --accept-timeout 60000 --script "$repo/scripts/demo-session.txt" &
sim_pid=$!
(cd "$bin" && wine KVNXST.exe "$port" </dev/null)
agent_status=$?
wait "$sim_pid"
sim_status=$?
# Linux sees the exit code modulo 256.
echo "demo: agent exit code $((agent_status > 127 ? agent_status - 256 : agent_status)), simulator exit code $sim_status"
[ "$sim_status" -eq 0 ] && [ "$agent_status" -eq 200 ]
