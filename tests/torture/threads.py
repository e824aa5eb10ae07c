"""Threads that meet: the tests of sequences, with the daemon under the thread sanitizer."""

import os
import pathlib
import re
import subprocess
import sys

from campaign import Broken, Campaign, Fault, Trial

SYSTEM = pathlib.Path(__file__).resolve().parents[1] / "system"
# What watches the daemon from outside, waits for the bus's time-outs, or plays a terminal.
LEFT_OUT = "not uninstrumented and not hang and not terminal"
# A race, a lock taken in two orders, and a lock of a thread that has ended each end the process.
SANITIZER = "exitcode=99 detect_deadlocks=1 second_deadlock_stack=1"


def tests(binary, *where):
    done = subprocess.run(
        [sys.executable, "-m", "pytest", *(SYSTEM / name for name in where), "-q", "-x", "--tb=short",
         "-n", str(os.cpu_count()), "-m", LEFT_OUT, "--binary", binary],
        env={**os.environ, "TSAN_OPTIONS": SANITIZER, "WEXD_DEADLINE": "60", "PYTHONDONTWRITEBYTECODE": "1"},
        capture_output=True, text=True, check=False,
    )  # fmt: skip
    if done.returncode != 0:
        raise Broken(seen(done.stdout))
    return re.search(r"\d+ passed", done.stdout)[0]


def seen(text):
    """What the sanitizer saw, or else the end of what the tests said."""
    warning = re.search(r"SUMMARY: ThreadSanitizer: (.*)", text)
    return warning[1] if warning else text[-200:]


def those_of_sequences(binary, _budget):
    return tests(binary, "test_sequences.py", "test_stress.py")


RACE = Fault(
    "a port's level is no atomic", "src/backends/virtual-backend.cpp",
    "  std::atomic<Level> level_{Level::Low};\n", "  Level level_ = Level::Low;\n",
)  # fmt: skip

CAMPAIGN = Campaign(
    "threads",
    "whatever threads meet where, none reads what another writes, and none waits for another's lock",
    (
        Trial("sequences and stress", those_of_sequences, (RACE,), "tsan"),
    ),
)  # fmt: skip
