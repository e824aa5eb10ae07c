"""Mock of the video streamer: numbered channels, each enabled or not.

Parameters: channels (list of true, false, "" for a channel that does not tell, or anything else to
be told as it is); properties (what the channels' properties are answered with, as the type of the
reply and the code that makes it; absent: what they are).
"""

import dbus
import dbusmock

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
        path = f"{MAIN_OBJ}/{number}"
        mock.AddObject(
            path,
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
        if "properties" in parameters:
            dbusmock.get_object(path).AddMethod(
                dbus.PROPERTIES_IFACE, "GetAll", "s", *parameters["properties"]
            )
