#!/bin/bash
# Fetches the shell of Debian's Cockpit, and prints the folder that XDG_DATA_DIRS needs for it.
# RVX_CONSOLE_CACHE moves the cache.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
source "$root/tools/unpacked.sh"
cache=${RVX_CONSOLE_CACHE:-$root/.cache/console}
unpacked "$cache" usr/share/cockpit/shell/index.html ./usr/share/cockpit cockpit-system
echo "$cache/usr/share"
