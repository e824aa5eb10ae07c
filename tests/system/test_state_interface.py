"""The port control interface: its exact shape, and what each method answers and saves."""

import xml.etree.ElementTree as ElementTree

import pytest
from describe import port

from sim.bus import STATE_NAME, STATE_PATH, BusError, PortChanged
from sim.device import KEY_FILE

GENERIC = "com.norv.IOControl.Error.Generic"
NO_PORT = "com.norv.IOControl.Error.No_port"
NOT_OUTPUT = "com.norv.IOControl.Error.Not_output"
NOT_CONFIGURABLE = "com.norv.IOControl.Error.Not_configurable"

METHODS = {
    "DropIOPorts": ([("port", "as")], [("dropped", "as")]),
    "RefreshIOPorts": ([], []),
    "GetNbrPorts": ([], [("inputs", "u"), ("outputs", "u")]),
    "GetPortProps": ([], [("number", "i"), ("properties", "a(sibbbba(sb))")]),
    "SetState": ([("port", "u"), ("active", "b")], []),
    "GetState": ([("port", "u")], [("active", "b")]),
    "IsConfigurable": ([("port", "u")], [("configurable", "b")]),
    "GetDirection": ([("port", "u")], [("direction", "s")]),
    "SetDirection": ([("port", "u"), ("direction", "s")], []),
    "GetActive": ([("port", "u")], [("state_input", "s"), ("state_output", "s")]),
    "SetActive": ([("port", "u"), ("input", "b"), ("state", "s")], []),
    "StartActionSequence": ([("port", "u"), ("virtual", "b"), ("seq", "a(bi)")], []),
    "GetNames": ([("port", "u")], [("input", "s"), ("output", "s")]),
    "SetName": ([("port", "u"), ("input", "b"), ("name", "s")], []),
    "GetUsage": ([("port", "u")], [("usage", "s")]),
    "SetUsage": ([("port", "u"), ("usage", "s")], []),
    "SetVirtual": ([("port", "u"), ("state", "b")], []),
}

SIGNALS = {
    "PortChanged": [
        ("port", "i"),
        ("virtual", "b"),
        ("hidden", "b"),
        ("input", "b"),
        ("virtual_trig", "b"),
        ("state", "b"),
        ("activelow", "b"),
    ],
    "ActionSequenceDone": [("port", "i")],
}

# Ports of every kind; "silent" cannot be addressed, "trigger" only as a virtual port.
PORTS = (
    port("in", 0, "input")
    + port("out", 1, "output")
    + port("both", 2, "io_ctrl", dir="output")
    + port("silent", 3, "output", properties="")
    + port("trigger", 4, "output", properties="virtual")
    + port("locked", 5, "io_ctrl", properties="ioport readonly")
)

PER_PORT_CALLS = [
    pytest.param(method, arguments, id=method)
    for method, arguments in (
        ("GetState", ()),
        ("SetState", (True,)),
        ("IsConfigurable", ()),
        ("GetDirection", ()),
        ("SetDirection", ("input",)),
        ("GetActive", ()),
        ("SetActive", (False, "open")),
        ("GetNames", ()),
        ("SetName", (False, "x")),
        ("GetUsage", ()),
        ("SetUsage", ("x",)),
    )
]


@pytest.fixture
def running(device):
    device.describe(PORTS)
    device.start()
    return device


def refused(call, *arguments):
    with pytest.raises(BusError) as caught:
        call(*arguments)
    return caught.value.name, caught.value.message


def forget(device):
    """Removes the saved settings, so that the next save shows."""
    device.sync()
    device.path(KEY_FILE).unlink()


def saved_ports(device):
    """The ports saved since `forget`."""
    device.sync()
    return list(device.saved) if device.exists(KEY_FILE) else []


def arguments_of(node, direction=None):
    return [
        (argument.get("name"), argument.get("type"))
        for argument in node.findall("arg")
        if direction is None or argument.get("direction", "in") == direction
    ]


def test_the_interface_has_exactly_its_members(running):
    text = running.first_client.call(
        STATE_NAME, STATE_PATH, "org.freedesktop.DBus.Introspectable", "Introspect"
    )
    interface = ElementTree.fromstring(text).find(f"interface[@name='{STATE_NAME}']")
    methods = {
        method.get("name"): (arguments_of(method, "in"), arguments_of(method, "out"))
        for method in interface.findall("method")
    }
    signals = {entry.get("name"): arguments_of(entry) for entry in interface.findall("signal")}
    assert methods == METHODS
    assert signals == SIGNALS
    assert interface.findall("property") == []


@pytest.mark.parametrize("method, arguments", PER_PORT_CALLS)
@pytest.mark.parametrize(
    "number",
    [
        pytest.param(99, id="no such number"),
        pytest.param(0xFFFFFFFF, id="the largest number"),
        pytest.param(3, id="neither ioport nor virtual"),
        pytest.param(4, id="virtual but no ioport"),
    ],
)
def test_a_port_that_is_not_published_is_no_port(running, method, arguments, number):
    before = running.read(KEY_FILE)
    assert refused(getattr(running.state, method), number, *arguments) == (
        NO_PORT, "No such port.",
    )  # fmt: skip
    running.sync()
    assert running.read(KEY_FILE) == before


