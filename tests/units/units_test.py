"""The units: systemd takes them, their sandbox is as narrow as the guide tells, and rvxd keeps its side of them."""

import http.client
import os
import pathlib
import re
import shutil
import socket
import subprocess
import tempfile
import time
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
RVXD, UNITS = os.environ["RVXD"], pathlib.Path(os.environ["RVX_UNITS"])
SOCKETS = ("rvxd.socket", "rvxd-ro.socket")
METRICS = "rvxd-metrics.socket"
NOTIFY = ("rvx-notify.socket", "rvx-notify@.service")


def said(unit, key):
    """What a unit says of a key, once."""
    (value,) = re.findall(rf"^{key}=(.*)$", (UNITS / unit).read_text(), re.MULTILINE)
    return value


def written():
    """The folders beside its own that the service may write to."""
    return re.findall(r"^ReadWritePaths=-(.*)$", (UNITS / "rvxd.service").read_text(), re.MULTILINE)


def ask(path, method, target, body=None):
    """The status of the answer; connecting is tried until somebody listens there."""
    connection, end = http.client.HTTPConnection("localhost"), time.monotonic() + 30
    connection.sock = socket.socket(socket.AF_UNIX)
    connection.sock.settimeout(30)
    while connection.sock.connect_ex(str(path)) != 0:
        assert time.monotonic() < end, f"nobody listens at {path}"
        time.sleep(0.02)
    try:
        connection.request(method, target, body)
        return connection.getresponse().status
    finally:
        connection.close()


def await_notice(manager, wanted):
    """Reads what the service manager is told until that is among it."""
    end = time.monotonic() + 30
    while wanted not in manager.recv(4096).decode().split("\n"):
        assert time.monotonic() < end, f"no {wanted}"


class Units(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory(prefix="units")))

    def run_on_units(self, *words):
        """A command of systemd-analyze about them, with this build's rvxd for the one that will be installed."""
        for unit in (*SOCKETS, METRICS, *NOTIFY, "rvxd.service"):
            text = (UNITS / unit).read_text()
            (self.folder / unit).write_text(re.sub(r"^ExecStart=\S+", f"ExecStart={RVXD}", text, flags=re.MULTILINE))
        done = subprocess.run(["systemd-analyze", *words], cwd=self.folder, capture_output=True, text=True)
        return done.returncode, done.stdout, done.stderr

    def test_systemd_takes_them(self):
        # A directive that is misspelled is left out with a warning alone.
        self.assertEqual(self.run_on_units("verify", "--man=no", "./rvxd.service", *(f"./{one}" for one in (*SOCKETS, METRICS, *NOTIFY))),
                         (0, "", ""))

    def test_the_exposure_is_not_above_what_the_guide_tells(self):
        _, out, err = self.run_on_units("security", "--offline=true", "--no-pager", "./rvxd.service")
        figure = re.search(r"Overall exposure level for rvxd.service: (\d+\.\d)", out)
        told = re.search(r"exposure\s+level\s+(\d+\.\d)", (ROOT / "docs/operator.md").read_text())
        self.assertTrue(figure and told, out + err)
        self.assertLessEqual(float(figure[1]), float(told[1]))

    def test_the_group_of_the_socket_and_the_folders_of_the_service_are_made(self):
        sources = ROOT / "packaging/systemd"
        self.assertIn(f"g {said('rvxd.socket', 'SocketGroup')} ", (sources / "sysusers.conf").read_text())
        made = (sources / "tmpfiles.conf").read_text()
        for path in (os.path.dirname(said("rvxd.socket", "ListenStream")), written()[0]):
            self.assertIn(f"d {path} 0755 root root", made)
        # Where nobody hands sockets over, rvxd listens at the same place.
        told = subprocess.run([RVXD, "--help"], capture_output=True, text=True, check=True).stdout
        self.assertIn(f"PATH={said('rvxd.socket', 'ListenStream')}", told)
        self.assertEqual(said("rvxd-ro.socket", "ListenStream"),
                         said("rvxd.socket", "ListenStream").replace(".sock", "-ro.sock"))

    def test_alarms_leave_by_a_socket_that_is_roots(self):
        """Whoever connects to it has programs run with all rights."""
        self.assertEqual([said(NOTIFY[0], key) for key in ("ListenStream", "SocketMode", "Accept", "TriggerLimitIntervalSec")],
                         ["/run/rvx/notify.sock", "0600", "yes", "0"])
        self.assertEqual(re.findall("^(?:Wants|After)=rvx-notify.socket$", (UNITS / "rvxd.service").read_text(), re.MULTILINE),
                         ["Wants=rvx-notify.socket", "After=rvx-notify.socket"])

    def test_metrics_are_for_this_machine_and_for_who_wants_them(self):
        """A port that the package opens for everybody, or for anybody at all; one that the service pulls in."""
        self.assertEqual((said(METRICS, "ListenStream"), said(METRICS, "IPAddressAllow"), said(METRICS, "IPAddressDeny")),
                         ("127.0.0.1:9634", "localhost", "any"))
        service = (UNITS / "rvxd.service").read_text()
        self.assertNotIn(METRICS, re.sub("^#.*", "", service, flags=re.MULTILINE))
        self.assertEqual(written(), ["/etc/zq", "/var/lib/prometheus/node-exporter"])
        # The words of that variable are options of their own, and none where nobody sets it.
        self.assertRegex(service, r"(?m)^Environment=RVXD_OPTIONS=\nEnvironmentFile=-/etc/default/rvxd\nExecStart=\S+ \$RVXD_OPTIONS$")

    def test_activated_it_tells_what_it_does(self):
        shutil.copy(ROOT / "tests/host/machines/plain.json", self.folder / "machine.json")
        manager = self.enterContext(socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM))
        manager.bind(str(self.folder / "notify"))
        manager.settimeout(30)
        # The name says what a socket is for, not its place.
        paths = {self.folder / said(unit, "FileDescriptorName"): unit for unit in reversed(SOCKETS)}
        metrics = self.folder / said(METRICS, "FileDescriptorName")
        listening = [word for path in (*paths, metrics) for word in ("-l", path)]
        environment = {"NOTIFY_SOCKET": self.folder / "notify", "ZQ_CONFIG_DIR": self.folder}
        log = self.enterContext(open(self.folder / "log", "w+b"))
        daemon = subprocess.Popen(
            ["systemd-socket-activate", *listening, "--fdname=" + ":".join(path.name for path in (*paths, metrics)),
             *(f"--setenv={name}={value}" for name, value in environment.items()),
             RVXD, f"--simulate={self.folder}/machine.json", "--state", self.folder / "state"], stderr=log)
        self.addCleanup(daemon.wait)
        self.addCleanup(daemon.kill)
        for path in paths:  # both are answered before the first pass, too; the first one starts it
            self.assertIn(ask(path, "GET", "/v1/health"), (200, 503))
        await_notice(manager, "READY=1")
        for path, unit in paths.items():
            self.assertEqual(ask(path, "GET", "/v1/health"), 200, "ready is who has looked at the machine")
            others_may = int(said(unit, "SocketMode"), 8) & 0o006
            self.assertEqual(ask(path, "POST", "/v1/plans", '{"kind": "rescan"}'), 403 if others_may else 200, unit)
        self.assertEqual([ask(metrics, "GET", target) for target in ("/metrics", "/v1/health")], [200, 404])
        await_notice(manager, "WATCHDOG=1")
        daemon.terminate()
        await_notice(manager, "STOPPING=1")
        log.seek(0)
        self.assertEqual(daemon.wait(30), 0, log.read())


if __name__ == "__main__":
    unittest.main()
