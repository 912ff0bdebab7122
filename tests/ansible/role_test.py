"""The role: its files in a folder of the test's own, its services with a systemctl of the test's own."""

import json
import os
import pwd
import re
import stat

import yaml
from run import ROLE, AnsibleCase

# Units are files: NAME is there as long as the unit runs, NAME.enabled as long as it is enabled. As systemd does, it starts
# no socket whose service runs, and a service with its sockets.
SYSTEMCTL = """#!/bin/sh
cd "$(dirname "$0")/../units" || exit 1
case $1 in
show) echo LoadState=loaded; [ -e "$2" ] && echo ActiveState=active || echo ActiveState=inactive ;;
is-enabled) [ -e "$2.enabled" ]; exit ;;
*) echo "$1 $2" >>log ;;
esac
case $1 in
enable) touch "$2.enabled" ;;
disable) rm "$2.enabled" ;;
stop) rm "$2" ;;
*start) case $2 in
    *.socket) [ ! -e rvxd.service ] || exit 1 ;;
    *) touch rvxd.socket rvxd-ro.socket ;;
    esac
    touch "$2" ;;
esac
"""


class Role(AnsibleCase):
    def setUp(self):
        super().setUp()
        self.channels, self.default, self.units = self.folder / "etc/notify.d", self.folder / "default", self.folder / "units"
        for folder in (self.units, self.folder / "bin"):
            folder.mkdir()
        systemctl = self.folder / "bin/systemctl"
        systemctl.write_text(SYSTEMCTL)
        systemctl.chmod(0o755)
        self.environment["PATH"] = f"{systemctl.parent}:{self.environment['PATH']}"
        (self.folder / "site.yml").write_text("- {name: Test, hosts: localhost, gather_facts: false, roles: [rvx]}\n")
        self.own = {"rvx_config_folder": str(self.folder / "etc"), "rvx_default_file": str(self.default), "rvx_owner": pwd.getpwuid(os.getuid()).pw_name,
                    "rvx_package_folder": str(self.folder / "copies")}

    def play(self, *options, fails=False, **variables):
        """How many tasks changed something, and all that was printed."""
        (self.folder / "vars.json").write_text(json.dumps({**self.own, **variables}))
        status, out = self.run_words("ansible-playbook", "-i", "localhost,", "-c", "local", "site.yml", "-e", "@vars.json", *options)
        self.assertEqual(status != 0, fails, out)
        return int(re.search(r"changed=(\d+)", out)[1]), out

    def names(self):
        return sorted(one.name for one in self.channels.iterdir())

    def test_files(self):
        """A secret that others read, or that is shown; a check that writes; a file of somebody else's that goes."""
        channels = {"rvx_channels": {"chat": {"type": "webhook", "url": "https://chat.invalid/key", "header": ["A: 1", "B: 2"], "cleared": False},
                                     "mail": {"type": "mail", "reminder": 24}},
                    "rvx_templates": {"chat": '{"text": "${text}",  "a": [1]}\n'}, "rvx_options": "--plan-seconds 60",
                    "rvx_textfile": f"{self.folder}/node/rvx.prom"}
        files = ("--tags", "rvx_config", "--diff")
        changed, shown = self.play(*files, "--check", **channels)
        self.assertEqual((changed > 0, "key" in shown, self.channels.exists(), (self.folder / "node").exists()), (True, False, False, False))
        changed, shown = self.play(*files, **channels)
        self.assertEqual((changed > 0, "chat.invalid" in shown, "${text}" in shown, (self.folder / "node").is_dir()), (True, False, False, True))
        self.assertEqual(self.names(), ["chat.conf", "chat.template", "mail.conf"])
        for name in self.names():
            self.assertEqual(stat.S_IMODE((self.channels / name).stat().st_mode), 0o600)
        lines = (self.channels / "chat.conf").read_text().splitlines()[1:]
        self.assertEqual(lines, ["type = webhook", "url = https://chat.invalid/key", "header = A: 1", "header = B: 2", "cleared = no"])
        self.assertEqual((self.channels / "mail.conf").read_text().splitlines()[1:], ["type = mail", "reminder = 24"])
        self.assertEqual((self.channels / "chat.template").read_text(), channels["rvx_templates"]["chat"])
        self.assertIn(f'\nRVXD_OPTIONS="--plan-seconds 60 --textfile {self.folder}/node/rvx.prom"\n', self.default.read_text())
        self.assertEqual((self.units / "log").read_text(), "start rvxd.service\n")
        self.assertEqual(self.play(*files, **channels)[0], 0)

        (self.channels / "README").touch()
        del channels["rvx_channels"]["mail"]
        self.assertEqual(self.play(*files, **channels)[0], 0)
        self.play(*files, "--check", **channels, rvx_channels_exclusive=True)
        self.assertIn("mail.conf", self.names())
        self.play(*files, **channels, rvx_channels_exclusive=True)
        self.assertEqual(self.names(), ["README", "chat.conf", "chat.template"])
        self.play(*files)
        self.assertIn('\nRVXD_OPTIONS=""\n', self.default.read_text())

    def test_what_cannot_be_meant(self):
        """A file outside of the folder, a second line in one, a second option in a path, a value of another kind, a port without a network."""
        for name, value in (("rvx_channels", {"../x": {"type": "mail"}}), ("rvx_channels", {"x": {"to": ["a", "b\ntype = program"]}}),
                            ("rvx_channels", {"x": {"to\n": "a"}}), ("rvx_templates", {"x\n": ""}), ("rvx_textfile", "/srv/a b"), ("rvx_options", 'a"b'),
                            ("rvx_options", "--metrics=127.0.0.1:9634"), ("rvx_channels", "mail"), ("rvx_metrics_socket", "perhaps")):
            with self.subTest(name):
                _, out = self.play("--tags", "rvx_config", "--check", fails=True, **{name: value})
                self.assertIn(name, out)
                self.assertEqual("say rvx_metrics_socket: true" in out, "--metrics" in value)
                self.assertFalse(self.channels.exists())

    def test_services(self):
        """A socket for metrics that is started while rvxd runs, one that stays, a restart for nothing."""
        log = self.units / "log"
        plain, metrics = {"rvx_metrics_socket": False}, {"rvx_metrics_socket": True}
        for variables, checked, calls in (
                (plain, True, ["enable rvxd.socket", "start rvxd.socket", "enable rvxd-ro.socket", "start rvxd-ro.socket", "enable rvxd.service",
                               "start rvxd.service"]),
                (plain, False, []),
                (metrics, True, ["enable rvxd-metrics.socket", "stop rvxd.socket", "stop rvxd-ro.socket", "stop rvxd.service",
                                 "start rvxd-metrics.socket", "start rvxd.service"]),
                (metrics, False, []),
                (plain, False, ["disable rvxd-metrics.socket", "stop rvxd.socket", "stop rvxd-ro.socket", "stop rvxd.service", "stop rvxd-metrics.socket",
                                "start rvxd.service"])):
            for options in ([["--check"], []] if checked else [[]]):
                log.write_text("")
                changed, _ = self.play("--tags", "rvx_service", *options, **variables)
                self.assertEqual(log.read_text().splitlines(), [] if options else calls)
                self.assertEqual(changed > 0, calls != [])
        (self.units / "rvxd-metrics.socket.enabled").touch()  # as after a start that did not come to its end
        log.write_text("")
        self.play("--tags", "rvx_service", **metrics)
        self.assertIn("start rvxd-metrics.socket", log.read_text())

    def test_check_mode_before_the_package_is_there(self):
        """A check that needs what the package would have brought; a member who is made an account by a misspelled name."""
        (self.folder / "new.deb").write_text("a package")
        (self.folder / "copies").mkdir()
        self.environment["PATH"] = os.environ["PATH"]  # there is no such unit
        self.play("--check", "--diff", rvx_packages=[str(self.folder / "new.deb")], rvx_members=["root"])
        _, out = self.play("--check", fails=True, rvx_packages=[str(self.folder / "new.deb")], rvx_members=["rooot"])
        self.assertIn("rooot", out)
        self.assertEqual(list((self.folder / "copies").iterdir()), [])

    def test_defaults_are_as_they_are_documented(self):
        options = yaml.safe_load((ROLE / "meta/argument_specs.yml").read_text())["argument_specs"]["main"]["options"]
        self.assertEqual(yaml.safe_load((ROLE / "defaults/main.yml").read_text()), {name: one["default"] for name, one in options.items()})
