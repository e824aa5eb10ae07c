"""Clients that call anything with anything: the daemon answers, goes on, and keeps its settings."""

import pathlib
import random
import xml.etree.ElementTree as ElementTree

import pytest
from describe import element, port
from gi.repository import GLib

from sim.bus import MANAGER_NAME, MANAGER_PATH, STATE_NAME, BusError
from sim.peers import IoBox

TOP = pathlib.Path(__file__).resolve().parents[2]
PATHS = {
    "com.norv.IOControl.State": "/com/norv/IOControl/State",
    MANAGER_NAME: MANAGER_PATH,
    "com.norv.IOSupervised.Supervised": "/com/norv/IOSupervised/Supervised",
    "com.norv.WXD.Connector": "/com/norv/WXD/Connector",
}
LEGACY = "com.norv.Configuration.Legacy.IOControl1"
PROPERTIES = "org.freedesktop.DBus.Properties"

TEXTS = [
    "", "Door", "in", "out", "line", "open", "closed", "short", "cut", "input", "output", "yes",
    "*", "video connector", "none", "pulse", "0", "-1", "x" * 5000, "é\u202e\U0001f6aa", "a=b\n[c]",
    "<&\"'>", "%s%n", "\\", ";", " ", "\t\r\n", "../../etc/passwd",
]  # fmt: skip
NUMBERS = [*range(7), -1, 255, 256, 65536, 2**31 - 1]
SIGNATURES = ["", "s", "i", "u", "b", "as", "a(bu)", "(is)", "a{sv}", "ay", "v", "xd", "isbsia(suu)"]


def values(dice, signature):
    """Arguments of a signature, as one variant."""
    return GLib.Variant(f"({signature})", value(dice, f"({signature})"))


def value(dice, kind):
    if kind == "s":
        return dice.choice(TEXTS)
    if kind == "b":
        return dice.random() < 0.5
    if kind in "yu":
        return abs(dice.choice(NUMBERS)) % (256 if kind == "y" else 2**32)
    if kind in "ix":
        return dice.choice([*NUMBERS, -(2**31)])
    if kind == "d":
        return dice.choice([0.0, -1.5, float("nan"), 1e308])
    if kind == "v":
        inner = dice.choice(["s", "i", "b", "as", "ay"])
        return GLib.Variant(inner, value(dice, inner))
    if kind == "a{sv}":
        return {}
    if kind.startswith("a"):
        return [value(dice, kind[1:]) for _ in range(dice.choice([0, 1, 2, 5]))]
    return tuple(value(dice, item) for item in GLib.Variant.split_signature(kind))


def methods():
    """(path, interface, method, in-signature) of every method of the services."""
    found = []
    for interface, path in PATHS.items():
        root = ElementTree.parse(TOP / f"src/dbus/{interface}.xml").getroot()
        for method in root.iter("method"):
            kinds = [a.get("type") for a in method.iter("arg") if a.get("direction", "in") == "in"]
            found.append((path, interface, method.get("name"), "".join(kinds)))
    return found


def legacy_properties():
    root = ElementTree.parse(TOP / f"src/dbus/{LEGACY}.xml").getroot()
    return [
        (interface.get("name"), found.get("name"))
        for interface in root.iter("interface")
        for found in interface.iter("property")
    ]


def random_call(dice):
    """(name, path, interface, method, arguments): mostly well formed, now and then anything."""
    if dice.random() < 0.3:
        interface, name = dice.choice(legacy_properties())
        path = f"/com/norv/Configuration/Legacy/IOControl/IOPort/{dice.choice([0, 1, 2, 4, 9])}"
        if dice.random() < 0.3:
            return f"{LEGACY}.IOPort", path, PROPERTIES, "Get", GLib.Variant("(ss)", (interface, name))
        kind = dice.choice(["s", "s", "s", "ay", "i", "b", "a{sv}"])
        what = GLib.Variant("(ssv)", (interface, name, GLib.Variant(kind, value(dice, kind))))
        return f"{LEGACY}.IOPort", path, PROPERTIES, "Set", what
    path, interface, method, signature = dice.choice(methods())
    if dice.random() < 0.1:
        signature = dice.choice(SIGNATURES)
    name = STATE_NAME if interface == MANAGER_NAME else interface
    return name, path, interface, method, values(dice, signature)


@pytest.mark.parametrize("seed", range(4))
def test_whatever_is_called_the_daemon_serves_on(device, seed):
    IoBox(device, types={}, states={"5": "open"})
    device.describe(
        port("in", 0, "input", properties="ioport video_connector", optional="true")
        + port("out", 1)
        + port("both", 2, "io_ctrl")
        + port("locked", 3, "io_ctrl", properties="ioport readonly")
        + port("virt", 4, backend="virtual", properties="virtual")
        + port("line", 5, "input", "iobox")
        + element("first_virtual_input", nbr=20)
    )
    device.start()
    dice = random.Random(seed)
    answers = errors = 0
    for _ in range(400):
        name, path, interface, method, arguments = random_call(dice)
        try:
            device.client().connection.call_sync(
                name, path, interface, method, arguments, None, 0, 20000, None
            )
            answers += 1
        except GLib.Error as error:
            assert "Timeout" not in error.message, (interface, method, arguments)
            assert "Disconnected" not in error.message and "NoReply" not in error.message
            errors += 1
    assert answers > 50 and errors > 50
    device.sync()
    # The last word of each port is what a new life begins with.
    device.state.RefreshIOPorts()
    names = {entry.name: device.state.GetNames(entry.number) for entry in device.port_list()
             if entry.name in ("in", "out", "both", "line")}  # fmt: skip
    device.restart()
    assert len(names) == 4
    for entry in device.port_list():
        if entry.name in names:
            assert device.state.GetNames(entry.number) == names[entry.name]
    with pytest.raises(BusError):
        device.state.SetState(99, True)
