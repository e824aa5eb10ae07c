"""When a port's events are declared and which state they tell, as the event system hears it."""

import re

import pytest
from describe import element, port, sysfs_input

from sim.bus import PortChanged
from sim.peers import IoBox

FIRST_PIN = 17
EVENT = re.compile(r"MESSAGE: event (\w+) producer=wxd type=(\S+) id=\d+ ?(.*)")


def gpio_input(device, name, number, level, **more):
    """An input on the files of a pin, which read as the level from the start."""
    files = {"value": f"{level}\n", "direction": "in\n", "edge": "none\n", "active_low": "0\n"}
    for file, text in files.items():
        device.write(value_file(number, file), text).chmod(0o666)
    pin = element("input", pin=FIRST_PIN + number)
    return port(name, number, "input", "gpio", backend_inside=pin, **more)


def value_file(number, file="value"):
    return f"/sys/class/gpio/gpio{FIRST_PIN + number}/{file}"


def stateful(declaration="Port", **flags):
    """An event of a type that the library knows, with the port's state as its property."""
    return element(
        "event",
        element("keyvalue", key="state", value="PORT_STATUS", type="bool", property="true"),
        declaration=declaration,
        **flags,
    )


def supervised_event():
    return element(
        "event",
        element("keyvalue", key="line", value="PORT_SUPERVISED_STATUS", type="string",
                property="true"),
        declaration="Port", supervised_input="true",
    )  # fmt: skip


def events(device):
    """(verb, type, key=value...) of every line of the event library so far."""
    found = []
    for line in device.log:
        if match := EVENT.match(line):
            found.append(match.groups())
    return found


def states(device):
    """What the event system was told of the door's state, in order."""
    device.sync()
    return [
        re.search(r"state=(\w+)", rest)[1]
        for verb, _, rest in events(device)
        if verb == "send" and "state=" in rest
    ]


def wait_for_states(device, *expected):
    device.wait_for_log(r"event send .*state=", count=len(expected))
    assert states(device) == list(expected)


@pytest.mark.parametrize("named", [False, True], ids=["first boot", "later boot"])
def test_an_active_input_is_never_told_idle_at_the_start(device, named):
    names = {"input_name": "Door"} if named else {}
    device.describe(gpio_input(device, "door", 0, 1, inside=stateful(), **names))
    device.start()
    wait_for_states(device, "1")


@pytest.mark.parametrize("clear_flag", [None, "true"], ids=["level", "latched"])
@pytest.mark.parametrize("text, activelow", [("1\n", "false"), ("0\n", "true")])
def test_a_polled_input_has_its_state_before_the_first_poll(device, text, activelow, clear_flag):
    """Which is an hour away here. A latched flag is for that poll to clear."""
    device.write("/sys/in", text).chmod(0o666)
    device.settings(f"[door]\ninput_name=Door\ninput_activelow={activelow}\nusage=\n")
    device.describe(
        sysfs_input("door", 0, "/sys/in", timeout=3_600_000, clear_flag=clear_flag, inside=stateful())
    )
    device.start()
    wait_for_states(device, "1")
    assert device.state.GetState(0) is True
    assert device.read("/sys/in") == text


@pytest.mark.parametrize("text, activelow", [("0\n", "false"), ("1\n", "true")])
def test_an_idle_polled_input_is_never_told_active_at_the_start(device, text, activelow):
    device.write("/sys/in", text)
    device.settings(f"[door]\ninput_name=Door\ninput_activelow={activelow}\nusage=\n")
    device.describe(sysfs_input("door", 0, "/sys/in", timeout=3_600_000, inside=stateful()))
    device.start()
    wait_for_states(device, "0")


def test_an_input_of_a_box_is_declared_with_the_state_of_the_box(device):
    IoBox(device, states={"0": "closed"})
    device.describe(port("door", 0, "input", "iobox", inside=stateful()))
    device.start()
    wait_for_states(device, "1")


def test_a_port_that_never_came_into_service_declares_nothing(device):
    broken = {"backend_attributes": {"setup": "fail"}, "optional": "true"}
    device.describe(port("door", 0, "input", "check", inside=stateful(), **broken))
    device.start()
    device.state.RefreshIOPorts()
    assert events(device) == []


def test_a_drop_withdraws_nothing_and_a_refresh_tells_the_true_state(device):
    inside = stateful() + element("event", declaration="IOPort")
    device.describe(gpio_input(device, "door", 0, 0, optional="true", inside=inside))
    device.start()
    device.wait_for_log(r"event send producer=wxd type=IOPort .*state=0")
    device.wait_for_log(r"event send producer=wxd type=Port .*state=0")
    before = len(events(device))

    device.state.DropIOPorts(["door"])
    device.poke(value_file(0), "1\n")
    assert len(events(device)) == before
    device.state.RefreshIOPorts()
    device.wait_for_log(r"event send producer=wxd type=IOPort .*state=1")
    device.wait_for_log(r"event send producer=wxd type=Port .*state=1")
    assert [verb for verb, *_ in events(device)[before:]] == ["send", "send"]


