"""Ansible with this repository's role and module, on this machine, with a home of its own."""

import json
import os
import pathlib
import re
import subprocess
import tempfile

from client import ROOT, Case

ROLE = ROOT / "contrib/ansible/roles/rvx"
README = ROOT / "contrib/ansible/README.md"


class AnsibleCase(Case):
    def setUp(self):
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory(prefix="ansible")))
        self.environment = {**os.environ, "HOME": str(self.folder), "ANSIBLE_HOME": str(self.folder / "ansible"), "NO_COLOR": "1", "LC_ALL": "C.UTF-8",
                            "ANSIBLE_NOCOLOR": "1", "ANSIBLE_LOCALHOST_WARNING": "0", "ANSIBLE_PIPELINING": "1", "ANSIBLE_PYTHON_INTERPRETER": "/usr/bin/python3", "ANSIBLE_ROLES_PATH": str(ROLE.parent)}

    def run_words(self, *words):
        """Exit status and all that was printed."""
        done = subprocess.run(words, cwd=self.folder, env=self.environment, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=120)
        return done.returncode, done.stdout

    def module(self, socket, *options, **parameters):
        """The result of rvx_array, with what was printed before it as "shown"."""
        status, out = self.run_words("ansible", "localhost", "-i", "localhost,", "-c", "local", "-M", ROLE / "library", "-m", "rvx_array",
                                     "-a", json.dumps({"socket": str(socket), **parameters}), *options)
        told = re.search(r"^localhost \| \w+!? => (\{.*^\})", out, re.DOTALL | re.MULTILINE)
        self.assertTrue(told, out)
        result = {**json.loads(told[1]), "shown": out[:told.start()]}
        self.assertEqual((status != 0, "Traceback" in out), (result.get("failed", "msg" in result), False), out)
        return result
