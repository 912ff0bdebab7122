#!/bin/bash
# Fetches Debian's Prometheus, its tools and Alertmanager's, and prints the folder of their programs.
# RVX_MONITORING_CACHE moves the cache.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
source "$root/tools/unpacked.sh"
cache=${RVX_MONITORING_CACHE:-$root/.cache/monitoring}
unpacked "$cache" usr/bin/amtool ./usr/bin prometheus prometheus-alertmanager
echo "$cache/usr/bin"
