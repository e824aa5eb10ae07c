"""The supervision interface, on ports of a mock IO box (which classifies by itself)."""

import xml.etree.ElementTree as ElementTree

import pytest
from describe import element, port

from sim.bus import SUPERVISED_NAME, SUPERVISED_PATH, BusError, wait_until
from sim.device import KEY_FILE
from sim.peers import IoBox

GENERIC = "com.norv.IOSupervised.Error.Generic"
NO_PORT = "com.norv.IOSupervised.Error.No_port"
NOT_SUPERVISABLE = "com.norv.IOSupervised.Not_supervisable"
BAD_RANGE = "com.norv.IOSupervised.Bad_supervised_range"

SUPERVISED_EVENT = element(
    "event", declaration="com.norv.Event.Wxd.SupervisedPort", input="false", output="false",
    supervised_input="true",
)  # fmt: skip


def box_port(name, number, kind="input", **more):
    return port(name, number, kind, "iobox", **more)


@pytest.fixture
def box(device):
    box = IoBox(device, states={"0": "closed"})
    device.describe(
        box_port("line", 0, inside=SUPERVISED_EVENT)
        + port("plain", 1)
        + box_port("hidden", 2, properties="virtual")
        + box_port("both", 3, "io_ctrl", dir="output")
    )
    device.start()
    return box


def refusal(device, method, *arguments):
    with pytest.raises(BusError) as refused:
        getattr(device.supervision, method)(*arguments)
    return refused.value.name, refused.value.message


METHODS = {
    "GetNumberOfPorts": ([], [("inputs", "u"), ("outputs", "u")]),
    "IsSupervisable": ([("port", "u")], [("input", "b"), ("output", "b")]),
    "GetSupervised": ([("port", "u")], [("supervised", "b")]),
    "SetSupervised": ([("port", "u"), ("supervised", "b")], []),
    "SetSupervisedRanges": (
        [("port", "u"), ("state", "s"), ("lowerlimit", "u"), ("upperlimit", "u")],
        [],
    ),
    "GetSupervisedRanges": ([("port", "u")], [("ranges", "a(suu)")]),
    "GetSupervisedReadout": ([("port", "u")], [("state", "s"), ("level", "u")]),
    "GetSupervisedStates": ([("port", "u")], [("nbrstates", "u"), ("states", "a(s)")]),
    "GetSupervisedPortNumbers": ([], [("ports", "au")]),
}


def test_the_interface_is_exactly_this(device, box):
    xml = device.first_client.call(
        SUPERVISED_NAME, SUPERVISED_PATH, "org.freedesktop.DBus.Introspectable", "Introspect"
    )
    interface = ElementTree.fromstring(xml).find(f"interface[@name='{SUPERVISED_NAME}']")
    shape = {
        method.get("name"): tuple(
            [(a.get("name"), a.get("type")) for a in method if a.get("direction") == direction]
            for direction in ("in", "out")
        )
        for method in interface
    }
    assert shape == METHODS


PER_PORT = [
    ("IsSupervisable", ()),
    ("GetSupervised", ()),
    ("SetSupervised", (True,)),
    ("SetSupervisedRanges", ("open", 1, 2)),
    ("GetSupervisedRanges", ()),
    ("GetSupervisedReadout", ()),
    ("GetSupervisedStates", ()),
]


@pytest.mark.parametrize("method, arguments", PER_PORT)
def test_a_number_without_a_port_is_refused(device, box, method, arguments):
    assert refusal(device, method, 9, *arguments) == (NO_PORT, "No such port.")


@pytest.mark.parametrize("method, arguments", PER_PORT[:3])
def test_an_unpublished_port_is_no_port_for_the_switches(device, box, method, arguments):
    assert refusal(device, method, 2, *arguments) == (NO_PORT, "No such port.")


def test_an_unpublished_port_is_served_with_ranges_and_readings(device, box):
    device.supervision.SetSupervisedRanges(2, "open", 1, 2)
    assert device.supervision.GetSupervisedRanges(2) == [("open", 1, 2)]
    assert device.supervision.GetSupervisedReadout(2) == ("open", 0)
    assert device.supervision.GetSupervisedStates(2)[0] == 4


@pytest.mark.parametrize(
    "method, arguments, message",
    [
        ("SetSupervised", (True,), "Port is not supervisable."),
        ("SetSupervisedRanges", ("open", 1, 2), "Port is not supervisable."),
        ("GetSupervisedRanges", (), "Port is not supervisable."),
        ("GetSupervisedReadout", (), "Port is not supervisable."),
        ("GetSupervisedStates", (), "Port is not supervisable"),
    ],
)
def test_a_plain_port_is_not_supervisable(device, box, method, arguments, message):
    assert refusal(device, method, 1, *arguments) == (NOT_SUPERVISABLE, message)


def test_the_counts_are_those_of_the_port_control_interface(device, box):
    assert device.supervision.GetNumberOfPorts() == device.state.GetNbrPorts() == (1, 2)


def test_an_output_side_is_never_supervisable(device, box):
    answers = [device.supervision.IsSupervisable(number) for number in (0, 1, 3)]
    assert answers == [(True, False), (False, False), (True, False)]


def test_supervisable_numbers_come_in_list_order(device, box):
    assert device.supervision.GetSupervisedPortNumbers() == [3, 2, 0]


def test_the_states_come_in_the_model_s_order(device, box):
    assert device.supervision.GetSupervisedStates(0) == (
        4,
        [("closed",), ("open",), ("short",), ("cut",)],
    )


