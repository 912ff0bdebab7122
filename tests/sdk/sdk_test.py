"""What others build on, as they find it: installed, without the tree that it comes from.

RVX_BUILD names the build to install, or RVX_PREFIX where it is installed already."""

import concurrent.futures
import os
import pathlib
import subprocess
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]


class Sdk(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = cls.enterClassContext(tempfile.TemporaryDirectory(prefix="sdk"))
        os.chmod(folder, 0o755)  # nobody is to find what is built there
        cls.folder, cls.prefix = pathlib.Path(folder), pathlib.Path(os.environ.get("RVX_PREFIX", f"{folder}/prefix"))
        cls.env = {name: value for name, value in os.environ.items() if not name.startswith("ZQ_")}
        if "RVX_PREFIX" not in os.environ:
            cls.call("cmake", "--install", os.environ["RVX_BUILD"], "--prefix", cls.prefix)
        cls.env["PKG_CONFIG_PATH"] = str(next(cls.prefix.glob("lib/**/piRVX.pc")).parent)
        cls.env["ZQ_CATALOG_DIR"] = cls.package("--variable=catalogdir")[0]

    @classmethod
    def call(cls, *words, **more):
        result = subprocess.run(words, capture_output=True, text=True, timeout=240, env=cls.env, **more)
        if result.returncode:
            raise AssertionError(f"{words}: status {result.returncode}\n{result.stdout}{result.stderr}")
        return result.stdout

    @classmethod
    def package(cls, *words):
        return cls.call("pkg-config", *words, "piRVX").split()

    def built(self, example):
        """The folder in which CMake has built an example."""
        build = self.folder / example
        self.call("cmake", "-G", "Ninja", "-S", ROOT / "examples" / example, "-B", build, f"-DCMAKE_PREFIX_PATH={self.prefix}",
                 "-DCMAKE_CXX_FLAGS=-Wall -Wextra -Wpedantic -Wconversion -Werror")
        self.call("cmake", "--build", build)
        return build

    def test_headers(self):
        """A header that leans on what others include, or on one that is not installed."""
        headers = sorted(self.prefix.glob("include/piRVX/*/*.h"))
        self.assertGreater(len(headers), 15)
        words = ["g++", *self.package("--cflags"), "-fsyntax-only", "-x", "c++", "/dev/null", "-include"]
        with concurrent.futures.ThreadPoolExecutor(2) as pool:
            list(pool.map(lambda header: self.call(*words, header), headers))

    def test_host_and_plugin(self):
        """A package that cannot be built against, or whose host or plug-in does not run; a library of any major version."""
        by_cmake, by_package = self.built("host") / "host", self.folder / "by_package"
        self.call("g++", ROOT / "examples/host/host.cpp", "-o", by_package, *self.package("--cflags", "--libs"))
        for host in (by_cmake, by_package):
            self.assertIn(f"[libzqKVT.so.{self.package('--modversion')[0].split('.')[0]}]", self.call("readelf", "-d", host))
            told = self.call(host)
            for line in ("Plug-in", "  Poll interval: 10 s", "  Name: SEAGATE ST4000 (sdc 8:32)", "  RAID level: RAID 1 (mirror)",
                         "Rescan the system: done", "event 10132: A rescan of Multiple Devices was requested.", "released"):
                self.assertIn(f"\n{line}\n", told)
        plugin = self.built("plugin") / "libexample.so"
        self.assertIn("\n  Temperature: 31 degrees Celsius\nreleased\n", self.call(by_cmake, plugin))
        nobody = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"] if os.geteuid() == 0 else []
        shown = self.call(*nobody, self.prefix / "bin/rvxctl", "--plugin", plugin, "disk", "show", "example0")
        self.assertRegex(shown, r"(?m)^Status +Ready$")
        self.assertRegex(shown, r"(?m)^Temperature +31 degrees Celsius$")

    def test_numbers(self):
        """A page that tells of other numbers than the headers."""
        self.call(ROOT / "tools/numbers", "--check")
