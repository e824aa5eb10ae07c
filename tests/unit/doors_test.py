"""Includes go one way: core -> dbus, peers, param -> backends -> port <-> event
-> description -> platform."""

import pathlib
import re
import unittest

SOURCES = pathlib.Path(__file__).resolve().parents[2] / "src"

MODEL = {"port", "event", "description", "platform"}
# What each folder may include from, besides itself.
DOORS = {
    "platform": set(),
    "description": {"platform"},
    "event": {"port", "description", "platform"},
    "port": {"event", "description", "platform"},
    "backends": MODEL,
    "param": MODEL | {"backends"},
    "peers": MODEL | {"backends"},
    "dbus": MODEL | {"backends", "param", "generated"},
    "core": MODEL | {"backends", "param", "peers", "dbus"},
}

INCLUDE = re.compile(r'^\s*#\s*include\s*"([^"]+)"')


def closed_doors(folder, text):
    """The includes of a source file of that folder that go through a closed door."""
    wrong = []
    for number, line in enumerate(text.splitlines(), 1):
        include = INCLUDE.match(line)
        if include and pathlib.PurePath(include[1]).parent.as_posix() not in DOORS[folder] | {folder}:
            wrong.append(f"{number}: {include[1]}")
    return wrong


class Doors(unittest.TestCase):
    def test_every_folder_has_its_doors(self):
        folders = {path.name for path in SOURCES.iterdir() if path.is_dir()}
        self.assertEqual(folders, set(DOORS))

    def test_sources_go_through_open_doors_only(self):
        files = [path for path in SOURCES.rglob("*") if path.suffix in (".cpp", ".h")]
        self.assertGreater(len(files), 30)
        for path in files:
            with self.subTest(path.relative_to(SOURCES)):
                folder = path.relative_to(SOURCES).parts[0]
                self.assertEqual(closed_doors(folder, path.read_text()), [])

    def test_a_closed_door_is_noticed(self):
        for folder, header in (
            ("port", "dbus/iocontrol.h"),
            ("event", "backends/null-backend.h"),
            ("platform", "port/ioport.h"),
            ("backends", "param/param.h"),
            ("dbus", "peers/bootblock.h"),
            ("peers", "dbus/iocontrol.h"),
            ("param", "core/privileges.h"),
            ("port", "ioport.h"),
            ("port", "../core/privileges.h"),
        ):
            with self.subTest(folder=folder, header=header):
                text = f'#include <glib.h>\n#include "{folder}/own.h"\n  # include "{header}"\n'
                self.assertEqual(closed_doors(folder, text), [f"3: {header}"])


if __name__ == "__main__":
    unittest.main()
