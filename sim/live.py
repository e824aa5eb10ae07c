"""The simulated device on a terminal: the client's own screen, and keys that only this device has.

The screen runs `wexctl live`. A key that turns a wire or stops a neighbour writes its word to a pipe,
which is read here; what the daemon logs comes back over another, and stands among the changes.
"""

import os
import re
import shlex
import signal
import subprocess

from gi.repository import GLib

from sim.endings import ENDINGS, undisturbed

POLL_S = 0.02
PEERS = ("IO box", "Z-Wave", "Video", "PTZ", "Actions")  # in the order of device.peers.everyone
SENT_EVENT = re.compile(r"MESSAGE: event send producer=wxd type=(?:[\w.]+\.)?(\w+) id=\d+ (.*)")
LOGGED = re.compile(r"(WARNING|CRITICAL|ERROR|.*-(?:WARNING|CRITICAL|ERROR))\b.*")
# What tells one event from another; the rest of its fields is the same every time.
TOLD_FIELDS = (r"port=\S*", r"state=\S*", "tampered=1")

# Key, for which ports, and its word. Outputs are driven by the screen's own keys.
KEYS = (
    ("space", "port", "flip"), ("c", "supervisable", "cut"), ("s", "supervisable", "short"),
    ("n", "supervisable", "normal"), ("v", "supervisable", "supervise"),
    ("t", "switchable", "turn"), ("a", "port", "active"), ("d", "port", "drop"),
    ("r", "missing", "plug-in"), ("R", "always", "restart"),
)  # fmt: skip


class Controls:
    """What the words do to the simulated device: some turn its wires, some are calls of a client."""

    def __init__(self, device, note):
        self._device = device
        self._note = note
        self._lines = device.lines
        self._client = device.client()

    def obey(self, word, number):
        """Does it; what goes wrong is told."""
        try:
            if word == "peer":
                self._toggle_peer(number)
            elif word == "restart":
                self._restart()
            elif word == "plug-in":
                self._client.state.RefreshIOPorts()
            else:
                getattr(self, word)(self._device.ports()[number])
        except Exception as failure:  # noqa: BLE001  the view outlives whatever a key does
            self._note(f"{word}: {str(failure).splitlines()[0]}")

    def flip(self, port):
        """Turns an input's wire, or announces the other state of a port without one."""
        line = self._lines.get(port.name)
        if line is not None and port.input:
            line.flip()
        else:
            self._client.state.SetVirtual(port.number, not port.state)

    def cut(self, port):
        self._lines[port.name].set("cut")

    def short(self, port):
        self._lines[port.name].set("short")

    def normal(self, port):
        self._lines[port.name].set("closed")

    def supervise(self, port):
        on = self._client.supervision.GetSupervised(port.number)
        self._client.supervision.SetSupervised(port.number, not on)

    def turn(self, port):
        self._client.state.SetDirection(port.number, "output" if port.input else "input")

    def active(self, port):
        actives = self._client.state.GetActive(port.number)
        sense = "closed" if actives[0 if port.input else 1] == "open" else "open"
        self._client.state.SetActive(port.number, port.input, sense)

    def drop(self, port):
        dropped = self._client.state.DropIOPorts([port.name])
        self._note(f"{port.name} is out of service" if dropped else "that port is not optional and stays")

    def _toggle_peer(self, index):
        peer = self._device.peers.everyone[index]
        if peer.process is None:
            peer.launch()
            self._note(f"{PEERS[index]} is started")
        else:
            peer.stop()
            self._note(f"{PEERS[index]} is stopped")

    def _restart(self):
        """Ends the daemon, if it still runs, and starts it."""
        if self._device.alive:
            self._device.stop()
        else:
            self._device.kill()  # a sandbox outlives its daemon by a moment
        self._device.start()


class Log:
    """The events that the daemon logs from now on, and its warnings."""

    def __init__(self, device):
        self._device = device
        self._open()
        self._file.read()  # the start is behind us

    def _open(self):
        self._path = self._device.log_path
        self._file = open(self._path, encoding="utf-8", errors="replace")

    def news(self):
        """What is worth showing of the lines since the last time."""
        if self._path != self._device.log_path:
            self._file.close()
            self._open()
        while line := self._whole_line():
            if told := self._told(line):
                yield told

    def _whole_line(self):
        start = self._file.tell()
        line = self._file.readline()
        if not line.endswith("\n"):
            self._file.seek(start)
            return ""
        return line

    @staticmethod
    def _told(line):
        sent = SENT_EVENT.match(line)
        if sent:
            kind, fields = sent.groups()
            found = [re.search(rf"\b{field}", fields) for field in TOLD_FIELDS]
            return " ".join(["event", kind, *(field[0] for field in found if field)])
        return line.strip() if LOGGED.match(line) else None


class Pipe:
    """A named pipe that nobody finds closed: it is open here for both ways."""

    def __init__(self, path):
        self.path = path
        os.mkfifo(path)
        self._end = os.open(path, os.O_RDWR | os.O_NONBLOCK)
        self._rest = ""

    def lines(self):
        """The whole lines that have come."""
        try:
            self._rest += os.read(self._end, 65536).decode()
        except BlockingIOError:
            return []
        *lines, self._rest = self._rest.split("\n")
        return lines

    def tell(self, line):
        try:
            os.write(self._end, f"{line}\n".encode())
        except BlockingIOError:  # a screen that lags behind lacks some
            pass

    def close(self):
        os.close(self._end)


def key_file(pipe):
    """The keys as the screen reads them."""
    into = shlex.quote(str(pipe.path))
    keys = [f'{key} {ports} {word} echo "{word} $WEXCTL_PORT" >{into}\n' for key, ports, word in KEYS]
    for index, name in enumerate(PEERS):
        hint = f"stop-or-start-{name.replace(' ', '-')}"
        keys.append(f"{index + 1} always {hint} echo peer {index} >{into}\n")
    return "".join(keys)


def screen(device, words, notes):
    """The client on the terminal. It ends with this process, however that ends."""
    keys = device.scratch / "keys"
    keys.write_text(key_file(words))
    command = [
        "setpriv", "--pdeathsig", "TERM", str(device.binary.parent / "wexctl"), "live", "--control",
        "--keys", str(keys), "--notes", str(notes.path),
    ]  # fmt: skip
    with undisturbed():
        return subprocess.Popen(
            command, env={**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": device.bus_address}
        )


def run(device):
    """Returns the status of the screen when the user quits, or the process is told to end."""
    words, notes = Pipe(device.scratch / "words"), Pipe(device.scratch / "notes")
    device.on_exit(words.close)
    device.on_exit(notes.close)
    controls, log = Controls(device, notes.tell), Log(device)
    process = screen(device, words, notes)
    # Handlers, not ignored, which whatever is started meanwhile would inherit.
    for number in (signal.SIGINT, *ENDINGS):
        signal.signal(number, lambda *_: process.terminate())
    try:
        while process.poll() is None:
            serve(controls, words, log, notes)
    finally:
        for number in (signal.SIGINT, *ENDINGS):
            signal.signal(number, signal.SIG_IGN)
        process.terminate()
        process.wait()
    return process.returncode


def serve(controls, words, log, notes):
    """Obeys what has come, tells what was logged, and rests a moment."""
    for line in words.lines():
        word, _, number = line.partition(" ")
        controls.obey(word, int(number) if number.isdigit() else None)
    for line in log.news():
        notes.tell(line)
    context = GLib.MainContext.default()
    GLib.timeout_add(int(POLL_S * 1000), lambda: GLib.SOURCE_REMOVE)
    context.iteration(True)
