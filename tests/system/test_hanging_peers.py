"""Services that are there and never answer: each call waits for the bus's time-out of 25 seconds."""

import contextlib
import time

import pytest
from describe import element, port

from sim.bus import ActionSequenceDone, BusError, PortChanged, wait_until
from sim.peers import ActionEngine, BootBlock, Coordinator, IoBox, Streamer, ZWave, late_properties

TIME_OUT = 25  # seconds
PATIENCE = 60

pytestmark = pytest.mark.hang


@pytest.fixture
def device(make_device):
    return make_device(patience=5)


def test_what_waits_for_a_silent_io_box_is_all_served_afterwards(device):
    box = IoBox(device)
    device.describe(port("out", 1, "output", "iobox") + port("p", 2))
    device.start()
    signals = device.signals()
    box.freeze()
    begin = time.monotonic()
    held = device.state.begin("SetState", 1, True)
    time.sleep(3)  # so that these calls do not run into their own time-out just as it ends
    other_client = device.client()
    others = [other_client.state.begin("SetState", 2, state) for state in (True, False, True)]
    device.wait_for_log(
        "USER: iobox_dbus_call@46: Failed to call method SetIOMode: .*[Tt]imeout",
        deadline=PATIENCE,
    )
    assert TIME_OUT - 1 < time.monotonic() - begin < TIME_OUT + 15
    for other in others:
        other.wait(PATIENCE)
    # The output shows what it was set to, and nobody's change was lost.
    signals.wait_for(PortChanged, port=1, state=True)
    for state in (True, False, True):
        signals.wait_for(PortChanged, port=2, state=state)
    signals.assert_none()
    with contextlib.suppress(BusError):
        held.wait()  # whose own time-out may have come first
    box.thaw()
    device.state.SetState(1, False)
    assert box.modes[-1] == (1, 0, "out")


def test_a_sequence_outlives_a_silent_service_while_others_are_served(device):
    """The sequence's thread waits, and the main one does not."""
    peer = ZWave(device)
    device.describe(port("out", 1, "output", "zwave") + port("p", 2))
    device.start()
    signals = device.signals()
    peer.freeze()
    device.state.StartActionSequence(1, False, [(True, 0)])
    device.state.SetState(2, True)
    signals.wait_for(PortChanged, port=2, state=True)
    signals.wait_for(ActionSequenceDone, deadline=PATIENCE, port=1)
    peer.thaw()
    device.state.SetState(1, False)
    assert peer.sent[-1] == (1, False)


def test_a_silent_action_engine_delays_the_start_and_no_more(device):
    engine = ActionEngine(device)
    device.describe(port("in", 0, "input"))
    device.start()
    device.sync()
    engine.forget_calls()
    engine.freeze()
    device.stop()
    device.describe(port("out", 0))
    device.start(ready=False)
    # The proxy's own question for properties and the question for the templates: one wait each.
    device.wait_for_log(
        "WARNING: Could not retrieve the template list: .*[Tt]imeout", deadline=2 * PATIENCE
    )
    device.state.SetState(0, True)
    assert device.state.GetState(0) is True
    engine.thaw()


def names(device):
    return {entry.name for entry in device.port_list()}


def test_a_silent_streamer_delays_the_start_and_is_met_when_it_returns(device):
    streamer = Streamer(device, channels=[True, True])
    device.describe(port("p", 0) + element("first_virtual_input", nbr=10))
    streamer.freeze()
    begin = time.monotonic()
    device.start()
    assert time.monotonic() - begin > TIME_OUT - 1
    device.state.SetState(0, True)
    # Silent channels are none; the one trigger is that of a device without any.
    wait_until(lambda: names(device) == {"p", "manualtrigger1"}, "the one trigger")
    streamer.thaw()
    device.sync()
    streamer.stop()
    streamer.start()
    wait_until(lambda: "manualtrigger2" in names(device), "the second channel")
    assert device.state.GetState(0) is True


def test_a_silent_coordinator_delays_the_start_and_what_it_says_later_counts(device):
    coordinator = Coordinator(device, enabled=False)
    device.describe(port("p", 0) + element("first_virtual_input", nbr=10))
    coordinator.freeze()
    begin = time.monotonic()
    device.start()
    assert time.monotonic() - begin > TIME_OUT - 1
    coordinator.thaw()
    coordinator.enable(True)
    coordinator.enable(False)
    device.sync()
    signals = device.signals()
    Streamer(device, channels=[True, True])
    wait_until(lambda: "manualtrigger2" in names(device), "the second channel")
    device.state.SetVirtual(11, True)  # whose port is disabled, as PTZ is
    device.state.SetVirtual(10, True)
    signals.wait_for(PortChanged, port=10, state=True)
    assert device.state.GetState(0) is False


def test_a_silent_boot_block_delays_the_start_and_keeps_the_port(device):
    boot_block = BootBlock(device, "ABC123")
    device.describe(port("a", 0).replace("<port ", '<port hwid="X" ', 1) + port("b", 1))
    boot_block.freeze()
    begin = time.monotonic()
    # The proxy's own question for properties and the question for the id: one wait each.
    device.start()
    assert time.monotonic() - begin > 2 * (TIME_OUT - 1)
    assert names(device) == {"a", "b"}
    assert device.log_count("^INFO: Failed to request policykit system: .*[Tt]imeout") == 1
    assert device.log_count("^WARNING: Could not get the hardware id$") == 1
    boot_block.thaw()
    device.state.SetState(1, True)
    assert device.state.GetState(1) is True


def test_what_happened_while_a_streamer_appeared_and_was_silent_is_served_afterwards(device):
    device.describe(port("p", 0) + element("first_virtual_input", nbr=10))
    device.start()
    wait_until(lambda: "manualtrigger1" in names(device), "the one trigger")
    signals = device.signals()
    streamer = Streamer(device, start=False, channels=[True], properties=late_properties(2 * TIME_OUT))
    streamer.launch()
    other_client = device.client()
    wait_until(lambda: other_client.owner(streamer.NAME), "the streamer on the bus")
    time.sleep(3)  # so that these calls do not run into their own time-out just as it ends
    others = [other_client.state.begin("SetState", 0, state) for state in (True, False, True)]
    for other in others:
        other.wait(PATIENCE)
    for state in (True, False, True):
        signals.wait_for(PortChanged, port=0, state=state)
    assert names(device) == {"p", "manualtrigger1"}
