"""Mutation testing: see scripts/mutate."""

import argparse
import collections
import dataclasses
import fnmatch
import functools
import os
import pathlib
import random
import re
import shutil
import subprocess
import sys
import time

TOP = pathlib.Path(__file__).resolve().parents[1]
COPY = TOP / "build/mutate"
BUILD = COPY / "build/release"
# A test that waits in vain for what the mutant no longer does is a kill like any other.
TEST_LIMIT_S = 60
RUN_LIMIT_S = 1200

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
    r"^\s*(//|#|using |static_assert|namespace |template|extern |g_assert|WEXD_)"
    r"|g_(warning|message|info|critical|debug|log)\(|constexpr gint line|= default|= delete"
)


@dataclasses.dataclass(frozen=True)
class Mutant:
    file: str
    line: int  # 1-based
    before: str
    after: str
    kind: str

    def __str__(self):
        return (
            f"{self.file}:{self.line}: {self.kind}: {self.before.strip()} -> "
            f"{self.after.strip() or '(nothing)'}"
        )


def without_text(line):
    """The line with its literals and its comment blanked, columns kept."""
    line = re.sub(r'"(?:\\.|[^"\\])*"', lambda m: '"' + "_" * (len(m[0]) - 2) + '"', line)
    return re.sub(r"//.*", lambda m: " " * len(m[0]), line)


def mutants_of(file):
    for number, line in enumerate((TOP / file).read_text().splitlines(), start=1):
        if SKIPPED.search(line):
            continue
        code = without_text(line)
        for kind, pattern, replacement in OPERATORS:
            for found in re.finditer(pattern, code):
                put = replacement(found) if callable(replacement) else replacement
                after = line[: found.start()] + put + line[found.end() :]
                yield Mutant(file, number, line, after, kind)


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
    return Mutant(file, places[0], before, before.replace(old, new, 1), "edit")


def prepare_copy():
    """The tree as it stands, in a folder of its own that keeps its build."""
    COPY.mkdir(parents=True, exist_ok=True)
    listed = subprocess.run(
        ["git", "ls-files", "--cached", "--others", "--exclude-standard"],
        cwd=TOP, check=True, capture_output=True, text=True,
    ).stdout.splitlines()  # fmt: skip
    for name in listed:
        source, target = TOP / name, COPY / name
        if not source.is_file():
            continue
        if not target.exists() or target.read_bytes() != source.read_bytes():
            target.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy2(source, target)
            os.utime(target)
    known = set(listed)
    for folder in ("src", "tests", "sim"):
        for path in (COPY / folder).rglob("*"):
            if path.is_file() and "__pycache__" not in path.parts:
                if str(path.relative_to(COPY)) not in known:
                    path.unlink()


def run(command, limit_s=RUN_LIMIT_S):
    """True when the command ends with 0 in time; its output is thrown away."""
    try:
        return subprocess.run(
            command, cwd=COPY, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
            stdin=subprocess.DEVNULL, timeout=limit_s,
        ).returncode == 0  # fmt: skip
    except subprocess.TimeoutExpired:
        return False


def build():
    if not (BUILD / "build.ninja").exists() and not run(["cmake", "--preset", "release"]):
        return False
    return run(["cmake", "--build", "--preset", "release"])


def unit_tests():
    return run(
        ["ctest", "--test-dir", str(BUILD), "--stop-on-failure", "--parallel", str(os.cpu_count()),
         "--timeout", str(TEST_LIMIT_S)]
    )  # fmt: skip


def system_tests(names):
    where = [f"tests/system/test_{name}.py" for name in names] or ["tests/system"]
    return run(
        [sys.executable, "-m", "pytest", *where, "-q", "-x", "-n", str(os.cpu_count()),
         "-m", "not hang and not terminal", "--binary", "build/release/wexd",
         "-p", "no:cacheprovider"]
    )  # fmt: skip


def fate(mutant, suites):
    """What came of a mutant: the name of the suite that noticed it, "invalid" or "SURVIVED"."""
    path = COPY / mutant.file
    kept = path.read_text()
    lines = kept.splitlines()
    lines[mutant.line - 1] = mutant.after
    path.write_text("\n".join(lines) + "\n")
    try:
        if not build():
            return "invalid"
        for name, suite in suites:
            if not suite():
                return name
        return "SURVIVED"
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
    parser.add_argument("--list", action="store_true", help="show what would be tried")
    parser.add_argument("--edit", nargs=3, metavar=("FILE[:LINE]", "OLD", "NEW"))
    parser.add_argument("--edits", metavar="FILE", help="changes of one's own, one per line")
    return parser.parse_args()


def chosen(arguments):
    if arguments.edit:
        return [edit(*arguments.edit)]
    if arguments.edits:
        rows = pathlib.Path(arguments.edits).read_text().splitlines()
        return [edit(*row.split("\t")) for row in rows if row and not row.startswith("#")]
    return draw(arguments)


def main():
    arguments = parse_arguments()
    mutants = chosen(arguments)
    if arguments.list:
        print("\n".join(map(str, mutants)))
        return 0
    suites = [("unit", unit_tests)]
    if not arguments.unit:
        suites.append(("system", functools.partial(system_tests, arguments.tests)))
    prepare_copy()
    if not build() or not all(suite() for _, suite in suites):
        sys.exit("mutate: the tree does not build or pass as it is")
    fates = collections.Counter()
    for mutant in mutants:
        started = time.monotonic()
        came = fate(mutant, suites)
        fates[came] += 1
        print(f"{came:9} {time.monotonic() - started:5.0f} s  {mutant}", flush=True)
    survived, valid = fates["SURVIVED"], sum(fates.values()) - fates["invalid"]
    print(f"{valid - survived} of {valid} noticed, {survived} survived, {fates['invalid']} invalid")
    return 1 if survived else 0


if __name__ == "__main__":
    sys.exit(main())
