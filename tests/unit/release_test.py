"""What a release is made of: one version, what `cmake --install` puts where, and the tarball.

usage: release_test.py BUILD_FOLDER
"""

import hashlib
import os
import pathlib
import re
import subprocess
import sys
import tarfile
import tempfile
import unittest

TOP = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(sys.argv.pop(1)) if len(sys.argv) > 1 else TOP / "build/release"
VERSION = re.search(r"^project\(wexd VERSION ([\d.]+)", (TOP / "CMakeLists.txt").read_text(), re.MULTILINE)[1]


def run(*command, **options):
    return subprocess.run(
        [str(word) for word in command], check=True, capture_output=True, text=True, **options
    ).stdout


def first_version(name, pattern):
    """The version in the first line of a file."""
    line = (TOP / name).read_text().splitlines()[0]
    return re.fullmatch(pattern, line)[1]


class TheVersion(unittest.TestCase):
    """It stands in CMakeLists.txt; what people write by hand agrees with it."""

    def test_is_that_of_the_newest_news(self):
        self.assertEqual(first_version("NEWS", r"wexd (\S+), \d{4}-\d\d-\d\d"), VERSION)

    def test_is_that_of_the_package(self):
        self.assertEqual(first_version("debian/changelog", r"wexd \((\S+)\) .*"), VERSION)

    def test_is_what_the_client_says(self):
        self.assertEqual(run(BUILD / "wexctl", "--version").strip(), VERSION)

    def test_stands_in_every_man_page(self):
        pages = sorted((BUILD / "data").glob("*.[1-8]"))
        self.assertGreaterEqual(len(pages), 4)
        for page in pages:
            heading = re.search(r"^\.TH .*", page.read_text(), re.MULTILINE)[0]
            self.assertRegex(heading, rf'"(wexd|wexctl) {re.escape(VERSION)}"', page.name)


PROGRAMS = {"bin/wexctl", "sbin/wexd"}
TEXTS = {
    "lib/systemd/system/wexd.service", "lib/systemd/system/etc-wexd-actions.mount",
    "lib/sysusers.d/wexd.conf", "lib/tmpfiles.d/wexd.conf", "lib/udev/rules.d/60-wexd.rules",
    "share/bash-completion/completions/wexctl", "share/fish/vendor_completions.d/wexctl.fish",
    "share/zsh/vendor-completions/_wexctl",
    "share/dbus-1/system.d/com.norv.wexd.conf",
    "share/doc/wexd/NEWS", "share/doc/wexd/operating.md", "share/doc/wexd/mqtt.md",
    "share/doc/wexd/recipes.md", "share/doc/wexd/dbus/com.norv.IOControl.State.md",
    "share/doc/wexd/examples/any-machine.xml", "share/doc/wexd/examples/conf.xml",
    "share/pkgconfig/wexd.pc", "share/man/man1/wexctl.1", "share/man/man5/wexd-dbus.5", "share/man/man5/wexd-hardware.5", "share/man/man5/wexd.conf.5",
    "share/man/man8/wexd.8",
    "share/wexd/wexd-hardware.rng", "share/wexd/wexctl.schema.json",
}  # fmt: skip
# The daemon looks for these where they are, whatever the prefix.
ANYWAY = {
    f"etc/wexd/actions/com.norv.action.{kind}.io.toggle.xml" for kind in ("fixed", "unlimited")
}


class AnInstallation(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="wexd-")
        self.addCleanup(folder.cleanup)
        self.root = pathlib.Path(folder.name) / "root"

    def install(self, prefix):
        """The files that an installation there consists of, staged below another root."""
        before = self.of_the_build()
        run("cmake", "--install", BUILD, "--prefix", prefix, env={**os.environ, "DESTDIR": str(self.root)})
        self.assertEqual(self.of_the_build(), before)
        return {
            path.relative_to(self.root).as_posix() for path in self.root.rglob("*") if path.is_file()
        }

    @staticmethod
    def of_the_build():
        """All but CMake's own list of what it installed: who installs may not write here."""
        return {path for path in (BUILD / "data").rglob("*")}

    def test_has_everything_below_its_prefix(self):
        for prefix in ("/usr", "/opt/wexd"):
            with self.subTest(prefix):
                below = {f"{prefix[1:]}/{name}" for name in PROGRAMS | TEXTS} | ANYWAY
                found = self.install(prefix)
                self.assertLessEqual(below, found)
                self.assertEqual(
                    {name for name in found if not name.startswith(("usr/", "opt/wexd/"))}, ANYWAY
                )

    def test_has_what_is_to_be_run_and_nothing_else_to_run(self):
        found = self.install("/usr")
        able = {name for name in found if os.access(self.root / name, os.X_OK)}
        self.assertEqual(able, {f"usr/{name}" for name in PROGRAMS})

    def test_has_a_unit_that_names_the_programs_where_they_are(self):
        for prefix in ("/usr", "/opt/wexd"):
            with self.subTest(prefix):
                self.install(prefix)
                unit = (self.root / prefix[1:] / "lib/systemd/system/wexd.service").read_text()
                self.assertIn(f"\nExecStart=!{prefix}/sbin/wexd\n", unit)
                self.assertIn(f"\nExecStartPre=-{prefix}/bin/wexctl check\n", unit)

    def test_has_every_bus_interface(self):
        found = self.install("/usr")
        for xml in (TOP / "src/dbus").glob("*.xml"):
            self.assertIn(f"usr/share/dbus-1/interfaces/{xml.name}", found)


@unittest.skipUnless((TOP / ".git").exists(), "what is not under version control has no tarball")
class TheTarball(unittest.TestCase):
    def make(self):
        run("cmake", "--build", BUILD, "--target", "dist")
        return BUILD / f"wexd-{VERSION}.tar.gz"

    def test_is_the_same_each_time(self):
        digests = {hashlib.sha256(self.make().read_bytes()).hexdigest() for _ in range(2)}
        self.assertEqual(len(digests), 1)

    def test_has_what_is_committed_in_a_folder_of_its_own(self):
        with tarfile.open(self.make()) as tarball:
            files = {member.name for member in tarball.getmembers() if not member.isdir()}
        committed = run("git", "ls-tree", "-r", "--name-only", "HEAD", cwd=TOP).split("\n")[:-1]
        self.assertEqual(files, {f"wexd-{VERSION}/{name}" for name in committed})
        self.assertIn(f"wexd-{VERSION}/CMakeLists.txt", files)


if __name__ == "__main__":
    unittest.main()
