"""The metrics: figures that are those of the state, labels that stay, and ways out that show nothing else."""

import contextlib
import http.client
import os
import pathlib
import re
import socket
import stat
import subprocess
import tempfile
import time

from client import API, PATIENCE, ROOT, Case, check_answer, connected, free_port, machine, mirror, series, until
from resources_test import everything

TOOLS = pathlib.Path(subprocess.run([ROOT / "tools/monitoring.sh"], stdout=subprocess.PIPE, text=True, check=True).stdout.strip())
SCHEMAS = {name: API["components"]["schemas"][name]["properties"] for name in ("Array", "Disk")}
MEMBER_STATES = SCHEMAS["Array"]["members"]["items"]["properties"]["state"]["enum"]


def written(name, value, **labels):
    """As the format writes a series that there is; none where the value is not known."""
    inside = ",".join('{}="{}"'.format(key, (text or "").replace("\\", r"\\").replace('"', r"\"")) for key, text in labels.items())
    return {} if value is None else {f"{name}{{{inside}}}": value}


def choice(name, label, words, value, **labels):
    return {key: one for word in words for key, one in written(name, float(word == value), **labels, **{label: word}).items()}


def of_state(state):
    """The series of arrays, disks and conditions that belong to a state."""
    all = {}
    for array in state["arrays"]:
        who = {"array": array["name"], "uuid": array["uuid"]}
        redundancy, activity = array["redundancy"], array["activity"]
        all |= written("rvx_array_info", 1, **who, **{key: array[key] for key in ("device", "level", "metadata")})
        for name, value in (("size_bytes", array["size"]), ("members_required", redundancy["required"]), ("spares", len(array["spares"])),
                            ("members_missing", redundancy["missing"]), ("redundancy_left", redundancy["canLose"]),
                            ("sync_progress_ratio", activity["progress"]), ("sync_remaining_seconds", activity["remaining"]),
                            ("sync_speed_bytes_per_second", activity["speed"])):
            all |= written(f"rvx_array_{name}", value, **who)
        all |= choice("rvx_array_state", "state", SCHEMAS["Array"]["state"]["enum"], array["state"], **who)
        all |= choice("rvx_array_activity", "activity", SCHEMAS["Array"]["activity"]["properties"]["kind"]["enum"], activity["kind"], **who)
        for word in MEMBER_STATES:
            all |= written("rvx_array_members", [one["state"] for one in array["members"]].count(word), **who, state=word)
    ids = {disk["name"]: disk["id"] for disk in state["disks"]}
    for disk in state["disks"]:
        who, smart = {"disk_id": disk["id"]}, disk["smart"]
        keys = ("device", "serial", "wwn", "model", "vendor", "medium", "attachment", "path")
        all |= written("rvx_disk_info", 1, **who, **{key: disk[key] for key in keys})
        for name, value in (("size_bytes", disk["size"]), ("wear_ratio", smart["wear"]), ("reserve_ratio", smart["reserve"]),
                            ("written_bytes_total", smart["written"]), ("power_on_seconds_total", smart["powerOn"]),
                            ("remaining_life_seconds", smart["remainingLife"])):
            all |= written(f"rvx_disk_{name}", value, **who)
        all |= choice("rvx_disk_state", "state", API["components"]["schemas"]["DiskState"]["enum"], disk["state"], **who, array=disk["array"])
    for one in state["health"]["conditions"]:
        all |= written("rvx_condition", 1, condition=one["kind"], object=ids.get(one["object"], one["object"]))
    return all


def tcp(port, method, target, body=None, headers=()):
    with contextlib.closing(http.client.HTTPConnection("127.0.0.1", port, timeout=30)) as connection:
        connection.request(method, target, body, dict(headers))
        answer = connection.getresponse()
        return answer.status, answer.headers, answer.read().decode()


