#!/usr/bin/env bash
# Builds the Windows-target dependencies (expat, APR, APR-util, log4cxx, Google Benchmark) from
# Debian source packages into a cache outside the checkout. The cache key covers the pinned
# versions, this script and the patches, so an unchanged re-run only prints the prefix.
#   usage: scripts/build-deps.sh            -> prints the install prefix on its last line
#   KVNXST_DEPS_CACHE overrides the cache folder (default ~/.cache/kvnxst-deps).
set -euo pipefail
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
repo=$(dirname "$here")
toolchain="$repo/cmake/mingw-w64-x86_64.cmake"
patches="$here/deps-patches"
cache=${KVNXST_DEPS_CACHE:-${XDG_CACHE_HOME:-$HOME/.cache}/kvnxst-deps}

# package  debian-version  unpack(dsc|orig)  file sha256 ...
pins=(
  "expat     2.5.0-1+deb12u2  dsc   expat_2.5.0.orig.tar.gz=ab00ee05c7067fd10a35c5d2a4922ebba746ddd50ff83b79c828da17bbdf1757 expat_2.5.0-1+deb12u2.debian.tar.xz=7e29f5db5067e55193540089ed0f3ec9676704cf79dcea81a9bfb9f49435ae53 expat_2.5.0-1+deb12u2.dsc=6fc87dbd01f49999ed368cfb37c08d35e41348dda2281d60642f3aa14cb77e32"
  "apr       1.7.6-3          orig  apr_1.7.6.orig.tar.bz2=49030d92d2575da735791b496dc322f3ce5cff9494779ba8cc28c7f46c5deb32"
  "apr-util  1.6.3-1+deb12u1  dsc   apr-util_1.6.3.orig.tar.bz2=a41076e3710746326c3945042994ad9a4fcac0ce0277dd8fea076fec3c9772b5 apr-util_1.6.3-1+deb12u1.debian.tar.xz=f52fa29f517c3a746ec1227f868ac62fe37f99a0c1246291a78a541fdf9461e5 apr-util_1.6.3-1+deb12u1.dsc=80ddd39ee305158055729b83c53e7030b63508cdb8fdfe5b0f4ebab947077866"
  "log4cxx   1.5.0-1          orig  log4cxx_1.5.0.orig.tar.gz=aa23f47c3164aa2cf848c2258b4b4bc372e7964d4a3ed47c2b4a4a915c5dfa37"
  "benchmark 1.7.1-1          orig  benchmark_1.7.1.orig.tar.gz=6430e4092653380d9dc4ccb45a1e2dc9259d581f4866dc0759713126056bc1d7"
)

key=$( { printf '%s\n' "${pins[@]}"; cat "$0" "$toolchain" "$patches"/*.patch; } | sha256sum | cut -c1-16)
prefix="$cache/prefix-$key"
if [ -f "$prefix/.complete" ]; then
  echo "$prefix"
  exit 0
fi

log() { echo "build-deps: $*" >&2; }
work="$cache/work-$key"
# Leftovers of interrupted or superseded builds.
rm -rf "$cache"/work-* "$prefix"
mkdir -p "$work/src" "$work/build"
cd "$work/src"

ensure_deb_src() {
  # apt-get source needs deb-src lines; derive them from the machine's own binary sources.
  # Written afresh each time, so entries left by an older or failed run never linger.
  local list=/etc/apt/sources.list.d/kvnxst-src.sources
  rm -f "$list"
  local uris
  uris=$( { cat /etc/apt/sources.list /etc/apt/sources.list.d/*.sources 2>/dev/null || true; } \
         | sed -n -E 's/^URIs:[[:space:]]*//p; s/^deb[[:space:]]+(\[[^]]*\][[:space:]]+)?//p' \
         | sed -E 's/[[:space:]].*//' | grep -E '/debian(-security)?/?$' | sort -u || true)
  [ -n "$uris" ] || { log "no Debian apt source found to derive deb-src entries from"; exit 1; }
  local u stanza='Types: deb-src\nURIs: %s\nSuites: %s\nComponents: main\n%bSigned-By: /usr/share/keyrings/debian-archive-keyring.gpg\n\n'
  for u in $uris; do
    case "$u" in
      *-security*) printf "$stanza" "$u" bookworm-security "" ;;
      *)
        printf "$stanza" "$u" bookworm ""
        # The pinned hashes vouch for the sources, so an archive snapshot whose sid Release file
        # has passed its Valid-Until date is still fine to fetch from. (Only for sid: apt refuses
        # a suite whose deb and deb-src entries disagree on this.)
        printf "$stanza" "$u" sid 'Check-Valid-Until: no\n'
        ;;
    esac
  done > "$list"
  apt-get update >/dev/null || { rm -f "$list"; log "apt-get update failed with the deb-src entries"; exit 1; }
}

