"""The properties of the legacy objects: every one read and written on every kind of port."""

import pytest
from describe import element, port
from gi.repository import GLib
from legacy import (
    INPUT,
    INVALID_ARGS,
    IOPORT,
    NO_PORT,
    OUTPUT,
    Legacy,
    bytestring,
    text,
    wait_for_change,
)

from sim.bus import BusError, OtherSignal, PortChanged

PORTS = (
    port("in", 0, "input", input_name="Door", usage="Front")
    + port("out", 1, "output", output_name="Relay", port_mode="monostable",
           button_type="pulse", pulse_time=700)
    + port("both", 2, "io_ctrl", dir="output", input_name="Way in", output_name="Way out")
    + port("locked", 3, "io_ctrl", properties="ioport readonly")
    + port("ghost", 4, "input", properties="virtual")
)  # fmt: skip


@pytest.fixture
def legacy(device):
    device.describe(PORTS + element("first_virtual_input", nbr=8))
    device.start()
    return Legacy(device)


@pytest.mark.parametrize(
    "number, interface, name, value",
    [
        pytest.param(0, IOPORT, "NbrOfIOPorts", ("i", 4), id="all"),
        pytest.param(0, IOPORT, "NbrOfInputs", ("i", 2), id="inputs"),
        pytest.param(0, IOPORT, "NbrOfOutputs", ("i", 2), id="outputs"),
        pytest.param(0, IOPORT, "ManualTriggerNbr", ("i", 9), id="first virtual plus one"),
        pytest.param(0, IOPORT, "Configurable", ("b", False), id="a fixed port"),
        pytest.param(2, IOPORT, "Configurable", ("b", True), id="a configurable port"),
        pytest.param(0, IOPORT, "Direction", ("s", "input"), id="an input"),
        pytest.param(1, IOPORT, "Direction", ("s", "output"), id="an output"),
        pytest.param(2, IOPORT, "Direction", ("s", "output"), id="configured as output"),
        pytest.param(3, IOPORT, "Direction", ("s", "input"), id="configured as input"),
        pytest.param(0, IOPORT, "Usage", ("s", "Front"), id="usage"),
        pytest.param(1, IOPORT, "Usage", ("s", ""), id="no usage"),
        pytest.param(0, INPUT, "Name", ("s", "Door"), id="name of an input"),
        pytest.param(1, OUTPUT, "Name", ("s", "Relay"), id="name of an output"),
        pytest.param(2, INPUT, "Name", ("s", "Way in"), id="input name of an output"),
        pytest.param(2, OUTPUT, "Name", ("s", "Way out"), id="output name"),
        pytest.param(3, OUTPUT, "Name", ("s", "<NULL>"), id="a default name was read-only"),
        pytest.param(0, INPUT, "Trig", ("s", "closed"), id="trig"),
        pytest.param(1, OUTPUT, "Active", ("s", "closed"), id="active"),
        pytest.param(1, OUTPUT, "Button", ("s", "pulse"), id="button"),
        pytest.param(1, OUTPUT, "PulseTime", ("i", 700), id="pulse time"),
        pytest.param(1, OUTPUT, "Mode", ("s", "monostable"), id="mode"),
        pytest.param(2, OUTPUT, "Mode", ("s", "bistable"), id="default mode"),
        pytest.param(1, OUTPUT, "DelayTime", ("i", 0), id="delay time"),
    ],
)
def test_a_property_reads_as_a_string_or_number(legacy, number, interface, name, value):
    assert legacy.get_typed(number, interface, name) == value


NOT_SETTABLE = "Port Direction is not settable"
UNSUPPORTED = "Unsupported write of property '{}'"

BOTH_SIDES = {
    (IOPORT, "Configurable"): True,
    (IOPORT, "Direction"): "input",
    (IOPORT, "Usage"): "",
    (INPUT, "Name"): "I",
    (INPUT, "Trig"): "closed",
    (OUTPUT, "Name"): "O",
    (OUTPUT, "Active"): "closed",
    (OUTPUT, "Button"): "none",
    (OUTPUT, "PulseTime"): 0,
    (OUTPUT, "Mode"): "bistable",
    (OUTPUT, "DelayTime"): 0,
}

