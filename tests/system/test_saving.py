"""How the settings file is replaced: wholly or not at all, whatever happens meanwhile."""

import contextlib
import os
import random
import signal

import pytest
from describe import port

from sim.bus import BusError, wait_until
from sim.device import KEY_FILE, parse_key_file
from sim.sandbox import WXD_GID, WXD_UID


def close_folder(device, file_is_writable):
    """Takes from the daemon the right to make files beside the settings, and maybe to write them.

    A daemon that root started is the unprivileged user by now; one of an ordinary user is bound by
    the modes alone.
    """
    folder, file = device.path("/etc/wexd"), device.path(KEY_FILE)
    if os.getuid() == 0:
        os.chown(folder, 0, 0)
        os.chown(file, *((WXD_UID, WXD_GID) if file_is_writable else (0, 0)))
    folder.chmod(0o555)
    file.chmod(0o644 if file_is_writable else 0o444)
    device.on_exit(lambda: folder.chmod(0o755))


def test_a_reader_never_sees_an_old_file_change(device):
    """The new text takes the old file's place; who has the old one open keeps reading it."""
    device.describe(port("out", 0))
    device.start()
    device.state.SetUsage(0, "old")  # from now on the file is the daemon's own, whoever started it
    device.sync()
    with open(device.path(KEY_FILE), encoding="utf-8") as reader:
        device.state.SetUsage(0, "new")
        device.sync()
        assert "usage=old\n" in reader.read()
    assert device.saved["out"]["usage"] == "new"


def test_a_save_leaves_nothing_beside_the_file(device):
    device.describe(port("out", 0))
    device.start()
    for n in range(20):
        device.state.SetUsage(0, str(n))
    device.sync()
    assert sorted(os.listdir(device.path("/etc/wexd"))) == ["actions", "wexd.conf"]


def test_a_writable_file_in_a_closed_folder_is_written_in_place(device):
    device.describe(port("out", 0, usage="a rather long usage that a shorter one replaces"))
    device.start()
    close_folder(device, file_is_writable=True)
    device.state.SetUsage(0, "short")
    device.sync()
    assert device.saved["out"]["usage"] == "short"
    assert device.read(KEY_FILE).endswith("usage=short\n")
    assert "Failed to store" not in device.stderr
    device.state.SetUsage(0, "a usage that is longer again than the one before it was")
    device.sync()
    assert device.saved["out"]["usage"].startswith("a usage that is longer")


def test_a_save_that_fails_leaves_the_old_text_and_says_why(device):
    device.describe(port("out", 0, usage="old"))
    device.start()
    close_folder(device, file_is_writable=False)
    before = device.read(KEY_FILE)
    device.state.SetUsage(0, "new")
    device.sync()
    assert device.state.GetUsage(0) == "new"
    assert device.read(KEY_FILE) == before
    lines = [line for line in device.stderr.splitlines() if "Failed to store" in line]
    assert len(lines) == 1
    prefix = f"Failed to store key file {KEY_FILE}: "
    assert lines[0].startswith(prefix) and len(lines[0]) > len(prefix)


def test_a_save_works_again_once_the_obstacle_is_gone(device):
    device.describe(port("out", 0, usage="old"))
    device.start()
    close_folder(device, file_is_writable=False)
    device.state.SetUsage(0, "lost")
    device.sync()
    device.path("/etc/wexd").chmod(0o755)
    device.sandbox.hand_over()
    device.state.SetName(0, False, "Gate")
    device.sync()
    assert device.saved["out"]["usage"] == "lost", "the port's present settings are saved whole"


@pytest.mark.parametrize("healed_by", ["another port", "the shutdown"])
def test_what_could_not_be_saved_is_saved_later(device, healed_by):
    device.describe(port("out", 0) + port("other", 1) + port("extra", 2, optional="true"))
    device.start()
    close_folder(device, file_is_writable=False)
    device.state.SetUsage(0, "first")
    device.state.SetUsage(0, "last")
    device.state.SetUsage(2, "of a port that goes")
    device.state.DropIOPorts(["extra"])
    device.sync()
    assert device.stderr.count("Failed to store") == 3
    device.path("/etc/wexd").chmod(0o755)
    device.sandbox.hand_over()
    if healed_by == "another port":
        device.state.SetUsage(1, "new")
        device.sync()
    else:
        device.stop()
    assert device.saved["out"]["usage"] == "last"
    assert device.saved["extra"]["usage"] == "of a port that goes"
    assert device.saved["other"]["usage"] == ("new" if healed_by == "another port" else "")


