"""Converters that are read through a buffer: layouts, triggers, and set-ups that fail."""

import contextlib
import errno
import os
import pathlib
import re
import subprocess
import tempfile
import time

import pytest

import chips
from chips import ADC_BE12, ADC_LE12, PLAIN
from gpio_ports import gpio_input
from sim.bus import PortChanged, wait_until
from supervised_ports import IIO, LEVELS, RANGES, Supervision


def start(device, *ports):
    device.describe("".join(ports))
    device.start()
    return Supervision(device)


def wait_for_level(supervision, level, number=0):
    wait_until(
        lambda: supervision.GetSupervisedReadout(number)[1] == level,
        lambda: f"{level}, not {supervision.GetSupervisedReadout(number)}",
    )


@pytest.mark.parametrize("adc", chips.ADCS, ids=lambda adc: adc.name)
def test_samples_of_every_layout_are_decoded(device, adc):
    channel = 0 if adc is chips.ADC_SINGLE else 2
    switch = adc.folder / "scan_elements"
    layout = next(switch.glob("in_voltage*_type")).read_text()
    bits = int(re.match(r".e:u(\d+)/", layout).group(1))
    supervision = start(device, IIO.port(device=adc.name, channel=channel))
    supervision.SetSupervised(0, True)
    for value in (0xA5C3F71E, 1, 0xFFFFFFFF, 0x12345678, 0):
        adc.set_value(value & ((1 << bits) - 1), channel)
        wait_for_level(supervision, value & ((1 << bits) - 1))


@pytest.mark.parametrize("shift, level", [(4, 0xABC >> 4), (11, 1), (12, 0)])
def test_a_further_shift_is_applied(device, shift, level):
    ADC_LE12.set_value(0xABC, IIO.channel)
    supervision = start(device, IIO.port(shift=shift))
    supervision.SetSupervised(0, True)
    wait_for_level(supervision, level)


def test_the_trigger_is_made_named_and_paced(device):
    start(device, IIO.port(hrtimer="zone-rate", freq=123))
    assert (chips.HRTIMER_TRIGGERS / "zone-rate").is_dir()
    trigger = next(
        f for f in chips.IIO_DEVICES.glob("trigger*") if (f / "name").read_text() == "zone-rate\n"
    )
    assert float((trigger / "sampling_frequency").read_text()) == 123
    assert ADC_LE12.attribute("trigger/current_trigger") == "zone-rate"
    assert ADC_LE12.attribute("buffer/enable") == "1"
    assert ADC_LE12.attribute(f"scan_elements/in_voltage{IIO.channel}_en") == "1"


def test_a_trigger_and_a_running_buffer_of_an_earlier_life_are_taken_over(device):
    ADC_LE12.set_value(75, IIO.channel)
    supervision = start(device, IIO.port())
    supervision.SetSupervised(0, True)
    wait_for_level(supervision, 75)
    device.kill()
    device.start()
    supervision = Supervision(device)
    ADC_LE12.set_value(140, IIO.channel)
    wait_for_level(supervision, 140)


def test_a_port_of_the_converter_alone_shows_its_state_as_level(device):
    supervision = start(device, IIO.port(mode="adc", pins=""))
    assert supervision.IsSupervisable(0) == (False, False)
    signals = device.signals()
    IIO.show("closed")
    signals.wait_for(PortChanged, port=0, state=True)
    wait_until(lambda: device.state.GetState(0), "the closed state")
    IIO.show("open")
    signals.wait_for(PortChanged, port=0, state=False)
    assert device.state.GetState(0) is False


@pytest.mark.parametrize(
    "fault, message",
    [
        ({"device": "bench-adc-none", "adc": "bench-adc-le12"}, r"Failed to find device name: -1 \d"),
        ({"adc": "bench-adc-none"}, r"Failed to find device name: \d -1"),
        ({"hrtimer": "no/such/trigger"}, "Failed to find trigger"),
        ({"channel": 9}, "Failed to find device type: No such file"),
    ],
)
def test_a_fault_of_the_description_drops_only_its_port(root_device, fault, message):
    start(root_device, IIO.port(**fault), gpio_input("door", 1, PLAIN[8]))
    assert list(root_device.ports()) == [1]
    assert root_device.log_count(f"^WARNING: {message}") == 1
    assert root_device.log_count("^WARNING: Failed to setup iio device.") == 1
    assert not any(line.taken for line in (IIO.inputs, IIO.ioctrl, IIO.sioctrl))


def test_a_trigger_that_cannot_be_made_is_told_by_its_folder(root_device):
    start(root_device, IIO.port(hrtimer="no/such/trigger"), gpio_input("door", 1, PLAIN[8]))
    folder = chips.HRTIMER_TRIGGERS / "no/such/trigger"
    told = [line for line in root_device.log if line.startswith("WARNING")][:3]
    assert re.fullmatch(f"WARNING: Failed to create sysfs directory '{folder}': .+", told[0])
    assert told[1:] == [
        "WARNING: Failed to find trigger",
        "WARNING: Failed to setup iio device.",
    ]


