"""What the bus and the log said about the device.

Nothing here waits: questions go out with every tick, and answers come in as they come. A daemon
that does not answer leaves the last answers standing, and `trouble` says so.
"""

import collections
import dataclasses
import re
import time

from sim.bus import STATE_NAME, PortChanged
from sim.peers import ActionEngine, Coordinator, IoBox, Streamer, ZWave
from sim.show import changed_setting, remarks

LEGACY_PATH = re.compile(r"/com/norv/Configuration/Legacy/IOControl/IOPort/(\d+)$")
LEGACY_PREFIX = "com.norv.Configuration.Legacy.IOControl1."
SENT_EVENT = re.compile(r"MESSAGE: event send producer=wxd type=(?:[\w.]+\.)?(\w+) id=\d+ (.*)")
LOGGED = re.compile(r"(WARNING|CRITICAL|ERROR|.*-(?:WARNING|CRITICAL|ERROR))\b.*")
# What tells one event from another; the rest of its fields is the same every time.
TOLD_FIELDS = (r"port=\S*", r"state=\S*", "tampered=1")

# The services around the daemon, by bus name, in the order of device.peers.everyone.
PEERS = {
    IoBox.NAME: "IO box", ZWave.NAME: "Z-Wave", Streamer.NAME: "Video", Coordinator.NAME: "PTZ",
    ActionEngine.NAME: "Actions",
}  # fmt: skip

REFRESH_TICKS = 10  # settings are asked for again after that many ticks, for those never signalled
PATIENCE_S = 2


@dataclasses.dataclass
class Port:
    number: int
    name: str = ""
    present: bool = False
    state: bool = False
    input: bool = False
    configurable: bool = False
    properties: dict = dataclasses.field(default_factory=dict)
    names: tuple = ("", "")  # of its input and its output side
    actives: tuple = ("", "")
    usage: str = ""
    supervisable: bool = False
    supervised: bool = False
    reading: tuple = None  # state and level
    ranges: list = dataclasses.field(default_factory=list)

    @property
    def side(self):
        return 0 if self.input else 1

    @property
    def shown_as(self):
        return self.names[self.side]

    @property
    def active(self):
        return self.actives[self.side]


@dataclasses.dataclass
class Change:
    kind: str  # "on", "off", "event", "note", "trouble"
    text: str
    at: float = dataclasses.field(default_factory=time.time)


