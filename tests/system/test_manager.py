"""The daemon as a whole, as com.norv.IOControl.Manager1 serves it."""

import pytest
from describe import element, port

from sim.bus import ActionSequenceDone, BusError, PortChanged

LONG = 2_000_000  # milliseconds


@pytest.fixture
def daemon(device):
    device.describe(
        port("door", 0, "input")
        + port("fixed", 1)
        + port("locked", 2, properties="ioport readonly")
        + port("trigger", 4, properties="virtual", backend="virtual")
        + element("first_virtual_input", nbr=9)
    )
    return device.start()


@pytest.mark.parametrize("number", [1, 2], ids=["fixed", "read-only"])
@pytest.mark.parametrize("state", [True, False])
def test_a_sequence_is_stopped_and_the_line_stays(daemon, number, state):
    daemon.state.SetState(number, not state)
    signals = daemon.signals()
    daemon.state.StartActionSequence(number, False, [(state, LONG), (not state, LONG)])
    signals.wait_for(PortChanged, port=number, state=state)
    daemon.manager.StopSequence(number)
    # The end was told before the answer, and nothing else.
    assert signals.take() == [ActionSequenceDone(number)]
    assert daemon.state.GetState(number) is state
    daemon.state.StartActionSequence(number, False, [(not state, 0)])
    signals.wait_for(PortChanged, port=number, state=not state)


@pytest.mark.parametrize("number", [0, 4], ids=["an input", "a virtual port"])
def test_a_virtual_sequence_is_stopped(daemon, number):
    signals = daemon.signals()
    daemon.state.StartActionSequence(number, True, [(True, LONG), (False, LONG)])
    signals.wait_for(PortChanged, port=number, state=True)
    daemon.manager.StopSequence(number)
    assert signals.take() == [ActionSequenceDone(number)]


def test_one_port_s_sequence_is_stopped_and_no_other(daemon):
    signals = daemon.signals()
    for number in (1, 2):
        daemon.state.StartActionSequence(number, False, [(True, LONG)])
        signals.wait_for(PortChanged, port=number)
    daemon.manager.StopSequence(1)
    signals.wait_for(ActionSequenceDone, port=1)
    signals.assert_none(ActionSequenceDone, port=2)


def test_a_port_without_a_sequence_is_left_alone(daemon):
    signals = daemon.signals()
    daemon.state.SetState(1, True)
    signals.wait_for(PortChanged, port=1)
    assert daemon.manager.StopSequence(1) is None
    assert signals.take() == []
    assert daemon.state.GetState(1) is True


@pytest.mark.parametrize("number", [7, 2**32 - 1])
def test_a_port_that_is_not_there_is_no_port(daemon, number):
    with pytest.raises(BusError) as caught:
        daemon.manager.StopSequence(number)
    assert caught.value.name == "com.norv.IOControl.Error.No_port"
    assert caught.value.message == "No such port."
