"""The console in Chromium, as Cockpit serves it, on an rvxd of its own."""

import atexit
import contextlib
import functools
import json
import os
import pathlib
import re
import shutil
import signal
import socket
import subprocess
import tempfile

from selenium import webdriver
from selenium.common.exceptions import ElementClickInterceptedException, ElementNotInteractableException, StaleElementReferenceException
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys
from selenium.webdriver.support.select import Select

from client import ROOT, Daemon, free_port, until

__all__ = ["Console", "Keys"]
SOURCE = pathlib.Path(os.environ.get("RVX_CONSOLE", ROOT / "console"))
# Where a role is looked for, unless it says itself what it is; whether it is one, the browser is asked.
PLACES = {"button": "button", "checkbox": "input[type=checkbox]", "combobox": "select", "complementary": "aside", "heading": "h1,h2,h3",
          "link": "a[href]", "listitem": "li", "navigation": "nav", "progressbar": "progress", "radio": "input[type=radio]",
          "region": "section", "row": "tr", "textbox": "input"}
# Asking for a name takes its time: only what has the word somewhere is asked.
CANDIDATES = """
const [root, selector, word] = arguments;
return [...(root ?? document).querySelectorAll(selector)].filter((one) => one.checkVisibility({ checkVisibilityCSS: true }) && (!word ||
    [one, ...(one.labels ?? []), document.getElementById(one.getAttribute("aria-labelledby"))].some((named) =>
        [named?.textContent, named?.getAttribute("aria-label"), named?.value].some((text) => text?.includes(word)))));
"""
# What a page that is drawn anew does to who looks at it.
PASSING = (StaleElementReferenceException, ElementClickInterceptedException, ElementNotInteractableException)


@functools.cache
def chromium():
    """One for all the tests of a program: each console has an origin of its own."""
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    for word in ("headless=new", "no-sandbox", "disable-dev-shm-usage", "disable-gpu", "disable-extensions",
                 "disable-background-networking", "lang=en", "force-prefers-reduced-motion"):
        options.add_argument(f"--{word}")
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver", env={**os.environ, "TZ": "UTC"}), options=options)
    atexit.register(driver.quit)
    return driver


