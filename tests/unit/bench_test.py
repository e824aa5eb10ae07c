"""What scripts/bench makes of its samples: figures, verdicts, the page, and two runs side by side."""

import argparse
import csv
import json
import math
import pathlib
import re
import sys
import tempfile
import unittest
from xml.etree import ElementTree

TOP = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(TOP / folder) for folder in ("tests/bench", "tests/system", ".")]

import aims  # noqa: E402
import bench  # noqa: E402
import calls  # noqa: E402
import footprint  # noqa: E402
import harness  # noqa: E402
import kernel  # noqa: E402
import lab  # noqa: E402
import page  # noqa: E402
import running  # noqa: E402
import tables  # noqa: E402
from harness import Samples  # noqa: E402

DOCS = TOP / "docs"
SMAPS = """\
55d0c0000000-55d0c0001000 r--p 00000000 fd:00 131                        /app/wexd
Size:                  4 kB
Private_Clean:         4 kB
Private_Dirty:         0 kB
55d0c0001000-55d0c0002000 rw-p 00001000 fd:00 131                        /app/wexd
Private_Clean:         0 kB
Private_Dirty:         8 kB
55d0c1000000-55d0c1021000 rw-p 00000000 00:00 0                          [heap]
Private_Dirty:       100 kB
7f0000000000-7f0000021000 rw-p 00000000 00:00 0{blank}
Private_Dirty:        20 kB
7f1000000000-7f1000100000 r-xp 00000000 fd:00 7                          /usr/lib/x86_64-linux-gnu/libgio-2.0.so.0.7400.6
Shared_Clean:        900 kB
Private_Clean:        12 kB
7f2000000000-7f2000100000 r-xp 00000000 fd:00 8                          /usr/lib/x86_64-linux-gnu/libc.so.6
Shared_Clean:        800 kB
7f3000000000-7f3000100000 r-xp 00000000 fd:00 9                          /usr/lib/x86_64-linux-gnu/libstdc++.so.6.0.30
Shared_Clean:        700 kB
7f4000000000-7f4000100000 r-xp 00000000 fd:00 10                         /usr/lib/x86_64-linux-gnu/libffi.so.8.1.2
Shared_Dirty:          4 kB
7ffc00000000-7ffc00021000 rw-p 00000000 00:00 0                          [stack]
Private_Dirty:        16 kB
VmFlags: rd wr mr mw me gd ac
"""


def samples_of(told):
    samples = Samples()
    for (what, subject), values in told.items():
        for value in values:
            samples.add(what, subject, value)
    return samples


def results_of(**parts):
    return {
        "machine": {
            "date": "2001-02-03", "commit": "abc", "processors": 2, "processor": "a processor",
            "kernel": "6", "load": 0.5, "short": False,
        },
        "parts": {part: harness.summary(samples_of(told)) for part, told in parts.items()},
    }  # fmt: skip


