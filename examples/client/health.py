#!/usr/bin/python3
"""health.py [SOCKET]: what is wrong with the machine's arrays and disks.

Exit status: 0 all in order, 1 a warning, 2 something critical, or not known."""

import http.client
import json
import socket
import sys


class Connection(http.client.HTTPConnection):
    def connect(self):
        self.sock = socket.socket(socket.AF_UNIX)
        self.sock.settimeout(10)
        self.sock.connect(self.host)


try:
    connection = Connection(sys.argv[1] if len(sys.argv) > 1 else "/run/rvx/rvxd-ro.sock")
    connection.request("GET", "/v1/health", headers={"Host": "localhost"})
    health = json.load(connection.getresponse())
except (OSError, ValueError) as error:
    sys.exit(print("rvxd does not answer:", error) or 2)
print(health.get("headline") or health["detail"])  # a problem before the first pass
for condition in health.get("conditions", []):
    print(f"{condition['level']}: {condition['object']}: {condition['text']}; {condition['next'] or 'nothing to do'}")
sys.exit({"ok": 0, "warning": 1}.get(health.get("level"), 2))
