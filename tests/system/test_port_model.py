"""What a port does when clients drive, invert, turn and name it, and which signals tell of it."""

import pytest
from describe import port, sysfs_input

from sim.bus import BusError, PortChanged

DOOR = "/sys/door"


@pytest.fixture
def running(device):
    """An input on a file, an output, a configurable port that starts as an output."""
    device.write(DOOR, "0\n")
    device.describe(
        sysfs_input("in", 0, DOOR)
        + port("out", 1, "output")
        + port("both", 2, "io_ctrl", dir="output")
    )
    device.start()
    return device


def test_driving_an_output_emits_one_change(running):
    changes = running.signals()
    running.state.SetState(1, True)
    assert changes.take() == [PortChanged(1, False, False, False, False, True, False)]
    assert running.state.GetState(1) is True
    running.state.SetState(1, False)
    assert changes.take() == [PortChanged(1, False, False, False, False, False, False)]
    assert running.state.GetState(1) is False


def test_driving_an_output_to_its_state_emits_nothing(running):
    changes = running.signals()
    running.state.SetState(1, False)
    running.state.SetState(1, True)
    running.state.SetState(1, True)
    assert [change.state for change in changes.take()] == [True]


def test_every_client_hears_of_a_change(running):
    clients = [running.client() for _ in range(3)]
    listeners = [client.signals() for client in clients]
    clients[0].state.SetState(1, True)
    for listener in listeners:
        assert listener.take() == [PortChanged(1, False, False, False, False, True, False)]


@pytest.mark.parametrize("state", [False, True])
@pytest.mark.parametrize("number", [pytest.param(1, id="output"), pytest.param(2, id="turned out")])
def test_inverting_a_driven_output_keeps_its_logical_state(running, number, state):
    running.state.SetState(number, state)
    changes = running.signals()
    running.state.SetActive(number, False, "open")
    assert changes.take() == [PortChanged(number, False, False, False, False, state, True)]
    assert running.state.GetState(number) is state
    running.state.SetActive(number, False, "closed")
    assert changes.take() == [PortChanged(number, False, False, False, False, state, False)]
    assert running.state.GetState(number) is state


def test_an_inverted_output_is_driven_by_its_logical_state(running):
    running.state.SetActive(1, False, "open")
    changes = running.signals()
    running.state.SetState(1, True)
    running.state.SetState(1, False)
    assert changes.take() == [
        PortChanged(1, False, False, False, False, True, True),
        PortChanged(1, False, False, False, False, False, True),
    ]


def test_inverting_moves_the_physical_line(running):
    """The line of a configurable port shows when it is turned to its uninverted input side."""
    running.state.SetState(2, True)
    running.state.SetActive(2, False, "open")
    running.state.SetDirection(2, "input")
    assert running.state.GetState(2) is False, "logically 1, physically 0"
    running.state.SetDirection(2, "output")
    running.state.SetActive(2, False, "closed")
    running.state.SetDirection(2, "input")
    assert running.state.GetState(2) is True


def test_inverting_an_input_inverts_its_state_and_tells(running):
    changes = running.signals()
    running.state.SetActive(0, True, "open")
    assert changes.take() == [PortChanged(0, False, False, True, False, True, True)]
    assert running.state.GetState(0) is True
    running.state.SetActive(0, True, "closed")
    assert changes.take() == [PortChanged(0, False, False, True, False, False, False)]


def test_an_inverted_input_reports_logical_changes(running):
    running.state.SetActive(0, True, "open")
    changes = running.signals()
    running.poke(DOOR, "1\n")
    change = changes.wait_for(PortChanged, port=0)
    assert change == PortChanged(0, False, False, True, False, False, True)
    running.poke(DOOR, "0\n")
    changes.wait_for(PortChanged, port=0, state=True)


@pytest.mark.parametrize(
    "number, side",
    [
        pytest.param(1, False, id="output"),
        pytest.param(0, True, id="input"),
        pytest.param(2, True, id="input side of a port turned out"),
    ],
)
def test_the_same_active_sense_again_emits_nothing(running, number, side):
    running.state.SetActive(number, side, "open")
    changes = running.signals()
    running.state.SetActive(number, side, "open")
    changes.assert_none()


def test_inverting_the_side_not_in_use_emits_nothing(running):
    changes = running.signals()
    running.state.SetActive(2, True, "open")
    changes.assert_none()
    running.state.SetDirection(2, "input")
    assert changes.take() == [PortChanged(2, False, False, True, False, True, True)]
    running.state.SetActive(2, False, "open")
    changes.assert_none()


def test_turning_a_port_tells_its_state_each_time(running):
    changes = running.signals()
    running.state.SetDirection(2, "input")
    running.state.SetDirection(2, "input")
    running.state.SetDirection(2, "output")
    assert [(change.port, change.input) for change in changes.take()] == [
        (2, True), (2, True), (2, False),
    ]  # fmt: skip
    assert running.state.GetDirection(2) == "output"


def test_a_port_turned_in_refuses_to_be_driven_until_turned_out(running):
    running.state.SetDirection(2, "input")
    with pytest.raises(BusError, match="Port not output."):
        running.state.SetState(2, True)
    running.state.SetDirection(2, "output")
    running.state.SetState(2, True)
    assert running.state.GetState(2) is True


@pytest.mark.parametrize(
    "properties, virtual, hidden",
    [
        pytest.param({"ioport": "true"}, False, False, id="neither"),
        pytest.param({"ioport": "true", "virtual": "TRUE"}, True, False, id="virtual"),
        pytest.param({"ioport": "true", "hidden": "True"}, False, True, id="hidden"),
        pytest.param(
            {"ioport": "true", "virtual": "no", "hidden": "false"}, False, False, id="both false"
        ),
    ],
)
def test_changes_carry_the_properties_virtual_and_hidden(device, properties, virtual, hidden):
    device.describe(port("a", 0, properties=properties))
    device.start()
    changes = device.signals()
    device.state.SetState(0, True)
    assert changes.take() == [PortChanged(0, virtual, hidden, False, False, True, False)]


