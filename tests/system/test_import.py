"""The one-time import of what the older parameter service left."""

import os
import random
import signal
import stat

import pytest
from describe import port

from sim.device import KEY_FILE
from sim.sandbox import WXD_GID, WXD_UID, child_of

IMPORT = "/tmp/wexd_ioport.conf"

PORTS = (
    port("in", 0, "input", input_name="Door")
    + port("out", 1, "output", output_name="Relay", pulse_time=700, button_type="pulse")
    + port("both", 2, "io_ctrl")
    + port("locked", 3, "io_ctrl", properties="ioport readonly", input_name="A", output_name="B")
)


def start(device, text):
    device.describe(PORTS)
    device.write(IMPORT, text)
    device.start()
    return device.saved


@pytest.mark.parametrize(
    "group, key, value, saved_group, saved_key, saved",
    [
        ("IOPort.I0.Input", "Name", "Gate", "in", "input_name", "Gate"),
        ("IOPort.I0.Input", "Name", '"Gate"', "in", "input_name", "Gate"),
        ("IOPort.I0.Input", "Name", '"Gate', "in", "input_name", "Gat"),
        ("IOPort.I0.Input", "Name", '"', "in", "input_name", ""),
        ("IOPort.I0.Input", "Name", 'Ga"te"', "in", "input_name", 'Ga"te"'),
        ("IOPort.I0.Input", "Trig", "open", "in", "input_activelow", "true"),
        ("IOPort.I0.Input", "Trig", "closed", "in", "input_activelow", "false"),
        ("IOPort.I1.Output", "Name", '"Horn"', "out", "output_name", "Horn"),
        ("IOPort.I1.Output", "Active", "open", "out", "output_activelow", "true"),
        ("IOPort.I1.Output", "Button", "none", "out", "button_type", "none"),
        ("IOPort.I1.Output", "Button", "actinact", "out", "button_type", "actinact"),
        ("IOPort.I1.Output", "Button", "push", "out", "button_type", "pulse"),
        ("IOPort.I1.Output", "PulseTime", "250", "out", "pulse_time", "250"),
        ("IOPort.I1.Output", "PulseTime", "25ms", "out", "pulse_time", "25"),
        ("IOPort.I1.Output", "PulseTime", "x25", "out", "pulse_time", "700"),
        ("IOPort.I1.Output", "DelayTime", "90", "out", "delay_time", "90"),
        ("IOPort.I1.Output", "DelayTime", "-90", "out", "delay_time", "0"),
        ("IOPort.I1.Output", "Mode", "bistable", "out", "port_mode", "bistable"),
        ("IOPort.I1.Output", "Mode", "whatever", "out", "port_mode", "monostable"),
        ("IOPort.I2", "Direction", "output", "both", "input", "false"),
        ("IOPort.I2", "Direction", "input", "both", "input", "true"),
        ("IOPort.I2.Extra", "Direction", "output", "both", "input", "false"),
        ("XXXXXXXX2Input", "Name", "Odd", "both", "input_name", "Odd"),
    ],
)
def test_a_value_is_taken_and_saved(device, group, key, value, saved_group, saved_key, saved):
    assert start(device, f"[{group}]\n{key}={value}\n")[saved_group][saved_key] == saved


def test_imported_values_win_over_saved_ones(device):
    device.settings("[out]\noutput_name=Old\noutput_activelow=false\npulse_time=1\n"
                    "port_mode=bistable\ndelay_time=0\nusage=\n")  # fmt: skip
    assert start(device, "[IOPort.I1.Output]\nName=New\n")["out"]["output_name"] == "New"