def test_a_pace_that_the_trigger_refuses_is_told_only(device):
    IIO.show("closed")
    supervision = start(device, IIO.port(freq="none"))
    path = f"{chips.IIO_DEVICES}/trigger[0-9]+/sampling_frequency"
    refused = os.strerror(errno.EINVAL)
    assert device.log_count(f"^WARNING: Failed to write sysfs path '{path}': {refused}$") == 1
    supervision.SetSupervised(0, True)
    wait_for_level(supervision, LEVELS["closed"])


def test_a_converter_that_runs_on_another_trigger_keeps_it(device):
    """The kernel changes nothing about a buffer that runs, and its samples are as good."""
    start(device, IIO.port(hrtimer="first-rate"))
    device.kill()
    IIO.show("closed")
    supervision = start(device, IIO.port(hrtimer="other-rate"))
    path = ADC_LE12.folder / "trigger/current_trigger"
    refused = os.strerror(errno.EBUSY)
    assert device.log_count(f"^WARNING: Failed to write sysfs path '{path}': {refused}$") == 1
    assert ADC_LE12.attribute("trigger/current_trigger") == "first-rate"
    supervision.SetSupervised(0, True)
    wait_for_level(supervision, LEVELS["closed"])


def test_a_converter_that_is_open_elsewhere_drops_only_its_port(device):
    with open(ADC_LE12.node, "rb", buffering=0):
        start(device, IIO.port(), gpio_input("door", 1, PLAIN[8]))
    assert list(device.ports()) == [1]
    assert device.log_count(f"^WARNING: Failed to open device: {os.strerror(16)}") == 1


def test_two_ports_on_two_converters(device):
    supervision = start(
        device,
        IIO.port(mode="adc", pins=""),
        IIO.port("gate", 1, mode="adc", pins="", device=ADC_BE12.name, hrtimer="gate-rate"),
    )
    signals = device.signals()
    IIO.show("closed")
    signals.wait_for(PortChanged, port=0, state=True)
    ADC_BE12.set_value(75, IIO.channel)
    signals.wait_for(PortChanged, port=1, state=True)
    assert supervision.GetSupervisedPortNumbers() == []


def test_a_second_port_on_a_converter_is_dropped_and_leaves_the_first_alone(device):
    start(
        device,
        IIO.port("gate", 1, mode="adc", pins="", channel=0),
        IIO.port("zone", 0, mode="adc", pins=""),
    )
    assert device.log_count(f"^WARNING: Failed to open device: {os.strerror(16)}") == 1
    (served,) = device.ports()
    signals = device.signals()
    for state in ("closed", "open", "closed"):
        for channel in (0, IIO.channel):
            ADC_LE12.set_value(LEVELS[state], channel)
        signals.wait_for(PortChanged, port=served, state=state == "closed")
    assert device.log_count("^WARNING: read Error") == 0


def test_a_converter_that_vanishes_costs_nothing_and_returns(root_device):
    """The kernel tells a reader nothing when a converter goes, so its last state stays."""
    IIO.show("closed")
    supervision = start(root_device, IIO.port(optional="true"), gpio_input("door", 1, PLAIN[8]))
    supervision.SetSupervised(0, True)
    wait_for_level(supervision, 75)
    signals = root_device.signals()
    ADC_LE12.unplug()
    PLAIN[8].pull(1)
    signals.wait_for(PortChanged, port=1, state=True)
    wait_until(lambda: root_device.passes_a_second_at_rest, "a stretch of quiet")
    assert root_device.log_count("^WARNING: read Error") <= 1

    root_device.state.DropIOPorts(["zone"])
    root_device.state.RefreshIOPorts()
    assert list(root_device.ports()) == [1]
    ADC_LE12.plug()
    IIO.show("open")
    root_device.state.RefreshIOPorts()
    assert sorted(root_device.ports()) == [0, 1]
    wait_for_level(supervision, 140)


def test_the_ranges_come_from_the_description(device):
    supervision = start(device, IIO.port())
    assert supervision.GetSupervisedRanges(0) == [tuple(entry) for entry in RANGES]


def in_scan(adc):
    """What a scan of the converter holds."""
    folder = adc.folder / "scan_elements"
    return sorted(file.name for file in folder.glob("*_en") if file.read_text() == "1\n")


