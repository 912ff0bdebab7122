#!/usr/bin/python3
"""What rvxd takes, and how soon it answers, on a simulated machine.

load.py answer RVXD MACHINE   GET /v1/state, one client and 16 at once: median and 99th percentile
load.py soak RVXD MACHINE SECONDS CHANGES
                              so many changes in so many seconds, followed by one stream: memory at a third of it and at
                              the end, events that the stream did not have

Each prints lines "NAME NUMBER".
"""
import http.client
import json
import os
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time


class Unix(http.client.HTTPConnection):
    def __init__(self, path):
        super().__init__("localhost", timeout=60)
        self.path = path

    def connect(self):
        self.sock = socket.socket(socket.AF_UNIX)
        self.sock.settimeout(60)
        self.sock.connect(self.path)


def ask(connection, method, target, body=None, headers=None):
    connection.request(method, target, body and json.dumps(body), headers or {})
    answer = connection.getresponse()
    text = answer.read()
    return answer.status, text


class Daemon:
    def __init__(self, program, machine):
        self.folder = tempfile.TemporaryDirectory()
        self.socket = self.folder.name + "/rvxd.sock"
        self.process = subprocess.Popen(
            [program, "--simulate=" + machine, "--socket", self.socket, "--state", self.folder.name + "/state"],
            stderr=subprocess.DEVNULL)

    def __enter__(self):
        for _ in range(1000):
            try:
                if ask(Unix(self.socket), "GET", "/v1/health")[0] == 200:
                    return self
            except OSError:
                pass
            time.sleep(0.01)
        raise SystemExit("rvxd does not answer")

    def __exit__(self, *_):
        self.process.send_signal(signal.SIGTERM)
        self.process.wait()
        self.folder.cleanup()

    def memory(self):
        with open(f"/proc/{self.process.pid}/status") as status:
            return next(int(line.split()[1]) for line in status if line.startswith("VmRSS"))


def answer(daemon, clients, requests):
    times = []

    def run():
        connection = Unix(daemon.socket)
        mine = []
        for _ in range(requests):
            begin = time.perf_counter()
            status, text = ask(connection, "GET", "/v1/state")
            mine.append(time.perf_counter() - begin)
            assert status == 200 and text
        times.extend(mine)

    threads = [threading.Thread(target=run) for _ in range(clients)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    times.sort()
    print(f"state_median_ms_{clients} {times[len(times) // 2] * 1000:.2f}")
    print(f"state_99th_ms_{clients} {times[len(times) * 99 // 100] * 1000:.2f}")


def change(connection, plan):
    status, text = ask(connection, "POST", "/v1/plans", plan)
    assert status == 200, text
    told = json.loads(text)
    assert told["allowed"], text
    status, text = ask(connection, "POST", "/v1/operations", {"plan": told["plan"], "confirm": True})
    assert status == 202, text
    operation = json.loads(text)["id"]
    while json.loads(text)["state"] in ("queued", "running"):
        status, text = ask(connection, "GET", f"/v1/operations/{operation}?wait=30")
    assert json.loads(text)["state"] == "done", text
    return json.loads(text)


def soak(daemon, seconds, changes):
    followed = []

    def follow():
        stream = socket.socket(socket.AF_UNIX)
        stream.connect(daemon.socket)
        stream.sendall(b"GET /v1/events?since= HTTP/1.0\r\nAccept: text/event-stream\r\n\r\n")
        event = False
        for line in stream.makefile("rb"):
            if line.startswith(b"event: "):
                event = line == b"event: event\n"
            elif event and line.startswith(b"id: "):
                followed.append(int(line.rsplit(b"-", 1)[1]))

    reader = threading.Thread(target=follow, daemon=True)
    reader.start()
    connection = Unix(daemon.socket)
    memory = []
    begin = time.monotonic()
    for count in range(changes // 2):
        made = change(connection, {"kind": "array.create", "level": "raid1", "disks": ["sda", "sdb"]})
        change(connection, {"kind": "array.delete", "array": made["result"]["data"]["array"]})
        memory.append(daemon.memory())
        time.sleep(max(0, begin + seconds * 2 * (count + 1) / changes - time.monotonic()))
    page = json.loads(ask(connection, "GET", "/v1/events?limit=0&since=now")[1])
    last = int(page["cursor"].rsplit("-", 1)[1])
    deadline = time.monotonic() + 30
    while (not followed or followed[-1] != last) and time.monotonic() < deadline:
        time.sleep(0.1)
    print(f"soak_seconds {time.monotonic() - begin:.0f}")
    print(f"soak_changes {2 * len(memory)}")
    print(f"soak_memory_third_kib {memory[len(memory) // 3]}")
    print(f"soak_memory_end_kib {memory[-1]}")
    print(f"soak_events {last}")
    print(f"soak_events_lost {last - len(set(followed))}")
    print(f"soak_events_in_order {int(followed == sorted(followed))}")


def main():
    what, program, machine = sys.argv[1:4]
    with Daemon(os.path.abspath(program), machine) as daemon:
        if what == "answer":
            answer(daemon, 1, 500)
            answer(daemon, 16, 100)
        else:
            soak(daemon, float(sys.argv[4]), int(sys.argv[5]))


if __name__ == "__main__":
    main()
