#!/bin/sh
# The demo: load Moradel.dll with tracing switched on and show the trace it writes.
set -e
build=${1:-build}
run="$build/wine-run"
key='HKLM\Software\Tessaline Systems\Common\Tracing\Moradel.dll\1.06'
demo_dir="$build/demo"
mkdir -p "$demo_dir"
trace_unix="$(cd "$demo_dir" && pwd)/Moradel.trc"
trace_windows="Z:$(echo "$trace_unix" | tr '/' '\\')"
rm -f "$trace_unix"

"$run" reg add "$key" /v Trace /t REG_DWORD /d 1 /f >/dev/null
"$run" reg add "$key" /v TraceLevel /t REG_DWORD /d 6 /f >/dev/null
"$run" reg add "$key" /v TraceFile /t REG_SZ /d "$trace_windows" /f >/dev/null
"$run" "$build/bin/trace_probe.exe" load Moradel.dll
"$run" reg delete "$key" /f >/dev/null

echo "Trace written by Moradel.dll ($trace_unix):"
iconv -f UTF-16 -t UTF-8 "$trace_unix" | tr -d '\r'
