#!/bin/bash
# Fetches Debian's Prometheus, its tools and Alertmanager's, and prints the folder of their programs.
#
# They are downloaded and unpacked into the cache, not installed: installing them would start services.
# RVX_MONITORING_CACHE moves the cache; deleting it is always safe.
set -euo pipefail

cache=${RVX_MONITORING_CACHE:-$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)/.cache/monitoring}

# unpack DIR: the packages' programs; DIR appears only when all of them are there.
unpack() {
    local work=$1.new package
    rm -rf "$work" "$1"
    mkdir -p "$work"
    (cd "$work" && apt-get download -q prometheus prometheus-alertmanager >&2) || return
    for package in "$work"/*.deb; do
        dpkg-deb --fsys-tarfile "$package" | tar -x -C "$work" ./usr/bin && rm "$package" || return
    done
    mv "$work" "$1"
}

# The list of packages may be older than the mirror: look once for what replaced a version that is gone.
[ -x "$cache/usr/bin/amtool" ] || unpack "$cache" || { apt-get update -q >&2 && unpack "$cache"; }
echo "$cache/usr/bin"
