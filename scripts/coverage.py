"""Adds up what gcovr reports and holds it to scripts/coverage.known: see scripts/coverage.

Usage: coverage.py KIND=REPORT ...
"""

import collections
import dataclasses
import json
import pathlib
import sys

TOP = pathlib.Path(__file__).resolve().parents[1]
KNOWN = TOP / "scripts/coverage.known"
# Without one of these, a line that nothing reaches proves nothing.
KINDS = ["unit", "system", "kernel"]
EVERYWHERE = "*"
BY_CHANCE = "By chance:"


@dataclasses.dataclass(frozen=True)
class Line:
    file: str
    number: int
    text: str
    reached_by: frozenset

    @property
    def room(self):
        parts = pathlib.PurePath(self.file).parts
        return parts[1]


@dataclasses.dataclass(frozen=True)
class Explanation:
    file: str  # or EVERYWHERE
    text: str
    reason: str

    @property
    def by_chance(self):
        """Whether it depends on the moment if the line is reached."""
        return self.reason.startswith(BY_CHANCE)


def plain(text):
    """What identifies a line: its text, wherever it begins."""
    return " ".join(text.split())


def explanations(text):
    """What the list of known lines says; see its head."""
    found, file, reason, was_reason = [], None, "", False
    for number, line in enumerate(text.splitlines(), 1):
        if line.startswith("# ") and file is not None:
            reason = f"{reason} {line[2:]}" if was_reason else line[2:]
        elif line.startswith("[") and line.endswith("]"):
            file, reason = line[1:-1], ""
        elif line.startswith(" "):
            if not file or not reason:
                raise ValueError(f"line {number} has no {'reason' if file else 'file'}: {line}")
            found.append(Explanation(file, plain(line), reason))
        elif line and not line.startswith("#"):
            raise ValueError(f"line {number} is none of file, reason and line: {line}")
        was_reason = line.startswith("# ")
    return found


def lines_of(reports, source):
    """The lines of all reports, {kind: report}; source reads a file's lines."""
    reached = collections.defaultdict(set)
    for kind, report in reports.items():
        for file in report["files"]:
            for line in file["lines"]:
                if not line.get("gcovr/noncode"):
                    by = reached[file["file"], line["line_number"]]
                    by.update([kind] if line["count"] else [])
    texts = {file: source(file) for file in {file for file, _ in reached}}
    return [
        Line(file, number, plain(texts[file][number - 1]), frozenset(by))
        for (file, number), by in sorted(reached.items())
    ]


def judge(lines, known):
    """Holds lines to explanations: (lines that nobody explains, explanations of nothing)."""
    missed, here = collections.defaultdict(list), collections.Counter()
    for line in lines:
        here[line.file, line.text] += 1
        if not line.reached_by:
            missed[line.file, line.text].append(line)
    everywhere = {each.text: each for each in known if each.file == EVERYWHERE}
    stale = [each for text, each in everywhere.items() if not any(text == of for _, of in missed)]
    entries = collections.defaultdict(list)
    for each in known:
        if each.file != EVERYWHERE:
            entries[each.file, each.text].append(each)
    unexplained = []
    for place, found in missed.items():
        if place[1] not in everywhere and len(found) > len(entries[place]):
            unexplained += found
    for place, each in entries.items():
        sure = [one for one in each if not one.by_chance]
        stale += sure[len(missed[place]) :]
        if len(each) > here[place]:
            stale += [one for one in each if one.by_chance]
    return unexplained, stale


def table(lines, unexplained):
    """The rows of a table of rooms, and of all of them."""
    rooms = collections.defaultdict(list)
    for line in lines:
        rooms[line.room].append(line)
    wrong = set(unexplained)
    yield ["room", "lines", "reached", *KINDS, "not reached", "explained"]
    for room, inside in [*sorted(rooms.items()), ("all", lines)]:
        missed = [line for line in inside if not line.reached_by]
        by = [sum(kind in line.reached_by for line in inside) for kind in KINDS]
        percents = [f"{100 * count / len(inside):.1f} %" for count in (len(inside) - len(missed), *by)]
        yield [room, len(inside), *percents, len(missed), sum(line not in wrong for line in missed)]


def show(rows):
    rows = [[str(cell) for cell in row] for row in rows]
    widths = [max(map(len, column)) for column in zip(*rows)]
    for number, row in enumerate(rows):
        cells = (row[0].ljust(widths[0]), *(cell.rjust(width) for cell, width in zip(row[1:], widths[1:])))
        print(f"| {' | '.join(cells)} |")
        if number == 0:
            rule = ("-" * widths[0], *(f"{'-' * (width - 1)}:" for width in widths[1:]))
            print(f"| {' | '.join(rule)} |")


def main(arguments):
    named = dict(argument.split("=", 1) for argument in arguments)
    reports = {kind: json.loads(pathlib.Path(file).read_text()) for kind, file in named.items()}
    lines = lines_of(reports, lambda file: (TOP / file).read_text().splitlines())
    unexplained, stale = judge(lines, explanations(KNOWN.read_text()))
    for line in unexplained:
        print(f"{line.file}:{line.number}: {line.text}")
    whole = set(named) == set(KINDS)
    for each in stale:
        print(f"{KNOWN.name}: reached, or not there: {each.file}: {each.text}")
    show(table(lines, unexplained))
    if unexplained and not whole:
        print(f"not looked at: what {', '.join(sorted(set(KINDS) - set(named)))} tests reach of the lines above")
    return 1 if stale or (unexplained and whole) else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
