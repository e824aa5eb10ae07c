"""Mutation testing: see scripts/mutate."""

import argparse
import collections
import concurrent.futures
import dataclasses
import fnmatch
import os
import pathlib
import queue
import random
import re
import shutil
import subprocess
import sys
import time

TOP = pathlib.Path(__file__).resolve().parents[1]
COPIES = TOP / "build/mutate"
# A test that waits in vain for what the mutant no longer does is a kill like any other.
TEST_LIMIT_S = 60
RUN_LIMIT_S = 1200
# What ships, but linked quickly, and no test looked up before it is needed.
CONFIGURED = [
    "-DCMAKE_EXE_LINKER_FLAGS=-fno-lto",
    "-DCMAKE_GTEST_DISCOVER_TESTS_DISCOVERY_MODE=PRE_TEST",
]
# By room of src/: the programs that test it most closely, which are tried first.
CLOSE_TESTS = {
    "backends": ["backends-test", "backends-on-fakes-test"],
    "description": ["core-test"],
    "platform": ["platform-test", "platform-log-test", "line-pins-test"],
    **{room: [f"{room}-test"] for room in ("core", "dbus", "event", "param", "port")},
}
# Programs whose tests are no single run: one that needs a bus for each test, one whose output counts.
RUN_BY_CTEST = {"dbus-test": r"^dbus\.", "wexd-schema": "^schema$"}

# (name, what to look for, what to put in its place)
OPERATORS = [
    ("equal", r" == ", " != "),
    ("unequal", r" != ", " == "),
    ("less", r"(?<=[\w)\]]) < (?=[\w(])", " <= "),
    ("at most", r" <= ", " < "),
    ("greater", r"(?<=[\w)\]]) > (?=[\w(])", " >= "),
    ("at least", r" >= ", " > "),
    ("and", r" && ", " || "),
    ("or", r" \|\| ", " && "),
    ("true", r"\btrue\b", "false"),
    ("false", r"\bfalse\b", "true"),
    ("TRUE", r"\bTRUE\b", "FALSE"),
    ("FALSE", r"\bFALSE\b", "TRUE"),
    ("not", r"(?<=[ (])!(?=[\w(])", ""),
    ("plus", r" \+ (?=\w)", " - "),
    ("minus", r"(?<=[\w)]) - (?=\w)", " + "),
    ("number", r"(?<![\w.'\"])(\d{1,6})(?![\w.'\"])", lambda m: str(int(m[1]) + 1)),
    # A whole statement that is a call or an assignment, left out.
    ("call", r"^  +(?!return\b|g_assert|WEXD_|delete\b|throw\b)[\w:>.-]+\([^;{}]*\);$", "  ;"),
    ("assignment", r"^  +[\w>.-]+ [|&+-]?= [^;{}]*;$", "  ;"),
    ("step", r"^  +[\w>.-]+(\+\+|--);$", "  ;"),
]
# Where a change means nothing, does not compile, or only changes what is said.
SKIPPED = re.compile(
    r"^\s*(//|/\*|#|using |static_assert|namespace |template|extern |g_assert|WEXD_)"
    r"|g_(warning|message|info|critical|debug|log)\(|constexpr gint line|= default|= delete"
)


@dataclasses.dataclass(frozen=True)
class Mutant:
    file: str
    line: int  # 1-based
    before: str
    after: str

    def __str__(self):
        """As --edits reads it."""
        return "\t".join((f"{self.file}:{self.line}", self.before.strip(), self.after.strip()))


def without_text(line):
    """The line with its literals and its comment blanked, columns kept."""
    line = re.sub(r'"(?:\\.|[^"\\])*"', lambda m: '"' + "_" * (len(m[0]) - 2) + '"', line)
    return re.sub(r"//.*", lambda m: " " * len(m[0]), line)


def mutants_of(file):
    for number, line in enumerate((TOP / file).read_text().splitlines(), start=1):
        if SKIPPED.search(line):
            continue
        code = without_text(line)
        for _, pattern, replacement in OPERATORS:
            for found in re.finditer(pattern, code):
                put = replacement(found) if callable(replacement) else replacement
                after = line[: found.start()] + put + line[found.end() :]
                yield Mutant(file, number, line, after)


