#!/usr/bin/env bash
# The administrator's package under Wine's msiexec: it installs the agent under Program Files, the
# installed agent links to the simulator and ends at its request, a newer package replaces the
# installation (one entry left), and removing it leaves nothing.
#   usage: installer_e2e.sh BUILD-DIR   (the Windows build, whose Wine prefix and programs are used)
set -u
repo=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
run=("$repo/cmake/wine-run.sh" "--root=$1")
bin=$1/bin
work=$(mktemp -d)
fail() { echo "installer_e2e: $*" >&2; exit 1; }
wine_() { "${run[@]}" "$@" </dev/null 2>/dev/null | tr -d '\r'; return "${PIPESTATUS[0]}"; }
folder='C:\Program Files\Kestrova Development\Vexa Remote Control'
uninstall='HKLM\Software\Microsoft\Windows\CurrentVersion\Uninstall'
# The product code and "DisplayVersion" of every installed package of ours, a line each.
ours() {
  wine_ reg query "$uninstall" /s | awk '/^HKEY/ {key = $0} /DisplayName .*Kestrova Vexa Remote Control Tray Agent/ {name[key] = 1}
    /DisplayVersion/ {ver[key] = $3} END {for (k in name) {code = k; sub(/.*\\/, "", code); print code, ver[k]}}'
}
installed() { ours | awk '{print $2}'; }
# Whatever a failed run left installed goes first, and this run's installations at the end.
remove_ours() { ours | while read -r code _; do wine_ msiexec /x "$code" /qn; done; }
remove_ours
trap 'remove_ours; rm -rf "$work"' EXIT

old=$("$repo/installer/build-msi.sh" "$work/old.msi") || fail "no package"
version=$(msiinfo export "$old" Property | tr -d '\r' | awk '$1 == "ProductVersion" {print $2}')
IFS=. read -r major minor patch <<<"$version"
newer=$major.$minor.$((patch + 1))
KVNXST_MSI_VERSION=$newer "$repo/installer/build-msi.sh" "$work/new.msi" >/dev/null || fail "no newer package"

wine_ msiexec /i "Z:${old//\//\\}" /qn || fail "msiexec /i failed"
for f in KVNXST.exe KVNXSTRES.dll KVNXChat.dll KVNXST.Logging.xml 'Localization\fr\KVNXSTRES.dll' 'Localization\de\KVNXSTRES.dll'; do
  wine_ cmd /c if exist "$folder\\$f" echo found | grep -q found || fail "$f not installed"
done
[ "$(installed)" = "$version" ] || fail "installed versions: $(installed | tr '\n' ' '), expected $version"

# The installed agent, from its own folder, against the simulator on a port of its own.
port=$((20000 + RANDOM % 20000))
printf 'exit\nexpect-closed 10000\n' > "$work/script.txt"
wine_ "$bin/kvnxs-sim.exe" --port "$port" --no-udp --accept-timeout 60000 --script "Z:${work//\//\\}\\script.txt" > "$work/sim.txt" &
sim=$!
wine_ "$folder\\KVNXST.exe" "$port"
agent=$?
wait "$sim" || { cat "$work/sim.txt" >&2; fail "the simulator saw a fault"; }
[ "$agent" = 200 ] || fail "installed agent ended with $agent, not -56 (the service's request)"
grep -q -- '-- handshake complete' "$work/sim.txt" || fail "no handshake with the installed agent"

wine_ msiexec /i "Z:${work//\//\\}\\new.msi" /qn || fail "the newer package did not install"
[ "$(installed)" = "$newer" ] || fail "after the upgrade: $(installed | tr '\n' ' '), expected only $newer"

wine_ msiexec /x "Z:${work//\//\\}\\new.msi" /qn || fail "msiexec /x failed"
[ -z "$(installed)" ] || fail "still installed: $(installed)"
wine_ cmd /c if exist "$folder" echo left | grep -q left && fail "$folder is left behind"
echo "installer_e2e: $version installed, ran, replaced by $newer, removed"
