"""Figures as text: numbers with their units and spreads, and Markdown tables of them."""

import math

import calls
import footprint
import kernel
import running
import starts
from aims import AIMS
from harness import CLEAN, DIRTY, OURS, SHARED
from lab import FLOOR, NEIGHBOUR, PORTS, SD_BUS_FLOOR

UNITS = {
    "lateness": "us", "latencies": "us", "changes": "us", "boots": "us", "around": "us", "legacy": "us",
    "footprint": "KiB", "model": "us", "writes": "calls", "instructions": "instructions", "edges": "us",
    "samples": "us",
}  # fmt: skip
SCALES = {
    "us": ((1e6, "s"), (1e3, "ms"), (1, "us")),
    "instructions": ((1e6, "M"), (1e3, "k"), (1, "")),
    "KiB": ((1024, "MiB"), (1, "KiB")),
    "kB": ((1, "kB"),),
    "calls": ((1, ""),),
    "exponent": ((1, ""),),
    "part": ((0.01, "%"),),
}
NONE = "-"


def unit_of(part, what):
    """What a figure is counted in: mostly one unit for a part."""
    if what == footprint.BINARY:
        return "kB"
    if what.startswith("growth"):
        return "exponent"
    return "part" if what.startswith("samples lost") else UNITS[part]


def digits(value):
    """Three digits, without an exponent."""
    if not math.isfinite(value):
        return "no end"
    if value == round(value) and abs(value) < 1000:
        return f"{value:.0f}"
    if abs(value) >= 100:
        return f"{value:,.0f}"
    return f"{value:.2f}" if abs(value) < 10 else f"{value:.1f}"


def scaled(unit, value):
    """(divisor, name) of the largest unit of the kind that the value fills."""
    scales = SCALES[unit]
    return next((scale for scale in scales if abs(value) >= scale[0]), scales[-1])


def number(unit, value):
    divisor, name = scaled(unit, value)
    return f"{digits(value / divisor)} {name}".rstrip()


def spread(unit, told):
    """The median, and the quartiles where they differ from it."""
    if told is None:
        return NONE
    divisor, name = scaled(unit, told["median"])
    middle, lower, upper = (digits(told[key] / divisor) for key in ("median", "q1", "q3"))
    if lower == upper:
        return f"{middle} {name}".rstrip()
    return f"{middle} [{lower} to {upper}] {name}".rstrip()


def ratio(told):
    return NONE if told is None else "x " + spread("exponent", told)


def table(heads, rows):
    """A Markdown table; all columns but the first are numbers."""
    lines = [heads, ["---", *["---:"] * (len(heads) - 1)], *rows]
    return "\n".join("| " + " | ".join(line) + " |" for line in lines)


def limit(aim):
    return f"x {digits(aim.limit)}" if aim.of_ratio else number(aim.unit, aim.limit)


VERDICTS = {True: "met", False: "not met", None: "not measured"}


def summary_table(results):
    """Every figure that has an aim, beside floor and aim."""
    rows = []
    for aim in AIMS:
        ours, floor, own_ratio = aim.look_up(results)
        verdict = VERDICTS[aim.met(results)]
        rows.append(
            (aim.title, spread(aim.unit, ours), spread(aim.unit, floor), ratio(own_ratio), limit(aim), verdict)
        )
    return table(("", "wexd", "beside it", "ratio", "aim, at most", ""), rows)


def reasons(results):
    """Of each aim that is not met, why."""
    told = {}
    for aim in AIMS:
        if aim.met(results) is False:
            told.setdefault(aim.why_not(results) or "not known", []).append(aim.title)
    return "\n".join(f"- **{', '.join(titles)}**: {reason}." for reason, titles in told.items())


def entries(results, part, whats):
    """(what, values, ratios) of those that were measured."""
    found = results["parts"].get(part, {})
    return [(what, found[what]["values"], found[what]["ratios"]) for what in whats if what in found]


def beside(results, part, whats, floors, ours=OURS):
    """A table of what was measured, a line each, and beside it each floor with its ratio."""
    unit = UNITS[part]
    rows = [
        [what, spread(unit, values.get(OURS))]
        + [
            cell
            for floor in floors
            for cell in (spread(unit, values.get(floor)), ratio(ratios.get(floor)))
        ]
        for what, values, ratios in entries(results, part, whats)
    ]
    heads = ["", ours]
    for floor in floors:
        heads += [floor, "ratio"]
    return table(heads, rows) if rows else "Not measured in this run."