def test_the_switch_is_kept_and_saved(device, box):
    assert device.supervision.GetSupervised(0) is False
    device.supervision.SetSupervised(0, True)
    assert device.supervision.GetSupervised(0) is True
    assert device.saved["line"]["supervised_input"] == "true"


def test_the_value_that_a_port_has_saves_nothing_and_declares_nothing(device, box):
    device.path(KEY_FILE).unlink()
    declared = device.log_count("event (un)?declare")
    device.supervision.SetSupervised(0, False)
    device.sync()
    assert not device.exists(KEY_FILE)
    assert device.log_count("event (un)?declare") == declared


def test_a_plain_port_that_is_off_already_is_no_error(device, box):
    device.supervision.SetSupervised(1, False)


def test_switching_declares_the_events_anew(device, box):
    declared = r"event declare producer=wxd type=com\.norv\.Event\.Wxd\.SupervisedPort"
    assert device.log_count(declared) == 0
    device.supervision.SetSupervised(0, True)
    device.wait_for_log(declared)
    device.supervision.SetSupervised(0, False)
    device.wait_for_log(r"event undeclare producer=wxd type=com\.norv\.Event\.Wxd\.Supervised")
    device.supervision.SetSupervised(0, True)
    device.wait_for_log(declared, count=2)


@pytest.mark.parametrize(
    "word, tampered", [("open", 0), ("cut", 1), ("short", 1), ("ajar", 0)]
)
def test_the_event_tells_of_tampering(device, box, word, tampered):
    device.supervision.SetSupervised(0, True)
    box.line(0, word)
    state = word if word != "ajar" else "undefined"
    device.wait_for_log(
        rf"event send producer=wxd type=com\.norv\.Event\.Wxd\.SupervisedPort id=\d+ .*"
        rf"tampered={tampered} state={state}"
    )


def test_a_line_that_changes_among_faults_is_sent_each_time_and_never_twice(device, box):
    device.supervision.SetSupervised(0, True)
    sends = r"event send producer=wxd type=com\.norv\.Event\.Wxd\.SupervisedPort"
    # The event system asks for the state that it starts from when the daemon has nothing else to do.
    device.wait_for_log(rf"{sends} .*state=closed")
    for word in ("cut", "cut", "short", "cut"):
        box.line(0, word)
    device.wait_for_log(sends, count=4)
    device.sync()
    assert device.log_count(sends) == 4


def test_ranges_are_appended_in_order_and_saved(device, box):
    device.supervision.SetSupervisedRanges(0, "short", 100, 200)
    device.supervision.SetSupervisedRanges(0, "closed", 0, 100)
    device.supervision.SetSupervisedRanges(0, "closed", 0, 65535)
    assert device.supervision.GetSupervisedRanges(0) == [
        ("short", 100, 200), ("closed", 0, 100), ("closed", 0, 65535),
    ]  # fmt: skip
    assert device.saved["line"]["supervised_input_ranges"] == (
        "[('short', uint32 100, uint32 200), ('closed', 0, 100), ('closed', 0, 65535)]"
    )


def test_a_port_without_ranges_answers_an_empty_list(device, box):
    assert device.supervision.GetSupervisedRanges(0) == []


def test_ranges_come_back_by_lower_limit_after_a_restart(device, box):
    device.supervision.SetSupervisedRanges(0, "short", 100, 200)
    device.supervision.SetSupervisedRanges(0, "closed", 0, 100)
    device.restart()
    expected = [("closed", 0, 100), ("short", 100, 200)]
    assert device.supervision.GetSupervisedRanges(0) == expected
    device.restart()
    assert device.supervision.GetSupervisedRanges(0) == expected


def test_supervision_comes_back_after_a_restart(device, box):
    device.supervision.SetSupervisedRanges(0, "open", 1, 2)
    device.supervision.SetSupervised(0, True)
    device.restart()
    assert device.supervision.GetSupervised(0) is True
    box.line(0, "cut")
    wait_until(lambda: device.supervision.GetSupervisedReadout(0) == ("cut", 0), "a cut line")


@pytest.mark.parametrize(
    "state, lower, upper, message",
    [
        ("open", 10, 10, "Invalid range."),
        ("open", 11, 10, "Invalid range."),
        ("open", 0, 65536, "Invalid range."),
        ("open", 65536, 65537, "Invalid range."),
        ("undefined", 10, 10, "Invalid range."),
        ("undefined", 0, 10, "State is undefined."),
        ("Open", 0, 10, "State is undefined."),
        ("", 0, 10, "State is undefined."),
    ],
)
def test_a_bad_range_is_refused_and_changes_nothing(device, box, state, lower, upper, message):
    device.path(KEY_FILE).unlink()
    assert refusal(device, "SetSupervisedRanges", 0, state, lower, upper) == (BAD_RANGE, message)
    assert device.supervision.GetSupervisedRanges(0) == []
    assert not device.exists(KEY_FILE)


def test_a_limit_beyond_the_signed_range_passes_as_negative(device, box):
    device.supervision.SetSupervisedRanges(0, "open", 2**32 - 5, 10)
    assert device.supervision.GetSupervisedRanges(0) == [("open", 2**32 - 5, 10)]


def test_an_output_that_is_supervised_becomes_an_input(device, box):
    device.supervision.SetSupervised(3, True)
    assert device.supervision.GetSupervised(3) is True
    # The box is told of the mode only: the direction is the port's own.
    assert box.modes[-1][0] == 3


def test_the_name_is_given_back(device, box):
    assert device.first_client.owner(SUPERVISED_NAME)
    device.stop()
    assert device.first_client.owner(SUPERVISED_NAME) is None
