"""Mock of the video streamer: numbered channels, each enabled or not.

Parameters: channels (list of true, false, or null for a channel that does not tell).
"""

import dbus

BUS_NAME = "com.norv.Streamer"
MAIN_OBJ = "/com/norv/Streamer/Video/Channel"
MAIN_IFACE = "com.norv.Streamer.Video.Channel"
SYSTEM_BUS = True


def load(mock, parameters):
    for number, enabled in enumerate(parameters.get("channels", [True]), start=1):
        properties = {"Number": dbus.Int32(number)}
        if isinstance(enabled, (bool, dbus.Boolean)):
            properties["Enabled"] = dbus.Boolean(enabled)
        elif enabled != "":
            properties["Enabled"] = enabled
        mock.AddObject(
            f"{MAIN_OBJ}/{number}",
            MAIN_IFACE,
            dbus.Dictionary(properties, signature="sv"),
            [
                (
                    "PlayEnabled",
                    "b",
                    "",
                    f"self.props['{MAIN_IFACE}']['Enabled'] = args[0]\n"
                    f"self.EmitSignal('{MAIN_IFACE}', 'EnabledChanged', 'b', args)",
                )
            ],
        )
