"""The legacy configuration objects as their clients reach them."""

from gi.repository import GLib

from sim.bus import BusError, OtherSignal

NAME = "com.norv.Configuration.Legacy.IOControl1.IOPort"
IOPORT = NAME
INPUT = "com.norv.Configuration.Legacy.IOControl1.Input"
OUTPUT = "com.norv.Configuration.Legacy.IOControl1.Output"
BASE = "/com/norv/Configuration/Legacy/IOControl/IOPort"
PROPERTIES = "org.freedesktop.DBus.Properties"

INVALID_ARGS = "org.freedesktop.DBus.Error.InvalidArgs"
NO_PORT = "com.norv.IOControl.Error.No_port"


def path(number):
    return f"{BASE}/{number}"


def bytestring(text):
    """A text as the interface declares it: bytes with a final zero."""
    return GLib.Variant("ay", text.encode() + b"\0")


def text(value):
    """The text of a byte string that was received."""
    return bytes(value).rstrip(b"\0").decode()


class Legacy:
    """Get, set and listen, on the objects of one device."""

    def __init__(self, device):
        self.device = device

    def get(self, number, interface, name):
        return self.device.first_client.call(
            NAME, path(number), PROPERTIES, "Get", "ss", interface, name
        )

    def get_typed(self, number, interface, name):
        """The type of the value with the value."""
        reply = self.device.first_client.connection.call_sync(
            NAME, path(number), PROPERTIES, "Get", GLib.Variant("(ss)", (interface, name)),
            None, 0, -1, None,
        )  # fmt: skip
        value = reply.get_child_value(0).get_variant()
        return value.get_type_string(), value.unpack()

    def get_all(self, number, interface):
        return self.device.first_client.call(
            NAME, path(number), PROPERTIES, "GetAll", "s", interface
        )

    def set(self, number, interface, name, value):
        if isinstance(value, str):
            value = bytestring(value)
        elif isinstance(value, int):
            value = GLib.Variant("i", value)
        self.device.first_client.call(
            NAME, path(number), PROPERTIES, "Set", "ssv", interface, name, value
        )

    def refusal(self, number, interface, name, value):
        """The error that a write is refused with, as (name, message)."""
        try:
            self.set(number, interface, name, value)
        except BusError as error:
            return error.name, error.message
        raise AssertionError(f"{name} took {value}")

    def changes(self, number):
        return self.device.first_client.signals(PROPERTIES, path(number))

    def interfaces(self, number):
        """The legacy interfaces of an object, by introspection."""
        import xml.etree.ElementTree as ElementTree

        xml = self.device.first_client.call(
            NAME, path(number), "org.freedesktop.DBus.Introspectable", "Introspect"
        )
        node = ElementTree.fromstring(xml)
        names = [found.get("name") for found in node.findall("interface")]
        return [name for name in names if name.startswith("com.norv.")]


def wait_for_change(signals, interface, name, value):
    """Waits for the announcement of a text property and checks all of it."""
    signal = signals.wait_for(OtherSignal, member="PropertiesChanged")
    changed_interface, changed, invalidated = signal.values
    assert (changed_interface, list(changed), invalidated) == (interface, [name], [])
    assert text(changed[name]) == value
    return signal
