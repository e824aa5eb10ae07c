"""What is refused is not saved: a file that somebody took away stays away."""

import pytest
from describe import port
from legacy import INPUT, IOPORT, OUTPUT, Legacy
from test_supervision_interface import box_port

from sim.bus import BusError
from sim.device import KEY_FILE
from sim.peers import IoBox


@pytest.fixture
def locked(device):
    """Ports that nobody may rename or turn, and no settings file."""
    IoBox(device, supervised=False)
    device.describe(
        port("in", 0, "input", properties="ioport readonly")
        + port("out", 1, properties="ioport readonly")
        + port("both", 2, "io_ctrl", properties="ioport readonly")
        + box_port("line", 3)
    )
    device.start()
    device.path(KEY_FILE).unlink()
    return device


@pytest.mark.parametrize(
    "number, interface, name, value",
    [
        pytest.param(2, INPUT, "Name", "new", id="the input's name"),
        pytest.param(2, OUTPUT, "Name", "new", id="the output's name"),
        pytest.param(2, INPUT, "Trig", "open", id="the input's sense"),
        pytest.param(2, INPUT, "Trig", "ajar", id="no sense"),
        pytest.param(2, OUTPUT, "Active", "open", id="the output's sense"),
        pytest.param(0, IOPORT, "Direction", "output", id="the direction of an input"),
        pytest.param(1, IOPORT, "Direction", "input", id="the direction of an output"),
        pytest.param(2, IOPORT, "Direction", "sideways", id="no direction"),
        pytest.param(2, OUTPUT, "Mode", "tristable", id="no mode"),
        pytest.param(2, OUTPUT, "Button", "pulse", id="a button, which is always refused"),
    ],
)
def test_a_refused_legacy_write_saves_nothing(locked, number, interface, name, value):
    with pytest.raises(BusError):
        Legacy(locked).set(number, interface, name, value)
    locked.sync()
    assert not locked.exists(KEY_FILE)


def test_a_refused_switch_of_supervision_saves_nothing(locked):
    with pytest.raises(BusError):
        locked.supervision.SetSupervised(3, True)
    locked.sync()
    assert not locked.exists(KEY_FILE)


@pytest.mark.parametrize(
    "method, arguments",
    [
        ("SetState", (0, True)),
        ("SetName", (2, True, "new")),
        ("SetUsage", (2, "new")),
        ("SetVirtual", (9, True)),
        ("SetDirection", (9, "input")),
        ("SetActive", (9, True, "open")),
    ],
)
def test_a_refused_call_saves_nothing(locked, method, arguments):
    with pytest.raises(BusError):
        getattr(locked.state, method)(*arguments)
    locked.sync()
    assert not locked.exists(KEY_FILE)
