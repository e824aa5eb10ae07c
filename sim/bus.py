"""A private message bus, and clients that call and listen on it.

Everything is on the default main context of the calling thread: `wait_until` is the one place
that waits, by running that context until a condition holds or a deadline passes.
"""

import collections
import functools
import math
import os
import subprocess
import time

import gi

gi.require_version("Gio", "2.0")
from gi.repository import Gio, GLib  # noqa: E402

from sim import sandbox  # noqa: E402
from sim.endings import undisturbed  # noqa: E402

STATE_NAME = "com.norv.IOControl.State"
STATE_PATH = "/com/norv/IOControl/State"
STATE_METHODS = {
    "DropIOPorts": "as",
    "RefreshIOPorts": "",
    "GetNbrPorts": "",
    "GetPortProps": "",
    "SetState": "ub",
    "GetState": "u",
    "IsConfigurable": "u",
    "GetDirection": "u",
    "SetDirection": "us",
    "GetActive": "u",
    "SetActive": "ubs",
    "StartActionSequence": "uba(bi)",
    "GetNames": "u",
    "SetName": "ubs",
    "GetUsage": "u",
    "SetUsage": "us",
    "SetVirtual": "ub",
}


MANAGER_NAME = "com.norv.IOControl.Manager1"
MANAGER_PATH = "/com/norv/IOControl/Manager"
MANAGER_METHODS = {
    "StopSequence": "u",
    "GetRunningSequences": "",
    "GetServices": "",
    "GetLastFailedSave": "",
}

SUPERVISED_NAME = "com.norv.IOSupervised.Supervised"
SUPERVISED_PATH = "/com/norv/IOSupervised/Supervised"
SUPERVISED_METHODS = {
    "GetNumberOfPorts": "",
    "IsSupervisable": "u",
    "GetSupervised": "u",
    "SetSupervised": "ub",
    "SetSupervisedRanges": "usuu",
    "GetSupervisedRanges": "u",
    "GetSupervisedReadout": "u",
    "GetSupervisedStates": "u",
    "GetSupervisedPortNumbers": "",
}

CONNECTOR_NAME = "com.norv.WXD.Connector"
SERVICE_NAMES = (STATE_NAME, CONNECTOR_NAME, SUPERVISED_NAME)


class PortChanged(
    collections.namedtuple(
        "PortChanged", "port virtual hidden input virtual_trig state activelow"
    )
):
    at = None  # when it arrived, in seconds on the monotonic clock


class ActionSequenceDone(collections.namedtuple("ActionSequenceDone", "port")):
    at = None


class OtherSignal(collections.namedtuple("OtherSignal", "member values")):
    at = None


SIGNALS = {kind.__name__: kind for kind in (PortChanged, ActionSequenceDone)}

CONFIGURATION = """<!DOCTYPE busconfig PUBLIC
 "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <listen>unix:path={socket}</listen>
  <servicedir>/run/dbus/services</servicedir>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
  </policy>
  <limit name="max_replies_per_connection">10000</limit>
  <limit name="max_connections_per_user">2000</limit>
</busconfig>
"""

# How long to wait for anything, in seconds. Whoever knows the machine to be slow asks for more.
DEADLINE = float(os.environ.get("WEXD_DEADLINE", "20"))


class Timeout(AssertionError):
    """A condition did not come true before its deadline."""


def wait_until(condition, what, deadline=None):
    """Runs the main context until the condition returns something true, and returns that.

    deadline is in seconds. Conditions that watch a file or a process are looked at every few
    milliseconds, less often the longer it takes; all others as soon as something arrives from the
    bus.
    """
    start = time.monotonic()
    end = start + (DEADLINE if deadline is None else deadline)
    paces = iter(PACES)
    until, tick = start, None
    run_loop(wait=False)
    try:
        while not (result := condition()):
            now = time.monotonic()
            if now > end:
                raise Timeout(f"waited in vain: {what() if callable(what) else what}")
            if now >= until:
                stop_ticking(tick)
                seconds, tick_ms = next(paces)
                until, tick = start + seconds, start_ticking(tick_ms)
            run_loop()
        return result
    finally:
        stop_ticking(tick)


# While somebody waits, up to so many seconds, the condition is looked at every so many milliseconds.
PACES = ((0.03, 3), (0.2, 10), (math.inf, 30))


def start_ticking(tick_ms):
    """Has the main context wake up at least that often."""
    tick = GLib.timeout_source_new(tick_ms)
    tick.set_callback(lambda *_: True)
    tick.attach(GLib.MainContext.default())
    return tick


