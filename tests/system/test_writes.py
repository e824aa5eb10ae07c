"""What is written to the disk, and how often, as a trace shows it: flash wears, and syncs take time."""

import os
import re
import time

import pytest
from describe import port

from test_saving import close_folder

from sim.bus import wait_until
from sim.device import KEY_FILE
from sim.sandbox import WXD_UID

pytestmark = [pytest.mark.uninstrumented, pytest.mark.root]

TRACE = "/run/trace"
# A daemon that is a child of its tracer would not hear the signals meant for it.
STRACE = ("strace", "-D", "-f", "-y", "-qq", "-s", "400", "-o", TRACE, "-e", "trace=file,desc")
SETTINGS = r'"(?:/etc/wexd/)?\.?wexd\.conf'
REGISTRY = "/etc/service_registry/services.d/wexd_service_registry.conf"
MAPPING = "/etc/legacyconfig/legacymappings.d/wexd.xml"
PORTS = "".join(port(f"port{n}", n) for n in range(16))
# After that long a change of a file shows in its times.
SETTLED_S = 3.1


def counted(device, call):
    """How many such calls the daemon has made with success in its life so far."""
    return sum(
        re.search(rf"\b{call}", line) is not None and " = -1 " not in line
        for line in device.read(TRACE).splitlines()
    )


def syncs(device):
    return counted(device, r"f(?:data)?sync\(")


def renames(device):
    return counted(device, rf"rename\w*\(.*{SETTINGS}")


def settle(device):
    """Waits until the settings file is of an age at which it need not be read to be known."""

    def old():
        return time.time() - device.path(KEY_FILE).stat().st_ctime > SETTLED_S

    wait_until(old, "an old settings file")


@pytest.fixture
def device(make_device):
    device = make_device(wrapper=STRACE, patience=4)
    device.describe(PORTS)
    return device


@pytest.fixture
def old_device(device):
    """One whose settings have been the daemon's own for a while."""
    device.wrapper = ()
    device.start()
    device.restart()
    device.stop()
    settle(device)
    device.wrapper = STRACE
    return device


def test_the_first_start_writes_each_file_once(device):
    device.start()
    assert (syncs(device), renames(device)) == (4, 1)
    assert counted(device, "rename") == 3, "the settings and both generated files"
    assert len(device.saved) == 16


@pytest.mark.without_tsan("a sanitizer makes system calls of its own")
def test_a_later_start_writes_nothing(old_device):
    old_device.start()
    assert counted(old_device, r"(?:f(?:data)?sync|rename\w*|unlink\w*|f?ch(?:own|mod)\w*)\(") == 0
    assert counted(old_device, r'openat\(.*"(?!/dev).*O_(?:WRONLY|RDWR|CREAT)') == 0


@pytest.mark.parametrize("file", [REGISTRY, MAPPING])
def test_a_generated_file_is_written_again_when_it_is_another(old_device, file):
    text = old_device.read(file)
    old_device.write(file, text.replace("6", "7"))
    old_device.start()
    assert (syncs(old_device), counted(old_device, "rename")) == (1, 1)
    assert old_device.read(file) == text


def test_a_generated_file_of_another_user_becomes_the_daemons_own(old_device):
    """In a folder that is shared nobody replaces what is another's."""
    path = old_device.path(REGISTRY)
    os.chown(path, 0, 0)
    old_device.start()
    assert path.stat().st_uid == WXD_UID


def test_ports_that_go_and_come_back_renew_both_files(make_device):
    device = make_device(wrapper=STRACE, patience=4)
    device.describe(PORTS + port("extra", 16, optional="true"))
    device.start()
    before = counted(device, "rename")
    assert device.state.DropIOPorts(["extra"]) == ["extra"]
    device.sync()
    assert counted(device, "rename") == before + 2
    device.state.RefreshIOPorts()
    device.sync()
    assert counted(device, "rename") == before + 4


