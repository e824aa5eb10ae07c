"""Ports of an external IO box, reached through its monitor service."""

import pytest
from describe import element, port

from sim.bus import PortChanged, wait_until
from sim.peers import IoBox

LABEL = "USER: iobox_port_setup@"


def box_port(name, number, kind="input", *, model=None, **more):
    inside = element("box", name=model) if model is not None else ""
    return port(name, number, kind, "iobox", backend_inside=inside, **more)


def start(device, ports, **box):
    peer = IoBox(device, **box)
    device.describe(ports)
    device.start()
    return peer


def numbers(device):
    return sorted(entry.number for entry in device.port_list())


def test_an_input_starts_with_the_state_of_its_box(device):
    start(device, box_port("a", 0) + box_port("b", 1), states={"0": "closed", "1": "open"})
    assert (device.state.GetState(0), device.state.GetState(1)) == (True, False)


@pytest.mark.parametrize(
    "word, plain", [("open", False), ("closed", True), ("cut", False), ("short", True)]
)
def test_an_unsupervised_input_shows_a_plain_contact(device, word, plain):
    start(device, box_port("a", 0), states={"0": word})
    assert device.state.GetState(0) is plain


def test_an_input_follows_its_box(device):
    box = start(device, box_port("a", 0) + box_port("b", 1))
    signals = device.signals()
    box.line(0, "closed")
    signals.wait_for(PortChanged, port=0, state=True, input=True, virtual_trig=False)
    box.line(0, "open")
    signals.wait_for(PortChanged, port=0, state=False)
    signals.assert_none()


def test_the_same_state_again_triggers_nothing(device):
    box = start(device, box_port("a", 0), states={"0": "closed"})
    signals = device.signals()
    box.line(0, "closed")
    box.line(0, "open")
    signals.wait_for(PortChanged, port=0, state=False)
    signals.assert_none()


def test_an_unknown_word_reads_as_undefined(device):
    box = start(device, box_port("a", 0), states={"0": "closed"})
    signals = device.signals()
    box.line(0, "ajar")
    signals.wait_for(PortChanged, port=0, state=False)
    device.wait_for_log(
        "WARNING: iobox_state_to_wexd_state@72: Unrecognized iobox supervised state: ajar"
    )


@pytest.mark.parametrize(
    "signature, arguments", [("i", (0,)), ("si", ("closed", 0)), ("ib", (0, True))]
)
def test_a_signal_of_another_form_is_ignored(device, signature, arguments):
    box = start(device, box_port("a", 0))
    signals = device.signals()
    box.emit("IOStateChanged", signature, *arguments)
    box.emit("OtherSignal", "is", 0, "closed")
    box.line(0, "closed")
    signals.wait_for(PortChanged, port=0, state=True)
    signals.assert_none()


def test_an_output_is_driven_through_the_box(device):
    box = start(device, box_port("out", 2, "output"))
    assert box.modes == [(2, 0, "out")]
    signals = device.signals()
    device.state.SetState(2, True)
    signals.wait_for(PortChanged, port=2, state=True, input=False)
    assert box.modes[1:] == [(2, 1, "out")]
    assert device.state.GetState(2) is True


def test_an_active_low_output_starts_with_its_idle_level(device):
    device.settings(
        "[out]\noutput_name=\noutput_activelow=true\npulse_time=0\nport_mode=bistable\n"
        "delay_time=0\nsupervised_input_ranges=[('open', 0, 1)]\nsupervised_input=false\nusage=\n"
    )
    box = start(device, box_port("out", 2, "output"))
    assert box.modes == [(2, 1, "out")]
    assert device.state.GetState(2) is False


def test_a_configurable_port_tells_the_box_its_direction(device):
    box = start(device, box_port("both", 1, "io_ctrl", dir="input"), states={"1": "closed"})
    assert box.modes == []
    device.state.SetDirection(1, "output")
    device.state.SetDirection(1, "input")
    assert [mode for _, _, mode in box.modes] == ["out", "in"]


@pytest.mark.parametrize(
    "model, configured, kept",
    [
        ("x5210", None, True),
        ("y1", None, False),
        ("y1", "y1", True),
        ("x5210", "y1", False),
    ],
    ids=["the usual box", "another box", "the box asked for", "not the box asked for"],
)
def test_the_model_decides(device, model, configured, kept):
    start(device, box_port("a", 0, model=configured) + port("p", 1), model=model)
    assert numbers(device) == ([0, 1] if kept else [1])
    assert device.log_count(LABEL) == 0  # the quiet failure


