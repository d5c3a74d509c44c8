#!/usr/bin/env bash
# Runs a Windows program under Wine in a build folder's own prefix; the exit code is the program's.
# Used as CMAKE_CROSSCOMPILING_EMULATOR ("wine-run.sh --root=BUILD_DIR"), so ctest and build-time
# generators both come through here. KVNXST_WINE_ROOT in the environment wins over --root.
set -u
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
case "${1:-}" in
  --root=*) : "${KVNXST_WINE_ROOT:=${1#--root=}}"; shift ;;
esac
: "${KVNXST_WINE_ROOT:=$PWD}"
export KVNXST_WINE_ROOT
. "$here/../scripts/wine-env.sh"
kvnxst_wine_env || exit 125
exec wine "$@"
