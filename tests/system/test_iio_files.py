"""Converters on plain sysfs files: what set-up says and writes, step by step, and what
samples from a pipe in the place of the device node read as."""

import errno
import os
import re
import signal

import pytest
from describe import element, port

from test_gpio_files import export

from sim.bus import PortChanged, wait_until

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


def test_a_converter_is_known_by_its_whole_name(device):
    # Whichever the folder lists first.
    device.write(f"{DEVICES}/iio:device1/name", "adc-and-more\n")
    converter(device)
    device.write(f"{DEVICES}/iio:device9/name", "adc-and-more\n")
    start(device)
    assert device.read(f"{ADC}/buffer/enable") == "1"


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


@pytest.mark.parametrize(
    "kind, reason", [("\n", "Success"), ("le:u12/0>>0\n", "samples of no size")]
)
def test_a_type_that_says_nothing(device, kind, reason):
    converter(device, kind=kind)
    start(device)
    assert warnings(device)[-2:] == [
        f"WARNING: Failed to find device type: {reason}",
        "WARNING: Failed to setup iio device.",
    ]
    assert device.read(f"{ADC}/buffer/enable") == "0\n"


def test_a_consumer_without_a_trigger_file_is_told_only(device):
    converter(device)
    path = f"{CONSUMER}/trigger/current_trigger"
    device.path(path).unlink()
    start(device)
    reason = "No such file or directory"
    assert device.log_count(f"^WARNING: Failed to read sysfs path '{path}': .*{reason}$") == 1
    assert device.log_count(f"^WARNING: Failed to open sysfs path '{path}': {reason}$") == 1
    assert device.read(f"{ADC}/buffer/enable") == "1"


def test_files_that_cannot_be_written_are_told_only(device):
    converter(device)
    device.path(f"{TIMER}/sampling_frequency").unlink()
    device.path(f"{ADC}/buffer/enable").unlink()
    start(device)
    for path, times in ((f"{TIMER}/sampling_frequency", 1), (f"{ADC}/buffer/enable", 2)):
        told = f"^WARNING: Failed to open sysfs path '{path}': No such file or directory$"
        assert device.log_count(told) == times
    assert device.log_count("^WARNING: Failed to open device: No such file or directory$") == 1


SUPERVISION = "com.norv.IOSupervised.Supervised"
NODE = "/dev/iio:device2"
RANGES = (("open", 0, 99), ("closed", 100, 199), ("cut", 150, 160), ("short", 200, 65535))


class Samples:
    """A pipe as the device node: what is written to it is what the converter sends."""

    def __init__(self, device):
        self._path = device.path(NODE)
        self._path.parent.mkdir(exist_ok=True)
        os.mkfifo(self._path)
        self._path.chmod(0o666)
        self.open()
        device.on_exit(self.close)

    def open(self):
        # Open on both sides, so that neither end waits for the other.
        self._pipe = os.open(self._path, os.O_RDWR)

    def send(self, *sample):
        os.write(self._pipe, bytes(sample))

    def close(self):
        """Hangs up."""
        if self._pipe is not None:
            os.close(self._pipe)
        self._pipe = None


def sampling(device, kind, optional=None, pins="", events="", type="input", others="", **changed):
    """A device whose port 0 is the converter alone, and the signals that it sends."""
    converter(device, kind=kind)
    samples = Samples(device)
    inside = element("device", **(SAMPLED | changed)) + "".join(
        element("range", state=state, lower=lower, upper=upper) for state, lower, upper in RANGES
    )
    device.describe(
        port("s", 0, type, "iio", backend_inside=inside + pins, optional=optional, inside=events)
        + others
    )
    device.start()
    return samples, device.signals()


@pytest.mark.parametrize(
    "kind, shift, sample",
    [
        ("le:u8/8>>0", None, (120,)),
        ("le:u12/16>>4", None, (0x80, 0x07)),
        ("be:u12/16>>4", None, (0x07, 0x8F)),
        ("be:u8/16>>0", None, (0xFF, 120)),
        ("le:u24/24>>0", None, (120, 0, 0)),
        ("be:u24/24>>8", None, (0, 120, 0xFF)),
        ("be:u32/32>>0", None, (0, 0, 0, 120)),
        ("le:u32/32>>31", "40", (0, 0, 0, 0x80)),
        ("le:u16/16>>0", "3", (0xC7, 0x03)),
    ],
)
def test_a_sample_of_any_layout_is_classified(device, kind, shift, sample):
    samples, changes = sampling(device, kind, shift=shift)
    samples.send(*sample)
    # Closed is 1; beyond 32 bits nothing is left of a sample, which is open, 0.
    closed = shift != "40"
    changes.wait_for(PortChanged, port=0, state=closed)
    assert device.state.GetState(0) is closed