def test_a_virtual_write_sends_every_time_and_does_not_touch_the_line(running):
    changes = running.signals()
    for state in (True, True, False):
        running.state.SetVirtual(1, state)
    assert changes.take() == [
        PortChanged(1, False, False, False, True, True, False),
        PortChanged(1, False, False, False, True, True, False),
        PortChanged(1, False, False, False, True, False, False),
    ]
    running.state.SetVirtual(1, True)
    assert running.state.GetState(1) is False


def test_a_virtual_write_to_an_input_is_told_as_an_input(running):
    changes = running.signals()
    running.state.SetVirtual(0, True)
    assert changes.take() == [PortChanged(0, False, False, True, True, True, False)]
    assert running.state.GetState(0) is False


def test_a_virtual_output_keeps_what_is_written_uninverted(device):
    device.describe(port("v", 0, "output", "virtual", properties="ioport virtual"))
    device.start()
    changes = device.signals()
    device.state.SetVirtual(0, True)
    assert changes.take() == [PortChanged(0, True, False, False, True, True, False)]
    assert device.state.GetState(0) is True
    device.state.SetActive(0, False, "open")
    device.state.SetVirtual(0, True)
    assert device.state.GetState(0) is False, "stored as written, read inverted"


def test_a_virtual_port_refuses_to_be_driven(device):
    device.describe(port("v", 0, "output", "virtual", properties="ioport virtual"))
    device.start()
    with pytest.raises(BusError, match="Port not output."):
        device.state.SetState(0, True)
    assert device.log_count(r"^WARNING: Set state on incorrect port$") == 1


READ_ONLY = [
    # property, which of (input active, output active, names, usage) it refuses
    pytest.param("readonly", (True, True, True, True), id="readonly"),
    pytest.param("readonly_Trig", (True, False, False, False), id="readonly_Trig"),
    pytest.param("readonly_Active", (False, True, False, False), id="readonly_Active"),
    pytest.param("readonly_Name", (False, False, True, False), id="readonly_Name"),
    pytest.param("readonly_Usage", (False, False, False, True), id="readonly_Usage"),
]


def is_refused(call, *arguments):
    try:
        call(*arguments)
    except BusError as error:
        assert error.name == "com.norv.IOControl.Error.Generic"
        return True
    return False


@pytest.mark.parametrize("prop, refused", READ_ONLY)
def test_read_only_properties_refuse_what_they_name(device, prop, refused):
    device.describe(port("a", 0, "io_ctrl", properties=f"ioport {prop}"))
    device.start()
    state = device.state
    assert is_refused(state.SetActive, 0, True, "open") is refused[0]
    assert is_refused(state.SetActive, 0, False, "open") is refused[1]
    assert is_refused(state.SetName, 0, True, "New") is refused[2]
    assert is_refused(state.SetName, 0, False, "New") is refused[2]
    assert is_refused(state.SetUsage, 0, "New") is refused[3]


@pytest.mark.parametrize("prop, _", READ_ONLY)
def test_read_only_properties_allow_what_changes_nothing(device, prop, _):
    device.describe(
        port("a", 0, "io_ctrl", properties=f"ioport {prop}", input_name="I", output_name="O",
             usage="U")
    )  # fmt: skip
    device.start()
    device.state.SetActive(0, True, "closed")
    device.state.SetActive(0, False, "closed")
    device.state.SetName(0, True, "I")
    device.state.SetName(0, False, "O")
    device.state.SetUsage(0, "U")


def test_a_read_only_property_set_to_false_refuses_nothing(device):
    device.describe(port("a", 0, properties={"ioport": "true", "readonly": "false"}))
    device.start()
    device.state.SetName(0, False, "New")
    assert device.state.GetNames(0) == ("", "New")


def test_read_only_ports_can_still_be_driven_and_turned(device):
    device.describe(port("a", 0, "io_ctrl", properties="ioport readonly", dir="output"))
    device.start()
    device.state.SetState(0, True)
    device.state.SetDirection(0, "input")
    assert device.state.GetDirection(0) == "input"


def test_both_sides_of_a_configurable_port_can_be_renamed_in_either_direction(running):
    for direction in ("output", "input"):
        running.state.SetDirection(2, direction)
        running.state.SetName(2, True, f"in while {direction}")
        running.state.SetName(2, False, f"out while {direction}")
        assert running.state.GetNames(2) == (f"in while {direction}", f"out while {direction}")


def test_renaming_emits_no_port_change(running):
    changes = running.signals()
    running.state.SetName(1, False, "New")
    running.state.SetUsage(1, "New")
    changes.assert_none()


@pytest.mark.parametrize(
    "text",
    [
        pytest.param("", id="empty"),
        pytest.param("  both ends  ", id="blanks"),
        pytest.param("a=b;c\\s[x]#\n\tend", id="key file syntax"),
        pytest.param("Grüße, Łódź, 門 🚪", id="beyond ASCII"),
        pytest.param("x" * 65_536, id="long"),
        pytest.param("%s%n%d", id="format directives"),
    ],
)
def test_any_text_serves_as_name_and_usage_and_survives_a_restart(running, text):
    for _ in range(2):
        running.state.SetName(1, False, text)
        running.state.SetUsage(1, text)
        assert running.state.GetNames(1) == ("", text)
        assert running.state.GetUsage(1) == text
        running.restart()
        assert running.state.GetNames(1) == ("", text)
        assert running.state.GetUsage(1) == text

