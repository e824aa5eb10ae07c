"""Supervised inputs of every kind on real buffers, events and exchanges: the states that a line can
be in, and the ways in and out of supervision."""

import pytest

from sim.bus import BusError, PortChanged, wait_until
from supervised_ports import IIO, IIO_INTERRUPT, KINDS, LEVELS, RANGES, SPI, Supervision

pytestmark = pytest.mark.pins

EVERY_KIND = pytest.mark.parametrize("kind", KINDS, ids=repr)


def start(device, *ports):
    device.describe("".join(ports))
    device.start()
    return Supervision(device)


def wait_for_state(supervision, state):
    wait_until(lambda: supervision.GetSupervisedReadout(0)[0] == state, f"the state {state}")


@EVERY_KIND
def test_every_state_is_told_apart_and_reported(device, kind):
    kind.show("open")
    supervision = start(device, kind.port())
    signals = device.signals()
    supervision.SetSupervised(0, True)
    wait_for_state(supervision, "open")
    signals.take()
    for state in ("closed", "short", "open", "cut", "closed", "cut", "short", "closed"):
        kind.show(state)
        signals.wait_for(PortChanged, port=0, input=True)
        wait_for_state(supervision, state)
        assert supervision.GetSupervisedReadout(0) == (state, LEVELS[state])
    signals.assert_none()


@EVERY_KIND
def test_a_level_between_the_ranges_is_undefined(device, kind):
    kind.show("open")
    supervision = start(device, kind.port())
    supervision.SetSupervised(0, True)
    wait_for_state(supervision, "open")
    signals = device.signals()
    # A fresh watch counts from undefined.
    for state in ("closed", "undefined"):
        kind.show(state)
        signals.wait_for(PortChanged, port=0, input=True)
        wait_for_state(supervision, state)
    assert supervision.GetSupervisedReadout(0) == ("undefined", LEVELS["undefined"])
    device.wait_for_log("event send .*SupervisedPort .*state=undefined ")


@EVERY_KIND
def test_a_port_without_ranges_tells_no_state(device, kind):
    kind.show("cut")
    supervision = start(device, kind.port(levels=()))
    supervision.SetSupervised(0, True)
    if kind.name == "iio-interrupt":
        with pytest.raises(BusError) as refusal:
            supervision.GetSupervisedReadout(0)
        assert refusal.value.name == "com.norv.IOSupervised.Not_supervised"
        assert refusal.value.message == "Failed to get ranges from port zone"
    else:
        readout = lambda: supervision.GetSupervisedReadout(0)  # noqa: E731
        wait_until(lambda: readout() == ("undefined", LEVELS["cut"]), "the level")
    supervision.SetSupervisedRanges(0, "short", *next(r[1:] for r in RANGES if r[0] == "cut"))
    wait_for_state(supervision, "short")


@EVERY_KIND
def test_tampering_shows_in_events_and_signals(device, kind):
    kind.show("open")
    supervision = start(device, kind.port())
    supervision.SetSupervised(0, True)
    wait_for_state(supervision, "open")
    signals = device.signals()
    for state, tampered in (("cut", 1), ("closed", 0), ("short", 1)):
        kind.show(state)
        signals.wait_for(PortChanged, port=0, input=True)
        device.wait_for_log(f"event send .*SupervisedPort .*tampered={tampered} state={state} ")
        # An answer comes after all that belongs to the change: new thresholds, for one.
        wait_for_state(supervision, state)


@EVERY_KIND
def test_the_control_pins_route_the_line(device, kind):
    supervision = start(device, kind.port())
    assert (kind.ioctrl.level, kind.sioctrl.level) == (1, 0)
    supervision.SetSupervised(0, True)
    assert (kind.ioctrl.level, kind.sioctrl.level) == (0, 1)
    supervision.SetSupervised(0, False)
    assert (kind.ioctrl.level, kind.sioctrl.level) == (1, 0)


@EVERY_KIND
def test_without_supervision_the_logic_pin_counts(device, kind):
    kind.show("open")
    supervision = start(device, kind.port())
    signals = device.signals()
    for level in (1, 0, 1):
        kind.inputs.pull(level)
        signals.wait_for(PortChanged, port=0, input=True, state=bool(level))
    supervision.SetSupervised(0, True)
    wait_for_state(supervision, "open")
    kind.inputs.pull(0)
    kind.show("cut")
    wait_for_state(supervision, "cut")
    supervision.SetSupervised(0, False)
    signals.take()
    kind.inputs.pull(1)
    signals.wait_for(PortChanged, port=0, state=True)


@EVERY_KIND
def test_supervision_and_ranges_survive_a_restart(device, kind):
    kind.show("closed")
    supervision = start(device, kind.port())
    supervision.SetSupervised(0, True)
    supervision.SetSupervisedRanges(0, "cut", 181, 199)
    device.restart()
    supervision = Supervision(device)
    assert supervision.GetSupervised(0) is True
    assert set(supervision.GetSupervisedRanges(0)) == {*RANGES, ("cut", 181, 199)}
    assert (kind.ioctrl.level, kind.sioctrl.level) == (0, 1)
    signals = device.signals()
    wait_for_state(supervision, "closed")
    kind.show("short")
    signals.wait_for(PortChanged, port=0, input=True)
    wait_for_state(supervision, "short")