def draw(arguments):
    files = subprocess.run(
        ["git", "ls-files", "src"], cwd=TOP, check=True, capture_output=True, text=True
    ).stdout.split()
    files = [file for file in files if file.endswith((".cpp", ".h"))]
    if arguments.only:
        files = [f for f in files if any(fnmatch.fnmatch(f, glob) for glob in arguments.only)]
    mutants = [mutant for file in files for mutant in mutants_of(file)]
    dice = random.Random(arguments.seed)
    return sorted(
        dice.sample(mutants, min(arguments.count, len(mutants))), key=lambda m: (m.file, m.line)
    )


def edit(place, old, new):
    """A mutant of one's own: FILE or FILE:LINE, and the text to replace there."""
    file, _, line = place.partition(":")
    lines = (TOP / file).read_text().splitlines()
    places = [n for n, text in enumerate(lines, start=1) if old in text]
    if line:
        places = [n for n in places if n == int(line)]
    if len(places) != 1:
        sys.exit(f"mutate: {place}: '{old}' stands in {len(places)} lines")
    before = lines[places[0] - 1]
    return Mutant(file, places[0], before, before.replace(old, new, 1))


class Copy:
    """The tree as it stands, in a folder of its own that keeps its build."""

    def __init__(self, number):
        self.folder = COPIES / str(number)
        self.build_folder = self.folder / "build/release"
        self.processors = str(os.cpu_count())

    def prepare(self):
        listed = subprocess.run(
            ["git", "ls-files", "--cached", "--others", "--exclude-standard"],
            cwd=TOP, check=True, capture_output=True, text=True,
        ).stdout.splitlines()  # fmt: skip
        for name in listed:
            source, target = TOP / name, self.folder / name
            if not source.is_file():
                continue
            if not target.exists() or target.read_bytes() != source.read_bytes():
                target.parent.mkdir(parents=True, exist_ok=True)
                shutil.copy2(source, target)
                os.utime(target)
        known = set(listed)
        for folder in ("src", "tests", "sim"):
            for path in (self.folder / folder).rglob("*"):
                if path.is_file() and "__pycache__" not in path.parts:
                    if str(path.relative_to(self.folder)) not in known:
                        path.unlink()

    def run(self, command, failure=r"^", limit_s=RUN_LIMIT_S):
        """None when the command ends with 0 in time, else what it says after `failure`."""
        try:
            done = subprocess.run(
                command, cwd=self.folder, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                stdin=subprocess.DEVNULL, timeout=limit_s, text=True, errors="replace",
            )  # fmt: skip
        except subprocess.TimeoutExpired:
            return "time"
        if done.returncode == 0:
            return None
        found = re.search(failure + r"(\S+)", done.stdout, re.MULTILINE)
        return found[1] if found else "?"

    def build(self, *targets):
        if not (self.build_folder / "build.ninja").exists():
            if self.run(["cmake", "--preset", "release", *CONFIGURED]):
                return "configure"
        return self.run(
            ["cmake", "--build", "--preset", "release", "-j", self.processors]
            + (["--target", *targets] if targets else [])
        )

    def unit_tests(self, since, names=("*-test",)):
        """Those of the tests that were made anew, for all others are as they were. Tests that look at
        the text of the sources would notice any change whatever it does, so are none of them."""
        programs = [p for name in names for p in (self.build_folder / "tests").glob(name)]
        for path in (*programs, self.build_folder / "wexd-schema"):
            if path.stat().st_mtime < since:
                continue
            if path.name in RUN_BY_CTEST:
                command = ["ctest", "--test-dir", str(self.build_folder), "-R",
                           RUN_BY_CTEST[path.name]]  # fmt: skip
            else:
                command = [path, "--gtest_brief=1", "--gtest_fail_fast"]
            if test := self.run(command, r"^(?:\[  FAILED  \] |\s*\d+ - )", TEST_LIMIT_S):
                return test
        return None

    def system_tests(self, names):
        where = [f"tests/system/test_{name}.py" for name in names] or ["tests/system"]
        return self.run(
            [sys.executable, "-m", "pytest", *where, "-q", "-x", "-n", self.processors,
             "-m", "not hang and not terminal", "--binary", "build/release/wexd",
             "-p", "no:cacheprovider"],
            r"^(?:FAILED|ERROR) tests/system/",
        )  # fmt: skip

    def passes(self, arguments):
        """Whether the tree builds and passes as it is."""
        return not (
            self.build("unit-tests")
            or self.unit_tests(0)
            or (not arguments.unit and (self.build() or self.system_tests(arguments.tests)))
        )

    def fate(self, mutant, arguments):
        """What came of a mutant: "invalid", "SURVIVED" or the suite that noticed it; and which test."""
        path = self.folder / mutant.file
        kept = path.read_text()
        lines = kept.splitlines()
        lines[mutant.line - 1] = mutant.after
        since = time.time() - 1
        path.write_text("\n".join(lines) + "\n")
        try:
            for targets in filter(None, (CLOSE_TESTS.get(mutant.file.split("/")[1]), ["unit-tests"])):
                if self.build(*targets):
                    return "invalid", ""
                names = ["*-test"] if targets == ["unit-tests"] else targets
                if test := self.unit_tests(since, names):
                    return "unit", test
                since = time.time()
            if not arguments.unit:
                if self.build():
                    return "invalid", ""
                if test := self.system_tests(arguments.tests):
                    return "system", test
            return "SURVIVED", ""
        finally:
            path.write_text(kept)