def test_ports_are_counted_by_their_present_direction(running):
    """Two inputs ("in" and "locked", which is one by default) and two outputs; others are none."""
    assert running.state.GetNbrPorts() == (2, 2)
    running.state.SetDirection(2, "input")
    assert running.state.GetNbrPorts() == (3, 1)


def test_port_props_list_every_port_newest_first(running):
    listed = running.port_list()
    assert [entry.name for entry in listed] == ["locked", "trigger", "silent", "both", "out", "in"]
    assert [entry.number for entry in listed] == [5, 4, 3, 2, 1, 0]
    assert [entry.input for entry in listed] == [True, False, False, False, False, True]
    assert [entry.configurable for entry in listed] == [True, False, False, True, False, False]
    assert listed[0].properties == {"ioport": True, "readonly": True}
    assert listed[2].properties == {}


def test_port_props_follow_state_and_active_sense(running):
    running.state.SetState(1, True)
    running.state.SetActive(1, False, "open")
    running.state.SetActive(0, True, "open")
    ports = running.ports()
    assert (ports[1].state, ports[1].activelow) == (True, True)
    assert (ports[0].state, ports[0].activelow) == (True, True)
    assert (ports[2].state, ports[2].activelow) == (False, False)


def test_port_props_show_the_active_sense_of_the_side_in_use(running):
    running.state.SetActive(2, True, "open")
    assert running.ports()[2].activelow is False, "an output now"
    running.state.SetDirection(2, "input")
    assert running.ports()[2].activelow is True


@pytest.mark.parametrize(
    "number, configurable, direction",
    [
        pytest.param(0, False, "input", id="input"),
        pytest.param(1, False, "output", id="output"),
        pytest.param(2, True, "output", id="configurable"),
        pytest.param(5, True, "input", id="configurable by default"),
    ],
)
def test_kind_and_direction_are_told(running, number, configurable, direction):
    assert running.state.IsConfigurable(number) is configurable
    assert running.state.GetDirection(number) == direction


def test_set_state_answers_and_saves(running):
    forget(running)
    running.state.SetState(1, True)
    assert running.state.GetState(1) is True
    assert saved_ports(running) == ["out"]


@pytest.mark.parametrize("number", [pytest.param(0, id="input"), pytest.param(5, id="turned in")])
def test_set_state_on_an_input_is_refused_and_not_saved(running, number):
    forget(running)
    assert refused(running.state.SetState, number, True) == (NOT_OUTPUT, "Port not output.")
    assert running.log_count(r"^WARNING: Set state on incorrect port$") == 1
    assert saved_ports(running) == []


@pytest.mark.parametrize(
    "number, direction, error, message",
    [
        pytest.param(
            2, "Input", GENERIC,
            "Incorrect input to set_direction eiter use 'input' or 'output'", id="capital",
        ),
        pytest.param(
            1, "", GENERIC,
            "Incorrect input to set_direction eiter use 'input' or 'output'", id="empty",
        ),
        pytest.param(1, "input", NOT_CONFIGURABLE, "Port not configurable.", id="an output"),
        pytest.param(0, "input", NOT_CONFIGURABLE, "Port not configurable.", id="an input"),
    ],
)  # fmt: skip
def test_a_refused_direction_still_saves_the_port(running, number, direction, error, message):
    before = running.state.GetDirection(number)
    forget(running)
    assert refused(running.state.SetDirection, number, direction) == (error, message)
    assert saved_ports(running) == [{0: "in", 1: "out", 2: "both"}[number]]
    assert running.state.GetDirection(number) == before


def test_set_direction_saves_the_port(running):
    running.state.SetDirection(2, "input")
    running.sync()
    assert running.saved["both"]["input"] == "true"
    running.state.SetDirection(2, "output")
    running.sync()
    assert running.saved["both"]["input"] == "false"


def test_active_sense_is_told_per_side(running):
    assert running.state.GetActive(2) == ("closed", "closed")
    running.state.SetActive(2, True, "open")
    assert running.state.GetActive(2) == ("open", "closed")
    running.state.SetActive(2, False, "open")
    running.state.SetActive(2, True, "closed")
    assert running.state.GetActive(2) == ("closed", "open")
    running.sync()
    assert running.saved["both"]["input_activelow"] == "false"
    assert running.saved["both"]["output_activelow"] == "true"


