"""The list of lines that no test reaches holds for those lines and for no others."""

import pathlib
import sys
import unittest

TOP = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(TOP / "scripts"))

import coverage  # noqa: E402

FILE = "src/port/gate.cpp"
SOURCE = ["open();", "  return false;", "close();", "  return false;", "g_assert_not_reached();"]


def report(*counts):
    """A report of the source, with the number of times that each of its lines ran."""
    lines = [{"line_number": number, "count": count} for number, count in enumerate(counts, 1)]
    return {"files": [{"file": FILE, "lines": lines}]}


def judged(known, *counts, **others):
    """(numbers of the lines that nobody explains, texts of explanations of nothing)"""
    lines = coverage.lines_of({"unit": report(*counts), **others}, lambda _: SOURCE)
    unexplained, stale = coverage.judge(lines, coverage.explanations(known))
    return [line.number for line in unexplained], [each.text for each in stale]


class TheListOfLines(unittest.TestCase):
    def test_has_to_explain_each_line_that_nothing_reaches(self):
        self.assertEqual(judged("", 1, 0, 1, 1, 1), ([2], []))
        self.assertEqual(judged(f"[{FILE}]\n# No such gate.\n    return false;\n", 1, 0, 1, 1, 1), ([], []))

    def test_takes_what_any_kind_of_test_reaches_as_reached(self):
        self.assertEqual(judged("", 1, 0, 1, 1, 1, system=report(0, 1, 0, 0, 0)), ([], []))

    def test_explains_a_line_as_often_as_it_stands_there(self):
        once = f"[{FILE}]\n# No such gate.\n    return false;\n"
        self.assertEqual(judged(once, 1, 0, 1, 0, 1), ([2, 4], []))
        self.assertEqual(judged(f"{once}    return false;\n", 1, 0, 1, 0, 1), ([], []))
        self.assertEqual(judged(f"{once}    return false;\n", 1, 0, 1, 1, 1), ([], ["return false;"]))

    def test_explains_the_lines_of_its_own_file_only(self):
        other = "[src/port/door.cpp]\n# No such gate.\n    open();\n"
        self.assertEqual(judged(other, 0, 1, 1, 1, 1), ([1], ["open();"]))

    def test_may_explain_a_text_for_all_files(self):
        never = "[*]\n# Nothing gets there.\n    g_assert_not_reached();\n"
        self.assertEqual(judged(never, 1, 1, 1, 1, 0), ([], []))
        self.assertEqual(judged(never, 1, 1, 1, 1, 1), ([], ["g_assert_not_reached();"]))

    def test_holds_no_line_that_is_reached_or_gone(self):
        known = f"[{FILE}]\n# No such gate.\n    open();\n    shut();\n"
        self.assertEqual(judged(known, 1, 1, 1, 1, 1), ([], ["open();", "shut();"]))

    def test_leaves_open_what_depends_on_the_moment_but_not_that_it_is_there(self):
        known = f"[{FILE}]\n# By chance: two\n# at once.\n    open();\n    shut();\n"
        for count in (0, 1):
            with self.subTest(count=count):
                self.assertEqual(judged(known, count, 1, 1, 1, 1), ([], ["shut();"]))

    def test_has_a_reason_for_each_line(self):
        for known in ("    open();\n", f"[{FILE}]\n    open();\n", f"[{FILE}]\n# Why.\n[other]\n    open();\n", "open();\n"):
            with self.subTest(known), self.assertRaises(ValueError):
                coverage.explanations(known)

    def test_keeps_a_reason_for_the_lines_after_it(self):
        known = f"# A head.\n\n[{FILE}]\n# One\n# reason.\n    open();\n\n    close();\n# Another.\n    shut();\n"
        self.assertEqual(
            [(each.text, each.reason) for each in coverage.explanations(known)],
            [("open();", "One reason."), ("close();", "One reason."), ("shut();", "Another.")],
        )

    def test_is_of_files_that_are_here(self):
        for each in coverage.explanations((TOP / "scripts/coverage.known").read_text()):
            if each.file != coverage.EVERYWHERE:
                with self.subTest(each):
                    texts = map(coverage.plain, (TOP / each.file).read_text().splitlines())
                    self.assertIn(each.text, texts)


class TheTableOfRooms(unittest.TestCase):
    def test_counts_lines_by_who_reaches_them(self):
        lines = coverage.lines_of(
            {"unit": report(1, 0, 0, 0, 1), "system": report(1, 1, 0, 0, 0)}, lambda _: SOURCE
        )
        unexplained, _ = coverage.judge(lines, coverage.explanations(f"[{FILE}]\n# No.\n    close();\n"))
        row = ["port", 5, "60.0 %", "40.0 %", "40.0 %", "0.0 %", 2, 1]
        self.assertEqual([*coverage.table(lines, unexplained)][1:], [row, ["all", *row[1:]]])


if __name__ == "__main__":
    unittest.main()