class Model:
    def __init__(self, device, changed=lambda: None):
        self.device = device
        self.ports = {}
        self.changes = collections.deque(maxlen=500)
        self.trouble = ""
        self.peers = {}  # bus name: whether somebody owns it
        self._changed = changed
        self._client = device.client()
        self._asked = 0  # questions under way, and since when
        self._asked_at = 0
        self._tick = 0
        self._stale = True
        self._log = None
        self._log_path = None
        self._client.listen(STATE_NAME, "PortChanged", self._on_port_changed)
        self._client.listen(STATE_NAME, "ActionSequenceDone", self._on_sequence_done)
        self._client.listen(
            "org.freedesktop.DBus.Properties", "PropertiesChanged", self._on_setting
        )
        self._client.listen("org.freedesktop.DBus", "NameOwnerChanged", self._on_owner)
        for name in (STATE_NAME, *PEERS):
            self.peers[name] = self._client.owner(name) is not None

    def on_change(self, changed):
        self._changed = changed

    def note(self, kind, text):
        self.changes.append(Change(kind, text))
        self._changed()

    @property
    def up(self):
        return self.peers[STATE_NAME]

    def tick(self):
        """Asks for what no signal tells; to be called a few times a second."""
        self._read_log()
        if self._asked > 0:
            if time.monotonic() - self._asked_at > PATIENCE_S:
                self._set_trouble("wexd does not answer")
            return
        if not self.up:
            self._set_trouble("wexd is not running")
            return
        self._set_trouble("")
        self._tick += 1
        self._asked_at = time.monotonic()
        full = self._stale or self._tick % REFRESH_TICKS == 0
        self._stale = False
        self._ask(self._client.state, "GetPortProps", (), lambda all_: self._on_list(all_, full))

    # -- questions ---------------------------------------------------------------------------

    def _ask(self, interface, method, arguments, answered):
        def arrived(values, error):
            self._asked -= 1
            if error is None:
                answered(values)

        self._asked += 1
        interface.begin(method, *arguments).then(arrived)

    def _ask_about(self, port, interface, method, answered):
        def store(values):
            before = dataclasses.replace(port)
            answered(values)
            if port != before:
                self._changed()

        self._ask(interface, method, (port.number,), store)

    def _on_list(self, values, full):
        _, entries = values
        listed = set()
        for name, number, state, is_input, configurable, _active_low, pairs in entries:
            properties = dict(pairs)
            port = self.ports.setdefault(number, Port(number))
            if not port.present or full:
                self._ask_settings(port, properties)
            before = dataclasses.replace(port)
            port.name, port.state, port.input = name, state, is_input
            port.configurable, port.properties, port.present = configurable, properties, True
            listed.add(number)
            if port != before:
                self._changed()
        for port in self.ports.values():
            if port.present and port.number not in listed:
                port.present = False
                self._changed()
        self._ask(
            self._client.supervision, "GetSupervisedPortNumbers", (),
            lambda numbers: self._on_supervisable(numbers[0], full),
        )  # fmt: skip

    def _ask_settings(self, port, properties):
        if not properties.get("ioport"):
            return
        state = self._client.state

        def keep(**values):
            for field, value in values.items():
                setattr(port, field, value)

        self._ask_about(port, state, "GetNames", lambda values: keep(names=values))
        self._ask_about(port, state, "GetActive", lambda values: keep(actives=values))
        self._ask_about(port, state, "GetUsage", lambda values: keep(usage=values[0]))

    def _on_supervisable(self, numbers, full):
        supervision = self._client.supervision
        for port in self.ports.values():
            port.supervisable = port.present and port.number in numbers
            if not port.supervisable:
                continue

            def keep(field, port=port):
                return lambda values: setattr(port, field, values)

            def keep_first(field, port=port):
                return lambda values: setattr(port, field, values[0])

            self._ask_about(port, supervision, "GetSupervised", keep_first("supervised"))
            self._ask_about(port, supervision, "GetSupervisedReadout", keep("reading"))
            if full or not port.ranges:
                self._ask_about(port, supervision, "GetSupervisedRanges", keep_first("ranges"))

    # -- what comes unasked ------------------------------------------------------------------

    def label(self, number):
        port = self.ports.get(number)
        return f"port {number} {port.name if port else '?'}"

    def _on_port_changed(self, _path, values):
        change = PortChanged(*values)
        port = self.ports.get(change.port)
        self._stale = True
        if port is None:  # the list that brings its name brings its state
            return
        # A supervised port's signal calls every state but open "on"; its state is asked for.
        if not change.virtual_trig and not port.supervised:
            port.state, port.input = change.state, change.input
        word = "on" if change.state else "off"
        self.note(word, f"{self.label(change.port)}: {word} ({', '.join(remarks(change))})")

    def _on_sequence_done(self, _path, values):
        self.note("note", f"{self.label(values[0])}: sequence done")

    def _on_setting(self, path, values):
        number = LEGACY_PATH.match(path)
        if number is None:
            return
        interface, changed, _ = values
        self._stale = True
        for name, value in changed.items():
            text = changed_setting(interface.removeprefix(LEGACY_PREFIX), name, value)
            self.note("note", f"{self.label(int(number.group(1)))}: {text}")

    def _on_owner(self, _path, values):
        name, _old, new = values
        if name not in self.peers:
            return
        self.peers[name] = bool(new)
        self._stale = True
        if name == STATE_NAME:
            self.note("note" if new else "trouble", "wexd is back" if new else "wexd is gone")
        else:
            self.note("note", f"{PEERS[name]} is {'on the bus' if new else 'gone'}")

    def _set_trouble(self, text):
        if self.trouble != text:
            self.trouble = text
            self._changed()

    def _read_log(self):
        """Notes the events that the daemon has logged since the last time, and its warnings."""
        path = self.device.log_path
        if self._log_path != path:
            if self._log is not None:
                self._log.close()
            self._log = open(path, encoding="utf-8", errors="replace")
            if self._log_path is None:
                self._log.read()  # the start is behind us
            self._log_path = path
        while line := self._whole_line():
            self._on_logged(line)

    def _whole_line(self):
        start = self._log.tell()
        line = self._log.readline()
        if not line.endswith("\n"):
            self._log.seek(start)
            return ""
        return line

    def _on_logged(self, line):
        sent = SENT_EVENT.match(line)
        if sent:
            kind, fields = sent.groups()
            told = [re.search(rf"\b{field}", fields) for field in TOLD_FIELDS]
            self.note("event", " ".join(["event", kind, *(field[0] for field in told if field)]))
        elif LOGGED.match(line):
            self.note("trouble", line.strip())
