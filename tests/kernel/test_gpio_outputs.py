"""Outputs and configurable ports on pins: what the lines show, and when."""

import itertools

import pytest

from chips import PLAIN, WIDE
from gpio_ports import gpio_configurable, gpio_output
from sim.bus import ActionSequenceDone, BusError, PortChanged

pytestmark = pytest.mark.pins

INPUT, OUTPUT, DRIVER = PLAIN[0:3]


def settings_of_output(name, activelow):
    """A saved group of an output port."""
    return (
        f"[{name}]\noutput_name=x\noutput_activelow={str(activelow).lower()}\nbutton_type=none\n"
        "pulse_time=0\nport_mode=bistable\ndelay_time=0\nusage=\n"
    )


def test_outputs_start_at_their_levels_without_a_glitch(device):
    """Whatever the line was before, however pin and port invert."""
    cases = list(
        zip(WIDE.lines, itertools.product([None, 0, 1], [None, "false", "true"], [False, True]))
    )
    ports, settings = [], []
    for i, (line, (before, inverted, activelow)) in enumerate(cases):
        if before is not None:
            line.leave_at(before)
        ports.append(gpio_output(f"relay{i}", i, line, inverted=inverted))
        settings.append(settings_of_output(f"relay{i}", activelow))
    device.describe("".join(ports))
    device.settings("".join(settings))
    device.start()
    for i, (line, case) in enumerate(cases):
        _, inverted, activelow = case
        wire = int(activelow != (inverted == "true"))
        assert line.is_output and line.level == wire, case
        assert set(line.driven_levels) == {wire}, (case, line.history)
        assert device.state.GetState(i) is False, case


@pytest.mark.parametrize("inverted", [None, "true"])
def test_a_state_drives_the_line(device, inverted):
    device.describe(gpio_output("relay", 0, OUTPUT, inverted=inverted))
    device.start()
    signals = device.signals()
    for state in (True, False, True):
        device.state.SetState(0, state)
        assert OUTPUT.level == int(state != (inverted == "true"))
        assert device.state.GetState(0) is state
        signals.wait_for(PortChanged, port=0, input=False, state=state)


def test_a_state_that_is_there_already_is_not_announced(device):
    device.describe(gpio_output("relay", 0, OUTPUT))
    device.start()
    signals = device.signals()
    device.state.SetState(0, False)
    signals.assert_none()


def test_a_change_of_sense_turns_the_line_and_keeps_the_state(device):
    device.describe(gpio_output("relay", 0, OUTPUT))
    device.start()
    device.state.SetState(0, True)
    device.state.SetActive(0, False, "open")
    assert (OUTPUT.level, device.state.GetState(0)) == (0, True)
    device.state.SetActive(0, False, "closed")
    assert (OUTPUT.level, device.state.GetState(0)) == (1, True)


def test_a_sequence_drives_the_line_step_by_step(device):
    device.describe(gpio_output("relay", 0, OUTPUT))
    device.start()
    signals = device.signals()
    OUTPUT.forget_history()
    device.state.StartActionSequence(0, False, [(True, 30), (False, 30), (True, 30), (False, 0)])
    signals.wait_for(ActionSequenceDone, port=0)
    changes = [event for event in OUTPUT.history if event.what == "set"]
    assert [event.level for event in changes] == [1, 0, 1, 0]
    for earlier, later in zip(changes, changes[1:]):
        assert later.time_ns - earlier.time_ns >= 29e6


@pytest.mark.parametrize("inverted", [None, "true"])
def test_a_configurable_port_starts_as_input(device, inverted):
    device.describe(
        gpio_configurable("aux", 0, (INPUT, OUTPUT, DRIVER), direction="input", inverted=inverted)
    )
    device.start()
    assert device.state.GetDirection(0) == "input"
    assert set(DRIVER.driven_levels) == {0}
    assert set(OUTPUT.driven_levels) == {int(inverted == "true")}
    assert not INPUT.is_output


def test_a_configurable_port_starts_as_output(device):
    device.describe(gpio_configurable("aux", 0, (INPUT, OUTPUT, DRIVER), direction="output"))
    device.start()
    assert device.state.GetDirection(0) == "output"
    assert set(DRIVER.driven_levels) == {1}
    assert set(OUTPUT.driven_levels) == {0}


def set_levels(*lines):
    """What the lines of one chip were set to, in order: [(line, level), ...]."""
    changes = [
        (event.number, line, event.level)
        for line in lines
        for event in line.history
        if event.what in ("set", "out")
    ]
    return [change[1:] for change in sorted(changes, key=lambda change: change[0])]


def test_a_change_of_direction_switches_the_driver_while_the_output_is_quiet(device):
    device.describe(gpio_configurable("aux", 0, (INPUT, OUTPUT, DRIVER), direction="output"))
    device.start()
    device.state.SetActive(0, False, "open")
    device.state.SetState(0, False)
    assert OUTPUT.level == 1
    for line in (OUTPUT, DRIVER):
        line.forget_history()

    device.state.SetDirection(0, "input")
    assert set_levels(OUTPUT, DRIVER) == [(OUTPUT, 0), (DRIVER, 0)]

    for line in (OUTPUT, DRIVER):
        line.forget_history()
    device.state.SetDirection(0, "output")
    assert set_levels(OUTPUT, DRIVER) == [(DRIVER, 1), (OUTPUT, 1)]
    assert device.state.GetState(0) is False


def test_the_input_is_watched_only_while_it_counts(device):
    device.describe(gpio_configurable("aux", 0, (INPUT, OUTPUT, DRIVER), direction="input"))
    device.start()
    signals = device.signals()
    INPUT.pull(1)
    signals.wait_for(PortChanged, port=0, input=True, state=True)

    device.state.SetDirection(0, "output")
    signals.wait_for(PortChanged, port=0, input=False)
    INPUT.pull(0)
    device.state.SetState(0, True)
    signals.wait_for(PortChanged, port=0, input=False, state=True)

    device.state.SetDirection(0, "input")
    signals.take()
    INPUT.pull(1)
    signals.wait_for(PortChanged, port=0, input=True, state=True)
    with pytest.raises(BusError) as refusal:
        device.state.SetState(0, True)
    assert refusal.value.name == "com.norv.IOControl.Error.Not_output"


def test_direction_back_and_forth_leaks_nothing(device):
    device.describe(gpio_configurable("aux", 0, (INPUT, OUTPUT, DRIVER), direction="input"))
    device.start()
    before = device.descriptors
    for _ in range(100):
        device.state.SetDirection(0, "output")
        device.state.SetDirection(0, "input")
    assert device.descriptors == before
    signals = device.signals()
    INPUT.pull(1)
    signals.wait_for(PortChanged, port=0, state=True)
    signals.assert_none()