def test_settings_that_outgrow_the_limit_on_files_are_a_save_that_failed(make_device):
    device = make_device(wrapper=("prlimit", "--fsize=20000"))
    device.describe(port("out", 0, usage="old"))
    device.start()
    device.state.SetUsage(0, "x" * 30_000)
    device.sync()
    assert device.stderr.count(f"Failed to store key file {KEY_FILE}: ") == 1
    assert device.saved["out"]["usage"] == "old"
    device.state.SetUsage(0, "short")
    device.sync()
    assert device.saved["out"]["usage"] == "short"
    assert entries(device) == {"wexd.conf"}


def killed_at(call, when):
    """A command that runs the daemon and kills it as it begins its when-th system call of a kind."""
    return (
        "strace", "-f", "-qq", "-o", "/dev/null", "-e", f"trace={call}",
        "-e", f"inject={call}:signal=SIGKILL:when={when}",
    )  # fmt: skip


def entries(device):
    return set(os.listdir(device.path("/etc/wexd"))) - {"actions"}


@pytest.mark.uninstrumented
def test_deaths_before_the_rename_leave_one_file_and_the_next_start_none(make_device):
    device = make_device()
    device.describe(port("out", 0, usage="old"))
    device.start("--disable_legacy_interface")
    device.stop()
    device.wrapper, device.patience = killed_at("rename,renameat", 1), 3
    for n in range(3):
        device.start("--disable_legacy_interface")
        device.state.begin("SetUsage", 0, f"new {n}")
        device.wait_exit(128 + signal.SIGKILL)
        assert entries(device) == {"wexd.conf", ".wexd.conf.new"}
        assert device.saved["out"]["usage"] == "old"
    device.wrapper = ()
    device.start()
    assert entries(device) == {"wexd.conf"}


def test_what_earlier_releases_left_is_removed_and_copies_stay(device):
    copies = {"wexd.conf.backup", "wexd.conf.240131", "wexd.conf.old", "wexd.conf~"}
    for name in {"wexd.conf.A1b2C3", "wexd.conf.zQ8kXw", "wexd.conf.x0x0x0", *copies}:
        device.write(f"/etc/wexd/{name}", "[out]\nusage=half")
    device.describe(port("out", 0))
    device.start()
    assert entries(device) == {"wexd.conf", *copies}


@pytest.mark.uninstrumented
def test_a_death_while_rewriting_in_place_leaves_no_old_tail(make_device):
    device = make_device(wrapper=killed_at("ftruncate", 1), patience=3)
    device.describe(port("out", 0, usage="a=[long]\\usage " * 400))
    device.start()
    close_folder(device, file_is_writable=True)
    device.state.begin("SetUsage", 0, "short")
    device.wait_exit(128 + signal.SIGKILL)
    assert device.read(KEY_FILE).rstrip("\n").endswith("usage=short")
    device.wrapper = ()
    device.path("/etc/wexd").chmod(0o755)
    device.start()
    assert device.state.GetUsage(0) == "short"
    assert device.read(KEY_FILE).endswith("usage=short\n")
    assert not device.read(KEY_FILE).endswith("\n\n")


TEXTS = {fill: fill * 60_000 for fill in "abcdef"}
NAMES = ["p3", "p2", "p1", "p0"]


def assert_whole(text):
    """Long usages make a torn write show; each that was ever complete is acceptable."""
    saved = parse_key_file(text)
    assert list(saved) == NAMES
    for settings in saved.values():
        assert settings["usage"] in TEXTS.values()
        assert list(settings)[-1] == "usage"


def start_save_storm(device, chance):
    device.describe("".join(port(f"p{n}", n, usage=TEXTS["a"]) for n in range(4)))
    device.start()
    return [
        device.state.begin("SetUsage", n % 4, TEXTS[chance.choice("abcdef")]) for n in range(120)
    ]


def test_whoever_reads_among_saves_sees_a_whole_file(device):
    calls = start_save_storm(device, random.Random(0))

    def all_saved():
        assert_whole(device.read(KEY_FILE))
        return all(call.outcome for call in calls)

    wait_until(all_saved, "120 saves")


@pytest.mark.parametrize("round_", range(6))
def test_a_sudden_death_among_saves_never_leaves_a_half_file(device, round_):
    chance = random.Random(round_)
    calls = start_save_storm(device, chance)
    with contextlib.suppress(BusError):
        calls[chance.randrange(5, 100)].wait()
    device.kill()
    assert_whole(device.read(KEY_FILE))
    device.start()
    assert all(device.state.GetUsage(n) in TEXTS.values() for n in range(4))
    assert "Error parsing" not in device.stderr
