"""What scripts/torture puts into the sources to see it caught still has its place there."""

import pathlib
import sys
import unittest

TOP = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(TOP / folder) for folder in ("tests/torture", "tests/system", ".")]

from campaigns import CAMPAIGNS  # noqa: E402


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


if __name__ == "__main__":
    unittest.main()
