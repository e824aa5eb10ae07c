"""Threads that meet: the system tests, with the daemon under the thread sanitizer, and with a look at
the order in which it takes its locks."""

import contextlib
import os
import re
import subprocess
import sys
import tempfile

from campaign import Broken, Campaign, Fault, Trial
from lock_order import Watch
from seeded import TOP

SYSTEM = TOP / "tests/system"
# What the tests of sequences have no need of: a look from outside, the bus's time-outs, and a terminal.
LEFT_OUT = "not uninstrumented and not hang and not terminal"
# Whatever can hold with the thread sanitizer in the binary.
APPLICABLE = "not without_tsan"
# Everything runs at once here; nothing of it depends on when.
ENVIRONMENT = {"WEXD_DEADLINE": "60", "PYTHONDONTWRITEBYTECODE": "1", "G_SLICE": "always-malloc"}
# One test would take the system calls of the shell that preloads something for the daemon's.
PRELOADABLE = ("--ignore", SYSTEM / "test_order.py")
LOOK_S = 5  # between two looks at what the locks were seen to do


def suite(binary, only, *more, where=(SYSTEM,), at_once=os.cpu_count()):
    """The command that runs system tests until one fails."""
    return [sys.executable, "-m", "pytest", *where, "-q", "-x", "--tb=short", "-p", "no:cacheprovider",
            "-n", str(at_once), "-m", only, "--binary", binary, *more]  # fmt: skip


def tests(*command, **options):
    """How many tests have passed."""
    done = subprocess.run(
        suite(*command, **options), env={**os.environ, **ENVIRONMENT},
        capture_output=True, text=True, check=False,
    )  # fmt: skip
    return passed(done.returncode, done.stdout)


def passed(status, text):
    if status != 0:
        raise Broken(seen(text))
    return int(re.search(r"(\d+) passed", text)[1])


def seen(text):
    """What the sanitizer saw, or else which tests failed, or else the end of what was said."""
    warning = re.search(r"SUMMARY: ThreadSanitizer: (.*)", text)
    failed = re.findall(r"^(?:FAILED|ERROR) (.*)", text, re.MULTILINE)
    return warning[1] if warning else "; ".join(failed) or text[-200:]


def those_of_sequences(binary, _budget):
    where = [SYSTEM / name for name in ("test_sequences.py", "test_stress.py")]
    return f"{tests(binary, LEFT_OUT, where=where)} tests"


def whole_suite(binary, _budget):
    """Those that wait for the bus's time-outs use no processor, so all of them wait at once."""
    put_beside(binary, "tsan")
    done = tests(binary, f"{APPLICABLE} and not hang") + tests(binary, f"{APPLICABLE} and hang", at_once=8)
    return f"{done:,} tests; {not_applicable(binary)}"


def put_beside(binary, preset):
    """A daemon with a fault has all beside it that the tests expect of its build."""
    for path in (TOP / "build" / preset).iterdir():
        if not (binary.parent / path.name).exists():
            (binary.parent / path.name).symlink_to(path)


def not_applicable(binary):
    """How many tests are left out, and why, as those say who collect them."""
    listed = subprocess.run(
        [sys.executable, "-m", "pytest", SYSTEM, "-q", "--collect-only", "-p", "no:cacheprovider",
         "-m", APPLICABLE, "--binary", binary], capture_output=True, text=True, check=True,
    ).stdout  # fmt: skip
    return ", ".join(re.findall(r"^\d+ not applicable: .*", listed, re.MULTILINE))


def locks_in_order(binary, _budget):
    """What is seen to be taken under what is what the tables of docs/architecture.md have."""
    put_beside(binary, "release")
    with tempfile.TemporaryDirectory(prefix="wexd-") as folder, open(f"{folder}/said", "w+") as out:
        watch = Watch([binary, *binary.parent.glob("tests/wexd-*")], folder)
        run = subprocess.Popen(
            suite(binary, "not hang and not terminal", *PRELOADABLE, "--preload", watch.library),
            env={**os.environ, **ENVIRONMENT}, stdout=out,
        )  # fmt: skip
        try:
            watched_to_the_end(run, watch)
        finally:
            run.terminate()
            run.wait()
        out.seek(0)
        done = passed(run.returncode, out.read())
    if unseen := watch.unseen():
        raise Broken(f"not seen: {', '.join(unseen)}")
    return f"{done:,} tests, {len(watch.tables.pairs)} pairs of a lock and one that is held, as in the tables"


def watched_to_the_end(run, watch):
    ended = False
    while not ended:
        with contextlib.suppress(subprocess.TimeoutExpired):
            run.wait(LOOK_S)
            ended = True
        if unknown := watch.unknown():
            raise Broken(", ".join(unknown))


RACE = Fault(
    "a port's level is no atomic", "src/backends/virtual-backend.cpp",
    "  std::atomic<Level> level_{Level::Low};\n", "  Level level_ = Level::Low;\n",
)  # fmt: skip

TURNED = Fault(
    "a save looks at the list of ports while it has the settings", "src/param/param.cpp",
    "  if (settings.key_file != nullptr || settings.unsaved != nullptr",
    "  if (io_port_list_length() == 0 || settings.key_file != nullptr || settings.unsaved != nullptr",
)  # fmt: skip

CAMPAIGN = Campaign(
    "threads",
    "whatever threads meet where, none reads what another writes, and none waits for another's lock",
    (
        Trial("sequences and stress", those_of_sequences, (RACE,), "tsan"),
        Trial("the whole system suite", whole_suite, (TURNED,), "tsan"),
        Trial("locks in the order of their table", locks_in_order, (TURNED,)),
    ),
)  # fmt: skip