def parse_arguments():
    parser = argparse.ArgumentParser(prog="scripts/mutate", description=__doc__)
    parser.add_argument("--count", type=int, default=30, help="how many to draw (30)")
    parser.add_argument("--seed", type=int, default=1, help="which ones (1)")
    parser.add_argument("--only", action="append", metavar="GLOB", help="files to draw from")
    parser.add_argument("--unit", action="store_true", help="run the unit tests only")
    parser.add_argument("--tests", action="append", default=[], metavar="NAME",
                        help="system tests to run (gpio_files, ...); all, unless named")  # fmt: skip
    parser.add_argument("--after", metavar="FILE", help="leave out what this output tells of")
    parser.add_argument("--list", action="store_true", help="show what would be tried")
    parser.add_argument("--edit", nargs=3, metavar=("FILE[:LINE]", "OLD", "NEW"))
    parser.add_argument("--edits", metavar="FILE", help="changes of one's own, one per line")
    return parser.parse_args()


def chosen(arguments):
    if arguments.edit:
        return [edit(*arguments.edit)]
    if arguments.edits:
        rows = pathlib.Path(arguments.edits).read_text().splitlines()
        return [edit(*row.split("\t")[:3]) for row in rows if row and not row.startswith("#")]
    return draw(arguments)


def main():
    arguments = parse_arguments()
    told = pathlib.Path(arguments.after).read_text() if arguments.after else ""
    mutants = [mutant for mutant in chosen(arguments) if f"\t{mutant}\t" not in told]
    if arguments.list:
        print("\n".join(map(str, mutants)))
        return 0
    processors = os.cpu_count() or 1
    workers = max(1, min(processors, len(mutants)))
    copies = [Copy(number + 1) for number in range(workers)]
    for copy in copies:
        copy.prepare()
    # The others are the same.
    if not copies[0].passes(arguments) or any(copy.build("unit-tests") for copy in copies[1:]):
        sys.exit("mutate: the tree does not build or pass as it is")
    idle = queue.SimpleQueue()
    for copy in copies:
        copy.processors = str(processors // workers)
        idle.put(copy)
    fates = collections.Counter()

    def attempt(mutant):
        copy = idle.get()
        try:
            started = time.monotonic()
            came, test = copy.fate(mutant, arguments)
        finally:
            idle.put(copy)
        fates[came] += 1
        print(f"{came}\t{mutant}\t{time.monotonic() - started:.0f} s {test}", flush=True)

    with concurrent.futures.ThreadPoolExecutor(workers) as pool:
        list(pool.map(attempt, mutants))
    survived, valid = fates["SURVIVED"], sum(fates.values()) - fates["invalid"]
    print(f"{valid - survived} of {valid} noticed, {survived} survived, {fates['invalid']} invalid")
    return 1 if survived else 0


if __name__ == "__main__":
    sys.exit(main())
