#!/bin/sh
# Installs the build and test packages that are missing (Debian 12); quick when all are present.
set -e
packages="g++-mingw-w64-x86-64-posix mingw-w64-tools wine64 libwine-dev cmake googletest python3"
missing=""
for package in $packages; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" || missing="$missing $package"
done
[ -z "$missing" ] && exit 0
echo "Installing:$missing"
sudo=""
[ "$(id -u)" -ne 0 ] && sudo=sudo
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends $missing >/dev/null
