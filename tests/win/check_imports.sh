#!/usr/bin/env bash
# Fails when a Windows binary imports anything but system DLLs, e.g. the mingw runtime DLLs that
# a build without -static would need on every workstation.
#   usage: check_imports.sh OBJDUMP BINARY...
set -euo pipefail
objdump=$1; shift
system='^(kernel32|user32|gdi32|advapi32|shell32|comctl32|comdlg32|ole32|oleaut32|ws2_32|wsock32|msvcrt|rpcrt4|crypt32|cryptui|version|wtsapi32|mpr|shlwapi|winmm|secur32|userenv|msimg32|uxtheme|iphlpapi|bcrypt)\.dll$'
rc=0
for bin in "$@"; do
  dlls=$("$objdump" -p "$bin" | sed -n 's/^[[:space:]]*DLL Name: //p' | tr 'A-Z' 'a-z')
  [ -n "$dlls" ] || { echo "$bin: no import table found"; rc=1; continue; }
  for dll in $dlls; do
    if [[ ! $dll =~ $system ]]; then
      echo "$bin imports non-system $dll"
      rc=1
    fi
  done
  echo "$(basename "$bin"): $(echo $dlls)"
done
exit $rc