@EVERY_KIND
def test_a_configurable_port_goes_through_all_its_modes(device, kind):
    kind.show("open")
    supervision = start(device, kind.port(kind="io_ctrl", dir="input"))
    pins = lambda: (kind.ioctrl.level, kind.sioctrl.level)  # noqa: E731
    assert pins() == (1, 0)
    device.state.SetDirection(0, "output")
    assert pins() == (0, 0)
    device.state.SetState(0, True)
    assert kind.outputs.level == 1
    supervision.SetSupervised(0, True)
    assert device.state.GetDirection(0) == "input"
    assert (pins(), kind.outputs.level) == ((0, 1), 0)
    wait_for_state(supervision, "open")
    signals = device.signals()
    kind.show("cut")
    signals.wait_for(PortChanged, port=0, input=True)
    device.state.SetDirection(0, "output")
    assert pins() == (0, 0)
    device.state.SetDirection(0, "input")
    assert pins() == (0, 1)
    wait_for_state(supervision, "cut")
    signals.take()
    kind.show("closed")
    signals.wait_for(PortChanged, port=0, input=True)


@pytest.mark.parametrize("kind", [SPI, IIO, IIO_INTERRUPT], ids=repr)
def test_modes_back_and_forth_leak_nothing(device, kind):
    kind.show("open")
    supervision = start(device, kind.port(kind="io_ctrl", dir="input"))
    supervision.SetSupervised(0, True)
    wait_for_state(supervision, "open")
    before = device.descriptors
    for _ in range(30):
        supervision.SetSupervised(0, False)
        supervision.SetSupervised(0, True)
        device.state.SetDirection(0, "output")
        device.state.SetDirection(0, "input")
    device.sync()  # the last change is saved behind its answer
    assert device.descriptors == before
    # What is left behind, a watch or a timer, would go on without the port.
    device.state.SetDirection(0, "output")
    wait_until(lambda: device.passes_a_second_at_rest, "a stretch of quiet")
    device.state.SetDirection(0, "input")
    signals = device.signals()
    kind.show("cut")
    wait_for_state(supervision, "cut")
    signals.wait_for(PortChanged, port=0, input=True)


@EVERY_KIND
def test_an_end_in_any_mode_is_clean(root_device, kind):
    for supervised in (False, True):
        supervision = start(root_device, kind.port())
        supervision.SetSupervised(0, supervised)
        root_device.stop()
        lines = (kind.inputs, kind.ioctrl, kind.sioctrl)
        assert not any(line.taken for line in lines)


@EVERY_KIND
@pytest.mark.parametrize("tag", ["input", "io_ctrl", "sio_ctrl"])
def test_a_port_without_one_of_its_pins_is_dropped(device, kind, tag):
    """Only the SPI kind goes on without the first two, having said so."""
    lines = {"input": kind.inputs, "io_ctrl": kind.ioctrl, "sio_ctrl": kind.sioctrl}
    lines[tag].refuse_requests()
    goes_on = kind.name == "spi" and tag != "sio_ctrl"
    if kind.name == "iio" and tag != "sio_ctrl":
        device.expect("CRITICAL.*iio_setup_gpio.*libugpio_port_init_gpio_pin")
    start(device, kind.port())
    assert list(device.ports()) == ([0] if goes_on else [])
    assert device.log_count("^WARNING: (Failed to allocate pin|Request for gpio pin)") == 1


@EVERY_KIND
def test_a_rejected_range_changes_nothing(device, kind):
    supervision = start(device, kind.port())
    for state, lower, upper in (("open", 100, 100), ("open", 0, 65536), ("odd", 1, 2)):
        with pytest.raises(BusError) as refusal:
            supervision.SetSupervisedRanges(0, state, lower, upper)
        assert refusal.value.name == "com.norv.IOSupervised.Bad_supervised_range"
    assert set(supervision.GetSupervisedRanges(0)) == set(RANGES)


@EVERY_KIND
def test_a_failed_reading_of_the_logic_pin_only_delays_its_report(device, kind):
    supervision = start(device, kind.port())
    signals = device.signals()
    kind.inputs.fail_readings(3)
    kind.inputs.pull(1)
    signals.wait_for(PortChanged, port=0, input=True, state=True)
    kind.inputs.pull(0)
    signals.wait_for(PortChanged, port=0, input=True, state=False)
    # A pin that rests is left alone once the line is measured.
    kind.inputs.fail_readings()
    kind.inputs.pull(1)
    device.wait_for_log("^WARNING: Pin of port 0 cannot be read, trying again", count=2)
    kind.show("open")
    supervision.SetSupervised(0, True)
    wait_for_state(supervision, "open")
    device.sync()
    before = kind.inputs.failing_readings
    signals.take()
    kind.show("closed")
    signals.wait_for(PortChanged, port=0, input=True)
    assert kind.inputs.failing_readings == before
