#!/bin/sh
# The demo: register Moradel.dll and CimStore (as the WMI of the build's prefix), copy the example
# workstation into the build tree and run two agent cycles over every notification id with
# notifyctl, tracing switched on; then one cycle of the free space and memory kinds on this
# machine's own data. The copies are what change; tracked files never do.
set -e
build=$(cd "${1:-build}" && pwd)
root=$(cd "$(dirname "$0")/.." && pwd)
run="$build/wine-run"
windows_path() { printf 'Z:%s' "$1" | tr '/' '\\'; }

moradel=$(windows_path "$build/bin/Moradel.dll")
cimstore=$(windows_path "$build/bin/CimStore.dll")
"$run" regsvr32 /s "$moradel"
"$run" regsvr32 /s "$cimstore"
"$run" regsvr32 /s /n /i:wmi "$cimstore"

# CimStore compiles the folder in file-name order: the schema first, the machine, changes last.
repository="$build/demo/workstation"
rm -rf "$repository"
mkdir -p "$repository"
for mof in "$root"/schema/*.mof; do cp "$mof" "$repository/00_$(basename "$mof")"; done
for mof in "$root"/examples/workstation/*.mof; do
    [ "$(basename "$mof")" = change.mof ] || cp "$mof" "$repository/"
done
CIMSTORE_REPOSITORY=$(windows_path "$repository")
export CIMSTORE_REPOSITORY

key='HKLM\Software\Tessaline Systems\Common\Tracing\Moradel.dll\1.06'
trace="$build/demo/Moradel.trc"
rm -f "$trace"
"$run" reg add "$key" /v Trace /t REG_DWORD /d 1 /f >/dev/null
"$run" reg add "$key" /v TraceLevel /t REG_DWORD /d 3 /f >/dev/null
"$run" reg add "$key" /v TraceFile /t REG_SZ /d "$(windows_path "$trace")" /f >/dev/null

# Exit status 1 means that some requests answered a failure (the physical disk kind, 65, always
# answers WBEM_E_NOT_SUPPORTED); anything else is a real failure of the demo.
notifyctl_cycle() {
    status=0
    "$run" "$build/bin/notifyctl.exe" cycle "$@" || status=$?
    [ "$status" -le 1 ] || { echo "notifyctl failed with exit status $status" >&2; exit "$status"; }
    [ "$status" -eq 0 ] || echo "(some requests failed: see their hr and returnValue above)"
    echo
}
cycle() {
    echo "== Agent cycle $1 (notifyctl cycle all) on $repository"
    notifyctl_cycle all
}
cycle 1
if [ -f "$root/examples/workstation/change.mof" ]; then
    echo "== Applying examples/workstation/change.mof"
    cp "$root/examples/workstation/change.mof" "$repository/90_change.mof"
fi
cycle 2
echo "Stored state after the cycles: $repository/state.mof"
echo

# This machine: the schema and the free space limits alone, no Win32_* data, so CimStore hands
# the reads of Win32_LogicalDisk and Win32_OperatingSystem to the platform's own WMI.
machine="$build/demo/this-machine"
rm -rf "$machine"
mkdir -p "$machine"
for mof in "$root"/schema/*.mof; do cp "$mof" "$machine/00_$(basename "$mof")"; done
cp "$root"/examples/this-machine/*.mof "$machine/"
CIMSTORE_REPOSITORY=$(windows_path "$machine")
echo "== This machine (notifyctl cycle 21 56 22) on $machine"
notifyctl_cycle 21 56 22
"$run" reg delete "$key" /f >/dev/null

[ -f "$trace" ] && echo "Trace of Moradel.dll: $trace ($(iconv -f UTF-16 -t UTF-8 "$trace" | wc -l) lines)"