def test_a_start_that_changes_one_port_writes_once(old_device):
    old_device.settings(old_device.read(KEY_FILE).replace("[port3]", "[gone]"))
    old_device.start("--disable_legacy_interface")
    assert (syncs(old_device), renames(old_device)) == (2, 1)
    assert {"gone", "port3"} <= old_device.saved.keys()


def test_states_that_are_set_write_nothing(device):
    device.start("--disable_legacy_interface")
    before = syncs(device)
    for n in range(100):
        device.state.SetState(n % 16, n % 3 == 0)
    device.sync()
    assert (syncs(device), renames(device)) == (before, 1)


def test_settings_that_are_set_again_write_nothing(device):
    device.start("--disable_legacy_interface")
    for name in ("lamp", "lamp", "lamp", "bell", "bell"):
        device.state.SetName(0, False, name)
    device.sync()
    assert renames(device) == 1 + 2
    assert device.saved["port0"]["output_name"] == "bell"


def test_a_file_that_nobody_touches_is_not_even_read(old_device):
    device = old_device
    device.start("--disable_legacy_interface")
    before = counted(device, rf"openat\(.*{SETTINGS}")
    for n in range(100):
        device.state.SetState(n % 16, n % 3 == 0)
    device.sync()
    assert counted(device, rf"openat\(.*{SETTINGS}") == before


def in_place(path, text):
    path.write_text(text)


def replaced(path, text):
    path.with_name("edited").write_text(text)
    path.with_name("edited").rename(path)


@pytest.mark.parametrize("write", [in_place, replaced])
def test_what_somebody_else_changes_in_a_known_file_is_met(old_device, write):
    """Of the same length, so that only the file's times and its number tell."""
    device = old_device
    device.start("--disable_legacy_interface")
    device.state.SetState(0, True)
    device.sync()
    text = device.read(KEY_FILE)
    changed = text.replace("output_name=Port 1\n", "output_name=Port X\n")
    changed = changed.replace("output_name=Port 2\n", "output_name=Port Y\n")
    write(device.path(KEY_FILE), changed)
    device.state.SetState(0, False)
    device.sync()
    assert device.saved["port0"]["output_name"] == "Port 1", "the port's own settings are saved"
    assert device.saved["port1"]["output_name"] == "Port Y", "another's change is kept"


def test_what_may_not_be_on_the_disk_is_written_again(make_device):
    """The text is in the file, but the sync that was to make it last has failed."""
    inject = ("-e", "inject=fsync:error=EIO:when=4")
    device = make_device(wrapper=(*STRACE, *inject), patience=4)
    device.describe(port("out", 0))
    device.start("--disable_legacy_interface")
    device.state.SetUsage(0, "lamp")  # saved by the third and the fourth sync
    device.sync()
    assert device.stderr.count("Failed to store key file") == 1
    assert device.saved["out"]["usage"] == "lamp"
    assert renames(device) == 2
    device.state.SetState(0, True)
    device.sync()
    assert renames(device) == 3


def calls_on_the_file(device, seen):
    """The calls that change the settings file in place, in order, after the first `seen` lines."""
    lines = device.read(TRACE).splitlines()[seen:]
    calls = "(fallocate|pwrite64|ftruncate|fsync)"
    return re.findall(rf"{calls}\(\d+<[^>]*/wexd\.conf>", "\n".join(lines))


def test_a_rewriting_in_place_reaches_the_disk_before_it_cuts(device):
    device.describe(port("out", 0, usage="an old usage that is not short"))
    device.start()
    close_folder(device, file_is_writable=True)
    for usage, calls in [
        ("short", ["pwrite64", "fsync", "ftruncate", "fsync"]),
        ("longer than the one before", ["fallocate", "pwrite64", "fsync"]),
    ]:
        seen = len(device.read(TRACE).splitlines())
        device.state.SetUsage(0, usage)
        device.sync()
        assert calls_on_the_file(device, seen) == calls