def test_a_change_is_told_once_and_the_last_range_counts(device):
    samples, changes = sampling(device, "le:u8/8>>0")
    for level, state in ((120, True), (99, False), (100, True), (155, True), (0, False)):
        for _ in range(3):
            samples.send(level)
        changes.wait_for(PortChanged, port=0, state=state)
    device.sync()
    changes.assert_none(PortChanged)
    # Cut is 3, no level at all.
    samples.send(155)
    changes.wait_for(PortChanged, port=0, state=True)
    assert device.state.GetState(0) is False


def test_a_sample_cut_short_is_undefined(device):
    samples, changes = sampling(device, "le:u8/16>>0")
    samples.send(120, 0)
    changes.wait_for(PortChanged, port=0, state=True)
    samples.send(120)
    changes.wait_for(PortChanged, port=0, state=True)  # 4, undefined
    assert device.log_count("^WARNING: read Error: ") == 1
    assert device.log_count("^WARNING: Readout failed: ") == 1
    assert device.state.GetState(0) is True  # by the last whole sample
    samples.send(0, 0)
    changes.wait_for(PortChanged, port=0, state=False)


@pytest.mark.parametrize("reason", ["sample cut short", "Is a directory"])
def test_a_node_that_cannot_be_read_is_told_with_the_reason(device, reason):
    converter(device)
    node = device.path(NODE)
    if reason == "Is a directory":
        node.mkdir(parents=True)
    else:
        device.write(NODE, "").chmod(0o666)
    start(device)
    device.wait_for_log(f"^WARNING: read Error: {reason}$")


def descriptors(device):
    device.sync()  # a call is answered before its settings are saved
    return len(os.listdir(f"/proc/{device.pid}/fd"))


def test_drops_and_refreshes_leave_one_reader_and_no_descriptors(device):
    samples, changes = sampling(device, "le:u8/8>>0", optional="true")
    device.state.DropIOPorts(["s"])
    device.state.RefreshIOPorts()
    before = descriptors(device)
    for _ in range(20):
        assert device.state.DropIOPorts(["s"]) == ["s"]
        device.state.RefreshIOPorts()
    assert descriptors(device) == before
    changes.take()
    for level, state in ((120, True), (50, False)):
        samples.send(level)
        changes.wait_for(PortChanged, port=0, state=state)
    changes.assert_none(PortChanged)
    device.state.DropIOPorts(["s"])
    assert descriptors(device) < before


def test_a_port_that_comes_and_goes_leaves_the_others_as_they_are(device):
    """All ports are watched anew then; one that is watched already reports nothing twice."""
    samples, changes = sampling(device, "le:u8/8>>0", others=port("other", 1, optional="true"))
    samples.send(120)
    changes.wait_for(PortChanged, port=0, state=True)
    assert device.state.DropIOPorts(["other"]) == ["other"]
    device.state.RefreshIOPorts()
    samples.send(120)
    samples.send(50)
    changes.wait_for(PortChanged, port=0, state=False)
    changes.assert_none(PortChanged, port=0)


SUPERVISED_PINS = "".join(
    element(tag, pin=pin) for tag, pin in (("input", 17), ("io_ctrl", 18), ("sio_ctrl", 19))
)


def supervisable(device, more_pins="", **more):
    """As sampling(), with pins; the supervision interface is there."""
    sent = sampling(device, "le:u8/8>>0", pins=SUPERVISED_PINS + more_pins, mode=None, **more)
    wait_for_supervision(device)
    return sent


def wait_for_supervision(device):
    wait_until(
        lambda: device.first_client.owner(SUPERVISION) is not None, f"{SUPERVISION} on the bus"
    )


def test_supervision_on_and_off_reads_the_converter_or_the_pin(device):
    pin, *controls = (export(device, number) for number in (17, 18, 19))
    samples, changes = supervisable(device)

    def supervise(on):
        device.supervision.SetSupervised(0, on)
        return [device.read(f"{folder}/value") for folder in controls]

    before = descriptors(device)
    for _ in range(20):
        assert supervise(True) == ["0\n", "1\n"]
        changes.take()
        samples.send(120)
        changes.wait_for(PortChanged, port=0, state=True)
        assert device.supervision.GetSupervisedReadout(0) == ("closed", 120)
        samples.send(50)
        changes.wait_for(PortChanged, port=0, state=False)
        assert supervise(False) == ["1\n", "0\n"]
        device.write(f"{pin}/value", "1\n")
        assert device.state.GetState(0) is True
    assert descriptors(device) == before