# For each kind of port, what each property reads and what comes of writing it: the value that it
# then has, or the error that leaves it as it was.
KINDS = {
    "input": (
        port("p", 1, "input", input_name="I"),
        {
            (IOPORT, "Configurable"): False,
            (IOPORT, "Direction"): "input",
            (IOPORT, "Usage"): "",
            (INPUT, "Name"): "I",
            (INPUT, "Trig"): "closed",
        },
        {
            (IOPORT, "Direction", "output"): NOT_SETTABLE,
            (IOPORT, "Direction", "input"): None,
            (IOPORT, "Usage", "Gate"): None,
            (INPUT, "Name", "New"): None,
            (INPUT, "Trig", "open"): None,
        },
    ),
    "output": (
        port("p", 1, "output", output_name="O", button_type="pulse", pulse_time=7,
             port_mode="monostable"),
        {
            (IOPORT, "Configurable"): False,
            (IOPORT, "Direction"): "output",
            (IOPORT, "Usage"): "",
            (OUTPUT, "Name"): "O",
            (OUTPUT, "Active"): "closed",
            (OUTPUT, "Button"): "pulse",
            (OUTPUT, "PulseTime"): 7,
            (OUTPUT, "Mode"): "monostable",
            (OUTPUT, "DelayTime"): 0,
        },
        {
            (IOPORT, "Direction", "input"): NOT_SETTABLE,
            (IOPORT, "Direction", "output"): None,
            (IOPORT, "Usage", "Gate"): None,
            (OUTPUT, "Name", "New"): None,
            (OUTPUT, "Active", "open"): None,
            (OUTPUT, "PulseTime", 70): None,
            (OUTPUT, "Mode", "bistable"): None,
            (OUTPUT, "DelayTime", 90): None,
        },
    ),
    "configurable": (
        port("p", 1, "io_ctrl", input_name="I", output_name="O", button_type="none"),
        BOTH_SIDES,
        {
            (IOPORT, "Direction", "output"): None,
            (IOPORT, "Usage", "Gate"): None,
            (INPUT, "Name", "New"): None,
            (INPUT, "Trig", "open"): None,
            (OUTPUT, "Name", "Newer"): None,
            (OUTPUT, "Active", "open"): None,
            (OUTPUT, "PulseTime", 70): None,
            (OUTPUT, "Mode", "monostable"): None,
            (OUTPUT, "DelayTime", 90): None,
        },
    ),
    "read-only": (
        port("p", 1, "io_ctrl", properties="ioport readonly", input_name="I", output_name="O"),
        BOTH_SIDES,
        {
            (IOPORT, "Direction", "output"): None,
            (INPUT, "Name", "New"): UNSUPPORTED,
            (INPUT, "Trig", "open"): UNSUPPORTED,
            (OUTPUT, "Name", "Newer"): UNSUPPORTED,
            (OUTPUT, "Active", "open"): "Setting Active failed",
            (OUTPUT, "PulseTime", 70): None,
            (OUTPUT, "Mode", "monostable"): None,
            (OUTPUT, "DelayTime", 90): None,
        },
    ),
}  # fmt: skip


@pytest.mark.parametrize("kind", KINDS)
def test_each_kind_of_port_shows_and_takes_what_it_has(device, kind):
    description, shown, written = KINDS[kind]
    device.describe(description)
    device.start()
    legacy = Legacy(device)
    assert set(legacy.interfaces(1)) == {interface for interface, _ in shown}
    counts = {"NbrOfIOPorts", "NbrOfInputs", "NbrOfOutputs", "ManualTriggerNbr"}
    told = {
        (interface, name): value
        for interface in legacy.interfaces(1)
        for name, value in legacy.get_all(1, interface).items()
        if name not in counts
    }
    assert told == shown
    for (interface, name, value), error in written.items():
        before = legacy.get(1, interface, name)
        if error is None:
            legacy.set(1, interface, name, value)
            assert legacy.get(1, interface, name) == value
        else:
            refusal = legacy.refusal(1, interface, name, value)
            assert refusal == (INVALID_ARGS, error.format(name))
            assert legacy.get(1, interface, name) == before
    after = {key: legacy.get(1, *key) for key in shown}
    device.restart()
    assert {key: legacy.get(1, *key) for key in shown} == after