class TheHarness(unittest.TestCase):
    def test_tells_the_median_and_the_quartiles(self):
        told = harness.quartiles([5, 1, 4, 2, 3])
        self.assertEqual(told, {"median": 3, "q1": 2, "q3": 4, "n": 5})

    def test_tells_what_was_counted_once_as_it_is(self):
        self.assertEqual(harness.quartiles([7.0]), {"median": 7, "q1": 7, "q3": 7, "n": 1})

    def test_has_a_percentile_that_so_many_do_not_exceed(self):
        values = list(range(1, 101))
        self.assertEqual([harness.percentile(values, part) for part in (0, 0.5, 0.99, 1)], [1, 50, 99, 100])

    def test_pairs_the_figures_of_one_round(self):
        """The ratio of medians would be 1."""
        samples = samples_of({("a", "wexd"): [1, 4, 9], ("a", "floor"): [4, 2, 9]})
        told = harness.summary(samples)["a"]["ratios"]["floor"]
        self.assertEqual((told["q1"], told["median"], told["q3"]), (0.625, 1, 1.5))

    def test_has_no_ratio_without_pairs_or_to_nothing(self):
        self.assertEqual(harness.ratios([1, 2], [1]), [])
        self.assertEqual(harness.ratios([1, 2], [0, 1]), [])

    def test_finds_the_exponent_of_growth(self):
        for exponent in (0.5, 1, 2):
            few, many = ((n, 3 + n**exponent) for n in (512, 4096))
            with self.subTest(exponent):
                self.assertAlmostEqual(harness.growth_exponent(few, many, fixed=3), exponent)

    def test_finds_none_where_nothing_grows_from(self):
        self.assertEqual(harness.growth_exponent((1, 5), (2, 10), fixed=5), math.inf)

    def test_reads_memory_by_mapping(self):
        found = harness.memory_by_mapping(SMAPS.format(blank=" "))
        sizes = {kind: tuple(sorts.values()) for kind, sorts in found.items()}
        self.assertEqual(sizes, {
            "program": (8, 4, 0), "heap": (100, 0, 0), "other anonymous": (20, 0, 0),
            "GLib and GIO": (0, 12, 900), "C library": (0, 0, 800), "C++ library": (0, 0, 700),
            "other libraries": (0, 0, 4), "stacks": (16, 0, 0),
        })  # fmt: skip
        self.assertEqual(harness.total(found, harness.DIRTY), 144)

    def test_reads_memory_of_a_live_process(self):
        """The sums are those that the kernel makes."""
        found = harness.memory_by_mapping(pathlib.Path("/proc/self/smaps").read_text())
        self.assertGreater(found["heap"][harness.DIRTY], 0)
        self.assertGreater(found["C library"][harness.SHARED] + found["C library"][harness.CLEAN], 0)

    def test_keeps_every_sample(self):
        samples = samples_of({("a, b", "wexd"): [1, 2.5], ("a, b", "floor"): [0.125, 123456.75]})
        with tempfile.TemporaryDirectory() as folder:
            results = harness.save_results(folder, {"date": "today"}, {"calls": samples})
            again = harness.load_parts(folder)["calls"]
            with open(f"{folder}/calls.csv", newline="") as file:
                rows = list(csv.reader(file))
            kept = json.loads(pathlib.Path(folder, "results.json").read_text())
        self.assertEqual(rows[:2], [["what", "subject", "round", "value"], ["a, b", "wexd", "0", "1"]])
        self.assertEqual(again.keys(), samples.keys())
        self.assertEqual(harness.summary(again), results["parts"]["calls"])
        self.assertEqual(kept["parts"]["calls"]["a, b"]["values"]["wexd"]["median"], 1.75)


class TheParts(unittest.TestCase):
    def test_are_those_that_the_script_knows(self):
        self.assertIn(f"\nparts=({' '.join(bench.PARTS)})\n", (TOP / "scripts/bench").read_text())

    def test_are_told_of(self):
        readme = (TOP / "tests/bench/README.md").read_text()
        for part in bench.PARTS:
            with self.subTest(part):
                self.assertIn(f"`{part}`", readme)
                self.assertIn(part, tables.UNITS)

    def test_that_are_measured_again_leave_the_others_there(self):
        with tempfile.TemporaryDirectory() as folder:
            left = pathlib.Path(folder, "writes.csv")
            options = argparse.Namespace(part=["boots"], output=pathlib.Path(folder), quick=False)
            left.touch()
            self.assertEqual(bench.chosen_parts(options), ["boots"])
            self.assertTrue(left.exists())
            options.part = None
            self.assertEqual(bench.chosen_parts(options), list(bench.PARTS))
            self.assertFalse(left.exists())
            options.quick = True
            self.assertNotIn("edges", bench.chosen_parts(options))


class TheSubjects(unittest.TestCase):
    def test_run_in_the_environment_of_the_unit(self):
        text = "[Service]\nEnvironment=A=b\nEnvironment=C=\n# Environment=D=e\nExecStart=x\n"
        self.assertEqual(lab.unit_environment(text), {"G_SLICE": "", "A": "b", "C": ""})
        self.assertEqual(lab.unit_environment("Environment=G_SLICE=all\n"), {"G_SLICE": "all"})


class TheUnits(unittest.TestCase):
    def test_are_those_of_the_figure_where_a_part_has_several(self):
        for part, what, unit in (
            ("footprint", footprint.BINARY, "kB"), ("footprint", footprint.AFTER, "KiB"),
            ("boots", "growth of a second boot, on disk", "exponent"), ("boots", "second boot", "us"),
            ("samples", kernel.LOST.format("1 port", 8000), "part"), ("samples", kernel.CHANGED, "us"),
        ):  # fmt: skip
            with self.subTest(what):
                self.assertEqual(tables.unit_of(part, what), unit)

    def test_of_a_part_is_a_percentage(self):
        self.assertEqual(tables.number("part", 0.0071), "0.71 %")


