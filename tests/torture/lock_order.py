"""The locks that a daemon is seen to take while it holds others, held to the tables of their order.

A library that is loaded into each daemon under test tells the places from where the locks were taken
(lock-pairs.c); the lines there tell which locks they are.
"""

import functools
import pathlib
import re
import socket
import subprocess
import threading

from victim import library

TOP = pathlib.Path(__file__).resolve().parents[2]
ROW = re.compile(r"^\| `(\w+)` \(`([\w/-]+)`\).*\|(.*)\|$", re.MULTILINE)
LONGEST = 256  # of a message
# A condition that waits with any kind of lock has a mutex of its own, which is a leaf.
CONDITION = ("mutex", "a condition")
WRAPPER = pathlib.PurePath("src/platform/mutex.h")


class Tables:
    """The locks of docs/architecture.md as (name, folder/file), those above others first, and the pairs
    of which the second is taken under the first."""

    def __init__(self):
        parts = (TOP / "docs/architecture.md").read_text().split("\n| leaf |", 1)
        rows, leaves = ([(found[:2], found[2]) for found in map(re.Match.groups, ROW.finditer(part))]
                        for part in parts)  # fmt: skip
        self.locks = [lock for lock, _ in (*rows, *leaves)]
        self.ordered = [lock for lock, _ in rows]
        self.pairs = {(self.of_file(word), lock) for lock, above in (*rows, *leaves)
                      for word in re.findall(r"`(.*?)`", above)}  # fmt: skip

    def of_file(self, file):
        (found,) = (lock for lock in self.locks if pathlib.PurePath(lock[1]).name == file)
        return found

    def out_of_order(self):
        """Pairs that the tables themselves do not allow."""
        return [(above, lock) for above, lock in self.pairs
                if above not in self.ordered or self.locks.index(above) >= self.locks.index(lock)]  # fmt: skip

    def named(self, file, line):
        """The lock that a line of a source takes; None if it cannot be told."""
        folder = pathlib.PurePath(file).parent
        words = re.findall(r"\w+", line)
        of_file = [lock for lock in self.locks if lock[1] == file]
        of_folder = [lock for lock in self.locks if pathlib.PurePath(lock[1]).parent == folder]
        for locks in (of_file, of_folder):
            said = [lock for lock in locks if lock[0] in words]
            if len(said) == 1:
                return said[0]
        return of_file[0] if len(of_file) == 1 else None


class Program:
    """A daemon whose places can be looked up: a place is an offset in its file, and its caller's above."""

    def __init__(self, binary, tables):
        self.binary = binary
        self.tables = tables
        self.calls = {0: []}

    def look_up(self, places):
        """Learns (path, line) of the functions that were put into each other at each place, the innermost
        first: of all in one go, because the program is what takes long to read."""
        offsets = {offset for place in places for offset in halves(place)} - self.calls.keys()
        if not offsets:
            return
        said = subprocess.run(
            ["addr2line", "-a", "-i", "-e", self.binary, *(hex(offset - 1) for offset in offsets)],
            check=True, capture_output=True, text=True,
        ).stdout  # fmt: skip
        _, *parts = re.split(r"^0x(\w+)\n", said, flags=re.MULTILINE)
        for address, lines in zip(parts[::2], parts[1::2]):
            found = re.findall(r"^(.*):(\d+)", lines, re.MULTILINE)
            self.calls[int(address, 16) + 1] = [(within_the_tree(path), int(line)) for path, line in found]

    @functools.cache
    def lock_taken_at(self, place):
        """The lock that is taken before this place is come back to."""
        calls = [call for offset in halves(place) for call in self.calls[offset]]
        wrapped = WRAPPER in [path for path, _ in calls]
        for path, line in calls:
            if path.name == "condition_variable" and not wrapped:
                return CONDITION
            if path.is_relative_to("src") and path != WRAPPER:
                file = path.relative_to("src").with_suffix("").as_posix()
                found = self.tables.named(file, source(path)[line - 1])
                if found is None:
                    raise LookupError(f"which lock does {path}:{line} take?")
                return found
        raise LookupError(f"nothing is known of {self.binary}+{place:#x}")


def halves(place):
    return place & 0xFFFFFFFF, place >> 32


def within_the_tree(path):
    """The path as seen from the top of the tree that it is of; it may be the copy with a fault."""
    found = re.search(r".*/(src/.*)$", path)
    return pathlib.PurePath(found[1] if found and not path.startswith("/usr/") else path)


@functools.cache
def source(path):
    return (TOP / path).read_text().splitlines()


class Watch:
    """Hears of the locks that those daemons take which have loaded its library."""

    def __init__(self, programs, folder):
        self.tables = Tables()
        self.programs = {path.stat().st_size: Program(path, self.tables) for path in programs}
        self.told = set()
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.socket.bind("")  # to a name that the kernel finds, which is no file's
        name = self.socket.getsockname()[1:].decode()
        self.library = library("lock-pairs.c", folder, f'-DPLACE="{name}"')
        # A daemon that tells something waits until it is heard.
        threading.Thread(target=self.listen, daemon=True).start()

    def listen(self):
        while True:
            self.told.add(self.socket.recv(LONGEST))

    def pairs(self):
        """(held, taken), and (None, taken) for each lock that was taken at all."""
        told = [[int(word, 0) for word in message.split()] for message in self.told.copy()]
        for size, program in self.programs.items():
            program.look_up([place for of, *places in told for place in places if of == size])
        return {self.pair(*message) for message in told}

    def pair(self, size, held, taken):
        program = self.programs[size]
        return (program.lock_taken_at(held) if held else None, program.lock_taken_at(taken))

    def unknown(self):
        """What was seen, and is not in the tables."""
        seen = {pair for pair in self.pairs() if pair[0] and pair[1] != CONDITION}
        return [f"{name(taken)} under {name(held)}" for held, taken in sorted(seen - self.tables.pairs)]

    def unseen(self):
        """What is in the tables, and was not seen."""
        pairs = self.pairs()
        never = sorted(set(self.tables.locks) - {taken for _, taken in pairs})
        return [f"{name(taken)} under {name(held)}" for held, taken in sorted(self.tables.pairs - pairs)] + [
            f"{name(lock)} at all" for lock in never
        ]


def name(lock):
    return " of ".join(lock)