@pytest.mark.parametrize("others", [["in_voltage0"], ["in_timestamp"], ["in_voltage3", "in_timestamp"]])
def test_what_else_is_in_the_scan_is_taken_out(device, others):
    for other in others:
        (ADC_LE12.folder / "scan_elements" / f"{other}_en").write_text("1")
    IIO.show("closed")
    supervision = start(device, IIO.port())
    supervision.SetSupervised(0, True)
    wait_for_level(supervision, LEVELS["closed"])
    assert in_scan(ADC_LE12) == [f"in_voltage{IIO.channel}_en"]
    IIO.show("open")
    wait_for_level(supervision, LEVELS["open"])
    assert device.log_count("^WARNING") == 0


def test_a_channel_of_an_earlier_description_is_taken_out(device):
    start(device, IIO.port(channel=3))
    device.kill()
    assert in_scan(ADC_LE12) == ["in_voltage3_en"]
    IIO.show("closed")
    supervision = start(device, IIO.port())
    supervision.SetSupervised(0, True)
    wait_for_level(supervision, LEVELS["closed"])
    assert in_scan(ADC_LE12) == [f"in_voltage{IIO.channel}_en"]
    assert device.log_count("^WARNING: read Error") == 0


@contextlib.contextmanager
def stuck(file):
    """Covers a file by one that cannot be written."""
    with tempfile.TemporaryDirectory() as folder:
        cover = pathlib.Path(folder, "cover")
        cover.write_text(file.read_text())
        mount = "/usr/bin/mount"
        subprocess.run([mount, "--bind", cover, file], check=True)
        subprocess.run([mount, "-o", "remount,bind,ro", file], check=True)
        try:
            yield
        finally:
            subprocess.run(["/usr/bin/umount", file], check=True)


@pytest.mark.parametrize(
    "channel, kept, told",
    [
        (0, "1", "holds in_voltage0_en besides the port's channel"),
        (IIO.channel, "0", "does not take the port's channel"),
    ],
)
def test_a_scan_that_cannot_be_changed_drops_only_its_port(device, channel, kept, told):
    switch = ADC_LE12.folder / f"scan_elements/in_voltage{channel}_en"
    switch.write_text(kept)
    with stuck(switch):
        start(device, IIO.port(), gpio_input("door", 1, PLAIN[8]))
        assert list(device.ports()) == [1]
    assert device.log_count(f"^WARNING: The scan of bench-adc-le12 {told}$") == 1
    assert device.log_count("^WARNING: Failed to setup iio device.") == 1
    assert ADC_LE12.attribute("buffer/enable") == "0"


def change_scan(adc, element, switch):
    """As another program does it."""
    (adc.folder / "buffer/enable").write_text("0")
    (adc.folder / f"scan_elements/{element}_en").write_text(switch)
    (adc.folder / "buffer/enable").write_text("1")


def test_samples_that_cannot_be_read_cost_nothing_and_are_told_once(device):
    IIO.show("closed")
    supervision = start(device, IIO.port(freq=200))
    supervision.SetSupervised(0, True)
    wait_for_level(supervision, LEVELS["closed"])
    signals = device.signals()
    for _ in range(2):
        change_scan(ADC_LE12, "in_voltage0", "1")
        signals.wait_for(PortChanged, port=0)  # undefined
        used, told = device.cpu_s, device.log_count("^WARNING")
        time.sleep(4)  # the time itself is what is looked at
        assert device.cpu_s - used < 1
        assert device.log_count("^WARNING") == told
        change_scan(ADC_LE12, "in_voltage0", "0")
        signals.wait_for(PortChanged, port=0, state=True)  # closed
    assert device.log_count("^WARNING: read Error: Invalid argument$") == 2
    assert device.log_count("^WARNING: Readout failed: Invalid argument$") == 2
    assert device.log_count("Converter of port 0 can be read again$") == 2
    IIO.show("open")
    signals.wait_for(PortChanged, port=0, state=False)
    signals.assert_none()


def wait_for_samples(adc, count):
    before = adc.samples
    wait_until(lambda: adc.samples - before >= count, f"{count} samples")


def test_samples_of_before_are_not_reported(device):
    """The buffer keeps the oldest ones, until somebody fetches them."""
    IIO.show("cut")
    supervision = start(device, IIO.port(freq=100))
    for _ in range(3):
        wait_for_samples(ADC_LE12, 3)
        IIO.show("closed")
        signals = device.signals()
        supervision.SetSupervised(0, True)
        signals.wait_for(PortChanged, port=0, state=True)
        wait_for_samples(ADC_LE12, 3)
        device.sync()
        signals.assert_none(PortChanged)
        assert supervision.GetSupervisedReadout(0) == ("closed", LEVELS["closed"])
        IIO.show("open")
        signals.wait_for(PortChanged, port=0, state=False)
        supervision.SetSupervised(0, False)
        IIO.show("cut")
    assert device.log_count("event send .*SupervisedPort .*state=cut ") == 0
