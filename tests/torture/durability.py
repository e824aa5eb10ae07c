"""Whatever ends the daemon or fails it, the settings file is whole and says what was last saved."""

from campaign import Campaign, Fault, Trial
from keyfile import (
    EDITED, PORTS, assert_nothing_beside, assert_one_of, assert_starts_with, beside, put_settings,
    start_once,
)  # fmt: skip
from kernel_cuts import cuts_of_disks
from saving import (
    calls_that_fail, deaths_at_every_call, deaths_at_every_call_of_a_start, full_disk, power_cuts,
    short_writes,
)  # fmt: skip
from settings import Streams
from victim import Victim

FILE_SYNC = "src/platform/file-sync.cpp"
AT_ONCE = 12  # changes under way in each lane


def deaths_among_saves(clients):
    def run(binary, budget):
        with Victim(binary) as device:
            streams = Streams(device, clients)
            device.kill_in(0)
            tally = Tally()
            for _ in budget.rounds(least=5):
                one_death(device, streams, budget.dice, tally)
        return (
            f"{tally.kills} deaths, {tally.saves} changes, "
            f"{tally.leftovers} half files beside the whole one"
        )

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


def deaths_in_the_start(binary, budget):
    """Deaths at any moment of a start, which is over in a moment itself when nothing is to be saved."""
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
NOT_REMEMBERED = Fault(
    "a save that fails is not remembered", "src/param/param.cpp",
    "  if (!param_store_key_file(file)) {\n    note_as_unsaved(groups);\n",
    "  if (!param_store_key_file(file)) {\n",
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
        Trial("each system call of a save failing", calls_that_fail, (FULL_UNNOTICED, NOT_REMEMBERED)),
        Trial("a power cut after each system call of a save", power_cuts,
              (NOT_SYNCED, FOLDER_NOT_SYNCED)),
        Trial("a power cut after each write to a disk with ext4 and to one with f2fs", cuts_of_disks,
              (NOT_SYNCED, FOLDER_NOT_SYNCED)),
        Trial("short writes", short_writes, (ONE_WRITE,)),
        Trial("a full disk", full_disk, (FULL_UNNOTICED,)),
        Trial("a death at each system call of a start", deaths_at_every_call_of_a_start, (IN_PLACE,)),
        Trial("deaths at any moment of a start", deaths_in_the_start),
        Trial("deaths among the saves of one client", deaths_among_saves(1), (LATE,)),
        Trial("deaths among the saves of four clients", deaths_among_saves(4), (LOST,)),
    ),
)  # fmt: skip