@pytest.mark.parametrize(
    "number, side, state, message",
    [
        pytest.param(1, True, "open", "Could not set port to open.", id="input side of an output"),
        pytest.param(0, False, "open", "Could not set port to open.", id="output side of an input"),
        pytest.param(1, True, "closed", "Could not set port to closed.", id="to closed"),
        pytest.param(5, True, "open", "Could not set port to open.", id="read-only"),
        pytest.param(
            2, True, "Open", "Incorrect input to set_active eiter use 'open' or 'closed'",
            id="unknown word",
        ),
    ],
)  # fmt: skip
def test_a_refused_active_sense_still_saves_the_port(running, number, side, state, message):
    forget(running)
    assert refused(running.state.SetActive, number, side, state) == (GENERIC, message)
    assert saved_ports(running) == [{0: "in", 1: "out", 2: "both", 5: "locked"}[number]]
    assert running.state.GetActive(number) == ("closed", "closed")


def test_names_are_set_per_side_and_saved(running):
    forget(running)
    running.state.SetName(2, True, "In")
    running.state.SetName(2, False, "Out")
    assert running.state.GetNames(2) == ("In", "Out")
    running.sync()
    assert running.saved["both"]["input_name"] == "In"
    assert running.saved["both"]["output_name"] == "Out"


@pytest.mark.parametrize(
    "number, side, message",
    [
        pytest.param(1, True, "Could not set input name for the port.", id="input of an output"),
        pytest.param(0, False, "Could not set output name for the port.", id="output of an input"),
        pytest.param(5, True, "Could not set input name for the port.", id="read-only"),
    ],
)
def test_a_refused_name_is_not_saved(running, number, side, message):
    before = running.state.GetNames(number)
    forget(running)
    assert refused(running.state.SetName, number, side, "New") == (GENERIC, message)
    assert saved_ports(running) == []
    assert running.state.GetNames(number) == before


def test_names_of_a_port_without_any_are_empty(device):
    """The number is not below the count of ports, so it gets no default name."""
    device.describe(port("far", 40, "io_ctrl"))
    device.start()
    assert device.state.GetNames(40) == ("", "")


def test_usage_is_set_and_saved(running):
    assert running.state.GetUsage(1) == ""
    forget(running)
    running.state.SetUsage(1, "Gate")
    assert running.state.GetUsage(1) == "Gate"
    assert saved_ports(running) == ["out"]
    assert running.saved["out"]["usage"] == "Gate"


def test_a_refused_usage_is_not_saved(running):
    forget(running)
    assert refused(running.state.SetUsage, 5, "Gate") == (
        GENERIC, "Could not set usage for the port.",
    )  # fmt: skip
    assert saved_ports(running) == []
    assert running.state.GetUsage(5) == ""


@pytest.mark.parametrize(
    "number, name", [pytest.param(1, "out", id="ioport"), pytest.param(4, "trigger", id="virtual")]
)
def test_set_virtual_reaches_io_ports_and_virtual_ports_and_saves(running, number, name):
    changes = running.signals()
    forget(running)
    running.state.SetVirtual(number, True)
    changes.wait_for(PortChanged, port=number, virtual_trig=True, state=True)
    assert saved_ports(running) == [name]


@pytest.mark.parametrize("number", [pytest.param(3, id="neither"), pytest.param(99, id="none")])
def test_set_virtual_on_any_other_port_is_refused(running, number):
    forget(running)
    assert refused(running.state.SetVirtual, number, True) == (NO_PORT, "No such port.")
    assert saved_ports(running) == []


def test_the_answer_comes_for_each_of_many_calls_in_flight(running):
    calls = [running.state.begin("GetState", n % 3) for n in range(300)]
    assert all(call.wait() is False for call in calls)


@pytest.mark.parametrize(
    "path, interface, method, signature, arguments",
    [
        pytest.param(STATE_PATH, STATE_NAME, "GetState", "i", (0,), id="wrong type"),
        pytest.param(STATE_PATH, STATE_NAME, "GetState", "", (), id="too little"),
        pytest.param(STATE_PATH, STATE_NAME, "GetState", "uu", (0, 0), id="too much"),
        pytest.param(STATE_PATH, STATE_NAME, "Nonsense", "", (), id="no such method"),
        pytest.param(STATE_PATH, "com.norv.Nonsense", "GetState", "u", (0,), id="no such interface"),
        pytest.param("/com/norv/Nonsense", STATE_NAME, "GetState", "u", (0,), id="no such object"),
    ],
)
def test_a_call_that_does_not_fit_is_refused_and_harms_nothing(
    running, path, interface, method, signature, arguments
):
    with pytest.raises(BusError, match=r"^org\.freedesktop\.DBus\.Error\."):
        running.first_client.call(STATE_NAME, path, interface, method, signature, *arguments)
    assert running.state.GetState(0) is False


def test_a_port_without_a_number_can_be_configured(device):
    device.describe(port("stray", None, "io_ctrl"))
    device.start()
    number = 0xFFFFFFFF  # -1
    device.state.SetName(number, False, "Stray")
    device.state.SetUsage(number, "none")
    device.state.SetDirection(number, "output")
    device.state.SetActive(number, False, "open")
    assert device.state.GetNames(number) == ("", "Stray")
    assert device.saved["stray"]["usage"] == "none"
    assert device.log_count("^USER: .*Failed to emit configuration changed signal: .*-1") == 4
