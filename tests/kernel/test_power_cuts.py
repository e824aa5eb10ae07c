"""The power is cut while the settings are saved, after each write that reaches the disk: what the daemon
does on a real file system is recorded below that, and brought to another disk write by write."""

import contextlib
import itertools
import os
import pathlib
import random
import re

import pytest

from block_log import RECORDED, entries, recording
from describe import port
from power_cuts import SIZES, Image, make_file_system, mounted
from sim.device import KEY_FILE
from sim.sandbox import WXD_GID, WXD_UID

DISK, LOG, AFTERWARDS = "/dev/ram0", "/dev/ram1", "/dev/ram2"
FOLDER, NAME = os.path.split(KEY_FILE)
RECOVERED = pathlib.Path("/tmp/recovered")
HALF_FILE = f".{NAME}.new"

PORTS = ("lamp", "door", "fan")
# Of what is saved in turn: within a block and over several of them, growing and shrinking.
LENGTHS = (3, 20_000, 700, 9_000, 12, 4_000)
AT_ONCE = 3  # calls under way in every fourth save


class Lost(AssertionError):
    """A power cut has cost settings."""


class Settings:
    """What the file says after each number of changes."""

    def __init__(self, text, status):
        self.texts = [text]
        self.status = status

    def change(self):
        """The next change, as port and usage."""
        number = len(self.texts)
        usage = f"{number}." * (LENGTHS[number % len(LENGTHS)] // len(f"{number}.") + 1)
        place = number % len(PORTS)
        head, name, rest = self.texts[-1].partition(f"[{PORTS[place]}]\n")
        self.texts.append(head + name + re.sub("(?m)^usage=.*$", f"usage={usage}", rest, count=1))
        return place, usage

    def found_in(self, folder, least):
        """After how many changes the file is, which may not be fewer than that; and whether a half one is
        beside it."""
        file = pathlib.Path(folder, NAME)
        try:
            text = file.read_text()
        except (OSError, UnicodeDecodeError) as error:
            raise Lost(f"the file cannot be read: {error}") from error
        if text not in self.texts:
            zeros = text.count("\0")
            raise Lost(f"the file is as after no number of changes: {len(text)} bytes, {zeros} of them zero")
        found = self.texts.index(text)
        if found < least:
            raise Lost(f"{least} changes were saved, {found} are in the file")
        if look(file) != self.status:
            raise Lost(f"mode and owner of the file are {look(file)}")
        beside = set(os.listdir(folder)) - {NAME, "lost+found"}
        if not beside <= {HALF_FILE}:
            raise Lost(f"{sorted(beside)} beside the file")
        return found, bool(beside)


def look(file):
    status = file.stat()
    return oct(status.st_mode), status.st_uid, status.st_gid


def make_disk(device, kind):
    """A file system with the settings of a daemon that has run once."""
    make_file_system(DISK, kind)
    with mounted(DISK, FOLDER, kind):
        os.chown(FOLDER, WXD_UID, WXD_GID)
        # What the first start makes is root's; from the second on it is the daemon's own.
        with running(device):
            pass
        with running(device):
            device.state.SetUsage(0, "first")
            device.sync()
        return Settings(device.read(KEY_FILE), look(device.path(KEY_FILE)))


@contextlib.contextmanager
def running(device):
    """A life of the daemon, which is over in any case before what it writes to is taken away."""
    try:
        device.start()
        yield
        device.stop()
    except BaseException:
        device.kill()
        raise


def save(device, settings, mark, count):
    """Makes that many changes, each known to be safe before the next, but for those that come at once."""
    left = count
    for turn in itertools.count(1):
        calls = [
            device.state.begin("SetUsage", *settings.change())
            for _ in range(min(left, AT_ONCE if turn % 4 == 0 else 1))
        ]
        for call in calls:
            call.wait()
        device.sync()
        assert device.read(KEY_FILE) == settings.texts[-1]
        mark(len(settings.texts) - 1)
        left -= len(calls)
        if left == 0:
            return


class Cuts:
    """The power cuts of one recording: how many there were, and what they left."""

    def __init__(self, image, kind, settings):
        self.image, self.kind, self.settings = image, kind, settings
        self.writes = self.cuts = self.half_files = 0
        self.least = 0  # changes that are known to be safe
        self.seen = set()  # numbers of changes

    def cut(self):
        self.image.put_on(AFTERWARDS)
        with mounted(AFTERWARDS, RECOVERED, self.kind):
            found, half_file = self.settings.found_in(RECOVERED, self.least)
        self.cuts += 1
        self.half_files += half_file
        self.seen.add(found)
        return found

    def after_each(self, log, dice):
        """A cut after each write, and before each flush one more that has cost any of what it was for."""
        found = self.cut()
        for entry in log:
            if entry.mark and entry.mark.isdecimal():
                self.least = int(entry.mark)
                if found < self.least:
                    raise Lost(f"{self.least} changes were saved, {found} are on the disk")
            if entry.flushes and self.image.unsafe:
                with self.image.without([write for write in self.image.unsafe if dice.random() < 0.5]):
                    self.cut()
            self.image.take(entry)
            if entry.data:
                self.writes += 1
                found = self.cut()


@pytest.mark.timeout(0)  # takes as long as there are saves; the machine has its limit
@pytest.mark.parametrize("kind", SIZES)
def test_a_power_cut_after_any_write_leaves_the_settings_whole(device, kind, request, record_property):
    saves = request.config.getoption("--saves")
    RECOVERED.mkdir(exist_ok=True)
    device.describe("".join(port(name, number) for number, name in enumerate(PORTS)))
    settings = make_disk(device, kind)
    cuts = Cuts(Image(DISK, SIZES[kind]), kind, settings)
    with recording(DISK, LOG, SIZES[kind]) as mark, mounted(RECORDED, FOLDER, kind), running(device):
        save(device, settings, mark, saves)
    cuts.after_each(entries(LOG), random.Random(saves))
    for name in ("writes", "cuts", "half_files"):
        record_property(name, getattr(cuts, name))
    record_property("saves", saves)
    # What shows that there were cuts amid saves: before each and after it, and between its two steps.
    assert cuts.seen >= {0, 1, saves} and cuts.half_files > 0
