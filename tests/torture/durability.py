"""Whatever ends the daemon or fails it, the settings file is whole and says what was last saved."""

import os
import pathlib
import re
import subprocess
import time

from campaign import Broken, Campaign, Fault, Trial
from settings import Streams
from traced import Disk, killed_at, steps, steps_of_a_start, traced
from victim import Victim

from describe import port
from sim.bus import wait_until
from sim.device import KEY_FILE

FOLDER = "/etc/wexd"
FILE_SYNC = "src/platform/file-sync.cpp"
AT_ONCE = 12  # changes under way in each lane
ERRORS = ("ENOSPC", "EIO", "EDQUOT", "EROFS", "EACCES", "EINTR")
REPORTED = ("param_read_configuration",)


# -- sudden deaths ---------------------------------------------------------------------------


def deaths_among_saves(clients):
    def run(binary, budget):
        with Victim(binary) as device:
            streams = Streams(device, clients)
            device.kill_in(0)
            tally = Tally()
            for _ in budget.rounds(least=5):
                one_death(device, streams, budget.dice, tally)
        return f"{tally.kills} deaths, {tally.saves} changes, {tally.leftovers} half files beside the whole one"

    return run


class Tally:
    """What happened in a trial, and how long a burst of changes takes."""

    def __init__(self):
        self.kills = self.saves = self.leftovers = 0
        self.burst_s = 0.05


def one_death(device, streams, dice, tally):
    """A life that goes on where the one before was ended."""
    if tally.kills == 0 or streams.near_their_end(AT_ONCE):
        streams.restart_afresh()
    else:
        device.start()
    streams.take_stock()  # the start has changed nothing
    assert_nothing_beside(device)
    before = sum(lane.at for lane in streams.lanes)
    streams.send(AT_ONCE)
    device.kill_in(dice.uniform(0, tally.burst_s))
    streams.settle()
    # Most shall die among their saves: neither before the first nor after the last.
    done = sum(lane.answered() for lane in streams.lanes) / (AT_ONCE * len(streams.lanes))
    tally.burst_s *= 0.9 if done == 1 else 1.1
    streams.take_stock()
    device.assert_quiet()
    tally.kills += 1
    tally.saves += sum(lane.at for lane in streams.lanes) - before
    tally.leftovers += len(beside(device))


def beside(device):
    """What lies beside the settings; more than one half file never does."""
    others = set(os.listdir(device.path(FOLDER))) - {"actions", "wexd.conf"}
    if not others <= {".wexd.conf.new"}:
        raise Broken(f"{sorted(others)} beside the settings")
    return others


def assert_nothing_beside(device):
    if beside(device):
        raise Broken("a half file outlives the next start")


# Settings as somebody has edited them, which a start completes.
EDITED = "[b]\noutput_name=B\noutput_activelow=true\npulse_time=0\nport_mode=\ndelay_time=0\nusage=x\n"
PORTS = "".join(port(name, n, usage="u" * 20_000) for n, name in enumerate("abc"))


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


def deaths_in_the_start(binary, budget):
    """The same, at any moment."""
    kills = leftovers = 0
    with Victim(binary) as device:
        device.describe(PORTS)
        wholes = {before: start_once(device, before) for before in (None, EDITED)}
        wholes[wholes[EDITED][0]] = wholes[EDITED]
        life_s = max(life_s for _, life_s in wholes.values())
        for _ in budget.rounds(least=5):
            before = budget.dice.choice(list(wholes))
            after, _ = wholes[before]
            put_settings(device, before)
            for _ in range(3):
                device.start(ready=False)
                device.kill_in(budget.dice.uniform(0, life_s))
                assert_one_of(device, (before, after))
                kills += 1
                leftovers += len(beside(device))
            assert_starts_with(device, after)
    return f"{kills} deaths, {leftovers} half files beside the whole one"


def assert_starts_with(device, text):
    if start_once(device, ...)[0] != text:
        raise Broken("the start after a death leaves other settings")
    assert_nothing_beside(device)


def put_settings(device, text):
    device.path(KEY_FILE).unlink(missing_ok=True)
    if text is not None:
        device.settings(text)


def start_once(device, text):
    """What a whole start makes of the settings (... for those that are there), and how long it takes."""
    if text is not ...:
        put_settings(device, text)
    began = time.monotonic()
    device.start()
    took = time.monotonic() - began
    device.assert_quiet()
    device.stop()
    return device.read(KEY_FILE), took


def assert_one_of(device, texts):
    found = device.read(KEY_FILE) if device.exists(KEY_FILE) else None
    if found not in texts:
        raise Broken(f"settings that nobody wrote: {len(str(found))} bytes, ending in {str(found)[-40:]!r}")


