"""Converters on plain sysfs files: what set-up says and writes, step by step, up to the device node,
which these devices lack."""

import pytest
from describe import element, port

DEVICES = "/sys/bus/iio/devices"
TRIGGERS = "/sys/kernel/config/iio/triggers/hrtimer"
ADC = f"{DEVICES}/iio:device2"
CONSUMER = f"{DEVICES}/iio:device5"
TIMER = f"{DEVICES}/trigger3"

NO_DEVICE = r"WARNING: Failed to setup iio device\.$"


def converter(device, *, channel="2", kind="le:u12/16>>0\n", current="\n"):
    """Two devices and a trigger, as the kernel shows them."""
    files = {
        f"{ADC}/name": "adc\n",
        f"{ADC}/buffer/enable": "0\n",
        f"{ADC}/scan_elements/in_voltage{channel}_en": "0\n",
        f"{ADC}/scan_elements/in_voltage{channel}_type": kind,
        f"{CONSUMER}/name": "consumer\n",
        f"{CONSUMER}/trigger/current_trigger": current,
        f"{TIMER}/name": "timer\n",
        f"{TIMER}/sampling_frequency": "100000\n",
    }
    for path, text in files.items():
        device.write(path, text).chmod(0o666)
    device.path(f"{TRIGGERS}/timer").mkdir(parents=True)


SAMPLED = dict(mode="adc", name="adc", adc="consumer", hrtimer="timer", freq="50", channel="2")


def start(device, **changed):
    settings = element("device", **(SAMPLED | changed))
    device.describe(
        port("s", 0, "input", "iio", backend_inside=settings, optional="true") + port("other", 1)
    )
    device.start()


def warnings(device):
    return [line for line in device.log if line.startswith("WARNING")]


@pytest.mark.parametrize("channel, number", [("2", "2"), ("", "7")])
def test_the_converter_is_prepared_before_its_node_is_opened(device, channel, number):
    converter(device, channel=channel)
    start(device, channel=number)
    assert warnings(device)[-2:] == [
        "WARNING: Failed to open device: No such file or directory",
        "WARNING: Failed to setup iio device.",
    ]
    assert device.read(f"{TIMER}/sampling_frequency") == "50"
    assert device.read(f"{CONSUMER}/trigger/current_trigger") == "timer"
    assert device.read(f"{ADC}/scan_elements/in_voltage{channel}_en") == "1"
    assert device.read(f"{ADC}/buffer/enable") == "1"


@pytest.mark.parametrize(
    "before, after", [("timer\n", "timer\n"), ("other-and-longer\n", "timer")]
)
def test_a_trigger_that_is_bound_already_is_not_written(device, before, after):
    converter(device, current=before)
    start(device)
    assert device.read(f"{CONSUMER}/trigger/current_trigger") == after


@pytest.mark.parametrize(
    "changed, numbers",
    [
        (dict(name="none"), "-1 5"),
        (dict(adc="none"), "2 -1"),
        (dict(name="timer", adc="none"), "-1 -1"),
    ],
)
def test_a_device_that_is_not_there(device, changed, numbers):
    converter(device)
    start(device, **changed)
    assert warnings(device)[-2:] == [
        f"WARNING: Failed to find device name: {numbers}",
        "WARNING: Failed to setup iio device.",
    ]


def test_no_devices_at_all(device):
    start(device)
    assert device.log_count(f"^WARNING: Failed to open sysfs path: {DEVICES}/$") == 2
    assert device.log_count("^WARNING: Failed to find device name: -1 -1$") == 1


def test_a_trigger_that_does_not_appear(device):
    converter(device)
    device.path(TRIGGERS).chmod(0o777)
    start(device, hrtimer="new")
    assert warnings(device)[-2:] == [
        "WARNING: Failed to find trigger",
        "WARNING: Failed to setup iio device.",
    ]
    assert device.path(f"{TRIGGERS}/new").is_dir()


def test_a_type_that_cannot_be_read(device):
    converter(device, channel="2")
    start(device, channel="4")
    path = f"{ADC}/scan_elements/in_voltage4_type"
    assert device.log_count(f"^WARNING: Failed to read sysfs path '{path}': ") == 1
    assert device.log_count("^WARNING: Failed to find device type: ") == 1
    assert device.log_count(NO_DEVICE) == 1
    assert device.read(f"{ADC}/buffer/enable") == "0\n"


def test_files_that_cannot_be_written_are_told_only(device):
    converter(device)
    device.path(f"{TIMER}/sampling_frequency").unlink()
    device.path(f"{ADC}/buffer/enable").unlink()
    start(device)
    for path, times in ((f"{TIMER}/sampling_frequency", 1), (f"{ADC}/buffer/enable", 2)):
        told = f"^WARNING: Failed to open sysfs path '{path}': No such file or directory$"
        assert device.log_count(told) == times
    assert device.log_count("^WARNING: Failed to open device: No such file or directory$") == 1


def interrupts(device, **settings):
    device.describe(
        port("s", 0, "input", "iio-interrupt", optional="true",
             backend_inside=element("device", mode="adc", **settings)) + port("other", 1)
    )  # fmt: skip
    device.start()


def test_an_interrupt_port_without_its_device(device):
    converter(device)
    interrupts(device, driver="none")
    assert warnings(device)[-3:] == [
        "WARNING: Failed to find device name",
        "WARNING: Failed to setup sysfs",
        "WARNING: Failed to setup iio device.",
    ]


def test_an_interrupt_port_without_a_node(device):
    converter(device)
    interrupts(device, driver="adc")
    assert warnings(device)[-3:] == [
        "WARNING: Failed to open device: No such file or directory",
        "WARNING: Failed to open backend->device",
        "WARNING: Failed to setup iio device.",
    ]