@pytest.mark.parametrize("name", ["Configurable", "Direction"])
def test_a_port_that_is_no_ioport_has_no_value_for_some(legacy, name):
    with pytest.raises(BusError) as refused:
        legacy.get(4, IOPORT, name)
    assert refused.value.name == INVALID_ARGS and name in refused.value.message
    assert name not in legacy.get_all(4, IOPORT)
    assert legacy.get_all(4, IOPORT)["Usage"] == ""


def test_all_properties_are_told_together(legacy):
    assert legacy.get_all(1, OUTPUT) == {
        "Name": "Relay", "Active": "closed", "Button": "pulse", "PulseTime": 700,
        "Mode": "monostable", "DelayTime": 0,
    }  # fmt: skip


@pytest.mark.parametrize(
    "number, interface, name, value, key, saved",
    [
        pytest.param(0, INPUT, "Name", "Gate", "input_name", "Gate", id="input name"),
        pytest.param(1, OUTPUT, "Name", "Horn", "output_name", "Horn", id="output name"),
        pytest.param(2, INPUT, "Name", "West", "input_name", "West", id="other side"),
        pytest.param(2, OUTPUT, "Name", "East", "output_name", "East", id="side in use"),
        pytest.param(0, INPUT, "Trig", "open", "input_activelow", "true", id="trig"),
        pytest.param(2, INPUT, "Trig", "open", "input_activelow", "true", id="trig unused"),
        pytest.param(1, OUTPUT, "Active", "open", "output_activelow", "true", id="active"),
        pytest.param(0, IOPORT, "Usage", "Back", "usage", "Back", id="usage"),
        pytest.param(1, OUTPUT, "PulseTime", 900, "pulse_time", "900", id="pulse time"),
        pytest.param(1, OUTPUT, "PulseTime", -1, "pulse_time", "4294967295", id="unchecked"),
        pytest.param(1, OUTPUT, "DelayTime", 5, "delay_time", "5", id="delay time"),
        pytest.param(1, OUTPUT, "DelayTime", -1, "delay_time", str(2**64 - 1), id="negative"),
        pytest.param(1, OUTPUT, "Mode", "bistable", "port_mode", "bistable", id="mode"),
        pytest.param(2, OUTPUT, "Mode", "monostable", "port_mode", "monostable", id="mode 1"),
        pytest.param(2, IOPORT, "Direction", "input", "input", "true", id="direction"),
    ],
)
def test_a_written_property_reads_back_and_is_saved(
    legacy, number, interface, name, value, key, saved
):
    group = ["in", "out", "both"][number]
    legacy.set(number, interface, name, value)
    assert legacy.get(number, interface, name) == value
    assert legacy.device.saved[group][key] == saved


def test_closed_takes_open_back(legacy):
    for interface, number, name in ((INPUT, 0, "Trig"), (OUTPUT, 1, "Active")):
        legacy.set(number, interface, name, "open")
        legacy.set(number, interface, name, "closed")
        assert legacy.get(number, interface, name) == "closed"


@pytest.mark.parametrize(
    "number, interface, name, value, message",
    [
        pytest.param(0, INPUT, "Trig", "Open", "Incorrect value for Trig", id="trig word"),
        pytest.param(3, INPUT, "Trig", "open", "Unsupported write of property 'Trig'",
                     id="trig read-only"),
        pytest.param(1, OUTPUT, "Active", "ajar", "Incorrect value for Active", id="active word"),
        pytest.param(3, OUTPUT, "Active", "open", "Setting Active failed", id="active read-only"),
        pytest.param(3, INPUT, "Name", "x", "Unsupported write of property 'Name'",
                     id="name read-only"),
        pytest.param(1, OUTPUT, "Button", "push", "Incorrect value for Button", id="button word"),
        pytest.param(1, OUTPUT, "Mode", "astable", "Incorrect value for Mode", id="mode word"),
        pytest.param(1, OUTPUT, "Mode", "", "Incorrect value for Mode", id="empty mode"),
        pytest.param(0, IOPORT, "Direction", "Input", "Bad Direction 'Input'", id="no direction"),
        pytest.param(0, IOPORT, "Direction", "output", "Port Direction is not settable",
                     id="input to output"),
        pytest.param(1, IOPORT, "Direction", "input", "Port Direction is not settable",
                     id="output to input"),
    ],
)  # fmt: skip
def test_a_refused_write_says_why_and_changes_nothing(
    legacy, number, interface, name, value, message
):
    before = legacy.get(number, interface, name)
    assert legacy.refusal(number, interface, name, value) == (INVALID_ARGS, message)
    assert legacy.get(number, interface, name) == before