class TheKernelBench(unittest.TestCase):
    def test_has_the_settling_taken_off_the_daemons_share(self):
        rows = [{"way": "sysfs", "loop_us": "10", "bus_us": "200", "port_us": "800"}]
        samples = kernel.edges_of(rows)
        self.assertEqual(samples[kernel.SHARE.format("sysfs"), "wexd"], [90])
        self.assertEqual(samples[kernel.EDGE.format("sysfs"), kernel.BOTH], [710])

    def test_has_the_neighbours_edges_where_there_are_any(self):
        rows = [{"way": "sysfs", "loop_us": "10", "bus_us": "200", "port_us": "800", "managed_us": "300"}]
        samples = kernel.edges_of(rows)
        self.assertEqual(samples[kernel.EDGE.format("sysfs"), lab.NEIGHBOUR], [300])
        self.assertEqual(samples[kernel.SHARE.format("sysfs"), lab.NEIGHBOUR], [90])

    def test_tells_costs_losses_and_latencies_apart(self):
        row = {"subject": "bare loop", "ports": "8", "rate": "200", "value": "0.5"}
        samples = kernel.samples_of({**row, "kind": kind} for kind in ("cost", "lost", "latency"))
        self.assertEqual(
            samples.whats(), [kernel.COST.format("8 ports", 200), kernel.LOST.format("8 ports", 200), kernel.CHANGED]
        )

    def test_has_the_daemons_share_of_a_changed_sample(self):
        row = {"kind": "latency", "ports": "1", "rate": "200"}
        values = {"bare loop": "10", "signal alone": "200", "wexd": "300"}
        samples = kernel.samples_of({**row, "subject": subject, "value": us} for subject, us in values.items())
        self.assertEqual(samples[kernel.SAMPLE_SHARE, "wexd"], [90])
        self.assertEqual(samples[kernel.CHANGED, kernel.BOTH], [210])


class TheModel(unittest.TestCase):
    def test_has_the_first_of_a_kind_beside_each_of_the_same_round(self):
        def run(instance, repetition, us):
            return {
                "family_index": 0, "per_family_instance_index": instance, "repetition_index": repetition,
                "run_name": f"save/ports:{instance}", "cpu_time": us, "time_unit": "us",
            }  # fmt: skip

        samples = harness.Samples()
        running.add_runs(samples, [run(1, 1, 60), run(0, 0, 2), run(1, 0, 8), run(0, 1, 6)])
        told = harness.summary(samples)["save/ports:1"]
        self.assertEqual(samples["save/ports:1", running.FEWEST], [2, 6])
        self.assertEqual(told["ratios"][running.FEWEST]["median"], 7)


class TheTables(unittest.TestCase):
    def test_have_numbers_of_three_digits_with_their_units(self):
        for unit, value, text in (
            ("us", 12.345, "12.3 us"), ("us", 1234, "1.23 ms"), ("us", 2.5e6, "2.50 s"),
            ("instructions", 224239, "224 k"), ("instructions", 13391856, "13.4 M"), ("KiB", 512, "512 KiB"),
            ("KiB", 2048, "2 MiB"), ("kB", 513.2, "513 kB"), ("calls", 0, "0"), ("exponent", 1.234, "1.23"),
            ("exponent", math.inf, "no end"),
        ):  # fmt: skip
            with self.subTest(unit, value=value):
                self.assertEqual(tables.number(unit, value), text)

    def test_show_the_spread_in_the_unit_of_the_median(self):
        told = {"median": 1500, "q1": 900, "q3": 2100}
        self.assertEqual(tables.spread("us", told), "1.50 [0.90 to 2.10] ms")
        self.assertEqual(tables.spread("us", {"median": 3, "q1": 3, "q3": 3}), "3 us")
        self.assertEqual(tables.spread("us", None), "-")


