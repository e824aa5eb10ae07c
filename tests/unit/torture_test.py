"""What scripts/torture puts into the sources to see it caught still has its place there."""

import pathlib
import sys
import unittest
import xml.etree.ElementTree

TOP = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(TOP / folder) for folder in ("tests/torture", "tests/system", "tests/kernel", ".")]

import kernel_cuts  # noqa: E402
import power_cuts  # noqa: E402
from campaign import Broken  # noqa: E402
from campaigns import CAMPAIGNS  # noqa: E402
from soak import Series  # noqa: E402


class TheFaults(unittest.TestCase):
    def test_have_one_place_each(self):
        for fault in self.faults():
            with self.subTest(fault.what):
                self.assertEqual((TOP / fault.file).read_text().count(fault.old), 1)
                self.assertNotEqual(fault.old, fault.new)

    def test_are_put_before_each_campaign(self):
        for campaign in CAMPAIGNS:
            with self.subTest(campaign.name):
                self.assertTrue(campaign.trials[0].faults)

    def test_are_of_campaigns_that_the_script_knows(self):
        names = " ".join(campaign.name for campaign in CAMPAIGNS)
        self.assertIn(f"\nknown=({names})\n", (TOP / "scripts/torture").read_text())

    def faults(self):
        return {fault for found in CAMPAIGNS for trial in found.trials for fault in trial.faults}


class GrowthInTheLongRun(unittest.TestCase):
    @staticmethod
    def steps(rounds, memory):
        series = Series()
        for n in range(rounds):
            noise = 4 * (n % 3)
            series.add({"memory": 1700 + noise + memory(n), "descriptors": 8, "threads": 3})
        return series.steps

    def test_is_what_goes_on_at_one_pace(self):
        for kib in (2, 0.2):
            with self.subTest(kib), self.assertRaisesRegex(Broken, "after 2 steps: memory"):
                self.steps(3000, lambda n, kib=kib: int(kib * n))

    def test_is_not_hidden_by_a_step(self):
        with self.assertRaises(Broken):
            self.steps(4000, lambda n: (300 if n > 500 else 0) + n // 4)

    def test_is_no_step_and_no_table_that_doubles(self):
        self.assertEqual(self.steps(2000, lambda n: 300 if n > 500 else 0), 1)
        self.assertGreater(self.steps(3000, lambda n: 140 * (n // 100).bit_length()), 3)
        self.assertEqual(self.steps(500, lambda n: 0), 0)


class APowerCutOnTheBench(unittest.TestCase):
    FIGURES = "".join(
        f'<property name="{name}" value="7"/>' for name in ("saves", "writes", "cuts", "half_files")
    )
    LOST = '<failure message="test_power_cuts.Lost: 2 changes were saved, 1 is there"/>'

    def told_by(self, ext4, f2fs):
        cases = "".join(
            f'<testcase name="test[{kind}]">{inside}</testcase>'
            for kind, inside in (("ext4", ext4), ("f2fs", f2fs))
            if inside is not None
        )
        return kernel_cuts.told_by([*xml.etree.ElementTree.fromstring(f"<suite>{cases}</suite>")])

    def test_is_of_each_file_system_that_the_bench_has(self):
        self.assertEqual(set(kernel_cuts.FILE_SYSTEMS), set(power_cuts.SIZES))

    def test_is_told_in_figures(self):
        told = self.told_by(self.FIGURES, self.FIGURES)
        self.assertEqual(told.count("7 changes, 7 writes, 7 cuts, 7 half files"), 2)

    def test_breaks_the_claim_where_settings_were_lost(self):
        for failing in ("<failure message='AssertionError: no log'/>", self.FIGURES):
            with self.assertRaisesRegex(Broken, "f2fs: 2 changes were saved, 1 is there"):
                self.told_by(failing, self.LOST)

    def test_says_nothing_of_the_daemon_when_it_did_not_work(self):
        for other in (
            None, "<failure message='OSError: mount'/>", "<error message='x.Lost: y'/>", "<skipped message=''/>",
        ):  # fmt: skip
            with self.subTest(other), self.assertRaises(RuntimeError):
                self.told_by(self.FIGURES, other)


if __name__ == "__main__":
    unittest.main()
