"""The connector interface."""

import xml.etree.ElementTree as ElementTree

import pytest
from describe import port

from sim.bus import BusError

NAME = INTERFACE = "com.norv.WXD.Connector"
PATH = "/com/norv/WXD/Connector"

PORTS = (
    port("v1", 0, properties="ioport video_connector")
    + port("a1", 1, properties="ioport audio_connector")
    + port("both", 2, properties="ioport video_connector audio_connector")
    + port("none", 3)
    + port("v2", 4, properties="video_connector")
)


@pytest.fixture
def call(device):
    device.describe(PORTS)
    device.start()
    device.state.SetState(0, True)
    device.state.SetState(2, True)
    return lambda *what: device.first_client.call(NAME, PATH, INTERFACE, *what)


@pytest.mark.parametrize(
    "description, states",
    [
        ("*", [0, 1, 0, 1]),
        ("video connector", [0, 1, 1]),
        ("VIDEO CONNECTOR", [0, 1, 1]),
        ("Video connector", [0, 1, 1]),
        ("audio connector", [1, 0]),
        ("AUDIO Connector", [1, 0]),
        ("video", []),
        ("", []),
        ("* ", []),
    ],
)
def test_a_description_selects(call, description, states):
    # Newest first: v2, both, a1, v1.
    assert call("GetNumConnectors", "s", description) == len(states)
    assert call("GetConnectorStates", "s", description) == states


def test_emit_snmp_event_is_not_implemented(call):
    with pytest.raises(BusError) as refused:
        call("EmitSNMPEvent", "ii", 1, 0)
    assert refused.value.name == "org.freedesktop.DBus.Error.UnknownMethod"
    assert refused.value.message == (
        "Method EmitSNMPEvent is not implemented on interface com.norv.WXD.Connector"
    )


def test_the_interface_is_exactly_this(call, device):
    xml = device.first_client.call(
        NAME, PATH, "org.freedesktop.DBus.Introspectable", "Introspect"
    )
    interface = ElementTree.fromstring(xml).find(f"interface[@name='{INTERFACE}']")
    assert [
        (method.get("name"), [(a.get("name"), a.get("type"), a.get("direction")) for a in method])
        for method in interface
    ] == [
        ("GetNumConnectors",
         [("connector_descr", "s", "in"), ("num_connectors", "i", "out")]),
        ("GetConnectorStates", [("connector_descr", "s", "in"), ("states", "ai", "out")]),
        ("EmitSNMPEvent", [("connector_id", "i", "in"), ("connector_state", "i", "in")]),
    ]  # fmt: skip


def test_the_name_is_given_back(device):
    device.describe("")
    device.start()
    assert device.first_client.owner(NAME)
    device.stop()
    assert device.first_client.owner(NAME) is None