def test_a_port_of_a_box_tells_the_true_state_after_a_refresh(device):
    box = IoBox(device, states={"0": "open"})
    device.describe(port("door", 0, "input", "iobox", optional="true", inside=stateful()))
    device.start()
    wait_for_states(device, "0")
    device.state.DropIOPorts(["door"])
    box.line(0, "closed")
    device.state.RefreshIOPorts()
    wait_for_states(device, "0", "1")


@pytest.mark.parametrize("declaration", ["IOPort", "PortAny", "Port"])
def test_an_event_that_is_only_declared_tells_no_state(device, declaration):
    silent = stateful(declaration, declare_only="true")
    heard = element("event", declaration="IOPort")
    device.describe(
        gpio_input(device, "late", 1, 1, inside=heard)
        + gpio_input(device, "door", 0, 1, inside=silent)
    )
    device.start()
    # The door was declared first, so what it had to tell would have come before this.
    device.wait_for_log(r"event declare producer=wxd type=" + declaration)
    device.wait_for_log(r"event send producer=wxd type=IOPort .*port=1 .*state=1")
    device.sync()
    assert [(kind, rest) for verb, kind, rest in events(device) if verb == "send"] == [
        ("IOPort", "port=1 state=1 topic0=Device topic1=IO topic2=Port")
    ]


@pytest.mark.parametrize("sending_first", [False, True])
def test_the_any_port_event_tells_its_state_once_one_port_sends_it(device, sending_first):
    silent = gpio_input(device, "a", 0, 1, inside=stateful("PortAny", declare_only="true"))
    sending = gpio_input(device, "b", 1, 1, inside=stateful("PortAny"))
    # The newest port is declared first.
    device.describe(silent + sending if sending_first else sending + silent)
    device.start()
    device.wait_for_log(r"event send producer=wxd type=PortAny .*state=1")
    device.sync()
    assert device.log_count(r"event declare producer=wxd type=PortAny") == 1
    assert device.log_count(r"event send producer=wxd type=PortAny") == 1


def test_cut_open_and_short_of_a_box_are_all_sent(device):
    box = IoBox(device, states={"0": "closed"})
    device.describe(port("loop", 0, "input", "iobox", inside=supervised_event()))
    device.start()
    device.supervision.SetSupervised(0, True)
    already = device.log_count(r"event send .*line=")
    lines = ["cut", "open", "short", "closed", "cut"]
    for count, line in enumerate(lines, start=1):
        box.line(0, line)
        device.wait_for_log(r"event send .*line=", count=already + count)
    sent = [rest for verb, _, rest in events(device) if verb == "send"][already:]
    assert [re.search(r"line=(\w+)", rest)[1] for rest in sent] == lines


def test_a_key_value_without_a_type_is_a_text(device):
    untyped = element("keyvalue", key="where", value="hall")
    device.describe(
        port("lamp", 0, inside=element("event", untyped, declaration="Port"))
    )
    device.start()
    device.wait_for_log(r"event declare producer=wxd type=Port .*where=hall")
    signals = device.signals()
    device.state.SetState(0, True)
    signals.wait_for(PortChanged, port=0, state=True)


def test_a_port_that_comes_later_declares_its_events_then(device):
    device.describe(sysfs_input("late", 0, "/sys/late", optional="true", inside=stateful()))
    device.start()
    assert events(device) == []
    device.write("/sys/late", "0\n")
    device.state.RefreshIOPorts()
    device.wait_for_log(r"event declare producer=wxd type=Port ")
    wait_for_states(device, "0")


def test_every_event_is_declared_again_when_supervision_is_switched(device):
    IoBox(device, states={"0": "closed"})
    inside = stateful() + element("event", declaration="IOPort")
    device.describe(port("loop", 0, "input", "iobox", inside=inside))
    device.start()
    device.wait_for_log(r"event send producer=wxd type=IOPort ")
    before = len(events(device))
    device.supervision.SetSupervised(0, True)
    device.sync()
    verbs = [(verb, kind) for verb, kind, _ in events(device)[before:] if verb != "send"]
    assert sorted(verbs) == [
        ("declare", "IOPort"), ("declare", "Port"), ("undeclare", "IOPort"), ("undeclare", "Port"),
    ]  # fmt: skip
