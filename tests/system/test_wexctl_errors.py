"""What the client says of a mistake, of a daemon that is not there and of one that refuses: one line."""

import pytest
from client import Client
from describe import port

from sim import bus


@pytest.fixture
def daemon(device):
    device.describe(port("door", 0, "input") + port("relay", 1) + port("line", 2, "input"))
    return device.start()


def test_an_error_stays_on_its_line(daemon, wexctl):
    result = wexctl("get", "no\nsuch \x1b[31m")
    assert (result.status, result.err) == (1, "wexctl: no port is called 'no\\x0asuch \\x1b[31m'\n")
    result = wexctl("get", "relay", "a\nb")
    assert (result.status, result.err) == (
        2, "wexctl: 'a\\x0ab' is one argument too many; see wexctl get --help\n",
    )  # fmt: skip


@pytest.mark.parametrize(
    "arguments, error",
    [
        ("", "VERB is required; see wexctl --help"),
        ("bogus", "'bogus' is no verb; see wexctl --help"),
        ("--bogus", "'--bogus' is no option; see wexctl --help"),
        ("supervised", "VERB is required; see wexctl supervised --help"),
        ("supervised bogus", "'bogus' is no verb; see wexctl supervised --help"),
        ("set", "PORT is required; see wexctl set --help"),
        ("set relay", "STATE is required; see wexctl set --help"),
        ("set relay maybe", "'maybe' is neither on nor off"),
        ("set relay on x y", "'relay' is not PORT=STATE; see wexctl set --help"),
        ("get relay x y", "'x' is one argument too many; see wexctl get --help"),
        ("get relay --side", "'--side' is no option; see wexctl get --help"),
        ("pulse relay 5xyz",
         "TIME: '5xyz' is no length of time: write 500ms, 2s, 1m or 1h; see wexctl pulse --help"),
        ("pulse relay -5",
         "TIME: '-5' is no length of time: write 500ms, 2s, 1m or 1h; see wexctl pulse --help"),
        ("pulse relay 2147483648",
         "TIME: '2147483648' is no length of time: write 500ms, 2s, 1m or 1h; see wexctl pulse --help"),
        ("set relay=on lamp", "'lamp' is neither on nor off"),
        ("set relay=maybe", "'maybe' is neither on nor off"),
        ("set =on relay=off", "PORT is empty"),
        ("set relay=on 1=off", "port 1 is told twice"),
        ("set relay --on", "'--on' is no option; see wexctl set --help"),
        ("toggle", "PORT is required; see wexctl toggle --help"),
        ("toggle relay relay", "port 1 is told twice"),
        ("direction relay up",
         "DIRECTION: up not in {input,output}; see wexctl direction --help"),
        ("supervised ranges line cut 1 x",
         "UPPER: 'x' is no whole number from 0 to 4294967295; see wexctl supervised ranges --help"),
        ("supervised ranges line cut", "STATE requires LOWER; see wexctl supervised ranges --help"),
    ],
)  # fmt: skip
def test_a_mistake_is_one_line_that_names_it(daemon, wexctl, arguments, error):
    result = wexctl(*arguments.split())
    assert (result.status, result.out, result.err) == (2, "", f"wexctl: {error}\n")


@pytest.mark.parametrize("arguments", ["list", "set 1 on", "supervised show", "connectors",
                                       "legacy get 1", "refresh", "run 1 1:5 --wait"])  # fmt: skip
def test_a_daemon_that_does_not_run_is_told_as_that(device, wexctl, arguments):
    result = wexctl(*arguments.split())
    assert (result.status, result.out, result.err) == (
        3, "", "wexctl: wexd does not answer: it is not running\n",
    )  # fmt: skip


def test_a_bus_that_is_not_there_is_told_as_that(device, wexctl):
    result = wexctl("list", address="unix:path=/nowhere")
    assert (result.status, result.out, result.err) == (
        3, "",
        "wexctl: wexd does not answer: no system bus: Could not connect: No such file or directory\n",
    )  # fmt: skip


def test_a_daemon_without_its_legacy_interface_is_not_called_absent(device, wexctl):
    device.describe(port("relay", 1))
    device.start("--disable_legacy_interface")
    result = wexctl("legacy", "get", "relay")
    assert (result.status, result.err) == (
        3, "wexctl: wexd does not answer: it does without its legacy interface\n",
    )  # fmt: skip


DENIED = """<deny send_destination="com.norv.IOControl.State" send_member="SetState"
  send_interface="com.norv.IOControl.State"/></policy>"""


@pytest.fixture
def guarded(monkeypatch, make_device):
    """A device whose bus lets nobody drive a port."""
    monkeypatch.setattr(bus, "CONFIGURATION", bus.CONFIGURATION.replace("</policy>", DENIED))
    device = make_device()
    device.describe(port("relay", 1))
    return device.start()


def test_who_may_not_is_told_who_may(guarded, binary):
    result = Client(guarded, binary)("set", "relay", "on")
    assert (result.status, result.out, result.err) == (
        1, "",
        "wexctl: only root and the group wxd may do this (org.freedesktop.DBus.Error.AccessDenied)\n",
    )  # fmt: skip