def test_a_word_that_is_no_direction_is_logged(legacy):
    legacy.refusal(0, IOPORT, "Direction", "up")
    legacy.device.wait_for_log("WARNING: Undefined input: up, for property: Direction")


def test_a_button_write_is_taken_and_yet_refused_and_not_saved(legacy):
    legacy.set(1, OUTPUT, "PulseTime", 1)  # a save, so that the group is as it is now
    assert legacy.refusal(1, OUTPUT, "Button", "actinact") == (
        INVALID_ARGS,
        "Unsupported write of property 'Button'",
    )
    assert legacy.get(1, OUTPUT, "Button") == "actinact"
    assert legacy.device.saved["out"]["button_type"] == "pulse"


def test_a_read_only_usage_is_kept_without_an_error(legacy):
    legacy.set(3, IOPORT, "Usage", "mine")
    assert legacy.get(3, IOPORT, "Usage") == ""


@pytest.mark.parametrize("number, direction", [(0, "input"), (1, "output"), (2, "output")])
def test_the_direction_that_a_port_has_changes_nothing(legacy, number, direction):
    counted = legacy.device.log_count("config-event change")
    signals = legacy.device.signals()
    legacy.set(number, IOPORT, "Direction", direction)
    signals.assert_none(PortChanged)
    assert legacy.device.log_count("config-event change") == counted


def test_a_turned_port_is_told_to_the_configuration_service(legacy):
    counted = legacy.device.log_count("config-event change")
    signals = legacy.device.signals()
    legacy.set(2, IOPORT, "Direction", "input")
    signals.wait_for(PortChanged, port=2, input=True)
    legacy.device.wait_for_log("config-event change", count=counted + 2)
    inputs, outputs = [
        line for line in legacy.device.log if "config-event change" in line
    ][-2:]
    for line, change in ((inputs, "NbrOfInputs=3"), (outputs, "NbrOfOutputs=1")):
        assert line.endswith(
            f"config-event change producer=wexd interface={IOPORT}"
            f" path=/com/norv/Configuration/Legacy/IOControl/IOPort/0 kind=3 {change}"
        )


@pytest.mark.parametrize(
    "change, number, interface, name, value",
    [
        pytest.param(("SetName", 0, True, "New"), 0, INPUT, "Name", "New", id="input name"),
        pytest.param(("SetName", 1, False, "New"), 1, OUTPUT, "Name", "New", id="output name"),
        pytest.param(("SetActive", 0, True, "open"), 0, INPUT, "Trig", "open", id="trig"),
        pytest.param(("SetActive", 1, False, "open"), 1, OUTPUT, "Active", "open", id="active"),
        pytest.param(("SetDirection", 2, "input"), 2, IOPORT, "Direction", "input", id="turned"),
        pytest.param(("SetUsage", 0, "Attic"), 0, IOPORT, "Usage", "Attic", id="usage"),
    ],
)
def test_a_change_is_announced_as_a_byte_string(legacy, change, number, interface, name, value):
    signals = legacy.changes(number)
    method, *arguments = change
    getattr(legacy.device.state, method)(*arguments)
    wait_for_change(signals, interface, name, value)
    signals.assert_none()


def test_the_sense_of_the_side_not_in_use_is_not_announced(legacy):
    signals = legacy.changes(2)
    legacy.device.state.SetActive(2, True, "open")
    signals.assert_none()


def test_the_same_value_again_is_not_announced(legacy):
    signals = legacy.changes(0)
    legacy.set(0, INPUT, "Name", "Door")
    legacy.set(0, IOPORT, "Usage", "Front")
    signals.assert_none()


def test_pulse_mode_and_delay_are_not_announced(legacy):
    signals = legacy.changes(1)
    legacy.set(1, OUTPUT, "PulseTime", 1)
    legacy.set(1, OUTPUT, "DelayTime", 1)
    legacy.set(1, OUTPUT, "Mode", "bistable")
    signals.assert_none()