@pytest.mark.parametrize(
    "box", [{"connected": False}, {"status": "disabled"}], ids=["no box", "port in no use"]
)
def test_a_box_without_the_port_fails_quietly(device, box):
    start(device, box_port("a", 0) + port("p", 1), **box)
    assert numbers(device) == [1]
    assert device.log_count(LABEL) == 0


STEPS = [
    ("GetIOBoxConnected", 206, "Could not get IO box connection status"),
    ("GetIOBoxType", 218, "Could not get IO box type"),
    ("GetIOPortStatus", 242, "Could not get IO port status"),
    ("GetSupervised", 256, "Could not get Supervised value"),
    ("GetIOState", 278, "Could not get initial IO state"),
]


@pytest.mark.parametrize("method, line, message", STEPS)
@pytest.mark.parametrize("fault", ["fail", "mistype"])
def test_each_question_that_is_not_answered_is_named(device, method, line, message, fault):
    box = IoBox(device)
    getattr(box, fault)(method)
    device.describe(box_port("a", 0) + port("p", 1))
    device.start()
    assert numbers(device) == [1]
    device.wait_for_log(rf"USER: iobox_port_setup@{line}: {message}$")
    device.wait_for_log(rf"USER: iobox_dbus_call@46: Failed to call method {method}: ")


def test_without_a_monitor_the_port_is_dropped(device):
    device.describe(box_port("a", 0) + port("p", 1))
    device.start()
    assert numbers(device) == [1]
    device.wait_for_log("Failed to call method GetIOBoxConnected: ")
    device.wait_for_log("Setup failed for port 0, removing from list")


def test_an_optional_port_comes_when_its_box_does(device):
    device.describe(box_port("a", 0, optional="true") + port("p", 1))
    device.start()
    assert numbers(device) == [1]
    box = IoBox(device, states={"0": "closed"})
    device.state.RefreshIOPorts()
    assert numbers(device) == [0, 1]
    signals = device.signals()
    box.line(0, "open")
    signals.wait_for(PortChanged, port=0, state=False)


def test_drop_and_refresh_again_and_again_keep_one_listener(device):
    box = start(device, box_port("a", 0, model="y1", optional="true"), model="y1")
    for _ in range(5):
        assert device.state.DropIOPorts(["a"]) == ["a"]
        device.state.RefreshIOPorts()
    signals = device.signals()
    box.line(0, "closed")
    signals.wait_for(PortChanged, port=0, state=True)
    signals.assert_none()


def test_a_dropped_port_does_not_hear_its_box(device):
    box = start(device, box_port("a", 0, optional="true"))
    device.state.DropIOPorts(["a"])
    signals = device.signals()
    box.line(0, "closed")
    signals.assert_none()


def test_the_monitor_may_vanish_and_come_back(device):
    box = start(device, box_port("a", 0) + box_port("out", 1, "output"))
    box.stop()
    device.state.SetState(1, True)
    device.wait_for_log("Failed to call method SetIOMode: ")
    box.start()
    signals = device.signals()
    box.line(0, "closed")
    signals.wait_for(PortChanged, port=0, state=True)
    device.state.SetState(1, False)
    assert box.modes == [(1, 0, "out")]


def test_a_late_answer_holds_the_daemon_and_loses_nothing(device):
    box = start(device, box_port("out", 1, "output") + port("p", 2))
    box.delay("SetIOMode", 1.5)
    call = device.state.begin("SetState", 1, True)
    others = [device.client().state.begin("SetState", 2, state) for state in (True, False, True)]
    call.wait()
    for other in others:
        other.wait()
    assert (device.state.GetState(1), device.state.GetState(2)) == (True, True)


def test_supervision_is_told_to_the_box_and_shows_every_state(device):
    box = start(device, box_port("a", 0), states={"0": "closed"})
    device.supervision.SetSupervised(0, True)
    assert box.modes == [(0, 0, "supervised_in")]
    for word in ("cut", "short", "open", "closed"):
        box.line(0, word)
        wait_until(lambda word=word: device.supervision.GetSupervisedReadout(0) == (word, 0), word)
    device.supervision.SetSupervised(0, False)
    assert box.modes[-1] == (0, 0, "in")


def test_a_box_that_cannot_supervise_is_believed(device):
    start(device, box_port("a", 0), supervised=False)
    assert device.supervision.IsSupervisable(0) == (False, False)


def test_an_output_answers_supervision_like_an_input(device):
    box = start(device, box_port("out", 0, "output"))
    device.supervision.SetSupervised(0, True)
    assert device.supervision.GetSupervised(0) is True
    assert box.modes[-1] == (0, 0, "out")