def states_told(device):
    """What the events have told of the line."""
    told = (re.search(r"event send .*SupervisedPort .*state=(\w+)", line) for line in device.log)
    return [match[1] for match in told if match]


def test_a_line_has_no_state_before_its_first_sample(device):
    """Neither that of a level of 0 nor that of the line as it was before it was switched over."""
    event = element(
        "event", declaration="com.norv.Event.Wxd.SupervisedPort", supervised_input="true",
        input="false", output="false",
    )  # fmt: skip
    for number in (17, 18, 19):
        export(device, number)
    samples, _ = supervisable(device, events=event)
    for level, state in ((120, "closed"), (155, "cut")):
        already = len(states_told(device))
        device.supervision.SetSupervised(0, True)
        assert device.supervision.GetSupervisedReadout(0)[0] == "undefined"
        wait_until(lambda: len(states_told(device)) > already, "the first state")  # noqa: B023
        samples.send(level)
        device.wait_for_log(f"event send .*SupervisedPort .*state={state} ")
        assert states_told(device)[already:] == ["undefined", state]
        # Told once more, it does not forget the line's state.
        device.supervision.SetSupervised(0, True)
        assert device.supervision.GetSupervisedReadout(0) == (state, level)
        device.sync()
        if state == "closed":
            device.supervision.SetSupervised(0, False)

    device.restart()
    wait_for_supervision(device)
    assert device.supervision.GetSupervisedReadout(0) == ("undefined", 0)
    # It serves before it tells the first state.
    wait_until(lambda: states_told(device), "the first state")
    samples.send(50)
    device.wait_for_log("event send .*SupervisedPort .*state=open ")
    assert states_told(device) == ["undefined", "open"]


def configurable(device):
    """As supervisable(), with a line that can be turned; it is an input."""
    export(device, 20)
    sent = supervisable(device, type="io_ctrl", more_pins=element("output", pin=20))
    device.state.SetDirection(0, "input")
    return sent


def test_a_line_that_is_turned_to_where_it_is_keeps_its_state(device):
    """Only one that comes back to the converter has to be measured first."""
    _, *controls = (export(device, number) for number in (17, 18, 19))
    samples, changes = configurable(device)
    device.supervision.SetSupervised(0, True)
    samples.send(120)
    wait_until(
        lambda: device.supervision.GetSupervisedReadout(0) == ("closed", 120), "the first sample"
    )
    changes.take()
    device.state.SetDirection(0, "input")
    assert device.supervision.GetSupervisedReadout(0) == ("closed", 120)
    changes.wait_for(PortChanged, port=0, state=True)
    device.state.SetDirection(0, "output")
    assert [device.read(f"{folder}/value") for folder in controls] == ["0\n", "0\n"]
    device.state.SetDirection(0, "input")
    assert [device.read(f"{folder}/value") for folder in controls] == ["0\n", "1\n"]
    assert device.supervision.GetSupervisedReadout(0)[0] == "undefined"


def test_an_output_that_ends_its_supervision_keeps_what_was_measured_last(device):
    for number in (17, 18, 19):
        export(device, number)
    samples, _ = configurable(device)
    device.supervision.SetSupervised(0, True)
    samples.send(120)
    wait_until(
        lambda: device.supervision.GetSupervisedReadout(0) == ("closed", 120), "the first sample"
    )
    device.state.SetDirection(0, "output")
    device.supervision.SetSupervised(0, False)
    assert device.state.GetDirection(0) == "input"
    assert device.supervision.GetSupervisedReadout(0) == ("closed", 120)


def test_what_cannot_be_read_is_told_anew_with_each_supervision(device):
    for number in (17, 18, 19):
        export(device, number)
    samples, _ = sampling(device, "le:u8/16>>0", pins=SUPERVISED_PINS, mode=None)
    wait_for_supervision(device)
    for times in (1, 2):
        device.supervision.SetSupervised(0, True)
        samples.send(120)
        device.wait_for_log("^WARNING: read Error: sample cut short$", count=times)
        device.supervision.SetSupervised(0, False)


def test_a_converter_that_hangs_up_is_told_once_and_read_again_when_it_is_back(device):
    samples, changes = sampling(device, "le:u8/8>>0")
    samples.send(120)
    changes.wait_for(PortChanged, port=0, state=True)
    for times, (level, state) in enumerate(((50, False), (120, True)), 1):
        samples.close()
        told = "^WARNING: adc hung up, looking at it again every 100 ms$"
        device.wait_for_log(told, count=times)
        # Nothing was read, so nothing has changed.
        assert device.state.GetState(0) is not state
        changes.assert_none(PortChanged)
        samples.open()
        samples.send(level)
        changes.wait_for(PortChanged, port=0, state=state)
    assert device.log_count(" hung up, ") == 2
    assert device.log_count("read Error") == 0


