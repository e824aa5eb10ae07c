"""Stand-ins for the services that the daemon calls, one process each.

A peer can be started late, vanish, come back, answer errors, answer late or never, answer the wrong
type, and send its signals.
"""

import json
import os
import pathlib
import re
import signal
import subprocess
import sys

from sim.bus import BusError, wait_until
from sim.endings import undisturbed

MOCK = "org.freedesktop.DBus.Mock"
MOCKS = pathlib.Path(__file__).resolve().parent / "mocks"

# What a method may be made to do instead: the type of its reply, and the mock's code.
FAILURE = ("", "raise dbus.exceptions.DBusException('out of order', name='com.norv.Error.Mock')")
# A reply of a type that no method of the peers has, with a value of that type.
WRONG_TYPE = ("ad", "ret = dbus.Array([1.5], signature='d')")


def late_properties(seconds):
    """The properties as they are, told late."""
    return ("a{sv}", f"import time; time.sleep({seconds}); ret = self.props[args[0]]")


class Peer:
    """One mock service; `parameters` are those of its template."""

    TEMPLATE = NAME = PATH = INTERFACE = ""
    SIGNATURES = {}  # interface, if it is another one, and in-signature of each method, for faults

    def __init__(self, device, start=True, **parameters):
        self.device = device
        self.parameters = parameters
        self.client = device.client()
        self.log = device.scratch / f"{self.TEMPLATE}.log"
        self.process = None
        device.on_exit(self.stop)
        if start:
            self.start()

    def start(self, **parameters):
        """Comes on the bus; with parameters, changed by them."""
        self.parameters |= parameters
        self.launch()
        self.wait_ready()

    def launch(self):
        """Starts the process, and does not wait for it."""
        with undisturbed(), open(self.log, "ab") as log:
            self.process = subprocess.Popen(
                ["setpriv", "--pdeathsig", "KILL", sys.executable, "-m", "dbusmock",
                 "--template", str(MOCKS / f"{self.TEMPLATE}.py"),
                 "--parameters", json.dumps(self.parameters)],
                env={**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": self.device.bus_address},
                stdout=log,
                # An interrupt from the terminal is for whoever runs the device.
                start_new_session=True,
            )  # fmt: skip

    def wait_ready(self):
        wait_until(lambda: self.client.owner(self.NAME), f"{self.NAME} on the bus")
        wait_until(self._loaded, f"{self.NAME} to know its template")

    def _loaded(self):
        """The name comes before the template's methods."""
        try:
            self.mock("GetCalls")
            return self.is_loaded()
        except BusError:
            return False

    def is_loaded(self):
        return True

    def stop(self):
        """Vanishes from the bus."""
        if self.process is not None:
            owner = self.client.owner(self.NAME)
            self.process.kill()
            self.process.wait()
            self.process = None
            # Another may have waited for the name; and one that goes early never had it.
            if owner is not None:
                wait_until(lambda: self.client.owner(self.NAME) != owner, f"{self.NAME} off the bus")

    def freeze(self):
        """Stays on the bus and answers nobody."""
        self.process.send_signal(signal.SIGSTOP)

    def thaw(self):
        """Answers again, what was asked meanwhile too."""
        self.process.send_signal(signal.SIGCONT)

    def mock(self, method, signature="", *arguments, path=None):
        return self.client.call(self.NAME, path or self.PATH, MOCK, method, signature, *arguments)

    def play(self, method, signature, *arguments, path=None, interface=None):
        """Has the peer do something by itself."""
        self.client.call(
            self.NAME, path or self.PATH, interface or self.INTERFACE, method, signature,
            *arguments,
        )  # fmt: skip

    def emit(self, signal, signature, *arguments, path=None, interface=None):
        """Sends a signal, of whatever types."""
        from gi.repository import GLib

        kinds = GLib.Variant(f"({signature})", arguments)
        values = [kinds.get_child_value(i) for i in range(kinds.n_children())]
        self.mock("EmitSignal", "sssav", interface or self.INTERFACE, signal, signature, values,
                  path=path)  # fmt: skip

    def calls(self, method):
        """The arguments of every call of a method, in order."""
        return [tuple(call[2]) for call in self.mock("GetCalls") if call[1] == method]

    def questions(self, path=None):
        """How often the properties of an object were asked for, in all lives together."""
        if not self.log.exists():
            return 0
        # A question that is answered otherwise is logged without the path.
        return len(re.findall(rf' GetAll (?:{path or self.PATH} |")', self.log.read_text()))

    def forget_calls(self):
        self.mock("ClearCalls")

    def _replace(self, method, reply_type, code):
        interface, signature = self.SIGNATURES[method]
        self.mock("AddMethod", "sssss", interface or self.INTERFACE, method, signature, reply_type,
                  code)  # fmt: skip

    def fail(self, method):
        """From now on the method answers the error "out of order"."""
        self._replace(method, *FAILURE)

    def mistype(self, method):
        """From now on the method answers something of another type."""
        self._replace(method, *WRONG_TYPE)

    def delay(self, method, seconds, reply_type="", answer="ret = None"):
        """From now on the method answers late."""
        self._replace(method, reply_type, f"import time; time.sleep({seconds})\n{answer}")

    def answer(self, method, reply_type, value):
        """From now on the method answers this."""
        self._replace(method, reply_type, f"ret = {value!r}")


class BootBlock(Peer):
    """The service that reads boot-block parameters; it knows one, the hardware id.

    Start it before the daemon, which asks while it reads its hardware description.
    """

    TEMPLATE = "boot_block"
    NAME = INTERFACE = "com.norv.PolicyKitSystem"
    PATH = "/com/norv/PolicyKitSystem"
    SIGNATURES = {"ReadBootblockParam": (None, "s")}

    def __init__(self, device, hwid):
        super().__init__(device, values={"HWID": hwid})

    @property
    def asked(self):
        """The names of the parameters asked for, in order."""
        return [arguments[0] for arguments in self.calls("ReadBootblockParam")]


class IoBox(Peer):
    """The IO box monitor with its box."""

    TEMPLATE = "iobox_monitor"
    NAME = INTERFACE = "com.norv.IOBoxMonitor"
    PATH = "/com/norv/IOBoxMonitor"
    SIGNATURES = {
        "GetIOBoxConnected": (None, ""),
        "GetIOBoxType": (None, ""),
        "GetIOPortStatus": (None, "i"),
        "GetSupervised": (None, "i"),
        "GetIOState": (None, "i"),
        "SetIOMode": (None, "iis"),
    }

    def line(self, port, state):
        """A line of the box changes."""
        self.play("PlayState", "is", port, state)

    @property
    def modes(self):
        """What SetIOMode was called with: (port, output value, mode)."""
        return self.calls("SetIOMode")


class ZWave(Peer):
    """The Z-Wave service."""

    TEMPLATE = "zwave"
    NAME = INTERFACE = "com.norv.ZWave.IO"
    PATH = "/com/norv/ZWave"
    SIGNATURES = {"GetStateByPort": (None, "i"), "SetStateByPort": (None, "ib")}

    def device_state(self, port, state):
        """A Z-Wave device changes."""
        self.play("PlayState", "ib", port, state)

    @property
    def sent(self):
        """What SetStateByPort was called with: (port, state)."""
        return [(int(port), bool(state)) for port, state in self.calls("SetStateByPort")]


class Streamer(Peer):
    """The video streamer with its channels."""

    TEMPLATE = "streamer"
    NAME = "com.norv.Streamer"
    PATH = "/com/norv/Streamer/Video/Channel"
    INTERFACE = "com.norv.Streamer.Video.Channel"

    def is_loaded(self):
        """The last channel is there."""
        count = len(self.parameters.get("channels", [True]))
        if count > 0:
            self.mock("GetCalls", path=f"{self.PATH}/{count}")
        return True

    def enable(self, channel, enabled):
        self.play("PlayEnabled", "b", enabled, path=f"{self.PATH}/{channel}")


class Coordinator(Peer):
    """The PTZ coordinator."""

    TEMPLATE = "ptz_coordinator"
    NAME = INTERFACE = "com.norv.PTZ.Coordinator"
    PATH = "/com/norv/PTZ/Coordinator/1"

    def enable(self, enabled):
        self.play("PlayEnabled", "b", enabled)


class ActionEngine(Peer):
    """The action engine with its templates."""

    TEMPLATE = "action_engine"
    NAME = INTERFACE = "com.norv.Event.ActionEngine.User"
    PATH = "/com/norv/Event/ActionEngine"
    TEMPLATES = "com.norv.Event.ActionEngine.ActionTemplate"
    SIGNATURES = {"List": (TEMPLATES, ""), "AddFromFile": (TEMPLATES, "s"), "Remove": (TEMPLATES, "s")}

    @property
    def templates(self):
        return self.client.call(self.NAME, self.PATH, self.TEMPLATES, "Templates")


class Witness:
    """A service that its maker plays, whenever that waits for something: it sees who calls it.

    `methods` is {name: (types in, types out, function of the arguments)}; the function returns the
    values of the answer, None for no answer at all.
    """

    def __init__(self, device, service, methods):
        from gi.repository import Gio, GLib

        self.service = service
        self.methods = methods
        self.calls = []  # (user id, method, arguments)
        self.variant = GLib.Variant
        self.client, self.asking = device.client(), device.client()
        interface = Gio.DBusNodeInfo.new_for_xml(self._xml()).interfaces[0]
        self.client.connection.register_object(service.PATH, interface, self._called, None, None)
        self.appear()

    def _xml(self):
        def arguments(types, direction):
            return "".join(f'<arg type="{kind}" direction="{direction}"/>' for kind in types)

        methods = "".join(
            f'<method name="{name}">{arguments(into, "in")}{arguments(out, "out")}</method>'
            for name, (into, out, _) in self.methods.items()
        )
        return f'<node><interface name="{self.service.INTERFACE}">{methods}</interface></node>'

    def _called(self, _connection, sender, _path, _interface, method, parameters, invocation):
        user = self._of_bus(self.asking, "GetConnectionUnixUser", "s", sender)
        self.calls.append((user, method, parameters.unpack()))
        _, out, function = self.methods[method]
        values = function(*parameters.unpack())
        if values is not None:
            invocation.return_value(self.variant(f"({out})", values))

    def _of_bus(self, client, method, signature, *arguments):
        reply = client.connection.call_sync(
            "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", method,
            self.variant(f"({signature})", arguments), None, 0, -1, None,
        )  # fmt: skip
        return reply.unpack()[0]

    def appear(self):
        """Takes its name, which it may have given up before."""
        self._of_bus(self.client, "RequestName", "su", self.service.NAME, 0)

    def vanish(self):
        """Gives its name up, and stays connected."""
        self._of_bus(self.client, "ReleaseName", "s", self.service.NAME)

    def emit(self, signal, signature, *arguments):
        self.client.connection.emit_signal(
            None, self.service.PATH, self.service.INTERFACE, signal,
            self.variant(f"({signature})", arguments),
        )  # fmt: skip

    def asked(self, method):
        """The arguments of every call of a method, in order."""
        return [arguments for _, name, arguments in self.calls if name == method]


class Neighbourhood:
    """The services around a simulated device, all of them running."""

    def __init__(self, device, board):
        states, model = board.box_lines()
        # Processes start side by side; only then is each waited for.
        self.box = IoBox(device, start=False, states=states, model=model)
        self.zwave = ZWave(device, start=False)
        self.streamer = Streamer(device, start=False, channels=[True, False])
        self.coordinator = Coordinator(device, start=False, enabled=True)
        self.engine = ActionEngine(device, start=False)
        self.everyone = (self.box, self.zwave, self.streamer, self.coordinator, self.engine)
        for peer in self.everyone:
            peer.launch()
        for peer in self.everyone:
            peer.wait_ready()
