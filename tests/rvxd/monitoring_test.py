"""What contrib/ does with the metrics: alerts, their route, the dashboard; and that what is written about metrics is true of them."""

import contextlib
import json
import pathlib
import re
import subprocess
import tempfile
import time
import urllib.request

from client import ROOT, Case, free_port, machine, until
from metrics_test import TOOLS
from resources_test import everything

CONTRIB = ROOT / "contrib"
OTHERS = {"rvx_array"}  # Ansible's module


def told_by_everything(case):
    """Names of all metrics of a machine on which everything happens."""
    described = everything()
    described["sync_speed"] = 256
    daemon = case.daemon(described)
    daemon.carry_out("rescan")
    daemon.ask("PUT", "/v1/settings", {"spares": {"md_d0": 1}}, headers={"If-Match": "*"})

    def names():
        return {name.partition("{")[0] for name in daemon.series()}
    until(lambda: {"rvx_array_sync_remaining_seconds", "rvx_notifications_total"} <= names())
    return names()


class Monitoring(Case):
    def setUp(self):
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory(prefix="monitoring")))

    def run_tool(self, name, *words):
        done = subprocess.run([TOOLS / name, *words], capture_output=True, text=True, timeout=120)
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        return done.stdout

    def test_rules_and_routes(self):
        """An alert that is lost, doubled or raised by a routine check; one that wakes somebody for a wearing disk."""
        self.run_tool("promtool", "check", "rules", CONTRIB / "prometheus/rvx.rules.yml")
        self.run_tool("promtool", "test", "rules", CONTRIB / "prometheus/rvx.rules.test.yml")
        route = CONTRIB / "alertmanager/rvx.yml"
        self.run_tool("amtool", "check-config", route)
        rules = (CONTRIB / "prometheus/rvx.rules.yml").read_text()
        alerts = re.findall(r"- alert: (\w+)(?:.|\n)*?severity: (\w+)", rules)
        self.assertEqual(len({name for name, _ in alerts}), 8)
        for name, severity in alerts:
            receiver = {"critical": "storage-now", "warning": "storage-daily"}[severity]
            words = ("config", "routes", "test", f"--config.file={route}", f"--verify.receivers={receiver}")
            self.run_tool("amtool", *words, f"alertname={name}", f"severity={severity}", "array=md0")
            self.assertRegex((CONTRIB / "README.md").read_text(), rf"\| {name} \|.*\| {severity} \|")

    def test_the_dashboard(self):
        """A question that Prometheus does not understand; a panel bound to somebody's own data source; a broken array counted as in order."""
        board = json.loads((CONTRIB / "grafana/rvx.json").read_text())
        self.assertEqual({panel["datasource"]["uid"] for panel in board["panels"]}, {"${datasource}"})
        self.assertEqual(len({panel["id"] for panel in board["panels"]}), len(board["panels"]))
        asked = [target["expr"].replace("$__rate_interval", "5m").replace("$instance", ".*") for panel in board["panels"] for target in panel["targets"]]
        rules = {"groups": [{"name": "panels", "rules": [{"record": f"panel:{i}", "expr": expr} for i, expr in enumerate(asked)]}]}
        (self.folder / "panels.yml").write_text(json.dumps(rules))
        self.assertIn(f"{len(asked)} rules", self.run_tool("promtool", "check", "rules", self.folder / "panels.yml"))
        (by_state,) = (expr for expr in asked if expr.startswith("sum by (state)"))
        given = {'rvx_array_state{instance="a", array="md0", state="in-order"}': 1, 'rvx_array_state{instance="b", array="md0", state="in-order"}': 1,
                 'rvx_array_state{instance="b", array="md0", state="failed"}': 0, 'rvx_condition{instance="a", condition="array-failed", object="md0"}': 1,
                 'rvx_condition{instance="b", condition="array-inactive", object="md9"}': 1,
                 'rvx_condition{instance="b", condition="disk-failed", object="d"}': 1}
        counted = [{"labels": f'{{state="{state}"}}', "value": value} for state, value in (("in-order", 1), ("failed", 2))]
        (self.folder / "panels_test.yml").write_text(json.dumps({"tests": [
            {"interval": "1m", "input_series": [{"series": name, "values": f"{value}"} for name, value in given.items()],
             "promql_expr_test": [{"expr": by_state, "eval_time": "0m", "exp_samples": counted}]}]}))
        self.run_tool("promtool", "test", "rules", self.folder / "panels_test.yml")

    def test_every_metric_that_is_named_exists(self):
        """A rule or panel on a name that was misspelled, which stays empty for ever; a metric that no page explains."""
        texts = [one for place in ("contrib/*.md", "contrib/prometheus/*", "contrib/alertmanager/*", "contrib/grafana/*", "docs/*.md", "docs/*.8")
                 for one in ROOT.glob(place)]
        named = {}
        for text in texts:
            for name in re.findall(r"(?<![/\w-])(?:rvx|process)_[a-z_]+\b(?!\.)", text.read_text()):
                named.setdefault(name, text.name)
        told = told_by_everything(self)
        self.assertEqual({name: where for name, where in named.items() if name not in told | OTHERS}, {})
        explained = (ROOT / "docs/server.md").read_text()
        self.assertEqual([name for name in sorted(told) if f"`{name}`" not in explained], [])

    def test_one_failed_member_is_one_alert_of_a_real_prometheus(self):
        """Rules that hold of written series alone; a format, or labels, that Prometheus takes otherwise."""
        failing = {"at": 6000, "fail_member": {"array": "md_d0", "disk": "sdb"}}
        port, own = free_port(), free_port()
        daemon = self.daemon(machine("abc", ["ab"], script=[failing]), "--metrics", f"127.0.0.1:{port}")
        rules = (CONTRIB / "prometheus/rvx.rules.yml").read_text()
        (self.folder / "rules.yml").write_text(re.sub(r"\b(keep_firing_)?for: \w+", r"\1for: 1s", rules))
        (self.folder / "prometheus.yml").write_text(json.dumps(
            {"global": {"scrape_interval": "1s", "evaluation_interval": "1s"}, "rule_files": ["rules.yml"],
             "scrape_configs": [{"job_name": "rvx", "static_configs": [{"targets": [f"127.0.0.1:{port}"]}]}]}))
        with open(self.folder / "log", "wb") as log:
            prometheus = subprocess.Popen(
                [TOOLS / "prometheus", "--config.file=prometheus.yml", "--storage.tsdb.path=data", f"--web.listen-address=127.0.0.1:{own}"],
                cwd=self.folder, stdout=log, stderr=log)
        self.addCleanup(prometheus.wait)
        self.addCleanup(prometheus.terminate)

        def ask(path):
            with contextlib.suppress(OSError), urllib.request.urlopen(f"http://127.0.0.1:{own}/api/v1/{path}", timeout=30) as answer:
                return json.load(answer)["data"]

        def firing():
            return [one["labels"]["alertname"] for one in (ask("alerts") or {"alerts": []})["alerts"] if one["state"] == "firing"]

        until(lambda: (ask("query?query=rvx_array_members_missing") or {"result": []})["result"], "Prometheus has what rvxd tells", 60)
        until(firing, "an alert fires", 60)
        end = time.monotonic() + 5
        while time.monotonic() < end:
            self.assertEqual(firing(), ["ArrayDegraded"], daemon.get("/v1/health"))
            time.sleep(0.2)
        (alert,) = ask("alerts")["alerts"]
        self.assertEqual(alert["annotations"]["summary"], f"Array md_d0 of 127.0.0.1:{port} has lost 1 of its members")
        self.assertEqual([one["id"] for one in daemon.get("/v1/conditions")["conditions"]], ["array-degraded:md_d0", "disk-failed:sdb"])
        self.assertIn("rvxctl spare add DISK md_d0", alert["annotations"]["description"])
        (target,) = ask("targets")["activeTargets"]
        self.assertEqual((target["health"], target["lastError"]), ("up", ""))
