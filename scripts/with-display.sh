#!/usr/bin/env bash
# Runs a command with one Xvfb and the Wine prefix of build/win ready, and stops both afterwards,
# also when the command fails or the run is interrupted.
#   usage: scripts/with-display.sh COMMAND [ARGS...]
set -uo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
repo=$(dirname "$here")
export KVNXST_WINE_ROOT=${KVNXST_WINE_ROOT:-$repo/build/win}
mkdir -p "$KVNXST_WINE_ROOT"

xvfb_pid=""
cleanup() {
  WINEPREFIX="$KVNXST_WINE_ROOT/wineprefix" wineserver -k >/dev/null 2>&1
  [ -n "$xvfb_pid" ] && kill "$xvfb_pid" >/dev/null 2>&1 && wait "$xvfb_pid" 2>/dev/null
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# First free display from :90 upwards.
display=90
while [ -e "/tmp/.X11-unix/X$display" ] || [ -e "/tmp/.X$display-lock" ]; do display=$((display + 1)); done
Xvfb ":$display" -screen 0 1280x1024x24 -nolisten tcp >/dev/null 2>&1 &
xvfb_pid=$!
for _ in $(seq 50); do [ -e "/tmp/.X11-unix/X$display" ] && break; sleep 0.1; done
export DISPLAY=":$display"

. "$here/wine-env.sh"
kvnxst_wine_env || exit 1
# One wineserver for the whole run instead of one per test program.
wineserver -p
"$@"
status=$?
exit $status