class TheVerdicts(unittest.TestCase):
    RATIO = aims.Aim("a", "calls", "c", "us", 1.1, of_ratio=True, reason="too much")
    FIGURE = aims.Aim("b", "calls", "c", "us", 50)

    def met(self, aim, ours, floor):
        return aim.met(results_of(calls={("c", "wexd"): [ours], ("c", "floor"): [floor]}))

    def test_go_by_the_ratio_or_by_the_figure(self):
        self.assertTrue(self.met(self.RATIO, 110, 100))
        self.assertFalse(self.met(self.RATIO, 112, 100))
        self.assertTrue(self.met(self.FIGURE, 50, 10))
        self.assertFalse(self.met(self.FIGURE, 51, 100))

    def test_are_open_where_nothing_was_measured(self):
        self.assertIsNone(self.RATIO.met(results_of()))
        self.assertIsNone(self.RATIO.met(results_of(calls={("c", "wexd"): [1]})))

    def test_say_so_where_the_spread_reaches_the_aim(self):
        for rounds, reason in (([49, 50, 52, 53, 54], aims.SPREAD_REASON), ([51, 52, 53], "")):
            with self.subTest(rounds):
                results = results_of(calls={("c", "wexd"): rounds})
                self.assertIs(self.FIGURE.met(results), False)
                self.assertEqual(self.FIGURE.why_not(results), reason)

    def test_come_with_a_reason_where_an_aim_is_not_met(self):
        results = results_of(writes={(aims.AIMS[2].what, "wexd"): [3]})
        self.assertEqual(aims.AIMS[2].part, "writes")
        self.assertIn(f"**{aims.AIMS[2].title}**", tables.reasons(results))

    def test_are_of_parts_that_are_measured(self):
        kept = page.read(DOCS)["parts"]
        for aim in aims.AIMS:
            with self.subTest(aim.title):
                self.assertIn(aim.what, kept[aim.part])


class ThePage(unittest.TestCase):
    def test_is_what_the_generator_makes_of_the_results(self):
        self.assertEqual((DOCS / page.PAGE).read_text(), page.page(page.read(DOCS)), "call scripts/bench --write")

    def test_has_a_reason_for_each_aim_that_is_not_met(self):
        results = page.read(DOCS)
        for aim in aims.AIMS:
            if aim.met(results) is False:
                with self.subTest(aim.title):
                    self.assertTrue(aim.why_not(results))

    def test_has_its_pictures(self):
        pictures = re.findall(r"!\[[^]]+\]\((\S+)\)", (DOCS / page.PAGE).read_text())
        self.assertEqual(len(pictures), 6)
        for picture in pictures:
            with self.subTest(picture):
                root = ElementTree.parse(DOCS / picture).getroot()
                self.assertEqual(root.tag, "{http://www.w3.org/2000/svg}svg")

    def test_says_so_where_a_part_was_left_out(self):
        text = page.page(results_of(instructions={(calls.LIFE, "wexd"): [10e6]}))
        self.assertIn("Not measured in this run.", text)
        self.assertIn("| 10 M |", text)

    def test_has_the_neighbour_where_it_was_measured_only(self):
        at_rest = {(footprint.AT_REST, "wexd"): [700]}
        self.assertNotIn("gpio-manager |", tables.memory_table(results_of(footprint=at_rest)))
        with_it = results_of(footprint={**at_rest, (footprint.AT_REST, "gpio-manager"): [600]})
        self.assertIn("gpio-manager |", tables.memory_table(with_it))


class TheComparison(unittest.TestCase):
    def test_lays_two_runs_side_by_side(self):
        here = results_of(latencies={("Ping", "wexd"): [10], ("Ping", "floor"): [5]})
        there = results_of(latencies={("Ping", "wexd"): [2000], ("Ping", "floor"): [500]})
        self.assertIn(
            "| latencies: Ping | floor | 10 us | x 2 | 2 ms | x 4 |", page.comparison(here, there)
        )

    def test_leaves_out_what_only_one_has(self):
        here = results_of(latencies={("Ping", "wexd"): [10]}, writes={("w", "wexd"): [1]})
        there = results_of(latencies={("GetState", "wexd"): [10]}, writes={("w", "wexd"): [2]})
        rows = page.comparison(here, there).splitlines()[4:]
        self.assertEqual(rows, ["| writes: w | - | 1 | - | 2 | - |"])


if __name__ == "__main__":
    unittest.main()
