"""The scripts answer a question, or a mistake, at once: before anything is installed or built."""

import pathlib
import shutil
import subprocess
import tempfile
import unittest

TOP = pathlib.Path(__file__).resolve().parents[2]
NEEDED = ("scripts", "cmake", "CMakePresets.json", "tests/fuzz")
# All that a script may call before it knows what is wanted of it.
TOOLS = ("bash", "cat", "dirname", "env", "grep", "id", "sed")
SCRIPTS = sorted(
    path.name
    for path in (TOP / "scripts").iterdir()
    if path.is_file() and path.suffix == "" and path.read_text().startswith("#!/usr/bin/env bash")
)


class TheScripts(unittest.TestCase):
    def setUp(self):
        """A copy of what they read, on a machine without package manager and compiler."""
        folder = tempfile.TemporaryDirectory(prefix="wexd-")
        self.addCleanup(folder.cleanup)
        self.top = pathlib.Path(folder.name) / "top"
        self.tools = pathlib.Path(folder.name) / "bin"
        self.tools.mkdir()
        for tool in TOOLS:
            (self.tools / tool).symlink_to(shutil.which(tool))
        for name in NEEDED:
            source, copy = TOP / name, self.top / name
            copy.parent.mkdir(parents=True, exist_ok=True)
            shutil.copytree(source, copy) if source.is_dir() else shutil.copy(source, copy)
        self.before = self.files()

    def files(self):
        return sorted(path for path in self.top.rglob("*") if path.name != "__pycache__")

    def call(self, script, *arguments):
        done = subprocess.run(
            [self.top / "scripts" / script, *arguments],
            env={"PATH": str(self.tools), "HOME": "/nonexistent"}, stdin=subprocess.DEVNULL, capture_output=True, text=True, check=False,
        )  # fmt: skip
        self.assertEqual(self.files(), self.before)
        return done

    def test_are_all_here(self):
        self.assertLessEqual(
            {"run", "test", "build", "bench", "cross", "fuzz", "kernel-bench", "pictures", "package",
             "mutate", "schema", "bootstrap", "torture", "reproduce", "coverage"}, set(SCRIPTS),
        )  # fmt: skip

    def test_tell_what_they_do(self):
        for script in SCRIPTS:
            for question in (["--help"], ["-h"]):
                with self.subTest(script, question=question):
                    done = self.call(script, *question)
                    self.assertEqual((done.returncode, done.stderr), (0, ""))
                    self.assertTrue(done.stdout.startswith(f"Usage: scripts/{script}"), done.stdout)
                    self.assertGreater(done.stdout.count("\n"), 1)
                    self.assertNotIn("lib.sh", done.stdout)

    def test_refuse_what_they_do_not_know(self):
        for script in SCRIPTS:
            with self.subTest(script):
                done = self.call(script, "--bogus")
                self.assertEqual((done.returncode, done.stdout), (2, ""))
                self.assertIn("--bogus", done.stderr)
                self.assertIn(f"\nUsage: scripts/{script}", done.stderr)

    def test_refuse_what_lacks_its_value_or_its_mate(self):
        for call in (
            ["run", "--scenario", "--shell"], ["run", "--binary"], ["build", "release", "debug"],
            ["build", "nothing"], ["build", "base"], ["test", "format", "nothing"],
            ["bench", "--part"], ["bench", "--part", "nothing"], ["bench", "--compare"], ["bench", "--output"], ["bench", "--from"], ["bench", "--compare", "nowhere"], ["bench", "--from", "nowhere"], ["bench", "--instructions", "--quick"],
            ["cross", "arm64", "nothing"], ["fuzz", "nothing"],
            ["fuzz", "-t", "soon"], ["torture", "nothing"],
            ["torture", "-t", "soon"], ["torture", "durability", "--seed"], ["kernel-bench", "-k"], ["kernel-bench", "--junitxml"],
            ["kernel-bench", "--counts"], ["coverage", "nothing"], ["coverage", "--no-kernel", "kernel"],
            ["kernel-bench", "--results"], ["kernel-bench", "--binary", "nothing"], ["kernel-bench", "--binary"],
            ["kernel-bench", "--pins"], ["kernel-bench", "--pins", "both"],
            ["reproduce", "now"], ["reproduce", "--short", "--long"],
        ):  # fmt: skip
            with self.subTest(call):
                done = self.call(*call)
                self.assertEqual((done.returncode, done.stdout), (2, ""))
                self.assertIn(f"\nUsage: scripts/{call[0]}", done.stderr)


if __name__ == "__main__":
    unittest.main()