def stop_ticking(tick):
    if tick is not None:
        tick.destroy()


def run_loop(wait=True):
    """Does what there is to do on the main context, if need be once there is something."""
    context = GLib.MainContext.default()
    # An exception that a signal raises in a callback would end in GLib, printed and forgotten.
    with undisturbed():
        if wait:
            context.iteration(True)
        while context.iteration(False):
            pass


class BusError(Exception):
    """An error reply: its D-Bus name and its text."""

    def __init__(self, name, message):
        super().__init__(f"{name}: {message}")
        self.name = name
        self.message = message

    @classmethod
    def from_gio(cls, error):
        name = Gio.DBusError.get_remote_error(error) or f"local.{error.domain}.{error.code}"
        Gio.DBusError.strip_remote_error(error)
        # The text of a remote error stays prefixed when the binding hands out a copy.
        prefix = f"GDBus.Error:{name}: "
        return cls(name, error.message.removeprefix(prefix))


class Bus:
    """A private dbus-daemon on which everything is allowed; it ends with its owner."""

    def __init__(self, box, log):
        self.address = f"unix:path={box.path(sandbox.BUS_SOCKET)}"
        configuration = sandbox.BUS_SOCKET + ".conf"
        box.path(configuration).write_text(CONFIGURATION.format(socket=sandbox.BUS_SOCKET))
        with open(log, "wb") as errors:
            self.process = subprocess.Popen(
                box.bus_command(
                    ["dbus-daemon", "--nofork", "--nopidfile", "--nosyslog",
                     f"--config-file={configuration}", "--print-address=1"]
                ),
                stdout=subprocess.PIPE,
                stderr=errors,
                start_new_session=True,
            )  # fmt: skip
        if not self.process.stdout.readline():
            raise AssertionError(f"the private bus did not start: {log.read_text()}")

    def close(self):
        sandbox.end(self.process)
        self.process.stdout.close()


class Client:
    """One connection to the bus."""

    def __init__(self, address):
        self.connection = Gio.DBusConnection.new_for_address_sync(
            address,
            Gio.DBusConnectionFlags.AUTHENTICATION_CLIENT
            | Gio.DBusConnectionFlags.MESSAGE_BUS_CONNECTION,
            None,
            None,
        )
        self.state = Interface(self, STATE_NAME, STATE_PATH, STATE_NAME, STATE_METHODS)
        self.manager = Interface(self, STATE_NAME, MANAGER_PATH, MANAGER_NAME, MANAGER_METHODS)
        self.supervision = Interface(
            self, SUPERVISED_NAME, SUPERVISED_PATH, SUPERVISED_NAME, SUPERVISED_METHODS
        )

    def call(self, name, path, interface, method, signature="", *arguments, timeout=None):
        """Calls a method: None, one value, or a tuple, as the reply has none, one or more."""
        return self.begin(name, path, interface, method, signature, *arguments).wait(timeout)

    def begin(self, name, path, interface, method, signature="", *arguments):
        """Sends a method call and returns at once; wait() on the result brings the answer."""
        return Call(self.connection, name, path, interface, method, signature, arguments)

    def owner(self, name):
        """The unique name that owns a well-known name; None if nobody does."""
        try:
            return self.call(
                "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                "GetNameOwner", "s", name,
            )  # fmt: skip
        except BusError:
            return None

    def sync(self):
        """Returns when the daemon's loop has done, and its signals told here, all up to now.

        A ping would not do: GDBus answers it from a thread of its own. A method of the daemon is
        answered by its main loop, after everything that the loop was busy with.
        """
        self.state.GetNbrPorts()
        context = GLib.MainContext.default()
        while context.iteration(False):
            pass

    def signals(self, interface=STATE_NAME, path=STATE_PATH):
        return Signals(self, interface, path)

    def listen(self, interface, member, follower, path=None):
        """Has follower(path, values) called with every such signal, until the client closes."""

        def arrived(_connection, _sender, path, _interface, _member, parameters):
            follower(path, parameters.unpack())

        self.connection.signal_subscribe(
            None, interface, member, path, None, Gio.DBusSignalFlags.NONE, arrived
        )

    @functools.cached_property
    def services(self):
        """The owners of the daemon's services, followed from the first use on."""
        return Owners(self, SERVICE_NAMES)

    def close(self):
        if not self.connection.is_closed():  # as it is when the bus has ended
            self.connection.close_sync(None)


