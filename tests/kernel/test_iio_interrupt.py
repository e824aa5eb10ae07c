"""Converters that wake the daemon by threshold events: what is armed, when, and what follows."""

import errno
import itertools
import os
import re
import time

import pytest

from chips import ADC_BE12, ADC_LE12, PLAIN
from gpio_ports import gpio_input
from sim.bus import PortChanged, wait_until
from supervised_ports import IIO_EITHER, IIO_INTERRUPT, LEVELS, RANGES, Supervision

CHANNEL = IIO_INTERRUPT.channel


def start(device, *ports, supervised=True):
    device.describe("".join(ports))
    device.start()
    supervision = Supervision(device)
    if supervised:
        supervision.SetSupervised(0, True)
    return supervision


def warnings(device):
    return [line for line in device.log if line.startswith("WARNING")]


def armed(adc=ADC_LE12, channel=f"voltage{CHANNEL}"):
    """(rising threshold, falling threshold, what is enabled) of a channel."""
    folder = adc.folder / "events"
    value = lambda name: (folder / f"in_{channel}_thresh_{name}").read_text().strip()  # noqa: E731
    switches = [name for name in ("rising", "falling", "either")
                if (folder / f"in_{channel}_thresh_{name}_en").exists()]  # fmt: skip
    enabled = [name for name in switches if value(f"{name}_en") == "1"]
    return int(value("rising_value")), int(value("falling_value")), enabled