fetch() {  # package version files...
  local pkg=$1 ver=$2; shift 2
  local missing=0 f
  for f in "$@"; do [ -f "${f%%=*}" ] || missing=1; done
  if [ $missing = 1 ]; then
    ensure_deb_src
    # Some side files (signatures, other revisions' debian tarballs) may be gone from the
    # archive; what we build from is checked by hash below.
    apt-get source --download-only "$pkg=$ver" >/dev/null 2>&1 || true
  fi
  for f in "$@"; do
    local name=${f%%=*} sum=${f#*=}
    [ -f "$name" ] || { log "could not fetch $name ($pkg $ver) from the apt sources"; exit 1; }
    echo "$sum  $name" | sha256sum -c --quiet - || { log "sha256 mismatch for $name"; exit 1; }
  done
}

unpack() {  # package version mode files... -> folder $pkg
  local pkg=$1 ver=$2 mode=$3; shift 3
  fetch "$pkg" "$ver" "$@"
  rm -rf "$pkg"
  if [ "$mode" = dsc ]; then
    dpkg-source --no-check -x "${pkg}_${ver#*:}.dsc" "$pkg" >/dev/null
  else
    mkdir "$pkg"
    tar -xf "${1%%=*}" -C "$pkg" --strip-components=1
  fi
}

for p in "${pins[@]}"; do
  # shellcheck disable=SC2086
  unpack $p
done

patch -d expat -p1 -s --batch < "$patches/expat-2.5.0-xml-dtd.patch"
patch -d apr -p1 -s --batch < "$patches/apr-1.7.6-mingw.patch"
patch -d apr-util -p1 -s --batch < "$patches/apr-util-1.6.3-mingw.patch"
patch -d log4cxx -p1 -s --batch < "$patches/log4cxx-1.5.0-mingw.patch"

# gen_test_char runs under Wine during the APR build; it gets a prefix of its own here.
export KVNXST_WINE_ROOT="$work/wine"
common=(-G Ninja -DCMAKE_TOOLCHAIN_FILE="$toolchain" -DKVNXST_DEPS_PREFIX="$prefix"
        -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX="$prefix")
build() {  # name source-dir cmake-args...
  local name=$1 src=$2; shift 2
  log "building $name"
  cmake -S "$src" -B "$work/build/$name" "${common[@]}" "$@" > "$work/build/$name.log" 2>&1 &&
    cmake --build "$work/build/$name" >> "$work/build/$name.log" 2>&1 &&
    cmake --install "$work/build/$name" >> "$work/build/$name.log" 2>&1 ||
    { tail -40 "$work/build/$name.log" >&2; log "$name failed; full log: $work/build/$name.log"; exit 1; }
}

build expat expat/expat -DEXPAT_SHARED_LIBS=OFF -DEXPAT_BUILD_TOOLS=OFF -DEXPAT_BUILD_EXAMPLES=OFF \
  -DEXPAT_BUILD_TESTS=OFF -DEXPAT_BUILD_DOCS=OFF -DEXPAT_BUILD_PKGCONFIG=OFF
build apr apr -DAPR_BUILD_SHARED=OFF -DAPR_BUILD_STATIC=ON -DINSTALL_PDB=OFF -DCMAKE_C_FLAGS=-DCOM_NO_WINDOWS_H
build apr-util apr-util -DAPR_INCLUDE_DIR="$prefix/include" -DAPR_LIBRARIES="$prefix/lib/libapr-1.a" \
  -DAPU_HAVE_ODBC=OFF -DAPR_HAS_LDAP=OFF -DINSTALL_PDB=OFF -DCMAKE_C_FLAGS=-DCOM_NO_WINDOWS_H
build log4cxx log4cxx -DBUILD_SHARED_LIBS=OFF -DAPR_STATIC=ON -DAPU_STATIC=ON -DBUILD_TESTING=OFF \
  -DLOG4CXX_WCHAR_T=ON -DLOG4CXX_ENABLE_ODBC=OFF -DLOG4CXX_ENABLE_ESMTP=OFF -DENABLE_FMT_LAYOUT=OFF \
  -DLOG4CXX_INSTALL_PDB=OFF -DPREFER_BOOST=OFF
build benchmark benchmark -DBENCHMARK_ENABLE_TESTING=OFF -DBENCHMARK_ENABLE_GTEST_TESTS=OFF \
  -DBENCHMARK_ENABLE_WERROR=OFF -DBENCHMARK_ENABLE_INSTALL=ON -DBUILD_SHARED_LIBS=OFF

WINEPREFIX="$KVNXST_WINE_ROOT/wineprefix" wineserver -k 2>/dev/null || true
touch "$prefix/.complete"
rm -rf "$work"
log "done"
echo "$prefix"
