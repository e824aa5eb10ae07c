"""A save, and what becomes of it when a system call fails, comes short, or is the last that is made."""

import re
import subprocess

from campaign import Broken
from keyfile import (
    EDITED, FOLDER, PORTS, assert_nothing_beside, assert_one_of, assert_starts_with, beside, put_settings,
    start_once,
)  # fmt: skip
from traced import Disk, killed_at, steps, steps_of_a_start, traced
from victim import Victim, library

from describe import port
from sim.bus import wait_until
from sim.device import KEY_FILE

ERRORS = ("ENOSPC", "EIO", "EDQUOT", "EROFS", "EACCES", "EINTR")
REPORTED = ("param_read_configuration",)


class Settings:
    """One port whose usage is changed, and the text that the file has to have then."""

    def __init__(self, device):
        self.device = device
        device.describe(port("a", 0))
        # What the first start makes is root's; from the second on it is the daemon's own.
        device.start()
        device.restart()
        self.change("first")
        self.text = device.read(KEY_FILE)
        self.status = self.look()

    def begin(self, usage):
        return self.device.state.begin("SetUsage", 0, usage)

    def change(self, usage):
        self.begin(usage).wait()
        self.device.sync()

    def whole(self, usage):
        return re.sub("(?m)^usage=.*$", f"usage={usage}", self.text)

    def look(self):
        status = self.device.path(KEY_FILE).stat()
        return status.st_mode, status.st_uid, status.st_gid


def calls_that_fail(binary, _budget):
    with Victim(binary) as device:
        settings = Settings(device)
        made = steps(device, lambda: settings.change("traced"))
        before = "traced"
        for call, count in made:
            for error in ERRORS:
                try:
                    before = one_failure(device, settings, before, (call, count, error))
                except AssertionError as broken:
                    raise Broken(f"{error} from {call} {count}: {broken}") from broken
        device.assert_quiet(*REPORTED)
    return f"{len(made)} system calls, {len(made) * len(ERRORS)} failures"


def one_failure(device, settings, before, failure):
    call, count, error = failure
    changed, healed = f"{call} {count} {error}", f"healed {call} {count} {error}"
    with traced(device, "-e", f"inject={call}:error={error}:when={count}"):
        settings.change(changed)
    saved = device.read(KEY_FILE)
    if saved not in (settings.whole(before), settings.whole(changed)):
        raise Broken(f"the file is neither old nor new: {saved[:60]!r}...")
    if saved != settings.whole(changed) and not is_told_of(device):
        raise Broken("a save failed and nobody is told")
    settings.change(healed)
    assert_one_of(device, [settings.whole(healed)])
    if call == "fchmod":
        mend_mode(device, settings)
    if settings.look() != settings.status:
        raise Broken(f"mode and owner {settings.look()}, not {settings.status}")
    assert_nothing_beside(device)
    return healed


def mend_mode(device, settings):
    """Who may read the file is not worth the settings: a warning says that it is to be set by hand."""
    device.wait_for_log("^WARNING: Could not restore the mode of")
    device.path(KEY_FILE).chmod(settings.status[0])


def is_told_of(device):
    """Whether the daemon knows of a save that has failed and is not made good."""
    failed = device.manager.GetLastFailedSave()
    return failed[0] and not failed[-1]


def deaths_at_every_call(binary, _budget):
    with Victim(binary) as device:
        settings = Settings(device)
        made = steps(device, lambda: settings.change("0"))
        for n, (call, count) in enumerate(made):
            with traced(device, "-e", f"inject={call}:signal=KILL:when={count}"):
                settings.begin(str(n + 1))
                wait_until(lambda: not device.running, "the daemon's death")
            assert_one_of(device, [settings.whole(n), settings.whole(n + 1)])
            beside(device)
            device.start()
            assert_nothing_beside(device)
            settings.change(str(n + 1))
            assert_one_of(device, [settings.whole(n + 1)])
    return f"{len(made)} system calls, one death before each"


def power_cuts(binary, _budget):
    """A cut at any moment, as the order of writing, syncing and renaming allows it."""
    with Victim(binary) as device:
        settings = Settings(device)
        looked_at = 0
        for n in range(20):
            with traced(device) as found:
                settings.change(f"{n} " + "x" * n * 500)
            disk = Disk("wexd.conf")
            for call in found():
                disk.take(call)
                looked_at += 1
            disk.assert_safe()
    return f"20 saves, a cut after each of {looked_at} system calls"


def deaths_at_every_call_of_a_start(binary, _budget):
    """The start writes the settings whole: they are as before or as they shall be."""
    with Victim(binary, patience=3) as device:
        device.describe(PORTS)
        after, _ = start_once(device, EDITED)
        put_settings(device, EDITED)
        made = steps_of_a_start(device)
        for call, count in made:
            put_settings(device, EDITED)
            device.wrapper = killed_at(call, count)
            device.start(ready=False)
            wait_until(lambda: not device.running, f"the daemon's death at {call} {count}")
            assert_one_of(device, (EDITED, after))
            device.wrapper = ()
            assert_starts_with(device, after)
    return f"{len(made)} system calls, one death before each"


# -- writes that come short --------------------------------------------------------------------


def short_writes(binary, _budget):
    """Seven bytes at a time, as a signal or a quota may have it."""
    with Victim(binary) as device:
        device.preload = library("short-writes.c", device.scratch)
        settings = Settings(device)
        for n in range(50):
            settings.change("x" * n * 11)
            assert_one_of(device, [settings.whole("x" * n * 11)])
    return "50 saves of seven bytes at a time"


def full_disk(binary, _budget):
    """A file system with too little room for a second file of that size."""
    with Victim(binary) as device:
        folder = device.path(FOLDER)
        subprocess.run(["mount", "-t", "tmpfs", "-o", "size=96k", "settings", folder], check=True)
        device.on_exit(lambda: subprocess.run(["umount", "-l", folder], check=True))
        settings = Settings(device)
        for n in range(20):
            before = device.read(KEY_FILE)
            settings.change(f"{n}" + "x" * 55_000)  # with room for two of them there is none for both
            settings.change(f"{n}" + "y" * 55_000)
            assert_one_of(device, [before, *(settings.whole(f"{n}" + c * 55_000) for c in "xy")])
            if not is_told_of(device):
                raise Broken("a full disk, and nobody is told")
            settings.change(f"small {n}")
            assert_one_of(device, [settings.whole(f"small {n}")])
            assert_nothing_beside(device)
    return "20 times full and free again"
