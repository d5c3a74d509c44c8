#!/usr/bin/env bash
# Runs the tray-menu test and photographs the screen (the Xvfb of with-display.sh) while the test
# holds the menu open: the test creates OUT.open, this takes the shot and creates OUT.taken.
#   usage: menu_screenshot.sh OUT.png COMMAND [ARGS...]
set -u
out=$1
shift
mkdir -p "$(dirname "$out")"
rm -f "$out" "$out.open" "$out.taken"
KVNXST_MENU_SHOT="$out" "$@" &
test_pid=$!
while kill -0 "$test_pid" 2>/dev/null; do
  if [ -e "$out.open" ]; then
    import -window root "$out" || echo "menu_screenshot: import failed" >&2
    touch "$out.taken"
    break
  fi
  sleep 0.1
done
wait "$test_pid"
status=$?
if [ ! -s "$out" ]; then
  echo "menu_screenshot: no screenshot in $out" >&2
  status=1
fi
rm -f "$out.open" "$out.taken"
exit $status
