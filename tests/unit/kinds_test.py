"""The tables of the kinds of port hardware have the kinds that the daemon has, and no others."""

import pathlib
import re
import unittest

TOP = pathlib.Path(__file__).resolve().parents[2]


def read(place):
    return (TOP / place).read_text()


def registered():
    """The kinds of the registry by the names that descriptions give them, in its order."""
    headers = "".join(path.read_text() for path in (TOP / "src/backends").glob("*-backend.h"))
    names = dict(re.findall(r'BackendVocabulary (\w+)\{\s*\.name = "([^"]+)"', headers))
    kinds = re.findall(r"\bBackend<BACKEND_\w+, (\w+),", read("src/backends/all-backends.h"))
    return [names[vocabulary] for vocabulary in kinds]


def rows(place, head):
    """(first column, second column) of the table whose head begins so."""
    table = read(place).split(f"\n| {head} |", 1)[1].split("\n\n", 1)[0]
    return [
        tuple(column.strip() for column in line.split("|")[1:3]) for line in table.splitlines()[2:]
    ]


def kinds_in(table):
    return sorted({kind for first, _ in table for kind in re.findall(r"`([\w-]+)`", first)})


class TheKindsOfHardware(unittest.TestCase):
    def setUp(self):
        self.kinds = registered()
        self.readme = rows("README.md", "kind")

    def test_are_each_registered_once(self):
        self.assertGreater(len(self.kinds), 10)
        self.assertEqual(len(self.kinds), len(set(self.kinds)))

    def test_stand_in_the_readme(self):
        self.assertEqual(kinds_in(self.readme), sorted(self.kinds))

    def test_stand_in_the_architecture(self):
        self.assertEqual(kinds_in(rows("docs/architecture.md", "backend")), sorted(self.kinds))

    def test_have_their_kernel_options(self):
        table = rows("docs/kernel.md", "kind of port")
        named = {kind for kind in kinds_in(table) if kind != "pin"}  # an element, no kind
        self.assertEqual(sorted(named), sorted(self.kinds))

    def test_are_on_a_simulated_board_if_they_have_hardware(self):
        """Without hardware, by the README's table, there is nothing to simulate."""
        table = re.search(r"^FURNISH = \{(.*?)^\}", read("sim/board.py"), re.MULTILINE | re.DOTALL)[1]
        real = kinds_in(row for row in self.readme if row[1] != "none")
        self.assertEqual(sorted(re.findall(r'"([\w-]+)":', table)), real)


if __name__ == "__main__":
    unittest.main()