class Console(contextlib.ExitStack):
    """
    The console at `route`, alone or in Cockpit's shell, of an rvxd on `described`. Ends in a failure when the page had an
    error. `as_nobody`: the person may not open the socket that takes changes.
    """

    def __init__(self, described, *options, route="", shell=False, as_nobody=False, width=1280, height=900):
        super().__init__()
        self.driver, self.shell, self.as_nobody, self._route, self._log = chromium(), shell, as_nobody, route, pathlib.Path()
        self.size(width, height)
        self.dark(False)
        self.daemon = Daemon(described, *options)

    def __enter__(self):
        with contextlib.ExitStack() as failed:
            failed.push(self)
            self.enter_context(self.daemon)
            self._serve()
            self.open(self._route)
            failed.pop_all()
        return self

    def __exit__(self, kind, error, trace):
        with contextlib.ExitStack() as ends:
            ends.callback(super().__exit__, kind, error, trace)
            errors = self.errors()
            if kind or errors:
                kept = self._keep(errors)
                if error:
                    error.add_note(f"How the page was then: {kept}")
                else:
                    raise AssertionError(f"errors of the page, see {kept}:\n" + "\n".join(errors))
            self.driver.get("about:blank")

    def _serve(self):
        """Cockpit, with nothing of this machine's settings. Without a connection it ends the session after 15 seconds."""
        folder = pathlib.Path(self.enter_context(tempfile.TemporaryDirectory(prefix="console")))
        self.daemon.path.parent.chmod(0o755)
        package = shutil.copytree(SOURCE, folder / "cockpit/rvx", copy_function=shutil.copyfile)
        manifest = json.loads((package / "manifest.json").read_text())
        manifest["config"]["socket"] = str(self.daemon.path)
        (package / "manifest.json").write_text(json.dumps(manifest))
        subprocess.run(["chmod", "-R", "a+rX", folder], check=True)
        if self.as_nobody and os.geteuid():
            self.daemon.path.chmod(0)
        lesser = ["setpriv", "--reuid", "nobody", "--regid", "nogroup", "--clear-groups"] if self.as_nobody and not os.geteuid() else []
        data = [folder, *([subprocess.check_output(ROOT / "tools/console.sh", text=True).strip()] if self.shell else []), "/usr/share"]
        self.port, self._log = free_port(), folder / "cockpit.log"
        cockpit = subprocess.Popen(
            [*lesser, "/usr/lib/cockpit/cockpit-ws", "--no-tls", "-a", "127.0.0.1", "-p", str(self.port), "--local-session=/usr/bin/cockpit-bridge"],
            env={"PATH": os.environ["PATH"], "LC_ALL": "C.UTF-8", "HOME": str(folder), "XDG_DATA_DIRS": ":".join(map(str, data)),
                 "XDG_CONFIG_DIRS": str(folder), "XDG_CONFIG_HOME": str(folder)},
            stdout=subprocess.DEVNULL, stderr=self.enter_context(open(self._log, "wb")), start_new_session=True)
        self.callback(cockpit.wait)
        self.callback(os.killpg, cockpit.pid, signal.SIGKILL)
        until(lambda: cockpit.poll() is not None or self._listens(), "Cockpit listens")

    def _listens(self):
        with contextlib.suppress(OSError), socket.create_connection(("127.0.0.1", self.port)):
            return True

    def _keep(self, errors):
        """What tells why it failed, in a folder that stays."""
        folder = pathlib.Path(tempfile.mkdtemp(prefix="console-failure"))
        (folder / "errors").write_text("\n".join(errors))
        for name, log in ("rvxd.log", self.daemon.log), ("cockpit.log", self._log):
            if log.is_file():
                shutil.copyfile(log, folder / name)
        self.driver.save_screenshot(str(folder / "page.png"))
        (folder / "page.html").write_text(self.driver.page_source)
        return folder

    def errors(self):
        """What the browser has to say against the page; Cockpit's own pages miss a systemd here."""
        return [line["message"] for line in self.driver.get_log("browser") if line["level"] == "SEVERE" and (not self.shell or "/rvx/" in line["message"])]

    @contextlib.contextmanager
    def machine(self):
        """The machine while rvxd is away, which may be another one when it is back; with --save, as it was when rvxd ended."""
        self.daemon.stop()
        file = self.daemon.path.parent / "machine.json"
        described = json.loads(file.read_text())
        yield described
        file.write_text(json.dumps(described))
        self.daemon.start()

    # Where it looks.

    def open(self, route=""):
        """Goes there as somebody who types the address."""
        place = "rvx" if self.shell else "cockpit/@localhost/rvx/index.html"
        self.driver.get(f"http://127.0.0.1:{self.port}/{place}#/{route}")
        if self.shell:
            self.into_frame()
        # Within the page only the address changes, and the page draws a moment later.
        self.driver.execute_async_script("const [done] = arguments; requestAnimationFrame(() => setTimeout(done));")

    def into_frame(self):
        """From the shell into the page."""
        self.driver.switch_to.default_content()
        self.driver.switch_to.frame(until(lambda: self.driver.find_elements(By.CSS_SELECTOR, "iframe[name='cockpit1:localhost/rvx']"), "the frame")[0])

    def reload(self):
        self.driver.refresh()

    @property
    def route(self):
        return self.driver.execute_script("return location.hash")

    def size(self, width, height=900):
        self.driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {"width": width, "height": height, "deviceScaleFactor": 1, "mobile": False})

    def dark(self, is_dark):
        self.driver.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": [
            {"name": "prefers-color-scheme", "value": "dark" if is_dark else "light"}, {"name": "prefers-reduced-motion", "value": "reduce"}]})

    # What is on it. `within` is where it is: a role and a name, too.

    def all(self, role, name=None, within=None):
        """Those with this role and this name, or a name of this form, that can be seen now."""
        roots = [None] if within is None else self.all(*within)
        word = name if isinstance(name, str) else ""
        return [one for root in roots
                for one in self.run(CANDIDATES, root, ",".join(filter(None, [f"[role={role}]", PLACES.get(role, role)])), word)
                if one.aria_role == role and (name is None or (one.accessible_name == name if isinstance(name, str) else name.search(one.accessible_name)))]

    def settled(self, question, what, seconds=30):
        """The answer, as soon as there is one that the page does not change meanwhile."""
        def answer():
            with contextlib.suppress(*PASSING):
                return question()
        return until(answer, what, seconds)

    def find(self, role, name=None, within=None, seconds=30):
        return self.settled(lambda: self.all(role, name, within), f"there is a {role} {name} in {within}", seconds)[0]

    def gone(self, role, name=None, within=None):
        self.settled(lambda: not self.all(role, name, within), f"there is no {role} {name} any more")

    def text(self, role="main", name=None, within=None):
        """What is read there."""
        return self.settled(lambda: [one.text for one in self.all(role, name, within)], f"there is a {role} {name}")[0]

    def read(self, words, *where, seconds=30):
        """Waits until these words, or what has this form, are read there; the match."""
        form = re.compile(re.escape(words)) if isinstance(words, str) else words
        return self.settled(lambda: form.search(self.text(*where)), f"'{form.pattern}' is read in {where or 'the page'}", seconds)

    def rows(self, caption):
        """The texts of the cells, row by row, without the headings. Without rows there is no table."""
        return [row for table in self.all("table", caption) for row in self.run(
            "return [...arguments[0].tBodies[0].rows].map((row) => [...row.cells].map((cell) => cell.innerText))", table)]

    def reason(self, element):
        """Why this button, field or box cannot be used: what is read beside it; None when it can be."""
        return self.run("""
            const [one] = arguments;
            return one.getAttribute("aria-disabled") === "true" ? document.getElementById(one.getAttribute("aria-describedby")).textContent : null;
        """, element)

    def refuses(self, words, *where):
        """Waits until a button, field or box cannot be used and says this, or what has this form, of it; the button."""
        form = re.compile(f"^{re.escape(words)}$") if isinstance(words, str) else words
        return self.settled(lambda: [one for one in self.all(*where) if form.search(self.reason(one) or "")], f"{where} says '{form.pattern}'")[0]

    def run(self, script, *arguments):
        return self.driver.execute_script(script, *arguments)

    # What is done to it.

    def click(self, role, name=None, within=None):
        def clicked():
            for one in self.all(role, name, within)[:1]:
                one.click()
                return True
        self.settled(clicked, f"{role} {name} in {within} is clicked")

    def type(self, text, role, name, within=None):
        """In place of what was in it."""
        field = self.find(role, name, within)
        field.send_keys(Keys.CONTROL, "a")
        field.send_keys(text)

    def choose(self, text, role, name, within=None):
        Select(self.find(role, name, within)).select_by_visible_text(text)

    def press(self, *keys):
        """Whatever has the focus gets them, one after the other."""
        ActionChains(self.driver).send_keys(*keys).perform()

    def focus(self):
        """The role and the name of what has it."""
        def both():
            one = self.driver.switch_to.active_element
            return one.aria_role, one.accessible_name
        return self.settled(both, "something has the focus")

    def tab_to(self, role, name, most=80):
        """By the tab key, until it has the focus: who has no mouse."""
        passed = []
        for _ in range(most):
            self.press(Keys.TAB)
            passed.append(self.focus())
            if passed[-1][0] == role and (name is None or (name == passed[-1][1] if isinstance(name, str) else name.search(passed[-1][1]))):
                return
        raise AssertionError(f"the tab key does not reach {role} {name}: {passed}")

    def tab_around(self, steps=20):
        """What the tab key reaches from here."""
        return [(self.press(Keys.TAB), self.focus())[1] for _ in range(steps)]

    # In the shell.

    def elsewhere(self):
        """Opens another page of Cockpit's; ours is loaded behind it."""
        self.driver.get(f"http://127.0.0.1:{self.port}/users")

    def badge(self):
        """What Cockpit's menu says beside the page's name, such as "error"; None: nothing."""
        self.driver.switch_to.default_content()
        return self.run("""return document.querySelector('a[href="/rvx"] .nav-item-status')?.id.replace("raid-", "") ?? null""")
