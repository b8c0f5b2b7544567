#!/bin/sh
# Creates the build's Wine prefix once: no Mono/Gecko prompt, and no crash
# debugger, so that a crashing program always exits with a failure code.
set -e
prefix=$1
wine=$2
wineserver=$3
export WINEPREFIX="$prefix" WINEDEBUG=-all WINEDLLOVERRIDES="mscoree,mshtml="
unset DISPLAY
[ -f "$prefix/.moradel-ready" ] && exit 0
rm -rf "$prefix"
"$wine" wineboot -i >/dev/null 2>&1
"$wine" reg add 'HKLM\Software\Microsoft\Windows NT\CurrentVersion\AeDebug' /v Debugger /t REG_SZ /d '' /f \
    >/dev/null 2>&1
"$wineserver" -w
touch "$prefix/.moradel-ready"
