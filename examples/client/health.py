#!/usr/bin/python3
"""health.py [SOCKET]: what is wrong with the machine's arrays and disks.

Exit status: 0 all in order, 1 a warning, 2 something critical, or not known."""

import sys

import rvx

try:
    health = rvx.Client(sys.argv[1] if len(sys.argv) > 1 else "/run/rvx/rvxd-ro.sock", timeout=10).get("/v1/health")
except (OSError, rvx.Problem) as error:  # a problem before the first pass
    sys.exit(print("rvxd does not answer:" if isinstance(error, OSError) else "not known:", error) or 2)
print(health["headline"])
for condition in health["conditions"]:
    print(f"{condition['level']}: {condition['object']}: {condition['text']}; {condition['next'] or 'nothing to do'}")
sys.exit({"ok": 0, "warning": 1}.get(health["level"], 2))