@pytest.mark.parametrize("hysteresis", [0, 7])
@pytest.mark.parametrize("bitshift", [0, 3])
def test_thresholds_are_armed_around_the_range(device, hysteresis, bitshift):
    IIO_INTERRUPT.show("closed")
    start(device, IIO_INTERRUPT.port(hysteresis=hysteresis, bitshift=bitshift))
    for state, lower, upper in (*RANGES, *reversed(RANGES)):
        ADC_LE12.set_value((lower + upper) // 2 << bitshift, CHANNEL)
        rising, falling = (upper + hysteresis) << bitshift, (lower - hysteresis) << bitshift
        wait_until(
            lambda: armed() == (rising, falling, ["rising", "falling"]),
            lambda: f"{rising} and {falling} around {state}; there are {armed()}",
        )


def test_nothing_is_armed_before_supervision_or_after(device):
    IIO_INTERRUPT.show("closed")
    supervision = start(device, IIO_INTERRUPT.port(), supervised=False)
    assert armed() == (1, 0, [])
    supervision.SetSupervised(0, True)
    assert armed() == (100, 50, ["rising", "falling"])
    supervision.SetSupervised(0, False)
    assert armed()[2] == []
    IIO_INTERRUPT.show("cut")
    assert ADC_LE12.events(CHANNEL) == 0


def test_a_converter_with_one_switch_for_both_directions(device):
    IIO_EITHER.show("closed")
    supervision = start(device, IIO_EITHER.port())
    assert armed(ADC_BE12) == (100, 50, ["either"])
    supervision.SetSupervised(0, False)
    assert armed(ADC_BE12)[2] == []


@pytest.mark.parametrize(
    "state, expected", [("short", (45, 0, ["rising"])), ("closed", (1, 45, ["falling"]))]
)
def test_one_threshold_at_a_time(device, state, expected):
    IIO_INTERRUPT.show(state)
    start(device, IIO_INTERRUPT.port(one_threshold="true", hysteresis=5))
    assert armed() == expected


def test_one_threshold_on_a_converter_with_one_switch(device):
    IIO_EITHER.show("closed")
    start(device, IIO_EITHER.port(one_threshold="true", hysteresis=5))
    assert armed(ADC_BE12) == (1, 45, ["either"])


def test_a_level_within_the_hysteresis_wakes_nobody(device):
    ADC_LE12.set_value(75, CHANNEL)
    start(device, IIO_INTERRUPT.port(hysteresis=8))
    signals = device.signals()
    for level in (100, 108, 50, 42, 75):
        ADC_LE12.set_value(level, CHANNEL)
    assert ADC_LE12.events(CHANNEL) == 0
    ADC_LE12.set_value(120, CHANNEL)
    signals.wait_for(PortChanged, port=0, input=True)
    assert ADC_LE12.events(CHANNEL) == 1
    wait_until(
        lambda: armed() == (188, 102, ["rising", "falling"]), "thresholds around the new range"
    )


def reported(device):
    """The state that the last event of the log tells."""
    events = [line for line in device.log if "event send" in line and "SupervisedPort" in line]
    return re.search(r" state=(\w+)", events[-1])[1] if events else None


def test_a_change_between_a_reading_and_the_arming_is_noticed(device):
    """The converter tells crossings only, so nobody would tell of it afterwards."""
    IIO_INTERRUPT.show("closed")
    start(device, IIO_INTERRUPT.port())
    ends = (("cut", (255, 200)), ("short", (40, 0)), ("open", (180, 110)))
    for changes, (state, thresholds) in zip(range(40, 240, 8), itertools.cycle(ends)):
        for i in range(changes):
            IIO_INTERRUPT.show("open" if i % 2 == 0 else "closed")
        IIO_INTERRUPT.show(state)
        wait_until(
            lambda: armed() == (*thresholds, ["rising", "falling"]),
            lambda: f"thresholds around {state} after {changes} changes, not {armed()}",
        )
        wait_until(
            lambda: reported(device) == state,
            lambda: f"{state} to be reported after {changes} changes, not {reported(device)}",
        )


def test_a_thousand_changes_do_no_harm(device):
    IIO_INTERRUPT.show("closed")
    supervision = start(device, IIO_INTERRUPT.port())
    before = device.descriptors
    for i in range(1000):
        IIO_INTERRUPT.show("open" if i % 2 == 0 else "closed")
    IIO_INTERRUPT.show("cut")
    assert supervision.GetSupervisedReadout(0)[0] == "cut"
    supervision.SetSupervised(0, False)
    supervision.SetSupervised(0, True)
    assert armed() == (255, 200, ["rising", "falling"])
    signals = device.signals()
    IIO_INTERRUPT.show("closed")
    signals.wait_for(PortChanged, port=0)
    assert device.descriptors == before


def test_beyond_a_limit_the_level_is_polled_until_it_falls_back(device):
    IIO_INTERRUPT.show("cut")
    supervision = start(device, IIO_INTERRUPT.port(upper_limit=200, limit_timeout=20))
    assert armed()[2] == []
    signals = device.signals()
    signals.take()
    IIO_INTERRUPT.show("open")
    assert ADC_LE12.events(CHANNEL) == 0
    signals.wait_for(PortChanged, port=0, input=True)
    assert supervision.GetSupervisedReadout(0)[0] == "open"
    wait_until(lambda: armed() == (180, 110, ["rising", "falling"]), "armed thresholds")


@pytest.mark.parametrize(
    "limit, polled",
    [({"upper_limit": 75}, True), ({"upper_limit": 76}, False),
     ({"lower_limit": 75}, True), ({"lower_limit": 74}, False)],
)  # fmt: skip
def test_a_level_at_a_limit_is_beyond_it(device, limit, polled):
    ADC_LE12.set_value(75, CHANNEL)
    start(device, IIO_INTERRUPT.port(**limit))
    assert armed()[2] == ([] if polled else ["rising", "falling"])


def test_of_several_ranges_that_hold_a_level_the_last_is_armed(device):
    ADC_LE12.set_value(75, CHANNEL)
    supervision = start(device, IIO_INTERRUPT.port(levels=(*RANGES, ("cut", 60, 90))))
    assert armed() == (90, 60, ["rising", "falling"])
    assert supervision.GetSupervisedReadout(0)[0] == "cut"


def test_a_lower_limit_polls_as_well_and_survives_switching_off(device):
    IIO_INTERRUPT.show("short")
    supervision = start(device, IIO_INTERRUPT.port(lower_limit=30, limit_timeout=10))
    assert armed()[2] == []
    for _ in range(20):
        supervision.SetSupervised(0, False)
        supervision.SetSupervised(0, True)
    IIO_INTERRUPT.show("closed")
    wait_until(lambda: armed() == (100, 50, ["rising", "falling"]), "armed thresholds")


@pytest.mark.parametrize("word, level", [(None, 75), ("no", 75), ("false", 80)])
def test_a_readout_may_be_of_the_level_that_was_read_last(device, word, level):
    """A level that moves within its range wakes nobody."""
    ADC_LE12.set_value(75, CHANNEL)
    supervision = start(device, IIO_INTERRUPT.port(cache_ad_value=word))
    ADC_LE12.set_value(80, CHANNEL)
    assert supervision.GetSupervisedReadout(0) == ("closed", level)
    ADC_LE12.set_value(230, CHANNEL)
    wait_until(lambda: supervision.GetSupervisedReadout(0) == ("cut", 230), "the new level")


@pytest.mark.parametrize("word, measured", [(None, (0, 1)), ("yes", (0, 1)), ("true", (1, 1))])
def test_the_line_may_stay_pulled_up_while_it_is_measured(device, word, measured):
    pins = lambda: (IIO_INTERRUPT.ioctrl.level, IIO_INTERRUPT.sioctrl.level)  # noqa: E731
    described = IIO_INTERRUPT.port(kind="io_ctrl", dir="input", pullup_when_supervised=word)
    supervision = start(device, described)
    assert pins() == measured
    device.state.SetDirection(0, "output")
    assert pins() == (0, 0)
    device.state.SetDirection(0, "input")
    assert pins() == measured
    supervision.SetSupervised(0, False)
    assert pins() == (1, 0)


def test_settings_of_the_whole_device_are_written(device):
    start(
        device,
        IIO_INTERRUPT.port(shared_samplefreq=321, integration_time=250000),
        supervised=False,
    )
    assert ADC_LE12.attribute("in_voltage_sampling_frequency") == "321"
    assert ADC_LE12.attribute("in_proximity_integration_time") == "0.250000"


def test_other_names_of_the_settings(device):
    start(
        device,
        IIO_EITHER.port(shared_samplefreq=654, shared_thresh_either_period=5),
        supervised=False,
    )
    assert ADC_BE12.attribute("sampling_frequency") == "654"
    assert ADC_BE12.attribute("events/in_voltage_thresh_either_period") == "5"


@pytest.mark.parametrize(
    "names", [{"chan_extend_name": "loop"}, {"channel_name": "voltage3_loop"},
              {"channel_name": "voltage3", "chan_extend_name": "loop"}],
)  # fmt: skip
def test_a_channel_with_a_longer_name(device, names):
    ADC_BE12.set_value(75, 3)
    supervision = start(device, IIO_EITHER.port(channel=3, **names))
    assert armed(ADC_BE12, "voltage3_loop") == (100, 50, ["either"])
    signals = device.signals()
    ADC_BE12.set_value(140, 3)
    signals.wait_for(PortChanged, port=0, input=True)
    assert supervision.GetSupervisedReadout(0) == ("open", 140)


def test_an_event_of_another_channel_is_dropped(device):
    IIO_INTERRUPT.show("closed")
    start(device, IIO_INTERRUPT.port())
    events = ADC_LE12.folder / "events"
    (events / "in_voltage0_thresh_rising_value").write_text("10")
    (events / "in_voltage0_thresh_rising_en").write_text("1")
    signals = device.signals()
    ADC_LE12.set_value(20, 0)
    assert ADC_LE12.events(0) == 1
    IIO_INTERRUPT.show("cut")
    signals.wait_for(PortChanged, port=0, input=True)
    signals.assert_none()


def test_two_ports_on_one_converter(root_device):
    """Its events serve the port that was watched first, as long as that is watched."""
    first, second = CHANNEL, 1
    for channel in (first, second):
        ADC_LE12.set_value(LEVELS["closed"], channel)
    root_device.describe(
        IIO_INTERRUPT.port("gate", 1, mode="adc", pins="", channel=second)
        + IIO_INTERRUPT.port("zone", 0, mode="adc", pins="", channel=first, optional="true")
    )
    root_device.start()
    assert root_device.descriptors.count("anon_inode:iio:event") == 1
    signals = root_device.signals()
    signals.take()
    ADC_LE12.set_value(LEVELS["open"], second)
    assert ADC_LE12.events(second) == 1
    ADC_LE12.set_value(LEVELS["open"], first)
    signals.wait_for(PortChanged, port=0, state=False)
    root_device.sync()
    signals.assert_none()

    root_device.state.DropIOPorts(["zone"])
    signals.take()
    ADC_LE12.set_value(LEVELS["closed"], second)
    signals.wait_for(PortChanged, port=1, state=True)
    root_device.state.RefreshIOPorts()
    assert sorted(root_device.ports()) == [0, 1]
    signals.take()
    ADC_LE12.set_value(LEVELS["open"], second)
    signals.wait_for(PortChanged, port=1, state=False)


@pytest.mark.parametrize(
    "fault, message",
    [
        ({"driver": "bench-adc-none"}, "Failed to find device name"),
        ({"driver": "bench-adc-u8"}, "Failed to open device /dev/iio:device5: "),
        ({"channel": 9}, "Failed to open sysfs path '.*in_voltage9_thresh_rising_value'"),
        ({"chan_extend_name": "x"}, "Failed to open sysfs path"),
    ],
)
def test_a_fault_of_the_description_drops_only_its_port(root_device, fault, message):
    start(root_device, IIO_INTERRUPT.port(**fault), gpio_input("door", 1, PLAIN[8]),
          supervised=False)  # fmt: skip
    assert list(root_device.ports()) == [1]
    assert root_device.log_count(f"^WARNING: {message}") == 1
    assert root_device.log_count("^WARNING: Failed to setup iio device.") == 1
    lines = (IIO_INTERRUPT.inputs, IIO_INTERRUPT.ioctrl, IIO_INTERRUPT.sioctrl)
    assert not any(line.taken for line in lines)
    assert not any("iio" in target for target in root_device.descriptors)


@pytest.mark.parametrize(
    "kind, missing, folders, told, reason",
    [
        (IIO_INTERRUPT, ["rising_value"], [], "rising_value", errno.ENOENT),
        (IIO_INTERRUPT, ["falling_value"], [], "falling_value", errno.ENOENT),
        (IIO_INTERRUPT, [], ["rising_en"], "rising_en", errno.EISDIR),
        (IIO_INTERRUPT, ["falling_en"], [], "falling_en", errno.ENOENT),
        (IIO_EITHER, ["either_en"], [], "either_en", errno.ENOENT),
    ],
)
def test_an_event_file_that_cannot_be_opened_drops_only_its_port(
    root_device, kind, missing, folders, told, reason
):
    name = lambda file: f"in_voltage{CHANNEL}_thresh_{file}"  # noqa: E731
    covered = kind.chip.events_folder_with(missing=map(name, missing), folders=map(name, folders))
    with covered as folder:
        start(root_device, kind.port(), gpio_input("door", 1, PLAIN[8]), supervised=False)
        assert warnings(root_device)[:2] == [
            f"WARNING: Failed to open sysfs path '{folder / name(told)}': {os.strerror(reason)}",
            "WARNING: Failed to setup iio device.",
        ]
        assert list(root_device.ports()) == [1]
        assert not any(line.taken for line in (kind.inputs, kind.ioctrl, kind.sioctrl))
        assert not any("iio" in target for target in root_device.descriptors)
        root_device.stop()


def test_a_converter_whose_events_somebody_else_takes_drops_only_its_port(device):
    with ADC_LE12.take_events():
        start(device, IIO_INTERRUPT.port(), gpio_input("door", 1, PLAIN[8]), supervised=False)
    assert list(device.ports()) == [1]
    assert warnings(device)[:3] == [
        f"WARNING: Failed to open device {ADC_LE12.node}: {os.strerror(errno.EBUSY)}",
        "WARNING: Failed to open backend->device",
        "WARNING: Failed to setup iio device.",
    ]


def test_a_converter_that_is_open_elsewhere_drops_only_its_port(device):
    with open(ADC_LE12.node, "rb", buffering=0):
        start(device, IIO_INTERRUPT.port(), gpio_input("door", 1, PLAIN[8]), supervised=False)
    assert list(device.ports()) == [1]
    assert warnings(device)[:3] == [
        f"WARNING: Failed to open device: {os.strerror(errno.EBUSY)}",
        "WARNING: Failed to open backend->device",
        "WARNING: Failed to setup iio device.",
    ]


@pytest.mark.parametrize("kind, writes", [(IIO_INTERRUPT, 6), (IIO_EITHER, 4)], ids=repr)
def test_events_that_cannot_be_armed_are_told_only(device, kind, writes):
    """Two thresholds, and each switch twice; the level is read all the same."""
    told = f"^WARNING: Failed to write sysfs: {os.strerror(errno.EIO)}$"
    kind.show("closed")
    kind.chip.fail_event_writes(errno.EIO)
    supervision = start(device, kind.port(), supervised=False)
    assert device.log_count(told) == writes
    supervision.SetSupervised(0, True)
    assert device.log_count(told) > writes
    assert supervision.GetSupervisedReadout(0) == ("closed", 75)
    assert armed(kind.chip)[2] == []
    told_so_far = device.log_count(told)
    device.sync()
    assert device.log_count(told) == told_so_far

    kind.chip.fail_event_writes(0)
    supervision.SetSupervised(0, False)
    supervision.SetSupervised(0, True)
    assert armed(kind.chip)[:2] == (100, 50)
    signals = device.signals()
    kind.show("cut")
    signals.wait_for(PortChanged, port=0, input=True)


@pytest.mark.parametrize(
    "kind, settings, message",
    [
        (IIO_INTERRUPT, {"shared_samplefreq": "fast"}, "Failed to write sysfs: Invalid argument"),
        (
            IIO_INTERRUPT,
            {"shared_thresh_either_period": 5},
            "Failed to open sysfs path '{}/events/in_voltage_thresh_either_period': "
            "No such file or directory",
        ),
        (
            IIO_EITHER,
            {"integration_time": 250000},
            "Failed to open sysfs path '{}/in_proximity_integration_time': "
            "No such file or directory",
        ),
    ],
)  # fmt: skip
def test_a_setting_that_the_device_does_not_take_is_told_only(device, kind, settings, message):
    kind.show("closed")
    supervision = start(device, kind.port(**settings))
    assert warnings(device)[0] == f"WARNING: {message.format(kind.chip.folder)}"
    assert supervision.GetSupervisedReadout(0) == ("closed", 75)
    assert armed(kind.chip)[:2] == (100, 50)


@pytest.mark.parametrize("end", ["supervision off", "turned to output", "dropped"])
def test_the_polling_beyond_a_limit_ends_with_the_watch(root_device, end):
    IIO_INTERRUPT.show("cut")
    root_device.describe(
        IIO_INTERRUPT.port(
            kind="io_ctrl", dir="input", optional="true", upper_limit=200, limit_timeout=10
        )
    )
    root_device.start()
    supervision = Supervision(root_device)
    supervision.SetSupervised(0, True)
    wait_until(lambda: not root_device.passes_a_second_at_rest, "polling")
    if end == "supervision off":
        supervision.SetSupervised(0, False)
    elif end == "turned to output":
        root_device.state.SetDirection(0, "output")
    else:
        root_device.state.DropIOPorts(["zone"])
    wait_until(lambda: root_device.passes_a_second_at_rest, "a stretch of quiet")


def test_a_reading_that_fails_is_told_and_gets_over(device):
    IIO_INTERRUPT.show("closed")
    supervision = start(device, IIO_INTERRUPT.port())
    ADC_LE12.fail_readings(errno.EIO)
    IIO_INTERRUPT.show("cut")
    device.wait_for_log("^WARNING: Readout failed: ")
    ADC_LE12.fail_readings(0)
    supervision.SetSupervised(0, False)
    supervision.SetSupervised(0, True)
    assert supervision.GetSupervisedReadout(0)[0] == "cut"
    assert armed() == (255, 200, ["rising", "falling"])


def test_a_reading_that_fails_amid_an_event_leaves_nothing_unarmed(device):
    IIO_INTERRUPT.show("closed")
    start(device, IIO_INTERRUPT.port())
    signals = device.signals()
    rounds = (("cut", (255, 200)), ("open", (180, 110)))
    for times, (state, thresholds) in enumerate(rounds, 1):
        device.sync()  # with the reading that follows the arming
        ADC_LE12.fail_readings(errno.EIO)
        IIO_INTERRUPT.show(state)
        device.wait_for_log("^WARNING: Readout failed: ", count=times)
        signals.assert_none()
        ADC_LE12.fail_readings(0)
        signals.wait_for(PortChanged, port=0, input=True)
        wait_until(lambda: armed() == (*thresholds, ["rising", "falling"]), "armed thresholds")
        device.wait_for_log(f"event send .*SupervisedPort .*state={state} ")
    assert device.log_count("^WARNING: Readout failed: ") == 2
    assert device.log_count("^WARNING: Failed to read sysfs path") == 2
    assert device.log_count("Converter of port 0 can be read again$") == 2
    signals.assert_none()


def test_a_reading_that_fails_beyond_a_limit_is_told_and_tried_again(device):
    IIO_INTERRUPT.show("cut")
    start(device, IIO_INTERRUPT.port(upper_limit=200, limit_timeout=10))
    # Told once as the port is supervised, and once more as its watch has found the same.
    device.wait_for_log("event send .*SupervisedPort .*state=cut ", count=2)
    device.sync()
    signals = device.signals()
    ADC_LE12.fail_readings(errno.EIO)
    device.wait_for_log("^WARNING: Unable to read from port zone$")
    IIO_INTERRUPT.show("closed")
    signals.assert_none()
    ADC_LE12.fail_readings(0)
    signals.wait_for(PortChanged, port=0, input=True)
    wait_until(lambda: armed() == (100, 50, ["rising", "falling"]), "armed thresholds")


def test_readings_that_fail_from_the_start_cost_nothing_and_are_told_once(device):
    IIO_INTERRUPT.show("closed")
    ADC_LE12.fail_readings(errno.EIO)
    supervision = start(device, IIO_INTERRUPT.port(cache_ad_value=None))
    device.wait_for_log("^WARNING: Couldn't read adc value for zone$")
    device.sync()
    # Nothing has been measured yet, above all no level of 0, which would be a short.
    assert supervision.GetSupervisedReadout(0) == ("undefined", 0)
    device.wait_for_log("event send .*SupervisedPort .*state=undefined ")
    assert device.log_count("event send .*SupervisedPort .*state=short ") == 0
    used, told = device.cpu_s, device.log_count("^WARNING")
    time.sleep(3)  # the time itself is what is looked at
    assert device.cpu_s - used < 1.5
    assert device.log_count("^WARNING") == told
    signals = device.signals()
    ADC_LE12.fail_readings(0)
    signals.wait_for(PortChanged, port=0, input=True)
    wait_until(lambda: armed() == (100, 50, ["rising", "falling"]), "armed thresholds")


@pytest.mark.parametrize("end", ["supervision off", "turned to output", "dropped"])
def test_the_attempts_to_read_end_with_the_watch(root_device, end):
    IIO_INTERRUPT.show("closed")
    described = IIO_INTERRUPT.port(kind="io_ctrl", dir="input", optional="true")
    supervision = start(root_device, described)
    ADC_LE12.fail_readings(errno.EIO)
    IIO_INTERRUPT.show("cut")
    root_device.wait_for_log("^WARNING: Readout failed: ")
    if end == "supervision off":
        supervision.SetSupervised(0, False)
    elif end == "turned to output":
        root_device.state.SetDirection(0, "output")
    else:
        root_device.state.DropIOPorts(["zone"])
    wait_until(lambda: root_device.passes_a_second_at_rest, "a stretch of quiet")


@pytest.mark.parametrize("kind", [IIO_INTERRUPT, IIO_EITHER], ids=repr)
@pytest.mark.parametrize("hysteresis", [0, 7])
def test_a_threshold_beyond_the_scale_becomes_the_nearest_that_is_taken(device, kind, hysteresis):
    top = 240
    kind.chip.limit_thresholds(top)
    kind.chip.compare_levels()
    kind.show("closed")
    start(device, kind.port(hysteresis=hysteresis))
    signals = device.signals()
    now = lambda: armed(kind.chip, f"voltage{kind.channel}")[:2]  # noqa: E731
    for _ in range(3):
        kind.show("cut")
        signals.wait_for(PortChanged, port=0, input=True)
        wait_until(lambda: now() == (top, 200 - hysteresis), lambda: f"the top, not {now()}")
        kind.show("short")
        signals.wait_for(PortChanged, port=0, input=True)
        wait_until(lambda: now() == (40 + hysteresis, 0), lambda: f"the bottom, not {now()}")
    told = [line for line in warnings(device) if "threshold" in line.lower()]
    channel = f"{kind.chip.name} in_voltage{kind.channel}"
    beyond = f"WARNING: Threshold {{}} of {channel} is beyond its scale, using {{}}"
    assert told == [
        beyond.format(255 + hysteresis, top),
        *([beyond.format(-hysteresis, 0)] if hysteresis else []),
    ]
    assert device.log_count("^WARNING: Failed to write sysfs") == 0
    assert kind.chip.events(kind.channel) == 6


@pytest.mark.parametrize("kind", [IIO_INTERRUPT, IIO_EITHER], ids=repr)
def test_a_level_above_all_thresholds_that_are_taken_is_polled(device, kind):
    kind.chip.limit_thresholds(220)
    kind.chip.compare_levels()
    kind.show("closed")
    start(device, kind.port(limit_timeout=50))
    signals = device.signals()
    kind.show("cut")
    signals.wait_for(PortChanged, port=0, input=True)
    told = "^WARNING: The level of port 0 is beyond its converter's thresholds, polling it every 50 ms$"
    device.wait_for_log(told)
    used = device.cpu_s
    time.sleep(3)  # the time itself is what is looked at
    assert device.cpu_s - used < 1.5
    assert len(warnings(device)) == 1
    assert armed(kind.chip, f"voltage{kind.channel}")[2] == []
    assert kind.chip.events(kind.channel) == 1
    kind.show("open")
    signals.wait_for(PortChanged, port=0, input=True)
    wait_until(lambda: armed(kind.chip, f"voltage{kind.channel}")[:2] == (180, 110), "thresholds")
    device.wait_for_log("Converter of port 0 takes its thresholds again$")
    kind.show("closed")
    signals.wait_for(PortChanged, port=0, input=True)


@pytest.mark.parametrize("kind", [IIO_INTERRUPT, IIO_EITHER], ids=repr)
def test_a_level_above_the_known_end_of_the_scale_is_polled(device, kind):
    """The threshold at the end is no use to a level that has passed it."""
    kind.chip.limit_thresholds(240)
    kind.show("closed")
    start(device, kind.port(limit_timeout=50))
    thresholds = lambda: armed(kind.chip, f"voltage{kind.channel}")  # noqa: E731
    kind.show("cut")
    wait_until(lambda: thresholds()[:2] == (240, 200) and thresholds()[2], "the end of the scale")
    kind.chip.set_value(250, kind.channel)
    device.wait_for_log("^WARNING: The level of port 0 is beyond its converter's thresholds, polling it every 50 ms$")
    wait_until(lambda: thresholds()[2] == [], "no threshold")
    signals = device.signals()
    kind.show("open")
    signals.wait_for(PortChanged, port=0, input=True)
    wait_until(lambda: thresholds()[:2] == (180, 110), "thresholds")
    device.wait_for_log("Converter of port 0 takes its thresholds again$")
    assert len(warnings(device)) == 2


def test_a_scale_that_has_become_smaller_is_measured_anew(device):
    ADC_LE12.limit_thresholds(245)
    IIO_INTERRUPT.show("closed")
    start(device, IIO_INTERRUPT.port(limit_timeout=50))
    IIO_INTERRUPT.show("cut")
    wait_until(lambda: armed() == (245, 200, ["rising", "falling"]), "the end of the scale")
    IIO_INTERRUPT.show("open")
    wait_until(lambda: armed() == (180, 110, ["rising", "falling"]), "thresholds around open")
    ADC_LE12.limit_thresholds(235)
    IIO_INTERRUPT.show("cut")
    wait_until(lambda: armed() == (235, 200, ["rising", "falling"]), "the new end of the scale")
    beyond = "^WARNING: Threshold 255 of bench-adc-le12 in_voltage2 is beyond its scale, using {}$"
    assert device.log_count(beyond.format(245)) == 1
    assert device.log_count(beyond.format(235)) == 1
    device.wait_for_log("Converter of port 0 takes its thresholds again$")


def test_an_event_of_a_port_without_ranges_is_told_and_no_more(device):
    """Nothing was armed, so it was somebody else who asked for the event."""
    IIO_INTERRUPT.show("short")
    start(device, IIO_INTERRUPT.port(levels=()))
    assert armed() == (1, 0, [])
    signals = device.signals()
    (ADC_LE12.folder / f"events/in_voltage{CHANNEL}_thresh_rising_value").write_text("100")
    (ADC_LE12.folder / f"events/in_voltage{CHANNEL}_thresh_rising_en").write_text("1")
    IIO_INTERRUPT.show("cut")
    device.wait_for_log("^WARNING: Readout failed: Failed to get ranges from port zone$")
    assert armed()[2] == []
    device.sync()
    signals.assert_none(PortChanged)


def test_the_level_is_polled_once_a_second_unless_told_otherwise(device):
    IIO_INTERRUPT.chip.limit_thresholds(220)
    IIO_INTERRUPT.show("cut")
    start(device, IIO_INTERRUPT.port())
    device.wait_for_log("beyond its converter's thresholds, polling it every 1000 ms$")


def test_a_converter_that_cannot_be_armed_is_polled_until_it_can(device):
    IIO_INTERRUPT.show("closed")
    start(device, IIO_INTERRUPT.port(limit_timeout=50))
    signals = device.signals()
    ADC_LE12.fail_event_writes(errno.EIO)
    for state in ("open", "cut", "short"):
        IIO_INTERRUPT.show(state)
        signals.wait_for(PortChanged, port=0, input=True)
    assert device.log_count("^WARNING: Failed to write sysfs") == 1
    ADC_LE12.fail_event_writes(0)
    wait_until(lambda: armed() == (40, 0, ["rising", "falling"]), "armed thresholds")
    IIO_INTERRUPT.show("closed")
    signals.wait_for(PortChanged, port=0, input=True)


@pytest.mark.parametrize("kind", [IIO_INTERRUPT, IIO_EITHER], ids=repr)
def test_a_threshold_that_fires_without_a_change_is_given_a_rest(device, kind):
    """Of a level that is shifted, the converter sees more than counts here."""
    kind.chip.compare_levels()
    set_level = lambda level: kind.chip.set_value(level, kind.channel)  # noqa: E731
    set_level(75 << 1)
    start(device, kind.port(bitshift=1))
    signals = device.signals()
    set_level(100 << 1 | 1)
    told = f"^WARNING: {kind.chip.node} keeps reporting changes that are none"
    device.wait_for_log(told)
    signals.take()  # a fresh watch counts from undefined
    used, events = device.cpu_s, kind.chip.events(kind.channel)
    time.sleep(5)  # the time itself is what is looked at
    assert device.cpu_s - used < 2.5
    assert kind.chip.events(kind.channel) - events < 500
    assert len(warnings(device)) == 1
    signals.assert_none()
    for state in ("open", "closed", "cut"):
        set_level(LEVELS[state] << 1)
        signals.wait_for(PortChanged, port=0, input=True)
    assert device.log_count(f"{kind.chip.node} reports true changes again$") == 1


def test_a_level_that_no_range_holds_is_polled(device):
    """No threshold can be put around it, but what comes next is reported all the same."""
    IIO_INTERRUPT.show("closed")
    start(device, IIO_INTERRUPT.port(limit_timeout=50))
    signals = device.signals()
    IIO_INTERRUPT.show("short")
    signals.wait_for(PortChanged, port=0, input=True)
    for state, thresholds in (("open", (180, 110)), ("cut", (255, 200))):
        IIO_INTERRUPT.show("undefined")
        signals.wait_for(PortChanged, port=0, input=True)
        IIO_INTERRUPT.show(state)
        signals.wait_for(PortChanged, port=0, input=True)
        wait_until(lambda: armed() == (*thresholds, ["rising", "falling"]), "armed thresholds")
    assert device.log_count("^WARNING") == 0