# -- system calls that fail -----------------------------------------------------------------------


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


# -- writes that come short --------------------------------------------------------------------


def short_writes(binary, _budget):
    """Seven bytes at a time, as a signal or a quota may have it."""
    with Victim(binary, wrapper=("env", f"LD_PRELOAD={SHORT_WRITES}")) as device:
        build_library(device)
        settings = Settings(device)
        for n in range(50):
            settings.change("x" * n * 11)
            assert_one_of(device, [settings.whole("x" * n * 11)])
    return "50 saves of seven bytes at a time"


SHORT_WRITES = "/run/short-writes.so"


def build_library(device):
    source = pathlib.Path(__file__).with_name("short-writes.c")
    subprocess.run(
        ["cc", "-shared", "-fPIC", "-Wall", "-Werror", source, "-o", device.path(SHORT_WRITES), "-ldl"],
        check=True,
    )


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


NOT_SYNCED = Fault(
    "the file is not synced", FILE_SYNC,
    "take_after(fd, target);\n  }\n  return fsync(fd) == 0;", "take_after(fd, target);\n  }\n  return true;",
)  # fmt: skip
FOLDER_NOT_SYNCED = Fault(
    "the folder is not synced", FILE_SYNC,
    "if (!sync_folder(target)) {", "if (target.name.empty() && !sync_folder(target)) {",
)  # fmt: skip
IN_PLACE = Fault(
    "the file is written in place", FILE_SYNC,
    "const auto replaced = replace(target, text, &replace_error);",
    """Replaced replaced = Replaced::Yes;
  if (text.empty()) {
    replaced = replace(target, text, &replace_error);
  } else if (!g_file_set_contents_full(path, text.data(), static_cast<gssize>(text.size()),
                                       G_FILE_SET_CONTENTS_NONE, default_mode, &replace_error)) {
    replaced = Replaced::No;
  }""",
)  # fmt: skip
FULL_UNNOTICED = Fault(
    "a full disk is not noticed", FILE_SYNC,
    "if (!fill(fd.get(), text, target)) {", "if (!fill(fd.get(), text, target) && errno != ENOSPC) {",
)  # fmt: skip
RENAME_UNNOTICED = Fault(
    "a save that fails is not remembered", "src/param/param.cpp",
    "    note_as_unsaved(groups);\n    return false;\n  }\n  const MutexLock guard(key_mutex);",
    "    return false;\n  }\n  const MutexLock guard(key_mutex);",
)  # fmt: skip
ONE_WRITE = Fault(
    "what a short write has left over goes to the wrong place", FILE_SYNC,
    "    place += written;\n", "    place += written > 7 ? written : 0;\n",
)  # fmt: skip
LATE = Fault(
    "changes are saved a while after they are answered", "src/dbus/iocontrol.cpp",
    "  param_save_for_port(port, param_file);",
    """  g_timeout_add(
      5,
      [](gpointer late) -> gboolean {
        param_save_for_port(static_cast<IoPort*>(late), param_file);
        return G_SOURCE_REMOVE;
      },
      io_port_ref(port).release());""",
)  # fmt: skip
LOST = Fault(
    "one change in fifty is not saved", "src/param/param.cpp",
    "  } else if (!is_known_to_be_saved(*group, file)) {",
    "  } else if (static int lost = 0; ++lost % 50 != 0 && !is_known_to_be_saved(*group, file)) {",
)  # fmt: skip
LEFT_BEHIND = Fault(
    "a start leaves the half file of the life before", "src/core/main.cpp",
    "  file_remove_leftovers(param_file);\n", "",
)  # fmt: skip

CAMPAIGN = Campaign(
    "durability",
    "whatever ends the daemon or fails it, the settings are whole",
    (
        Trial("a death at each system call of a save", deaths_at_every_call,
              (IN_PLACE, LEFT_BEHIND)),
        Trial("each system call of a save failing", calls_that_fail, (FULL_UNNOTICED, RENAME_UNNOTICED)),
        Trial("a power cut after each system call of a save", power_cuts,
              (NOT_SYNCED, FOLDER_NOT_SYNCED)),
        Trial("short writes", short_writes, (ONE_WRITE,)),
        Trial("a full disk", full_disk, (FULL_UNNOTICED,)),
        Trial("a death at each system call of a start", deaths_at_every_call_of_a_start, (IN_PLACE,)),
        Trial("deaths at any moment of a start", deaths_in_the_start),
        Trial("deaths among the saves of one client", deaths_among_saves(1), (LATE,)),
        Trial("deaths among the saves of four clients", deaths_among_saves(4), (LOST,)),
    ),
)  # fmt: skip