class Owners:
    """Who owns each of these names, as the bus tells it from the moment of construction."""

    def __init__(self, client, names):
        self._owners = {}
        for name in names:
            client.connection.signal_subscribe(
                "org.freedesktop.DBus", "org.freedesktop.DBus", "NameOwnerChanged",
                "/org/freedesktop/DBus", name, Gio.DBusSignalFlags.NONE, self._changed,
            )  # fmt: skip
        for name in names:
            # What the bus told meanwhile is news; what it told before says the same.
            self._owners.setdefault(name, client.owner(name))

    def _changed(self, _connection, _sender, _path, _interface, _member, parameters):
        name, _, owner = parameters.unpack()
        self._owners[name] = owner or None

    def __call__(self):
        """The unique names of all owners; None stands for a name that nobody owns."""
        return set(self._owners.values())


class Call:
    """A method call under way. The bus sets it no time limit; whoever waits for it does."""

    def __init__(self, connection, name, path, interface, method, signature, arguments):
        self.method = method
        self.outcome = None
        self._followers = []
        parameters = GLib.Variant(f"({signature})", arguments)
        connection.call(
            name, path, interface, method, parameters, None,
            Gio.DBusCallFlags.NO_AUTO_START, GLib.MAXINT, None, self._done,
        )  # fmt: skip

    def _done(self, connection, result):
        try:
            self.outcome = (connection.call_finish(result).unpack(), None)
        except GLib.Error as error:
            self.outcome = (None, BusError.from_gio(error))
        for follower in self._followers:
            follower(*self.outcome)

    def then(self, follower):
        """Has follower(values, error) called with the answer, for those who never wait."""
        self._followers.append(follower)

    @property
    def done(self):
        context = GLib.MainContext.default()
        while context.iteration(False):
            pass
        return self.outcome is not None

    def wait(self, timeout=None):
        wait_until(lambda: self.outcome, f"an answer to {self.method}", timeout)
        values, error = self.outcome
        if error is not None:
            raise error
        return values[0] if len(values) == 1 else (values or None)


class Interface:
    """The methods of one interface of one object as Python methods."""

    def __init__(self, client, name, path, interface, methods):
        self._target = (name, path, interface)
        self._client = client
        self._methods = methods

    def __getattr__(self, method):
        if method not in self._methods:
            raise AttributeError(method)
        signature = self._methods[method]
        return lambda *arguments: self._client.call(
            *self._target, method, signature, *arguments
        )

    def begin(self, method, *arguments):
        return self._client.begin(*self._target, method, self._methods[method], *arguments)


class Signals:
    """The signals of one object, caught from the moment of construction, in order of arrival.

    A signal waits in `pending` until a test has taken it.
    """

    def __init__(self, client, interface, path):
        self.client = client
        self.interface = interface
        self.path = path
        self.pending = []
        self._subscription = client.connection.signal_subscribe(
            None, interface, None, path, None, Gio.DBusSignalFlags.NONE, self._arrived
        )
        # The bus has the match rule once it answers anything sent after it.
        client.owner("org.freedesktop.DBus")

    def _arrived(self, _connection, _sender, _path, _interface, member, parameters):
        kind = SIGNALS.get(member)
        values = parameters.unpack()
        signal = kind(*values) if kind else OtherSignal(member, values)
        signal.at = time.monotonic()
        self.pending.append(signal)

    def _first(self, kind, fields):
        for signal in self.pending:
            if matches(signal, kind, fields):
                return signal
        return None

    def wait_for(self, kind, deadline=None, **fields):
        """Waits for the first signal of a kind with these field values, and takes it."""
        signal = wait_until(
            lambda: self._first(kind, fields),
            lambda: f"{kind.__name__} {fields}; there were {self.pending}",
            deadline,
        )
        self.pending = [other for other in self.pending if other is not signal]
        return signal

    def take(self):
        """Everything that the daemon has sent until now and nobody took yet; takes it."""
        self.client.sync()
        taken, self.pending = self.pending, []
        return taken

    def assert_none(self, kind=None, **fields):
        """Fails if the daemon has sent a matching signal that nobody took."""
        self.client.sync()
        found = [signal for signal in self.pending if matches(signal, kind, fields)]
        assert not found, f"unexpected {found}"

    def close(self):
        self.client.connection.signal_unsubscribe(self._subscription)


def matches(signal, kind, fields):
    if kind is not None and not isinstance(signal, kind):
        return False
    return all(getattr(signal, field, None) == value for field, value in fields.items())
