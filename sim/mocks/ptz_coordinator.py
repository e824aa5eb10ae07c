"""Mock of the PTZ coordinator.

Parameters: enabled (bool; any other type is told as it is; absent: the property is missing);
properties (what the properties are answered with, as the type of the reply and the code that makes
it; absent: what they are).
"""

import dbus

BUS_NAME = "com.norv.PTZ.Coordinator"
MAIN_OBJ = "/com/norv/PTZ/Coordinator/1"
MAIN_IFACE = "com.norv.PTZ.Coordinator"
SYSTEM_BUS = True


def load(mock, parameters):
    mock.AddProperty(MAIN_IFACE, "Model", "x")
    if "enabled" in parameters:
        enabled = parameters["enabled"]
        known = isinstance(enabled, (bool, dbus.Boolean))
        mock.AddProperty(MAIN_IFACE, "PTZEnabled", dbus.Boolean(enabled) if known else enabled)
    mock.AddMethod(
        MAIN_IFACE,
        "PlayEnabled",
        "b",
        "",
        f"self.props['{MAIN_IFACE}']['PTZEnabled'] = args[0]\n"
        f"self.EmitSignal('{MAIN_IFACE}', 'PtzEnabledChanged', 'ib', [1, args[0]])",
    )
    if "properties" in parameters:
        mock.AddMethod(dbus.PROPERTIES_IFACE, "GetAll", "s", *parameters["properties"])
