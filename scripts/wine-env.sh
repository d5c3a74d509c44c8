# Sourced, not run: points Wine at the prefix of one build folder and makes that prefix on first use.
#   KVNXST_WINE_ROOT  folder that holds the prefix and its HOME (default: the current build folder)
# Never touches the user's own ~/.wine: HOME is redirected before Wine starts.

kvnxst_wine_env() {
  local root=${KVNXST_WINE_ROOT:?KVNXST_WINE_ROOT must name a folder}
  mkdir -p "$root/wine-home"
  export HOME="$root/wine-home"
  export WINEPREFIX="$root/wineprefix"
  export WINEARCH=win64
  # No menu entries, no Mono or Gecko installers (they would try to download).
  export WINEDLLOVERRIDES="winemenubuilder.exe=d;mscoree=d;mshtml=d"
  export WINEDEBUG=${WINEDEBUG:--all}
  unset XDG_RUNTIME_DIR
  if [ ! -f "$WINEPREFIX/.kvnxst-ready" ]; then
    kvnxst_make_prefix || return 1
  fi
  [ -f "$WINEPREFIX/.kvnxst-no-debugger" ] || kvnxst_no_debugger
}

# A program that crashes ends at once with its exception code. Wine's default debugger would hold
# it, and whatever waits for it (a test, a benchmark), until a time-out; the crash line Wine prints
# stays. Also for prefixes made before this was set.
kvnxst_no_debugger() {
  wine reg add 'HKLM\Software\Microsoft\Windows NT\CurrentVersion\AeDebug' /v Debugger \
    /d 'cmd.exe /c exit %ld %ld' /f >/dev/null 2>&1 && touch "$WINEPREFIX/.kvnxst-no-debugger"
}

kvnxst_make_prefix() {
  rm -rf "$WINEPREFIX"
  echo "wine-env: creating prefix $WINEPREFIX" >&2
  wineboot -i >/dev/null 2>&1
  wineserver -w
  wine reg add 'HKCU\Software\Wine' /v Version /d win10 /f >/dev/null 2>&1
  wine reg add 'HKCU\Software\Wine\Explorer' /v Desktop /d Default /f >/dev/null 2>&1
  wine reg add 'HKCU\Software\Wine\Explorer\Desktops' /v Default /d 1024x768 /f >/dev/null 2>&1
  wineserver -w
  grep -q '"Version"="win10"' "$WINEPREFIX/user.reg" || { echo "wine-env: prefix set-up failed" >&2; return 1; }
  touch "$WINEPREFIX/.kvnxst-ready"
}