@pytest.mark.parametrize(
    "bad",
    [
        "[IOPort.I0.Input]\nTrig=Open\nName=Lost\n",
        "[IOPort.I0.Input]\nColour=red\nName=Lost\n",
        "[IOPort.I1.Output]\nActive=ajar\nName=Lost\n",
        "[IOPort.I1.Output]\nColour=red\nName=Lost\n",
        "[IOPort.I2]\nDirection=up\nName=Lost\n",
        "[IOPort.Ix.Input]\nName=Lost\n",
        "[IOPort.Ix.Output]\nName=Lost\n",
        "[IOInput]\nName=Lost\n",
        "[IOPort.I9.Output]\nName=Lost\n",
        "[IOPort.I9]\nDirection=input\n",
    ],
)
def test_a_bad_group_ends_there_and_later_ones_are_taken(device, bad):
    saved = start(device, bad + "[IOPort.I2.Input]\nName=Taken\n")
    assert saved["both"]["input_name"] == "Taken"
    assert (saved["in"]["input_name"], saved["out"]["output_name"]) == ("Door", "Relay")


def test_values_before_the_bad_one_stay(device):
    saved = start(device, "[IOPort.I0.Input]\nName=Kept\nTrig=Open\n")
    assert saved["in"]["input_name"] == "Kept"


def test_an_input_without_a_port_ends_the_import(device):
    saved = start(
        device,
        "[IOPort.I0.Input]\nName=Before\n[IOPort.I9.Input]\nName=x\n"
        "[IOPort.I1.Output]\nName=After\n",
    )
    assert saved["in"]["input_name"] == "Before"
    assert saved["out"]["output_name"] == "Relay"
    assert "No port 9 to write sedrin data to.\n" in device.stderr


@pytest.mark.parametrize("group", ["Input", "Output", "Other", "IOPort", "ioport.i0.x"])
def test_other_groups_are_ignored(device, group):
    saved = start(device, f"[{group}]\nName=Lost\nDirection=output\n")
    assert (saved["in"]["input_name"], saved["both"]["input"]) == ("Door", "true")


@pytest.mark.parametrize("number, group", [(0, "in"), (1, "out")])
def test_a_direction_of_a_fixed_port_is_ignored(device, number, group):
    start(device, f"[IOPort.I{number}]\nDirection=up\n[IOPort.I2.Input]\nName=Taken\n")
    assert "input" not in device.saved[group]
    assert device.saved["both"]["input_name"] == "Taken"


def test_a_read_only_port_keeps_its_names_and_the_import_goes_on(device):
    saved = start(device, "[IOPort.I3.Input]\nName=x\nTrig=open\n[IOPort.I0.Input]\nName=y\n")
    assert (saved["locked"]["input_name"], saved["locked"]["input_activelow"]) == ("A", "false")
    assert saved["in"]["input_name"] == "y"


def test_a_file_that_does_not_parse_is_no_obstacle(device):
    assert start(device, "no key file")["in"]["input_name"] == "Door"


def test_text_that_is_no_utf8_is_refused(device):
    device.describe(PORTS)
    device.path(IMPORT).write_bytes(b"[IOPort.I0.Input]\nName=\xff\xfe\n")
    device.start()
    assert device.state.GetNames(0) == ("Door", "")


GATE = "[IOPort.I0.Input]\nName=Gate\n"


def place_folder(path):
    path.mkdir()


def place_pipe(path):
    os.mkfifo(path)


def place_device(path):
    os.mknod(path, stat.S_IFCHR | 0o644, os.makedev(1, 5))


def place_link(path):
    path.with_name("elsewhere").write_text(GATE)
    path.symlink_to("elsewhere")


def place_link_to_nothing(path):
    path.symlink_to("nothing")


def place_foreign_file(path):
    path.write_text(GATE)
    os.chown(path, WXD_UID, WXD_GID)