def call_table(results, part, *more):
    return beside(results, part, (*more, calls.PING, *calls.CALLS), (FLOOR, calls.PING, SD_BUS_FLOOR))


def boot_table(results):
    names = [
        starts.boot_name(which, count, place)
        for place in starts.PLACES
        for which in ("first", "second")
        for count in starts.COUNTS
    ]
    return beside(results, "boots", names, (FLOOR,))


def growth_table(results):
    rows = [
        (what, spread("exponent", values.get(OURS)))
        for what, values, _ in entries(
            results, "boots",
            [starts.growth_name(which, place) for place in starts.PLACES for which in ("first", "second")],
        )
    ]  # fmt: skip
    return table(("", "the e of n^e"), rows) if rows else "Not measured in this run."


def memory_kinds(results):
    found = results["parts"].get("footprint", {})
    suffix = f": {DIRTY}"
    kinds = [what.removesuffix(suffix) for what in found if what.endswith(suffix)]
    size = {kind: found[footprint.mapping_name(kind, DIRTY)]["values"].get(OURS, {}) for kind in kinds}
    return sorted(kinds, key=lambda kind: -size[kind].get("median", 0))


def memory_subjects(results):
    values = results["parts"].get("footprint", {}).get(footprint.AT_REST, {"values": {}})["values"]
    return [subject for subject in (OURS, FLOOR, SD_BUS_FLOOR, NEIGHBOUR) if subject in values]


def memory_table(results):
    found = results["parts"].get("footprint", {})
    subjects = memory_subjects(results)

    def row(title, names):
        cells = []
        for subject in subjects:
            told = (found.get(name, {"values": {}})["values"].get(subject) for name in names)
            cells.append(" / ".join(digits(one["median"]) if one else "0" for one in told))
        return (title, *cells)

    sorts = (DIRTY, CLEAN, SHARED)
    rows = [
        row(kind, [footprint.mapping_name(kind, sort) for sort in sorts]) for kind in memory_kinds(results)
    ]
    rows.append(row("**all**", [f"{sort}, {PORTS} ports" for sort in sorts]))
    return table(("KiB, dirty / clean / shared", *subjects), rows) if subjects else "Not measured in this run."


def size_table(results):
    whats = (footprint.BINARY, footprint.AT_REST, footprint.BEFORE, footprint.AFTER)
    rows = []
    for what, values, ratios in entries(results, "footprint", whats):
        unit = unit_of("footprint", what)
        cells = [spread(unit, values.get(s)) for s in (OURS, FLOOR, SD_BUS_FLOOR, NEIGHBOUR)]
        rows.append((what, *cells, ratio(ratios.get(FLOOR)), ratio(ratios.get(footprint.BEFORE_THEM))))
    heads = ("", OURS, FLOOR, SD_BUS_FLOOR, NEIGHBOUR, "ratio to the floor", "to what was before")
    return table(heads, rows) if rows else "Not measured in this run."


def lateness_table(results):
    return beside(results, "lateness", (running.LATE,), (running.BARE_WAIT,))


def change_table(results):
    names = [
        name(count) for name in (running.change_name, running.bus_name) for count in running.SUBSCRIBERS
    ]
    return beside(results, "changes", names, (FLOOR, SD_BUS_FLOOR))


def edge_table(results):
    found = results["parts"].get("edges", {})
    lines = beside(
        results, "edges", [what for what in found if what.startswith("edge")],
        (kernel.LOOP, kernel.SIGNAL, kernel.BOTH, NEIGHBOUR),
    )  # fmt: skip
    shares = [what for what in found if what.startswith("the daemon's share")]
    return lines + ("\n\n" + beside(results, "edges", shares, (NEIGHBOUR,)) if shares else "")


def sample_tables(results):
    found = results["parts"].get("samples", {})
    costs = [what for what in found if what.startswith("processor time")]
    lost = [
        (what, *(f"{values[s]['median']:.2%}" if s in values else NONE for s in (OURS, kernel.LOOP)))
        for what, values, _ in entries(
            results, "samples", [what for what in found if what.startswith("samples lost")]
        )
    ]
    told = [
        beside(results, "samples", (kernel.CHANGED,), (kernel.LOOP, kernel.SIGNAL, kernel.BOTH)),
        beside(results, "samples", (kernel.SAMPLE_SHARE,), ()),
        beside(results, "samples", costs, (kernel.LOOP,)),
        table(("", OURS, kernel.LOOP), lost),
    ]
    return "\n\n".join(told) if found else "Not measured in this run."


def whole_part(results, part, floors):
    return beside(results, part, list(results["parts"].get(part, {})), floors)