@pytest.mark.parametrize(
    "kind, condition",
    [
        ("le:s12/16>>0", "backend->iio_type.sign == 'u'"),
        ("le:u33/32>>0", "backend->iio_type.bits <= 32"),
        ("le:u12/64>>0", "backend->iio_type.size <= 32"),
        ("le:u12/12>>0", "backend->iio_type.size % 8 == 0"),
    ],
)
def test_a_layout_that_no_converter_here_has_is_a_mistake(device, kind, condition):
    converter(device, kind=kind)
    device.expect(f"assertion failed: \\({re.escape(condition)}\\)")
    device.describe(port("s", 0, "input", "iio", backend_inside=element("device", **SAMPLED)))
    device.start(ready=False)
    device.wait_exit(128 + signal.SIGABRT)


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


def test_an_interrupt_port_whose_node_has_no_events(device):
    converter(device)
    device.write(NODE, "")
    interrupts(device, driver="adc")
    assert warnings(device)[-3:] == [
        f"WARNING: Failed to open device {NODE}: Inappropriate ioctl for device",
        "WARNING: Failed to open backend->device",
        "WARNING: Failed to setup iio device.",
    ]


def test_an_entry_without_a_number_is_told_and_passed_over(device):
    converter(device)
    device.path(f"{DEVICES}/iio:device-less").mkdir()
    device.path(f"{DEVICES}/iio_hwmon").mkdir()
    start(device, name="none")
    told = "^WARNING: Failed to find device number for device iio:device-less: "
    assert device.log_count(told) >= 1
    assert device.log_count("iio_hwmon") == 0
    assert device.log_count("^WARNING: Failed to find device name: -1 5$") == 1


def test_the_ranges_of_a_description_follow_the_order_of_their_attributes(device):
    """ "upper" takes what came before it; what comes later waits for the next one."""
    pins = element("input", pin=1)
    inside = (
        pins
        + element("range", state="open", lower=0, upper=10)
        + "<range upper='30' state='closed' lower='20'/>"
        + element("range", upper=40)
        + element("range", state="short", lower=60, upper=60)
        + element("range", state="Cut", lower=70, upper=80)
        + element("range", state="cut", lower=-5, upper=65535)
    )
    device.expect("iio_setup_gpio: assertion")  # there is no pin
    device.describe(port("s", 0, "input", "iio", backend_inside=inside) + port("other", 1))
    device.start()
    told = [line for line in device.log if "Failed to configure port" in line]
    assert told == [
        "WARNING: Failed to configure port: State is undefined.",
        "WARNING: Failed to configure port: Invalid range.",
        "WARNING: Failed to configure port: State is undefined.",
    ]
    saved = next(group for group in device.saved.values() if "supervised_input_ranges" in group)
    assert saved["supervised_input_ranges"] == (
        "[('open', uint32 0, uint32 10), ('closed', 20, 40), ('cut', 4294967291, 65535)]"
    )


@pytest.fixture
def closing_badly(make_device, preloadable):
    """Its converters' and triggers' files for the rate fail when they are closed."""
    library = "/run/broken-close.so"
    preload = (f"LD_PRELOAD={library}", "BROKEN_CLOSE=/sampling_frequency")
    device = make_device(wrapper=("env", *preload))
    device.write(library, preloadable("broken-close.c").read_bytes())
    return device


@pytest.mark.uninstrumented
def test_a_file_that_cannot_be_closed_is_told_only(closing_badly):
    converter(closing_badly)
    start(closing_badly)
    told = f"^WARNING: Failed to close sysfs path '{TIMER}/sampling_frequency': {os.strerror(errno.EIO)}$"
    assert closing_badly.log_count(told) == 1
    assert closing_badly.read(f"{TIMER}/sampling_frequency") == "50"
    assert closing_badly.read(f"{ADC}/buffer/enable") == "1"


@pytest.mark.uninstrumented
def test_a_devices_setting_that_cannot_be_closed_is_told_only(closing_badly):
    converter(closing_badly)
    closing_badly.write(NODE, "")
    files = [f"{ADC}/sampling_frequency"]
    files += (f"{ADC}/events/in_voltage2_thresh_{name}" for name in ("rising_value", "falling_value", "either_en"))
    for path in files:
        closing_badly.write(path, "").chmod(0o666)
    interrupts(closing_badly, driver="adc", channel="2", shared_samplefreq="12")
    assert warnings(closing_badly) == ["WARNING: Couldn't close sampling_frequency"]
    assert closing_badly.read(f"{ADC}/sampling_frequency") == "12"
    assert 0 in closing_badly.ports()
