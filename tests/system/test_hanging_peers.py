"""Services that are there and never answer: each call waits for the bus's time-out of 25 seconds."""

import contextlib
import signal
import time

import pytest
from describe import port

from sim.bus import ActionSequenceDone, BusError, PortChanged
from sim.peers import ActionEngine, IoBox, ZWave

TIME_OUT = 25  # seconds
PATIENCE = 60

pytestmark = pytest.mark.hang


def freeze(peer):
    peer.process.send_signal(signal.SIGSTOP)


def thaw(peer):
    peer.process.send_signal(signal.SIGCONT)


def test_what_waits_for_a_silent_io_box_is_all_served_afterwards(device):
    box = IoBox(device)
    device.describe(port("out", 1, "output", "iobox") + port("p", 2))
    device.start()
    signals = device.signals()
    freeze(box)
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
    thaw(box)
    device.state.SetState(1, False)
    assert box.modes[-1] == (1, 0, "out")


def test_a_sequence_outlives_a_silent_service_while_others_are_served(device):
    """The sequence's thread waits, and the main one does not."""
    peer = ZWave(device)
    device.describe(port("out", 1, "output", "zwave") + port("p", 2))
    device.start()
    signals = device.signals()
    freeze(peer)
    device.state.StartActionSequence(1, False, [(True, 0)])
    device.state.SetState(2, True)
    signals.wait_for(PortChanged, port=2, state=True)
    signals.wait_for(ActionSequenceDone, deadline=PATIENCE, port=1)
    thaw(peer)
    device.state.SetState(1, False)
    assert peer.sent[-1] == (1, False)


def test_a_silent_action_engine_delays_the_start_and_no_more(device):
    engine = ActionEngine(device)
    device.describe(port("in", 0, "input"))
    device.start()
    device.sync()
    engine.forget_calls()
    freeze(engine)
    device.stop()
    device.describe(port("out", 0))
    device.start(ready=False)
    # The proxy's own question for properties and the question for the templates: one wait each.
    device.wait_for_log(
        "WARNING: Could not retrieve the template list: .*[Tt]imeout", deadline=2 * PATIENCE
    )
    device.state.SetState(0, True)
    assert device.state.GetState(0) is True
    thaw(engine)
