"""The example clients, and what a page has people type, as they run them."""

import os
import pathlib
import re
import signal
import subprocess
import tempfile
import textwrap

from client import ROOT, Case, machine, mirror, until


class Examples(Case):
    def test_health(self):
        """Monitoring that is quiet about a degraded array, or loud about one in order."""
        for name, status, told in (("plain", 0, "all in order"), ("recovering", 1, "warning: md_d0: 1 of 2 members works"),
                                   ("arrays", 2, "critical: md_d1: 1 of 2 members works"), (None, 2, "does not answer")):
            socket = self.daemon(name).reader.path if name else "/nowhere"
            result = subprocess.run([ROOT / "examples/client/health.py", socket], capture_output=True, text=True, timeout=60,
                                    env={**os.environ, "PYTHONPATH": str(ROOT / "python")})
            self.assertEqual((result.returncode, result.stderr), (status, ""), result)
            self.assertIn(told, result.stdout)

    def test_the_page_for_front_ends(self):
        """A walk that does not lead where the page says."""
        blocks = re.findall(r"^ *```sh\n(.*?)^ *```$", (ROOT / "docs/front-ends.md").read_text(), re.MULTILINE | re.DOTALL)
        script = "trap 'kill $!; wait' EXIT\n" + "".join(map(textwrap.dedent, blocks))
        path = ":".join([os.path.dirname(os.environ[name]) for name in ("RVXD", "RVXCTL")] + [os.environ["PATH"]])
        with tempfile.TemporaryDirectory(prefix="rvxd") as folder:
            pathlib.Path(folder, "piRVX.ini").touch()
            result = subprocess.run(["bash", "-euo", "pipefail", "-c", script], cwd=folder, capture_output=True, text=True, timeout=120,
                                    env={**os.environ, "PATH": path, "ZQ_CONFIG_DIR": folder})
        for told in ('"headline": "1 array degraded, 1 disk failed"', '"title": "release sdb from its array and wipe its superblock"', '"Release this failed disk from its array?"', '"id": "op-1"'):
            self.assertIn(told, result.stdout, result)

    def test_events(self):
        """An event that is told twice, or not at all, when rvxd was away meanwhile."""
        daemon = self.daemon(machine())
        out = daemon.state / "told"
        with open(out, "w", encoding="utf-8") as file:
            script = subprocess.Popen([ROOT / "examples/client/events.sh", daemon.reader.path], stdout=file,
                                      stderr=subprocess.DEVNULL, start_new_session=True)
        self.addCleanup(script.wait)
        self.addCleanup(os.killpg, script.pid, signal.SIGTERM)
        until(lambda: out.read_text() == "all in order\n")
        cursor = daemon.get("/v1/events?since=now")["cursor"]
        for change in range(3):
            daemon.carry_out("array.create", **mirror("sda", "sdb"))
            daemon.carry_out("array.delete", all=True)
            if change == 1:
                daemon.kill()
                daemon.start()
        until(lambda: out.read_text().splitlines()[1:] == [one["text"] for one in daemon.events(f"&since={cursor}")])
