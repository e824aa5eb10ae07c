"""Mock of the Z-Wave service: devices by port number.

Parameters: states (port number as text: bool), silent (the port numbers, as texts, of devices that
cannot be asked). Calls of SetStateByPort are in the call log.
"""

BUS_NAME = "com.norv.ZWave.IO"
MAIN_OBJ = "/com/norv/ZWave"
MAIN_IFACE = "com.norv.ZWave.IO"
SYSTEM_BUS = True


def load(mock, parameters):
    mock.states = {str(k): bool(v) for k, v in parameters.get("states", {}).items()}
    mock.silent = [str(number) for number in parameters.get("silent", [])]
    mock.AddMethods(
        MAIN_IFACE,
        [
            (
                "GetStateByPort",
                "i",
                "b",
                "if str(args[0]) in self.silent:\n"
                f"    raise dbus.exceptions.DBusException('asleep', name='{MAIN_IFACE}.Asleep')\n"
                "ret = self.states.get(str(args[0]), False)",
            ),
            ("SetStateByPort", "ib", "", "self.states[str(args[0])] = bool(args[1])"),
            (
                "PlayState",
                "ib",
                "",
                "self.states[str(args[0])] = bool(args[1])\n"
                f"self.EmitSignal('{MAIN_IFACE}', 'StateChangedByPort', 'ib', args)",
            ),
        ],
    )
