"""Measures what things cost, or takes what a run has left, and shows it.

Usage: bench.py [--short] [--quick] [--part NAME ...] [--output FOLDER] [--from FOLDER] [--write]
                [--compare FILE] BINARY

README.md says what each part measures.
"""

import argparse
import datetime
import json
import os
import pathlib
import platform
import re
import subprocess
import sys
import time

import calls
import footprint
import kernel
import page
import running
import starts
import tables
import writes
from harness import load_parts, save_results, summary
from lab import TOP, Bench

# In the order in which they run: those that a busy machine disturbs least come last.
PARTS = {
    "lateness": running.lateness,
    "latencies": calls.latencies,
    "changes": running.changes,
    "boots": starts.boots,
    "around": starts.around,
    "legacy": starts.legacy,
    "footprint": footprint.footprint,
    "model": running.model,
    "writes": writes.writes,
    "instructions": calls.instructions,
    "edges": kernel.edges,
    "samples": kernel.samples,
}
ON_THE_KERNEL_BENCH = ("edges", "samples")
DOCS = TOP / "docs"


def processor():
    found = re.search(r"^model name\s*: (.*)$", pathlib.Path("/proc/cpuinfo").read_text(), re.MULTILINE)
    return found[1] if found else platform.machine()


def commit():
    command = ["git", "-C", TOP, "describe", "--always", "--dirty"]
    done = subprocess.run(command, capture_output=True, text=True, check=False)
    return done.stdout.strip() or "unknown"


def machine(short):
    return {
        "processor": processor(),
        "processors": os.cpu_count(),
        "kernel": platform.release(),
        "load": round(os.getloadavg()[0], 1),
        "date": datetime.date.today().isoformat(),
        "commit": commit(),
        "short": short,
    }


def chosen_parts(options):
    """Those to be measured. All of them replace what an earlier run has left; some are put among it."""
    if options.part:
        return options.part
    for path in options.output.glob("*.csv"):
        path.unlink()
    return [part for part in PARTS if not (options.quick and part in ON_THE_KERNEL_BENCH)]


def measure(options):
    """({part: samples}, the machine) of a run from now on."""
    bench = Bench(options.binary.resolve(), options.short)
    told = machine(options.short)
    kept = options.output / "results.json"
    if options.part and kept.exists():  # most of what will be told of is of that run
        told = json.loads(kept.read_text())["machine"]
    options.output.mkdir(parents=True, exist_ok=True)
    for part in chosen_parts(options):
        started = time.monotonic()
        print(f"{part:14}", end="", flush=True)
        PARTS[part](bench).write(options.output / f"{part}.csv")
        print(f"{time.monotonic() - started:6.0f} s", flush=True)
    return load_parts(options.output), told


def arguments():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", maxsplit=1)[0])
    parser.add_argument("--short", action="store_true", help="every part, a tenth of the time")
    parser.add_argument("--quick", action="store_true", help="without the kernel bench")
    parser.add_argument("--part", action="append", choices=PARTS, help="this part only, anew")
    parser.add_argument("--output", type=pathlib.Path, default=TOP / "build/bench/results")
    parser.add_argument("--from", type=pathlib.Path, dest="earlier", help="what a run left there")
    parser.add_argument("--write", action="store_true", help="keep results, page and plots in docs/")
    parser.add_argument("--compare", type=pathlib.Path, help="another machine's results.json")
    parser.add_argument("binary", type=pathlib.Path)
    return parser.parse_args()


def keep(results, parts):
    """Results, plots and page in docs/."""
    import plots  # needs a library that nothing else does

    page.write(results, DOCS)
    plots.draw(parts, DOCS / "performance")


def main():
    options = arguments()
    if options.earlier:
        parts = load_parts(options.earlier)
        told = json.loads((options.earlier / "results.json").read_text())["machine"]
        results = {"machine": told, "parts": {part: summary(s) for part, s in parts.items()}}
    else:
        parts, told = measure(options)
        results = save_results(options.output, told, parts)
        print(f"samples: {options.output}")
    if options.compare:
        print(page.comparison(results, json.loads(options.compare.read_text())))
    else:
        print(tables.summary_table(results))
    if options.write:
        keep(results, parts)
    return 0


if __name__ == "__main__":
    sys.exit(main())
