"""What the parts of the benchmark share: samples, what is told of them, and the files they are kept in.

A sample is a number that was measured of a subject (wexd, a floor) in a round, in which all subjects
had their turn. So the ratio to a floor is one of numbers of the same round, and has a spread of its own.
"""

import collections
import csv
import json
import math
import pathlib
import re
import statistics

OURS = "wexd"
FIELDS = ("what", "subject", "round", "value")


class Samples:
    """The samples of one part: samples[what, subject] = [value of each round]."""

    def __init__(self):
        self._values = collections.defaultdict(list)

    def add(self, what, subject, value):
        self._values[what, subject].append(float(value))

    def __getitem__(self, key):
        return self._values.get(key, [])

    def keys(self):
        return list(self._values)

    def whats(self):
        return list(dict.fromkeys(what for what, _ in self._values))

    def subjects(self, what):
        return [subject for other, subject in self._values if other == what]

    def write(self, path):
        with open(path, "w", newline="") as file:
            rows = csv.writer(file, lineterminator="\n")
            rows.writerow(FIELDS)
            for (what, subject), values in self._values.items():
                rows.writerows((what, subject, i, f"{value:.10g}") for i, value in enumerate(values))

    @classmethod
    def read(cls, path):
        samples = cls()
        with open(path, newline="") as file:
            for row in csv.DictReader(file):
                samples.add(row["what"], row["subject"], row["value"])
        return samples


def quartiles(values):
    """{"median", "q1", "q3", "n"}; one that was counted, not sampled, is its own quartiles."""
    if len(values) == 1:
        lower = middle = upper = values[0]
    else:
        lower, middle, upper = statistics.quantiles(values, n=4, method="inclusive")
    return {"median": middle, "q1": lower, "q3": upper, "n": len(values)}


def percentile(values, part):
    """The least value that so large a part of them does not exceed."""
    ordered = sorted(values)
    return ordered[max(0, math.ceil(part * len(ordered)) - 1)]


def ratios(ours, floors):
    """The ratio of each round; none where a round lacks one of the two or the floor is nothing."""
    if len(ours) != len(floors) or not all(floors):
        return []
    return [own / floor for own, floor in zip(ours, floors)]


def summary(samples):
    """{what: {"values": {subject: quartiles}, "ratios": {floor: quartiles}}}"""
    told = {}
    for what in samples.whats():
        subjects = samples.subjects(what)
        entry = {"values": {subject: quartiles(samples[what, subject]) for subject in subjects}}
        entry["ratios"] = {
            floor: quartiles(found)
            for floor in subjects
            if floor != OURS and (found := ratios(samples[what, OURS], samples[what, floor]))
        }
        told[what] = entry
    return told


def growth_exponent(few, many, fixed=0.0):
    """The e of n^e by which a cost grows from one (n, cost) to another, besides what is fixed.

    Infinite where nothing is left of the smaller one.
    """
    (few_n, few_cost), (many_n, many_cost) = few, many
    if few_cost <= fixed:
        return math.inf
    return math.log((many_cost - fixed) / (few_cost - fixed)) / math.log(many_n / few_n)


# Whose a mapping is, by what its line of smaps ends with; the first that fits.
KINDS = (
    ("heap", re.compile(r"\[heap\]$")),
    ("stacks", re.compile(r"\[stack")),
    ("kernel's", re.compile(r"\[(vdso|vvar|vsyscall)")),
    ("GLib and GIO", re.compile(r"/lib(glib|gio|gobject|gmodule)-2\.0")),
    ("C++ library", re.compile(r"/lib(stdc\+\+|gcc_s)")),
    ("C library", re.compile(r"/(libc|libm|libpthread|ld-linux[^/]*)[.-]")),
    ("other libraries", re.compile(r"\.so\b")),
    ("program", re.compile(r"/")),
)
ANONYMOUS = "other anonymous"
MAPPING = re.compile(r"^[0-9a-f]+-[0-9a-f]+ \S{4} \S+ \S+ \d+ *(?P<name>.*)$")
FIELD = re.compile(r"^(\w+): +(\d+) kB$")
DIRTY, CLEAN, SHARED = "private dirty", "private clean", "shared"
SORTS = {
    "Private_Dirty": DIRTY, "Private_Clean": CLEAN, "Shared_Clean": SHARED, "Shared_Dirty": SHARED,
}  # fmt: skip


def kind_of_mapping(name):
    if not name:
        return ANONYMOUS
    return next((kind for kind, pattern in KINDS if pattern.search(name)), ANONYMOUS)


def memory_by_mapping(smaps):
    """{kind: {sort: KiB}} of the text of a process's smaps; dirty, clean and shared pages apart."""
    found = collections.defaultdict(lambda: dict.fromkeys((DIRTY, CLEAN, SHARED), 0))
    kind = None
    for line in smaps.splitlines():
        if mapping := MAPPING.match(line):
            kind = kind_of_mapping(mapping["name"])
        elif (field := FIELD.match(line)) and field[1] in SORTS:
            found[kind][SORTS[field[1]]] += int(field[2])
    return dict(found)


def total(memory, sort):
    """KiB of that sort in all mappings."""
    return sum(sizes[sort] for sizes in memory.values())


def save_results(folder, machine, parts):
    """Keeps the samples of each part ({part: Samples}) and what is told of them; returns the latter."""
    folder = pathlib.Path(folder)
    folder.mkdir(parents=True, exist_ok=True)
    for part, samples in parts.items():
        samples.write(folder / f"{part}.csv")
    results = {"machine": machine, "parts": {part: summary(s) for part, s in parts.items()}}
    write_results(results, folder / "results.json")
    return results


def rounded(told):
    """Numbers as far as anything can be measured."""
    if isinstance(told, dict):
        return {key: rounded(value) for key, value in told.items()}
    return float(f"{told:.5g}") if isinstance(told, float) else told


def write_results(results, path):
    pathlib.Path(path).write_text(json.dumps(rounded(results), indent=1, ensure_ascii=False) + "\n")


def load_parts(folder):
    """{part: Samples} of the samples that a run has left there."""
    return {path.stem: Samples.read(path) for path in sorted(pathlib.Path(folder).glob("*.csv"))}