def test_the_announcement_is_of_type_ay(legacy):
    types = []
    connection = legacy.device.first_client.connection
    connection.signal_subscribe(
        None, "org.freedesktop.DBus.Properties", "PropertiesChanged", None, None, 0,
        lambda *signal: types.append(signal[5].get_type_string() + ":" + ",".join(
            signal[5].get_child_value(1).get_child_value(i).get_child_value(1)
            .get_variant().get_type_string()
            for i in range(signal[5].get_child_value(1).n_children()))),
    )  # fmt: skip
    legacy.device.first_client.owner("org.freedesktop.DBus")
    legacy.device.state.SetUsage(0, "typed")
    legacy.device.sync()
    assert types == ["(sa{sv}as):ay"]


@pytest.mark.parametrize(
    "value", [b"Hall\0", b"Hall"], ids=["with a final zero", "without a final zero"]
)
def test_a_byte_string_needs_no_final_zero(legacy, value):
    legacy.set(0, INPUT, "Name", GLib.Variant("ay", value))
    assert legacy.get(0, INPUT, "Name") == "Hall"


def test_bytes_that_are_no_text_are_refused(legacy):
    assert legacy.refusal(0, INPUT, "Name", GLib.Variant("ay", b"\xff\xfe\0")) == (
        INVALID_ARGS,
        "Incorrect value for Name",
    )
    assert legacy.device.state.GetNames(0) == ("Door", "")


@pytest.mark.parametrize(
    "value", [GLib.Variant("s", "x"), GLib.Variant("i", 1)], ids=["string", "number"]
)
def test_a_value_of_another_type_is_refused(legacy, value):
    assert legacy.refusal(0, INPUT, "Name", value)[0] == INVALID_ARGS


def test_a_read_only_property_cannot_be_written(legacy):
    for name in ("NbrOfInputs", "Configurable"):
        with pytest.raises(BusError):
            legacy.set(0, IOPORT, name, GLib.Variant("i", 1))


def test_the_counts_are_told_on_port_0_without_such_a_port(device):
    device.describe(port("out", 1, "output"))
    device.start()
    legacy = Legacy(device)
    assert legacy.interfaces(0) == [IOPORT]
    assert legacy.get(0, IOPORT, "NbrOfInputs") == 0
    assert legacy.get(0, IOPORT, "NbrOfOutputs") == 1
    assert legacy.get(0, IOPORT, "ManualTriggerNbr") == 6
    for name in ("NbrOfIOPorts", "Usage", "Direction"):
        with pytest.raises(BusError) as refused:
            legacy.get(0, IOPORT, name)
        assert (refused.value.name, refused.value.message) == (NO_PORT, "No such port.")
    assert legacy.refusal(0, IOPORT, "Usage", "x") == (NO_PORT, "No such port.")
    assert sorted(legacy.get_all(0, IOPORT)) == [
        "ManualTriggerNbr", "NbrOfInputs", "NbrOfOutputs",
    ]  # fmt: skip


def test_an_empty_name_and_a_missing_one_look_the_same(legacy):
    legacy.set(0, INPUT, "Name", bytestring(""))
    for _ in range(2):
        assert legacy.get(0, INPUT, "Name") == legacy.get(3, OUTPUT, "Name") == "<NULL>"
        legacy.device.restart()


@pytest.mark.parametrize("value", [b"", b"\0"], ids=["no byte", "a lone zero"])
def test_an_empty_byte_string_is_an_empty_text(legacy, value):
    legacy.set(0, IOPORT, "Usage", GLib.Variant("ay", value))
    assert legacy.get(0, IOPORT, "Usage") == ""
    assert legacy.refusal(1, OUTPUT, "Mode", GLib.Variant("ay", value)) == (
        INVALID_ARGS,
        "Incorrect value for Mode",
    )
    assert legacy.refusal(2, IOPORT, "Direction", GLib.Variant("ay", value)) == (
        INVALID_ARGS,
        "Bad Direction ''",
    )


def test_settings_are_announced_while_a_sequence_runs(legacy):
    """States change on the sequence's own thread while settings are announced on the main one."""
    signals, states = legacy.changes(1), legacy.device.signals()
    legacy.device.state.StartActionSequence(1, False, [(True, 20), (False, 20)] * 5)
    for n in range(5):
        legacy.set(1, IOPORT, "Usage", f"use {n}")
        wait_for_change(signals, IOPORT, "Usage", f"use {n}")
    states.wait_for(PortChanged, port=1, state=True)
    signals.assert_none(OtherSignal)


def test_text_helper_drops_the_final_zero():
    assert text(b"x\0") == "x"
