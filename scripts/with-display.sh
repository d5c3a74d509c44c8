#!/usr/bin/env bash
# Runs a command with one Xvfb and the Wine prefix of build/win ready, and stops both afterwards,
# also when the command fails or the run is interrupted.
#   usage: scripts/with-display.sh COMMAND [ARGS...]
#   KVNXST_WINE_ROOT names another build folder whose prefix to use.
#   KVNXST_OWN_DISPLAY=1 uses the display in DISPLAY (a person's screen) instead of an Xvfb.
set -uo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
repo=$(dirname "$here")
export KVNXST_WINE_ROOT=${KVNXST_WINE_ROOT:-$repo/build/win}
mkdir -p "$KVNXST_WINE_ROOT"

xvfb_pid=""
child=""
cleanup() {
  [ -n "$child" ] && kill -TERM "$child" >/dev/null 2>&1
  WINEPREFIX="$KVNXST_WINE_ROOT/wineprefix" wineserver -k >/dev/null 2>&1
  [ -n "$xvfb_pid" ] && kill "$xvfb_pid" >/dev/null 2>&1 && wait "$xvfb_pid" 2>/dev/null
}
trap cleanup EXIT
trap 'exit 130' INT TERM

own=0
[ "${KVNXST_OWN_DISPLAY:-0}" = 1 ] && [ -n "${DISPLAY:-}" ] && own=1
# First free display from :90 upwards. A display can be taken without a file in /tmp showing it
# (another root file system on the same machine shares the abstract socket names), so a server
# that dies at once means: try the next one.
display=89
xvfb_log=$(mktemp)
[ "$own" = 1 ] || for _ in $(seq 20); do
  display=$((display + 1))
  while [ -e "/tmp/.X11-unix/X$display" ] || [ -e "/tmp/.X$display-lock" ]; do display=$((display + 1)); done
  Xvfb ":$display" -screen 0 1280x1024x24 -nolisten tcp >"$xvfb_log" 2>&1 &
  xvfb_pid=$!
  # A loaded machine can take seconds for the first start (keymap compilation).
  for _ in $(seq 300); do
    [ -e "/tmp/.X11-unix/X$display" ] && break
    kill -0 "$xvfb_pid" 2>/dev/null || break
    sleep 0.1
  done
  [ -e "/tmp/.X11-unix/X$display" ] && break
  wait "$xvfb_pid" 2>/dev/null
  xvfb_pid=""
  grep -q "server already running" "$xvfb_log" || break
done
if [ "$own" = 0 ] && [ ! -e "/tmp/.X11-unix/X$display" ]; then
  echo "with-display: Xvfb did not start:" >&2
  cat "$xvfb_log" >&2
  exit 1
fi
rm -f "$xvfb_log"
[ "$own" = 1 ] || export DISPLAY=":$display"

. "$here/wine-env.sh"
kvnxst_wine_env || exit 1
# A wineserver left over from an interrupted run would keep the old display.
wineserver -k >/dev/null 2>&1; wineserver -w
# One wineserver for the whole run instead of one per test program.
wineserver -p
# The first program of a session starts Wine's own background processes, which would hold its
# output pipe open; start them here so a test's output closes when the test ends.
wine cmd /c exit </dev/null >/dev/null 2>&1
# In the background so that a signal reaches the traps at once, not after the command ends.
"$@" &
child=$!
wait "$child"
status=$?
child=""
exit $status
