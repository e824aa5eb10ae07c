"""Whoever needs a lock is made to take it, and all locks stand in docs/architecture.md."""

import pathlib
import re
import shlex
import subprocess
import sys
import unittest

TOP = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(TOP / folder) for folder in ("tests/torture", "tests/system", ".")]

from lock_order import Tables  # noqa: E402

MUTEX = re.compile(r"^\s*(?:mutable )?(?:std::mutex|Mutex) (\w+)\b.*;", re.MULTILINE)

DRIVE = """
#include "port/ioport.h"
void drive(IoPort* port);
void drive(IoPort* port) {
  %s
  io_port_set_state_internal(port, true);
}
"""


def mutexes():
    """(name, folder/file) of every mutex of the sources, but for the one that wraps another."""
    for source in (TOP / "src").rglob("*.*"):
        place = source.relative_to(TOP / "src").with_suffix("").as_posix()
        if source.suffix in (".cpp", ".h") and place != "platform/mutex":
            yield from ((name, place) for name in MUTEX.findall(source.read_text()))


def complaints(body):
    """What clang has to say of a function that drives a port."""
    flags = subprocess.check_output(["pkg-config", "--cflags", "glib-2.0"], text=True)
    clang = ["clang++", "-std=c++20", "-fsyntax-only", "-Wthread-safety", "-x", "c++", "-"]
    run = subprocess.run(
        [*clang, f"-I{TOP}/src", *shlex.split(flags)],
        input=DRIVE % body, capture_output=True, text=True, check=True,
    )  # fmt: skip
    return run.stderr


class Locks(unittest.TestCase):
    def test_all_stand_in_the_tables_of_their_order(self):
        self.assertEqual(sorted(Tables().locks), sorted(mutexes()))

    def test_are_taken_under_those_above_and_under_no_leaf(self):
        self.assertTrue(Tables().pairs)
        self.assertEqual(Tables().out_of_order(), [])

    def test_a_port_is_driven_with_its_gate_only(self):
        self.assertIn("requires holding port gate 'port->gate'", complaints(""))

    def test_a_write_a_change_and_a_run_have_the_gate(self):
        for turn in ("Write", "Configuration", "Run"):
            with self.subTest(turn):
                self.assertEqual(complaints(f"const PortGate::{turn} turn(port->gate);"), "")

    def test_the_gate_is_let_go_of_with_the_run(self):
        ended = "PortGate::Run run(port->gate); run.end();"
        self.assertIn("requires holding port gate", complaints(ended))


if __name__ == "__main__":
    unittest.main()
