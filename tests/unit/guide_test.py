"""Holds docs/operating.md to the sources: whatever daemon and client complain of stands in it, and
what stands in it they say."""

import pathlib
import re
import unittest

TOP = pathlib.Path(__file__).resolve().parents[2]
STRING = r'"(?:[^"\\]|\\.)*"'
COMPLAINT = re.compile(
    rf"(?:g_warning|g_critical|g_error|g_log)\((?:G_LOG_DOMAIN,\s*log_level_user,)?\s*((?:{STRING}\s*)+)"
    rf"|fprintf\(stderr,\s*((?:{STRING}\s*)+)"
)
REFUSAL = re.compile(
    rf"CommandError\(\s*Status::(\w+),\s*(?:fmt::format\()?((?:{STRING}\s*)+)"
)
STATUS = {"Refused": 1, "Usage": 2, "Unreachable": 3, "TimedOut": 4, "Unwritable": 5}
PLACE = re.compile(r"%[#0+ -]*\d*(?:hh|h|ll|l|z)?[diuxXcs]")


def parts(text):
    """The fixed parts of a message; what is formatted into it lies between them."""
    fixed = (part.strip(" \n!.:'\"@()") for part in PLACE.split(text))
    return [part for part in fixed if part]


def complaints():
    """Every message from a warning upwards, every one of a module's own level, and every line on
    standard error: (where, fixed parts)."""
    for source in sorted((TOP / "src").rglob("*.cpp")):
        for call in COMPLAINT.finditer(source.read_text()):
            text = "".join(literal[1:-1] for literal in re.findall(STRING, call[1] or call[2]))
            text = text.replace("\\n", "").replace('\\"', '"')
            if parts(text):  # a text from elsewhere, as a whole
                yield f"{source.relative_to(TOP)}: {text}", parts(text)


def in_order(fixed, text):
    place = 0
    for part in fixed:
        place = text.find(part, place)
        if place < 0:
            return False
        place += len(part)
    return True


class TheOperatingGuide(unittest.TestCase):
    def setUp(self):
        self.guide = (TOP / "docs/operating.md").read_text()
        ends = self.guide.index("## Messages"), self.guide.index("## What wexctl says")
        self.section = self.guide[slice(*ends)]
        self.messages = [
            span
            for line in self.section.splitlines()
            if line.startswith(("| `", "- `"))
            for span in re.findall(r"`([^`]+)`", line.split(" | ")[0])
        ]

    def test_explains_every_complaint(self):
        for where, fixed in complaints():
            with self.subTest(where):
                self.assertTrue(any(in_order(fixed, message) for message in self.messages))

    def test_explains_nothing_that_is_not_said(self):
        said = [fixed for _, fixed in complaints()]
        for message in self.messages:
            with self.subTest(message):
                self.assertTrue(any(in_order(fixed, message) for fixed in said))

    def test_lists_every_line_of_the_client_with_its_status(self):
        section = self.guide[self.guide.index("## What wexctl says") :]
        rows = re.findall(r"^\| `(.+)` \| (\d) \|$", section, re.MULTILINE)
        listed = sorted(
            (re.sub(r"\b(NAME|TEXT|N|REASON)\b", "{}", text), int(status)) for text, status in rows
        )
        said = set()
        for source in (TOP / "tools/wexctl").rglob("*.cpp"):
            for status, literals in REFUSAL.findall(source.read_text()):
                text = "".join(literal[1:-1] for literal in re.findall(STRING, literals))
                if text:
                    said.add((text, STATUS[status]))
        self.assertEqual(listed, sorted(said))


if __name__ == "__main__":
    unittest.main()
