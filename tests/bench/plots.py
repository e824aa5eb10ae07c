"""Pictures of the samples, as SVG for light and for dark pages: nothing is filled behind them, and lines
and letters are of a lightness between the two."""

import matplotlib

matplotlib.use("svg")
from matplotlib import pyplot  # noqa: E402

import calls  # noqa: E402
import footprint  # noqa: E402
import kernel  # noqa: E402
import running  # noqa: E402
import starts  # noqa: E402
from harness import DIRTY, CLEAN, OURS, SHARED, percentile, quartiles  # noqa: E402
from lab import FLOOR, NEIGHBOUR, SD_BUS_FLOOR  # noqa: E402

INK = "#7d7d7d"
COLOURS = {
    OURS: "#2f81d6", FLOOR: "#d9822b", SD_BUS_FLOOR: "#2e9e5b", NEIGHBOUR: "#a05fc4",
    calls.PING: "#c0504d", running.BARE_WAIT: "#d9822b", kernel.LOOP: "#2e9e5b",
    kernel.SIGNAL: "#d9822b", kernel.BOTH: "#c0504d",
}  # fmt: skip
STYLE = {
    "text.color": INK, "axes.edgecolor": INK, "axes.labelcolor": INK, "xtick.color": INK,
    "ytick.color": INK, "grid.color": INK, "grid.alpha": 0.35, "axes.grid": True, "axes.facecolor": "none",
    "figure.facecolor": "none", "savefig.facecolor": "none", "legend.frameon": False, "svg.hashsalt": "wexd",
    "axes.spines.top": False, "axes.spines.right": False, "font.size": 10, "svg.fonttype": "path",
}  # fmt: skip
# Beyond that part of the samples is what the machine did besides.
SHOWN = 0.99
POINTS = 300
SMALL_KIB = 20


def boots(samples, axes):
    for place, dashes in zip(starts.PLACES, ("-", "--")):
        for which, colour in (("first", "#d9822b"), ("second", COLOURS[OURS])):
            told = [
                quartiles(samples[starts.boot_name(which, count, place), OURS]) for count in starts.COUNTS
            ]
            medians = [one["median"] / 1e3 for one in told]
            axes.plot(starts.COUNTS, medians, dashes, marker="o", color=colour, label=f"{which} boot, {place}")
            axes.fill_between(
                starts.COUNTS, [one["q1"] / 1e3 for one in told], [one["q3"] / 1e3 for one in told],
                color=colour, alpha=0.2, linewidth=0,
            )  # fmt: skip
    floor = quartiles(samples[starts.boot_name("second", starts.FEW, "on disk"), FLOOR])
    axes.axhline(floor["median"] / 1e3, color=INK, linestyle=":", label="floor")
    axes.axhspan(floor["q1"] / 1e3, floor["q3"] / 1e3, color=INK, alpha=0.2, linewidth=0)
    axes.set(xscale="log", yscale="log", xlabel="ports", ylabel="ms from exec to names")
    axes.set_xticks(starts.COUNTS, [f"{count:,}" for count in starts.COUNTS])
    axes.set_yticks([5, 10, 20, 50, 100, 200, 500], ["5", "10", "20", "50", "100", "200", "500"])
    axes.minorticks_off()
    axes.legend(handlelength=3.5)


def distribution(axes, values, label):
    """How large a part of the samples was at most so much; returns where that is worth showing."""
    parts = [i / POINTS for i in range(1, POINTS + 1)]
    at = [percentile(values, part) for part in parts]
    axes.step(at, parts, where="post", label=label, color=COLOURS[label], linewidth=1.5)
    return at[0], percentile(values, SHOWN)


def distributions(samples, what, axes, subjects):
    shown = [distribution(axes, samples[what, subject], subject) for subject in subjects if samples[what, subject]]
    axes.set(
        title=what, xlabel="us", xscale="log", ylim=(0, 1),
        xlim=(max(1, min(first for first, _ in shown)) / 1.1, max(last for _, last in shown) * 1.1),
    )  # fmt: skip
    axes.xaxis.set_major_formatter(lambda value, _: f"{value:,.0f}")
    axes.xaxis.set_minor_formatter(lambda value, _: f"{value:,.0f}" if f"{value:.0e}"[0] in "25" else "")
    axes.tick_params(axis="x", which="both", labelsize=7)