@pytest.mark.parametrize(
    "place, reason",
    [
        pytest.param(place_folder, "is not a regular file", id="folder"),
        pytest.param(place_pipe, "is not a regular file", id="pipe"),
        pytest.param(place_device, "is not a regular file", id="device", marks=pytest.mark.root),
        pytest.param(place_link, "is a symbolic link, which is not followed", id="link"),
        pytest.param(place_link_to_nothing, "is a symbolic link, which is not followed", id="lost"),
        pytest.param(
            place_foreign_file, "belongs to another user", id="foreign", marks=pytest.mark.root
        ),
    ],
)
def test_nothing_but_an_own_file_is_taken(device, place, reason):
    device.describe(PORTS)
    place(device.path(IMPORT))
    device.start()
    assert device.saved["in"]["input_name"] == "Door"
    assert device.log_count("^WARNING: ") == 1
    assert device.log_count(f"^WARNING: Not importing settings: '{IMPORT}' {reason}$") == 1
    assert os.path.lexists(device.path(IMPORT)), "what is not taken is not removed"


def test_the_file_is_taken_once(device):
    start(device, GATE + "Trig=Open\n")
    assert not device.exists(IMPORT)
    assert device.state.GetNames(0)[0] == "Gate"
    device.state.SetName(0, True, "Hatch")
    device.restart()
    assert device.state.GetNames(0)[0] == "Hatch"


def test_a_file_that_does_not_parse_stays(device):
    """Its writer may not be done with it."""
    start(device, "no key file")
    assert device.read(IMPORT) == "no key file"


def test_a_file_that_no_port_could_take_stays(device):
    """The description is back at the next start."""
    device.expect("Couldn't load XML")
    device.write(IMPORT, GATE)
    device.start()
    assert device.read(IMPORT) == GATE
    device.describe(PORTS)
    device.restart()
    assert device.saved["in"]["input_name"] == "Gate"
    assert not device.exists(IMPORT)


def test_the_file_stays_while_its_settings_are_not_safe(device):
    device.describe(PORTS)
    device.write(IMPORT, GATE)
    obstacle = device.path("/etc/wexd/.wexd.conf.new")
    obstacle.mkdir()
    device.start()
    assert device.state.GetNames(0)[0] == "Gate"
    assert device.stderr.count(f"Failed to store key file {KEY_FILE}: ") == 1
    assert device.read(IMPORT) == GATE
    obstacle.rmdir()
    device.restart()
    assert device.state.GetNames(0)[0] == "Gate"
    assert not device.exists(IMPORT)


@pytest.mark.uninstrumented
def test_the_file_stays_when_only_the_first_save_has_failed(make_device):
    """Even though the next save makes good for it."""
    device = make_device(
        wrapper=("strace", "-f", "-qq", "-o", "/dev/null",
                 "-e", "trace=renameat", "-e", "inject=renameat:error=EIO:when=1"),
        patience=3,
    )  # fmt: skip
    device.describe(PORTS)
    device.write(IMPORT, GATE)
    device.start()
    assert device.stderr.count("Failed to store key file") == 1
    device.state.SetState(1, True)
    device.sync()
    assert device.saved["in"]["input_name"] == "Gate"
    assert list(device.saved) == ["locked", "both", "out", "in"]
    assert device.read(IMPORT) == GATE
    os.kill(child_of(device.pid), signal.SIGTERM)  # the tracer would not pass it on
    device.wait_exit()


def test_a_file_that_cannot_be_removed_is_a_warning(ordinary_device):
    device = ordinary_device
    device.describe(PORTS)
    folder = device.write(IMPORT, GATE).parent
    folder.chmod(0o555)
    device.start()
    folder.chmod(0o1777)
    assert device.log_count(rf"^WARNING: Could not remove {IMPORT}: Permission denied$") == 1
    assert device.saved["in"]["input_name"] == "Gate"


@pytest.mark.parametrize("seed", range(6))
def test_whatever_the_file_holds_the_daemon_starts(device, seed):
    chance = random.Random(seed)
    words = ["[IOPort.I", "]", "\n", "=", "Name", "Trig", "Input", "Output", "open", '"', "0", "9",
             "Direction", ".", "PulseTime", "\x01", "-", " ", "[", "Button", "é"]  # fmt: skip
    start(device, "".join(chance.choice(words) for _ in range(3000)))
    device.sync()
