"""ansible-lint and ansible-doc on what is shipped, the example of the README included."""

import json
import re

import yaml
from run import README, ROLE, AnsibleCase


class Lint(AnsibleCase):
    def test_role_and_example(self):
        roles = self.folder / "roles"
        roles.mkdir()
        (roles / "rvx").symlink_to(ROLE)
        (example,) = re.findall(r"^```yaml\n(.*?)^```", README.read_text(), re.DOTALL | re.MULTILINE)
        (self.folder / "site.yml").write_text("---\n" + example)
        del self.environment["ANSIBLE_ROLES_PATH"]
        for words in (["ansible-playbook", "--syntax-check", "-i", "localhost,", "site.yml"],
                      ["ansible-lint", "--offline", "--strict", "--profile", "production", "-p", "site.yml", ROLE]):
            status, out = self.run_words(*words)
            self.assertEqual(status, 0, out)
        (variables,) = (one["vars"] for one in yaml.load(example, _Loader)[0]["roles"])
        known = yaml.safe_load((ROLE / "defaults/main.yml").read_text())
        self.assertLessEqual(set(variables), set(known))
        for_trying_out = {"rvx_config_folder", "rvx_default_file", "rvx_package_folder", "rvx_owner"}
        self.assertEqual({name for name in known if f"`{name}`" not in README.read_text()}, for_trying_out)

    def test_the_module_takes_what_it_documents(self):
        status, out = self.run_words("ansible-doc", "-t", "module", "-M", ROLE / "library", "-j", "rvx_array")
        self.assertEqual(status, 0, out)
        documented = json.loads(out)["rvx_array"]
        told = self.module("/nowhere", state="absent", nonsense=1)["msg"]
        supported = re.search(r"Supported parameters include: (.*?)\.?$", told)[1].split(", ")
        self.assertEqual(sorted(documented["doc"]["options"]), sorted(supported))
        self.assertTrue(documented["examples"] and documented["return"]["array"])


class _Loader(yaml.SafeLoader):
    pass


_Loader.add_constructor("!unsafe", lambda loader, node: node.value)