def latencies(samples, rows):
    for axes, what in zip(rows, ("GetState", "GetPortProps", "SetState that toggles")):
        distributions(samples, what, axes, (OURS, FLOOR, calls.PING, SD_BUS_FLOOR))
    rows[0].set_ylabel("part of the calls answered")
    rows[0].legend(fontsize=8)


def edges(samples, rows):
    whats = [what for what in samples.whats() if what.startswith("edge")]
    for axes, what in zip(rows, whats):
        distributions(samples, what, axes, (OURS, kernel.LOOP, kernel.SIGNAL, kernel.BOTH, NEIGHBOUR))
    rows[0].set_ylabel("part that had arrived")
    rows[-1].legend(fontsize=8, loc="center left", bbox_to_anchor=(0.12, 0.5))


def lateness(samples, axes):
    distributions(samples, running.LATE, axes, (OURS, running.BARE_WAIT))
    axes.set(title="", xlabel="us behind the deadline", ylabel="part of the steps")
    axes.legend()


def memory(samples, axes):
    suffix = f": {DIRTY}"
    subjects = [s for s in (OURS, FLOOR, SD_BUS_FLOOR, NEIGHBOUR) if samples[footprint.AT_REST, s]]
    kinds = [what.removesuffix(suffix) for what in samples.whats() if what.endswith(suffix)]
    bars = [(subject, sort) for subject in subjects for sort in (DIRTY, CLEAN, SHARED)]
    left = [0.0] * len(bars)
    palette = pyplot.get_cmap("tab10")
    for i, kind in enumerate(kinds):
        widths = []
        for subject, sort in bars:
            values = samples[footprint.mapping_name(kind, sort), subject]
            widths.append(quartiles(values)["median"] / 1024 if values else 0)
        if sum(widths) * 1024 < SMALL_KIB:
            continue
        axes.barh(range(len(bars)), widths, left=left, color=palette(i % 10), label=kind, height=0.7)
        left = [start + width for start, width in zip(left, widths)]
    axes.set_yticks(range(len(bars)), [f"{subject}, {sort}" for subject, sort in bars])
    axes.invert_yaxis()
    axes.set_xlabel("MiB")
    axes.legend(loc="lower center", bbox_to_anchor=(0.4, 1.0), ncols=4, fontsize=8)


def changes(samples, axes):
    positions = range(len(running.SUBSCRIBERS))
    for name, dashes, whose in ((running.change_name, "-", "itself"), (running.bus_name, "--", "the bus")):
        for subject in (OURS, FLOOR, SD_BUS_FLOOR):
            told = [quartiles(samples[name(count), subject]) for count in running.SUBSCRIBERS]
            axes.plot(
                positions, [one["median"] for one in told], dashes, marker="o", color=COLOURS[subject],
                label=f"{subject}: {whose}",
            )  # fmt: skip
            axes.fill_between(
                positions, [one["q1"] for one in told], [one["q3"] for one in told], alpha=0.2, linewidth=0,
                color=COLOURS[subject],
            )  # fmt: skip
    axes.set_xticks(positions, [str(count) for count in running.SUBSCRIBERS])
    axes.set(xlabel="connections that are told", ylabel="us of processor time for a change", ylim=(0, None))
    axes.legend(fontsize=8, handlelength=3.5)  # room for the dashes to be seen


# The picture of each part: how it is drawn, its size in inches, and how many drawings stand in it.
PICTURES = {
    "boots": (boots, (7, 4.2), 1),
    "latencies": (latencies, (10, 3.6), 3),
    "edges": (edges, (12, 3.6), 3),
    "lateness": (lateness, (7, 3.6), 1),
    "footprint": (memory, (8, 4.2), 1),
    "changes": (changes, (7, 4.2), 1),
}
FILES = {"footprint": "memory"}


def draw(parts, folder):
    """Draws what was measured into the folder."""
    folder.mkdir(parents=True, exist_ok=True)
    with matplotlib.rc_context(STYLE):
        for part, (paint, size, count) in PICTURES.items():
            if part in parts:
                figure, axes = pyplot.subplots(1, count, figsize=size, layout="constrained")
                paint(parts[part], axes)
                figure.savefig(folder / f"{FILES.get(part, part)}.svg", transparent=True, metadata={"Date": None})
                pyplot.close(figure)
