"""The reference of the D-Bus interfaces, held to what the running daemon serves and answers."""

import pathlib
import re
import subprocess
import xml.etree.ElementTree as ElementTree

import pytest
from describe import port

from sim.bus import BusError
from sim.device import Device

TOP = pathlib.Path(__file__).resolve().parents[2]
REFERENCE = TOP / "docs/dbus"
LEGACY = "com.norv.Configuration.Legacy.IOControl1"
# Where each interface is looked at: bus name and path.
SERVED = {
    "com.norv.IOControl.State": ("com.norv.IOControl.State", "/com/norv/IOControl/State"),
    "com.norv.IOControl.Manager1": ("com.norv.IOControl.State", "/com/norv/IOControl/Manager"),
    "com.norv.IOSupervised.Supervised":
        ("com.norv.IOSupervised.Supervised", "/com/norv/IOSupervised/Supervised"),
    "com.norv.WXD.Connector": ("com.norv.WXD.Connector", "/com/norv/WXD/Connector"),
    f"{LEGACY}.IOPort": (f"{LEGACY}.IOPort", "/com/norv/Configuration/Legacy/IOControl/IOPort/0"),
    f"{LEGACY}.Input": (f"{LEGACY}.IOPort", "/com/norv/Configuration/Legacy/IOControl/IOPort/0"),
    f"{LEGACY}.Output": (f"{LEGACY}.IOPort", "/com/norv/Configuration/Legacy/IOControl/IOPort/1"),
}  # fmt: skip
ACCESS = {"read": "readable", "readwrite": "readwrite", "write": "writable"}
NOBODY = 4_000_000


@pytest.fixture(scope="module")
def device(binary):
    with Device(binary, quiet=True) as device:
        device.describe(port("door", 0, "input") + port("lamp", 1))
        device.start()
        yield device


def introspect(device, interface):
    """The interface as the daemon describes it on the bus."""
    name, path = SERVED[interface]
    text = device.first_client.call(
        name, path, "org.freedesktop.DBus.Introspectable", "Introspect"
    )
    node = ElementTree.fromstring(text)
    return next(entry for entry in node.iter("interface") if entry.get("name") == interface)


def signature(member):
    """A member as the reference shows it, without blanks."""
    name = member.get("name")
    if member.tag == "property":
        return f"{name} {ACCESS[member.get('access')]} {member.get('type')}"
    places = {"in": "IN ", "out": "OUT "} if member.tag == "method" else {}
    arguments = member.findall("arg")
    arguments.sort(key=lambda argument: argument.get("direction") == "out")
    texts = [f"{places.get(a.get('direction', 'in'), '')}{a.get('name')} {a.get('type')}" for a in arguments]
    return f"{name} ({', '.join(texts)})"


def page(interface):
    """{member: (signature, text)} of the reference."""
    members = {}
    for section in re.split(r"^### ", (REFERENCE / f"{interface}.md").read_text(), flags=re.MULTILINE)[1:]:
        title, _, rest = section.partition("\n\n")
        code, _, text = rest.partition("\n\n")
        shown = " ".join(code.split()).replace("( ", "(").replace(" )", ")")
        members[re.split(r"::?", title[len(interface) :].lstrip("."))[-1]] = (shown, text)
    return members


def test_every_page_is_of_an_interface():
    assert {path.stem for path in REFERENCE.glob("*.md")} == set(SERVED)


@pytest.mark.parametrize("interface", SERVED)
def test_the_reference_has_what_the_daemon_serves(device, interface):
    served = {entry.get("name"): signature(entry) for entry in introspect(device, interface)
              if entry.tag in ("method", "signal", "property")}  # fmt: skip
    assert {name: shown for name, (shown, _) in page(interface).items()} == served


@pytest.mark.parametrize("interface", SERVED)
def test_every_member_is_explained(interface):
    source = next((TOP / "src/dbus").glob("*.xml")).parent
    text = "".join(path.read_text() for path in source.glob("*.xml"))
    text = re.search(rf'<interface name="{re.escape(interface)}">.*?</interface>', text, re.DOTALL)[0]
    for comment, kind, name, rest in re.findall(
        r'<!--((?:(?!-->).)*)-->\s*<(method|signal|property) name="(\w+)"(.*?)(?=<!--|</interface>)',
        text, re.DOTALL,
    ):  # fmt: skip
        arguments = re.findall(r'<arg name="(\w+)"', rest)
        assert re.findall(r"^\s+@(\w+): \S", comment, re.MULTILINE) == arguments, name
        assert (re.search(r"^\s+Errors: ", comment, re.MULTILINE) is not None) == (kind == "method"), name
        assert re.search(r"Comes when", comment) or kind != "signal", name
    assert len(page(interface)) == len(re.findall(r"<(?:method|signal|property) ", text))


ARGUMENTS = {"b": False, "s": "open", "u": 1, "a(bi)": [(True, 1)]}


def test_every_error_for_a_port_that_is_none_is_told(device):
    """Each method with a port is asked for one that does not exist."""
    asked = 0
    for interface, (name, path) in SERVED.items():
        for method in introspect(device, interface).findall("method"):
            types = [a.get("type") for a in method.findall("arg") if a.get("direction") == "in"]
            if method.find("arg") is None or method.find("arg").get("name") != "port" or types[0] != "u":
                continue
            values = [NOBODY, *(ARGUMENTS[kind] for kind in types[1:])]
            with pytest.raises(BusError) as refusal:
                device.first_client.call(
                    name, path, interface, method.get("name"), "".join(types), *values
                )
            assert f"`{refusal.value.name}`" in page(interface)[method.get("name")][1]
            asked += 1
    assert asked == 21


REFUSALS = [
    ("state", "SetState", (0, True)),
    ("state", "SetDirection", (1, "sideways")),
    ("state", "SetDirection", (1, "input")),
    ("state", "SetActive", (1, False, "ajar")),
    ("state", "SetActive", (1, True, "open")),
    ("state", "SetName", (1, True, "name")),
    ("state", "SetUsage", (1, "x" * 65_537)),
    ("state", "StartActionSequence", (0, False, [(True, 1)])),
    ("state", "StartActionSequence", (1, False, [])),
    ("supervision", "SetSupervised", (1, True)),
    ("supervision", "SetSupervisedRanges", (1, "open", 1, 2)),
    ("supervision", "GetSupervisedRanges", (1,)),
    ("supervision", "GetSupervisedReadout", (1,)),
    ("supervision", "GetSupervisedStates", (1,)),
]


@pytest.mark.parametrize(("service", "method", "arguments"), REFUSALS, ids=str)
def test_other_errors_are_told(device, service, method, arguments):
    with pytest.raises(BusError) as refusal:
        getattr(getattr(device, service), method)(*arguments)
    interface = {"state": "com.norv.IOControl.State", "supervision": "com.norv.IOSupervised.Supervised"}
    assert f"`{refusal.value.name}`" in page(interface[service])[method][1]


def test_the_reference_is_up_to_date(tmp_path):
    subprocess.run([TOP / "scripts/reference", tmp_path], check=True, timeout=120)
    made = {path.name: path.read_text() for path in tmp_path.iterdir()}
    kept = {path.name: path.read_text() for path in REFERENCE.iterdir()}
    assert made == kept, "call scripts/reference"