class Metrics(Case):
    def folder(self):
        return pathlib.Path(self.enterContext(tempfile.TemporaryDirectory(prefix="metrics")))

    def test_the_figures_are_those_of_the_state(self):
        """A figure of another unit or object; a zero for what is not known; a state that is added and has no series."""
        held = {"level": "raid1", "members": ["sda", None], "faulty": ["sdb"]}
        for name in (everything(), machine("abc", [held]), "arrays", "lost", "recovering", "worn", "rules", "empty"):
            with self.subTest(name):
                daemon = self.daemon(name)

                def same():
                    before, now = daemon.get("/v1/state"), daemon.series()
                    if before["revision"] != daemon.get("/v1/state")["revision"]:
                        return False
                    told = {key: value for key, value in now.items() if key.startswith(("rvx_array_", "rvx_disk_", "rvx_condition"))}
                    self.assertEqual(told, of_state(before))
                    return True
                until(same, "nothing changes between two requests")
                checked = subprocess.run([TOOLS / "promtool", "check", "metrics"], input=daemon.get("/metrics"), text=True, capture_output=True)
                self.assertEqual((checked.returncode, checked.stdout + checked.stderr), (0, ""))
                daemon.stop()

    def test_labels_are_written_so_that_they_can_be_read(self):
        """A quotation mark in a model's name or a backslash that ends the label, and with it the scrape."""
        described = machine("a")
        described["disks"][0]["model"] = 'A"B\\'
        told = [one for one in self.daemon(described).series() if one.startswith("rvx_disk_info")]
        self.assertEqual(len(told), 1)
        self.assertIn(r'model="A\"B\\"', told[0])

    def test_what_is_counted(self):
        """A label that a client makes up; a repeated event that is counted as a new one; a stream that is counted for ever."""
        daemon = self.daemon(machine())
        daemon.carry_out("array.create", **mirror("sda", "sdb"))
        plan = daemon.plan("spare.add", disk="sdc", array="md_d0")
        daemon.carry_out("array.create", **mirror("sdc", "sdd"))
        daemon.begin(plan, expect=412)
        for target in ("/v1/disks/made-up", "/made-up", "/v1/disks/a/b"):
            daemon.get(target, expect=404) if target.count("/") == 3 else daemon.raw("GET", target)
        daemon.raw("POST", "/v1/plans", "x" * (70 << 10))
        with daemon.stream():
            self.assertEqual(daemon.series()["rvx_event_streams"], 1)
        now = until(lambda: (now := daemon.series())["rvx_event_streams"] == 0 and now)
        events = daemon.events()
        for name, value in (('rvx_operations_total{kind="array.create",result="done"}', 2), ('rvx_operations_total{kind="spare.add",result="failed"}', 1),
                            ('rvx_http_requests_total{code="404",route="/v1/disks/*"}', 1), ('rvx_http_requests_total{code="404",route="other"}', 2),
                            ('rvx_http_requests_total{code="413",route="/v1/plans"}', 1), ("rvx_operation_queue_length", 0),
                            ("rvx_event_sequence", int(events[-1]["id"].split("-")[1]))):
            self.assertEqual(now[name], value, name)
        told = {}
        for event in events:
            key = 'rvx_events_total{{code="{code}",severity="{severityKey}"}}'.format(**event)
            told[key] = told.get(key, 0) + 1
        self.assertEqual({key: value for key, value in now.items() if key.startswith("rvx_events_total")}, told)
        self.assertLess(abs(now["process_start_time_seconds"] - time.time()), 60 * PATIENCE)
        status = pathlib.Path(f"/proc/{daemon.process.pid}/status").read_text()
        self.assertAlmostEqual(now["process_resident_memory_bytes"] / (int(re.search(r"VmRSS:\s+(\d+)", status)[1]) << 10), 1, delta=0.5)
        files = len(os.listdir(f"/proc/{daemon.process.pid}/fd"))
        self.assertLess(abs(now["process_open_fds"] - files), 4)

    def test_before_the_first_pass(self):
        """A scrape that fails, or tells of arrays and passes, where nobody has looked yet."""
        daemon = self.daemon(machine("ab", ["ab"]))
        for _ in range(50):
            daemon.stop()
            daemon.process = daemon.spawn()
            until(lambda: self.listens(daemon.path))
            early = daemon.raw("GET", "/metrics")
            check_answer("GET", "/metrics", None, early)
            self.assertIn("rvx_build_info", early.data)
            until(daemon.answers)
            if "rvx_pass_last_success" not in early.data:
                self.assertFalse(re.findall("rvx_(?:array|disk|pass_|poll)", early.data))
                return
        self.fail("no answer came before the first pass")

    @staticmethod
    def listens(path):
        with contextlib.suppress(OSError), connected(path):
            return True

    def test_by_tcp_there_are_metrics_alone(self):
        """Another route that is served there, a change above all; an address that others reach; a flood that shuts everybody out."""
        port = free_port()
        daemon = self.daemon(machine(), "--metrics", f"127.0.0.1:{port}")
        status, headers, text = tcp(port, "GET", "/metrics")
        self.assertEqual((status, headers["Content-Type"]), (200, "text/plain; version=0.0.4; charset=utf-8"))
        self.assertLessEqual({one.partition("{")[0] for one in series(text)}, {one.partition("{")[0] for one in daemon.series()})
        self.assertEqual(tcp(port, "HEAD", "/metrics")[::2], (200, ""))
        for target in (*API["paths"], "/metrics/", "/metrics/x", "/%00"):
            for method in ("GET", "HEAD", "POST", "PUT", "DELETE"):
                if (target, method) not in (("/metrics", "GET"), ("/metrics", "HEAD")):
                    self.assertEqual(tcp(port, method, target, "{}" if method == "POST" else None)[0], 404, (method, target))
        for host, expect in (("rebound.example", 403), (f"1.rebound.example:{port}", 403), (f"localhost:{port}", 200), ("[::1]:1", 200)):
            self.assertEqual(tcp(port, "GET", "/metrics", headers={"Host": host})[0], expect, f"a page that a browser here shows: {host}")
        flood = [self.enterContext(socket.create_connection(("127.0.0.1", port))) for _ in range(20)]
        self.assertEqual(daemon.reader.ask("GET", "/v1/health").status, 200)
        for one in flood:
            one.close()
        until(lambda: self.scrapes(port), "the flood is over")
        for wrong in ("0.0.0.0:9634", "128.0.0.1:9634", "192.168.1.1:9634", "[::]:9634", "::1:9634", "localhost:9634", "127.0.0.1", "127.0.0.1:",
                      "127.0.0.1:0", "127.0.0.1:70000", "127.0.0.1:1x", ":9634"):
            self.refused("--metrics", wrong, "127.0.0.1:9634 or [::1]:9634")

    @staticmethod
    def scrapes(port):
        with contextlib.suppress(OSError, http.client.HTTPException):
            return tcp(port, "GET", "/metrics")[0] == 200

    def refused(self, option, value, advice):
        socket_path = self.folder() / "rvxd.sock"
        done = subprocess.run([os.environ["RVXD"], "--simulate", "--socket", socket_path, f"{option}={value}"], capture_output=True, text=True, timeout=60)
        self.assertEqual(done.returncode, 2, (value, done.stderr))
        self.assertIn(advice, done.stderr)

    def test_the_file_is_whole_at_each_read(self):
        """A file that is read half written, or by root alone; one with figures that its collector tells of itself, too."""
        folder = self.folder() / "collector"
        folder.mkdir()
        file = folder / "rvx.prom"
        daemon = self.daemon(machine(), "--textfile", file)
        until(file.exists)
        self.assertEqual(stat.S_IMODE(file.stat().st_mode), 0o644)
        names, seen, end = set(), set(), time.monotonic() + 6
        while time.monotonic() < end:
            text = file.read_text()
            now = series(text)
            names |= {one.partition("{")[0] for one in now}
            seen.add(now["rvx_pass_last_success_timestamp_seconds"])
            self.assertTrue(text.endswith("\n") and "rvx_poll_interval_seconds" in now)
        self.assertGreater(len(seen), 1)
        self.assertEqual(names, {name for one in daemon.series() if not (name := one.partition("{")[0]).startswith("process_")})
        self.assertFalse([one for one in folder.iterdir() if one.suffix == ".prom" and one != file])
        folder.rename(folder.with_name("away"))
        until(lambda: "cannot write" in daemon.log.read_text())
        before = daemon.series()['rvx_passes_total{result="seen"}']
        until(lambda: daemon.series()['rvx_passes_total{result="seen"}'] > before + 1, "passes go on")
        self.assertEqual(daemon.log.read_text().count("cannot write"), 1)
        folder.with_name("away").rename(folder)
        until(lambda: "is written again" in daemon.log.read_text())
        self.refused("--textfile", folder / "rvx.txt", "ends with .prom")
