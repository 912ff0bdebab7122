"""Streams that stay open, that stall, and the end; and who alone may change the machine."""

import concurrent.futures
import os
import select
import socket
import subprocess
import tempfile
import time

from client import PATIENCE, Case, ids, machine, mirror, until


class Streams(Case):
    def test_beats(self):
        """A client that cannot tell a quiet machine from a dead connection; an old client that gets chunks."""
        daemon = self.daemon(machine())
        for version, coding in (("HTTP/1.1", "chunked"), ("HTTP/1.0", None)):
            with daemon.stream(version=version) as stream:
                self.assertEqual(stream.response.headers["Transfer-Encoding"], coding)
                self.assertEqual(stream.next().event, "beat")
                begin = time.monotonic()
                stream.until(lambda frame: frame.event == "beat")
                self.assertLessEqual(time.monotonic() - begin, 10)

    def test_who_does_not_read_is_dropped(self):
        """One reader that fills rvxd's memory or holds up the others; events that he never sees, or sees again."""
        daemon = self.daemon(machine())
        cursor, hung_up = daemon.get("/v1/state")["cursor"], select.poll()
        stalled, slow, quick = (self.enterContext(daemon.stream(last=cursor)) for _ in range(3))
        hung_up.register(stalled.socket, select.POLLHUP)
        is_last = lambda frame: frame.event == "operation" and frame.data["kind"] == "array.create" and frame.data["ended"]
        with concurrent.futures.ThreadPoolExecutor(10) as pool:
            readers = [pool.submit(quick.until, is_last, 200)]
            for count in range(20):  # more than fits between the two processes
                readers += [pool.submit(slow.until, is_last, 200)] if count == 3 else []
                list(pool.map(lambda _: daemon.carry_out("rescan"), range(8)))
            until(lambda: hung_up.poll(0), "the stalled one is dropped", 15)
            daemon.carry_out("array.create", **mirror("sda", "sdb"))
            seen, same = (ids(reader.result()) for reader in readers)
        self.assertEqual(same, seen)
        got = []
        while frame := stalled.next():
            got += ids([frame])
        self.assertEqual(got, seen[:len(got)])
        with daemon.stream(last=got[-1] if got else cursor) as resumed:
            self.assertEqual(ids(resumed.until(lambda frame: ids([frame]) == seen[-1:])), seen[len(got):])

    def test_an_end_waits_for_nobody(self):
        """A service that cannot be stopped because somebody watches."""
        daemon = self.daemon(machine())
        streams = [self.enterContext(daemon.stream()) for _ in range(30)]
        self.assertEqual({stream.next().event for stream in streams}, {"beat"})
        self.assertLess(daemon.stop(), 5 * PATIENCE)
        for stream in streams:
            while stream.next():
                pass

    def test_a_pass_that_hangs(self):
        """Readers that wait for a disk that does not answer; a monitoring that goes on saying that all is well."""
        daemon = self.daemon(machine(), "--plugin", os.environ["RVX_SLOW"])
        daemon.slow.touch()
        begin = time.monotonic()
        while time.monotonic() - begin < 20:
            asked = time.monotonic()
            for target in ("/v1/state", "/v1/disks/sda", "/v1/events", "/v1/operations", "/metrics"):
                daemon.get(target)
            self.assertLess(time.monotonic() - asked, 5 * PATIENCE)
            time.sleep(0.1)
        health = daemon.get("/v1/health")
        self.assertEqual((health["level"], [one["id"] for one in health["conditions"]]), ("unknown", ["watch-blind:rvxd"]))
        self.assertEqual(daemon.series()['rvx_condition{condition="watch-blind",object="rvxd"}'], 1)
        until(lambda: " rvxd CRITICAL: watch blind" in daemon.log.read_text(), "people are told though the thread that looks hangs", 10)
        daemon.ask("GET", "/v1/views/status", expect=503)
        check = subprocess.run([os.environ["RVXCTL"], f"--socket={daemon.path}", "check"], capture_output=True, text=True, timeout=60)
        self.assertEqual((check.returncode, check.stdout[:12]), (3, "RAID UNKNOWN"))
        daemon.slow.unlink()
        until(lambda: daemon.get("/v1/health")["level"] == "ok", "it looks again", 10)
        self.assertEqual(daemon.series()['rvx_passes_total{result="late"}'], 1)

    def test_one_alone_changes_the_machine(self):
        """Two of them on one state; a second one that takes the first one's sockets away; a crash that leaves a lock."""
        daemon = self.daemon(machine())
        second = daemon.spawn()
        second.communicate(timeout=30)
        self.assertEqual(second.returncode, 5)
        self.assertIn(f"rvxd (process {daemon.process.pid})", daemon.log.read_text())
        self.assertEqual(daemon.get("/v1/state"), daemon.reader.get("/v1/state"))
        daemon.kill()
        daemon.start()
        create = "array create --level raid1 sda sdb --yes".split()
        result = subprocess.run([os.environ["RVXCTL"], f"--socket={daemon.path}", *create], capture_output=True, text=True, timeout=60)
        self.assertEqual((result.returncode, daemon.names()), (0, ["md_d0"]), result)
        self.assertIn("Created md_d0: 63 MiB.", result.stdout)

    def test_an_answer_in_two_parts(self):
        """A busy rvxd that is told not to answer, since the body came behind its header."""
        with tempfile.TemporaryDirectory() as folder, socket.socket(socket.AF_UNIX) as listener:
            listener.bind(f"{folder}/sock")
            listener.listen()

            def serve():
                client, _ = listener.accept()
                with client:
                    client.recv(65536)
                    client.sendall(b"HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: 7\r\n\r\n")
                    time.sleep(0.3)
                    client.sendall(b'{"a":1}')

            with concurrent.futures.ThreadPoolExecutor() as pool:
                served = pool.submit(serve)
                result = subprocess.run([os.environ["RVXCTL"], "--socket", f"{folder}/sock", "api", "GET", "/v1/health"], capture_output=True, text=True, timeout=60)
                served.result(60)
        self.assertEqual((result.returncode, result.stdout.strip(), result.stderr), (0, '{"a":1}', ""))
