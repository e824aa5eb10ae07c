"""Mock of the IO box monitor: one box with ports of a state each.

Parameters: connected (bool), model (str), status (str of every port), supervised (bool), states
(port number as text: state text). Calls of SetIOMode are in the mock's call log.
"""

BUS_NAME = "com.norv.IOBoxMonitor"
MAIN_OBJ = "/com/norv/IOBoxMonitor"
MAIN_IFACE = "com.norv.IOBoxMonitor"
SYSTEM_BUS = True


def load(mock, parameters):
    mock.box = {
        "connected": bool(parameters.get("connected", True)),
        "model": str(parameters.get("model", "x5210")),
        "status": str(parameters.get("status", "enabled")),
        "supervised": bool(parameters.get("supervised", True)),
        "states": {str(k): str(v) for k, v in parameters.get("states", {}).items()},
    }
    mock.AddMethods(
        MAIN_IFACE,
        [
            ("GetIOBoxConnected", "", "b", "ret = self.box['connected']"),
            ("GetIOBoxType", "", "s", "ret = self.box['model']"),
            ("GetIOPortStatus", "i", "s", "ret = self.box['status']"),
            ("GetSupervised", "i", "b", "ret = self.box['supervised']"),
            ("GetIOState", "i", "s", "ret = self.box['states'].get(str(args[0]), 'open')"),
            ("SetIOMode", "iis", "", ""),
            # For whoever plays the box: a line changes, and the monitor tells of it.
            (
                "PlayState",
                "is",
                "",
                "self.box['states'][str(args[0])] = args[1]\n"
                f"self.EmitSignal('{MAIN_IFACE}', 'IOStateChanged', 'is', args)",
            ),
            ("PlayBox", "s", "", "self.box['connected'] = bool(args[0]); self.box['model'] = args[0]"),
        ],
    )
