#!/usr/bin/env bash
# Builds the administrator's package from the built files of build/win/bin:
#   build-msi.sh [OUT.msi]   (default build/win/KVNXST-<version>.msi; the path is printed)
# The package's version is the agent's own, read from KVNXST.exe's version resource;
# KVNXST_MSI_VERSION=x.y.z overrides it (the upgrade test builds a newer package that way).
# The files go in stripped of their debug information, which stays in the build.
set -euo pipefail
repo=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
bin=$repo/build/win/bin
files=(KVNXST.exe KVNXSTRES.dll KVNXChat.dll KVNXST.Logging.xml Localization/fr/KVNXSTRES.dll Localization/de/KVNXSTRES.dll)
for f in "${files[@]}"; do
  [ -f "$bin/$f" ] || { echo "build-msi: $bin/$f is missing; run make build first" >&2; exit 1; }
done

# VS_FIXEDFILEINFO starts with the signature 0xFEEF04BD; the product version follows at +16.
version=${KVNXST_MSI_VERSION:-$(python3 - "$bin/KVNXST.exe" <<'PY'
import struct, sys
data = open(sys.argv[1], 'rb').read()
at = data.find(struct.pack('<I', 0xFEEF04BD))
if at < 0:
    sys.exit('build-msi: KVNXST.exe has no version resource')
ms, ls = struct.unpack_from('<II', data, at + 16)
print(f'{ms >> 16}.{ms & 0xFFFF}.{ls >> 16}')
PY
)}
out=${1:-$repo/build/win/KVNXST-$version.msi}

stage=$(mktemp -d)
trap 'rm -rf "$stage"' EXIT
(cd "$bin" && cp --parents "${files[@]}" "$stage/")
x86_64-w64-mingw32-strip --strip-debug "$stage/KVNXST.exe" "$stage/KVNXChat.dll"
# wixl takes sources relative to where it runs.
out=$(cd "$(dirname "$out")" && pwd)/$(basename "$out")
(cd "$stage" && wixl -a x64 -D Version="$version" -D Bin=. -o "$out" "$repo/installer/KVNXST.wxs")
echo "$out"
