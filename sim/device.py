"""The device as scripts/run and the system tests handle it.

    with Device(binary) as device:
        device.describe('<port name="relay"> ... </port>')
        device.start()
        changes = device.signals()
        device.state.SetState(0, True)
        changes.wait_for(PortChanged, port=0, state=True)

Leaving the block stops the daemon and fails unless it ended as expected and its log is clean.
"""

import collections
import contextlib
import json
import os
import pathlib
import re
import shutil
import socket
import signal
import subprocess
import tempfile

from sim import bus, sandbox
from sim.bus import BusError, PortChanged, ActionSequenceDone, wait_until  # noqa: F401
from sim.endings import undisturbed

DESCRIPTION = "/usr/share/wexd/conf.xml"
DROP_FOLDER = "/etc/wexd.d"
KEY_FILE = "/etc/wexd/wexd.conf"
OLD_KEY_FILE = "/etc/dynamic/wexd/params.conf"
IMPORT_FILE = "/tmp/wexd_ioport.conf"
PRELOADED = "/run/preloaded.so"
UNSEEN = "/run/unseen-by-tsan"

# What no run may leave behind, on either stream: critical messages of any domain (the daemon's own
# carry the bare level), failed assertions, and reports of the sanitizers.
UNWANTED = re.compile(
    r"^(\S+-)?(CRITICAL|ERROR)\b"
    r"|\*\* ?.*CRITICAL"
    r"|assertion .*failed"
    r"|Bail out!"
    r"|AddressSanitizer|LeakSanitizer|ThreadSanitizer|runtime error:"
)

# Nobody built these for the thread sanitizer, so it does not see how they synchronise, and sees half of
# what they do with a mutex. To have it look away from all such libraries (ignore_noninstrumented_modules)
# would turn its look at the order of our own locks off as well.
UNSEEN_LIBRARIES = "".join(f"called_from_lib:{name}\n" for name in ("libglib", "libgobject", "libgio"))
TSAN_OPTIONS = f"exitcode=99:atexit_sleep_ms=0:second_deadlock_stack=1:report_mutex_bugs=0:suppressions={UNSEEN}"

VALGRIND = (
    "valgrind", "--quiet", "--vgdb=no", "--error-exitcode=99", "--leak-check=full", "--show-leak-kinds=definite",
    "--errors-for-leak-kinds=definite", "--child-silent-after-fork=yes",
)  # fmt: skip


class Device:
    """A scratch device: folders, a private bus, and at most one running daemon.

    wrapper: a command that runs the daemon, such as VALGRIND. patience: factor on the deadlines for
    a daemon that is slowed down. quiet: do not print the log at the end unless something failed.
    preload: a library that the daemon is to have loaded before all others.
    All else (user, ...) is for the sandbox, see there.
    """

    def __init__(self, binary, wrapper=(), patience=1, quiet=False, preload=None, **box):
        self.binary = pathlib.Path(binary).resolve()
        # Short, because the name of a socket may have no more than 107 characters.
        self.scratch = pathlib.Path(tempfile.mkdtemp(prefix="wexd-"))
        self.sandbox = sandbox.Sandbox(self.scratch / "root", **box)
        self.wrapper = wrapper
        self.patience = patience
        self.quiet = quiet
        self.preload = preload
        if self.sandbox.user is not None:
            self.scratch.chmod(0o711)
        self.abandoned = False  # set it to leave the device without any check
        self.process = None
        self.lives = 0
        self._ready = False
        self._init_pid = None
        self._owner = None
        self._life_of_owner = 0
        self._expected = []
        self._closers = contextlib.ExitStack()
        self._bus = None
        self._client = None

    # -- life of the device ------------------------------------------------------------------

    def __enter__(self):
        try:
            self.start_bus()
            self._client = self.client()
        except BaseException:  # an interrupt, too, and then nobody calls __exit__
            self._clear()
            raise
        return self

    def __exit__(self, kind, *_):
        orderly = kind in (None, KeyboardInterrupt, SystemExit) and not self.abandoned
        try:
            if orderly and self.running:
                if kind is None or self._ready:
                    self.stop()
                else:  # one that is interrupted in its start may not listen yet
                    self.kill()
            if orderly:
                self.assert_clean_log()
        finally:
            try:
                if not (orderly and self.quiet):
                    self.print_log()
            finally:  # whoever was to read it may be gone
                self.kill()
                self._clear()

    def _clear(self):
        try:
            self._closers.close()
        finally:
            shutil.rmtree(self.scratch, ignore_errors=True)

    def on_exit(self, callback):
        """Registers something to undo when the device goes, last come first."""
        self._closers.callback(callback)

    # -- files -------------------------------------------------------------------------------

    def path(self, inside):
        """Where a path of the device lies on the host."""
        return self.sandbox.path(inside)

    def write(self, inside, text):
        """Writes a file of the device, making its folders; returns its path on the host."""
        path = self.path(inside)
        path.parent.mkdir(parents=True, exist_ok=True)
        if isinstance(text, bytes):
            path.write_bytes(text)
        else:
            path.write_text(text)
        return path

    def poke(self, inside, text):
        """Overwrites the start of a file in one go, so that a reader never finds it empty."""
        with open(self.path(inside), "r+b", buffering=0) as file:
            file.write(text.encode())

    def read(self, inside):
        return self.path(inside).read_text()

    def exists(self, inside):
        return self.path(inside).exists()

    def describe(self, ports):
        """Writes the hardware description; ports is the XML inside the outermost element."""
        self.write(DESCRIPTION, f"<config>\n{ports}\n</config>\n")

    def drop_in(self, name, ports):
        """Writes a file of the drop folder, where the daemon takes only what others cannot write."""
        path = self.write(f"{DROP_FOLDER}/{name}", f"<config>\n{ports}\n</config>\n")
        path.chmod(0o644)

    def settings(self, text):
        """Writes the key file of the user's settings."""
        self.write(KEY_FILE, text)

    @property
    def saved(self):
        """The saved settings: {group: {key: text}}, in the order of the file."""
        return parse_key_file(self.read(KEY_FILE))

    # -- the daemon --------------------------------------------------------------------------

    @property
    def running(self):
        return self.process is not None and self.process.poll() is None

    @property
    def alive(self):
        """Whether there is a daemon in the sandbox that runs."""
        return self.running and sandbox.child_of(self._init_pid) is not None

    @property
    def pid(self):
        """The process id of the daemon as the host sees it."""

        def found():
            assert self.running, "the daemon does not run"
            return sandbox.child_of(self._init_pid)

        return wait_until(found, "the daemon's process id", self._deadline())

    def start(self, *argv, ready=True, environment=None):
        """Starts the daemon; with ready, returns when it owns its names, so runs its loop."""
        assert not self.running, "the daemon runs already"
        self.write(UNSEEN, UNSEEN_LIBRARIES).chmod(0o644)
        self.sandbox.hand_over()
        self.lives += 1
        self._ready = False
        info_read, info_write = os.pipe()
        command = self.sandbox.command(
            [*self.wrapper, *self._preloading(), sandbox.BINARY, *argv], self.binary, info_write
        )
        with (
            open(self._stream("out"), "wb") as out,
            open(self._stream("err"), "wb") as err,
            undisturbed(),
        ):
            self.process = subprocess.Popen(
                command,
                stdin=subprocess.DEVNULL,
                stdout=out,
                stderr=err,
                env=self._environment(environment),
                pass_fds=(info_write,),
                start_new_session=True,  # an interrupt from the terminal is for the caller alone
            )
        os.close(info_write)
        with os.fdopen(info_read) as info:
            text = info.read()
        assert text, f"the sandbox did not start: {self.stderr}"
        self._init_pid = json.loads(text)["child-pid"]
        if ready:
            self.wait_ready()
        return self

    def _preloading(self):
        """The command before the daemon's own that has it load the library, the wrapper's as well."""
        if self.preload is None:
            return ()
        shutil.copy2(self.preload, self.path(PRELOADED))
        return ("sh", "-c", f'LD_PRELOAD={PRELOADED}:$LD_PRELOAD exec "$@"', "sh")

    def wait_ready(self):
        def ready():
            assert self.running, (
                f"the daemon ended with status {self.process.returncode} before it was ready\n"
                f"{self.stdout}{self.stderr}"
            )
            # Right after a restart the bus may still hold a name for the life before; names come
            # in any order.
            owners = self._client.services()
            return len(owners) == 1 and owners != {self._owner} and self._alive(owners.pop())

        self._owner = wait_until(ready, "the daemon's services on the bus", self._deadline())
        self._life_of_owner = self.lives
        self._ready = True

    def _alive(self, owner):
        """The owner, unless it is a life before, which nobody waited for and of whose death the bus does
        not know yet."""
        if self._life_of_owner < self.lives - 1:
            try:
                self._client.call(owner, "/", "org.freedesktop.DBus.Peer", "Ping")
            except bus.BusError:
                return None
        return owner

    def signal(self, number):
        os.kill(self.pid, number)

    def stop(self, status=0):
        """Asks the daemon to end (SIGTERM) and checks the status with which it does."""
        self.signal(signal.SIGTERM)
        self.wait_exit(status)

    def kill(self):
        """Ends the daemon at once, without giving it a word."""
        if self.running:
            daemon = self._init_pid and sandbox.child_of(self._init_pid)
            if daemon is None:
                sandbox.end(self.process)
                return
            with contextlib.suppress(ProcessLookupError):
                os.kill(daemon, signal.SIGKILL)
            self.process.wait()

    def wait_exit(self, status=0):
        """Waits for the daemon to end by itself, and checks its status."""
        wait_until(lambda: not self.running, "the daemon's end", self._deadline())
        assert self.process.returncode == status, (
            f"the daemon ended with status {self.process.returncode}, not {status}\n"
            f"{self.stdout}{self.stderr}"
        )

    def restart(self, *argv):
        self.stop()
        self.start(*argv)

    def _deadline(self):
        return bus.DEADLINE * self.patience

    def _environment(self, more):
        environment = {
            "PATH": "/usr/sbin:/usr/bin",
            "DBUS_SYSTEM_BUS_ADDRESS": f"unix:path={sandbox.BUS_SOCKET}",
            "ASAN_OPTIONS": "detect_leaks=1:exitcode=99",
            "UBSAN_OPTIONS": "print_stacktrace=1:halt_on_error=1:exitcode=99",
            "TSAN_OPTIONS": TSAN_OPTIONS,
            "G_SLICE": "always-malloc",
        }
        environment.update(more or {})
        return environment

    # -- what it says ------------------------------------------------------------------------

    def _stream(self, kind, life=None):
        return self.scratch / f"{life or self.lives}.{kind}"

    @property
    def stdout(self):
        """The standard output of the current (or last) life as one text: the log, mostly."""
        return self._stream("out").read_text(errors="replace")

    @property
    def complaints(self):
        """What went to standard error, but for what the change to its own user always says where an
        ordinary user starts the daemon."""
        refusal = f"Failed setting gid to {sandbox.WXD_GID}: Invalid argument\n"
        return self.stderr if os.getuid() == 0 else self.stderr.removeprefix(refusal)

    @property
    def stderr(self):
        return self._stream("err").read_text(errors="replace")

    @property
    def log_path(self):
        """The file on the host that the current (or last) life writes its log to."""
        return self._stream("out")

    @property
    def log(self):
        """The lines of the log, such as "WARNING: text"."""
        return self.stdout.splitlines()

    def log_count(self, pattern):
        """How many lines of the log match a pattern."""
        return sum(re.search(pattern, line) is not None for line in self.log)

    def wait_for_log(self, pattern, count=1, deadline=None):
        """Waits until that many lines of the log match; returns the last line that does."""

        def found():
            running = self.running  # looked at before the log, for it may say more and end then
            lines = [line for line in self.log if re.search(pattern, line)]
            if len(lines) >= count:
                return lines
            assert running, f"the daemon ended without {pattern!r} in its log:\n{self.stdout}"
            return None

        return wait_until(
            found, lambda: f"{pattern!r} in the log:\n{self.stdout}", deadline or self._deadline()
        )[-1]

    def expect(self, pattern):
        """Announces a message that would otherwise fail the device, and must now appear."""
        self._expected.append(re.compile(pattern))

    def assert_clean_log(self):
        """Fails on an unexpected critical message in any life, and on an expected one missing."""
        unexpected, missing = [], set(self._expected)
        for life in range(1, self.lives + 1):
            for kind in ("out", "err"):
                for line in self._stream(kind, life).read_text(errors="replace").splitlines():
                    expected = {pattern for pattern in self._expected if pattern.search(line)}
                    missing -= expected
                    if not expected and UNWANTED.search(line):
                        unexpected.append(line)
        assert not unexpected, "unexpected in the log:\n" + "\n".join(unexpected)
        assert not missing, f"never in the log: {[pattern.pattern for pattern in missing]}"

    def print_log(self):
        """Prints what each life said; a test runner shows it with a failure."""
        for life in range(1, self.lives + 1):
            for kind, name in (("out", "log"), ("err", "standard error")):
                text = self._stream(kind, life).read_text(errors="replace")
                if text:
                    print(f"--- {name} of life {life} ---\n{text}", end="")

    # -- the bus -----------------------------------------------------------------------------

    def client(self):
        """A further connection to the bus, closed with the device."""
        client = bus.Client(self._bus.address)
        self.on_exit(client.close)
        return client

    def start_bus(self):
        """A bus comes up; the clients of the one before do not get to it."""
        with undisturbed():
            self._bus = bus.Bus(self.sandbox, self.scratch / "bus.log")
            self._closers.callback(self._bus.close)

    def end_bus(self):
        """The bus ends, with all connections to it, and does not come back."""
        self._bus.close()

    @property
    def bus_address(self):
        return self._bus.address

    @property
    def state(self):
        """The port control interface: device.state.SetState(0, True)."""
        return self._client.state

    @property
    def manager(self):
        """The interface of the daemon as a whole."""
        return self._client.manager

    @property
    def supervision(self):
        """The supervision interface."""
        return self._client.supervision

    def system_log(self):
        """What the daemon writes to the system log from now on; start the daemon inside."""
        return SystemLog(self)

    @property
    def first_client(self):
        return self._client

    def signals(self, interface=bus.STATE_NAME, path=bus.STATE_PATH):
        """Catches the signals of an object from now on."""
        return self._client.signals(interface, path)

    def sync(self):
        """Returns when the daemon has handled, and its signals delivered, all up to now."""
        self._client.sync()

    def ports(self):
        """The ports by number, as GetPortProps tells; see Props. Later entries do not replace."""
        listed = {}
        for entry in self.port_list():
            listed.setdefault(entry.number, entry)
        return listed

    def port_list(self):
        """The ports in list order, as GetPortProps tells."""
        count, entries = self.state.GetPortProps()
        assert count == len(entries)
        return [Props(*entry[:6], dict(entry[6])) for entry in entries]


class SystemLog:
    """The socket that the daemon's syslog calls end in."""

    def __init__(self, device):
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        # By way of the folder, because the name of a socket may have no more than 107 characters.
        self.path = device.path("/run/log")
        self.messages = []

    def __enter__(self):
        self.socket.bind(str(self.path))
        self.path.chmod(0o666)
        self.socket.setblocking(False)
        return self

    def __exit__(self, *_):
        self.socket.close()
        self.path.unlink()

    def wait_for(self, text):
        """Waits for a message that holds the text, and returns it."""

        def found():
            with contextlib.suppress(BlockingIOError):
                while True:
                    self.messages.append(self.socket.recv(4096).decode())
            return next((message for message in self.messages if text in message), None)

        return bus.wait_until(found, f"{text!r} in the system log; it holds {self.messages}")


class Props(
    collections.namedtuple(
        "Props", "name number state input configurable activelow properties"
    )
):
    """One port as GetPortProps tells it."""


def parse_key_file(text):
    """{group: {key: text}} of a key file, in its order, without its comments."""
    groups, current = {}, None
    for line in text.splitlines():
        if line.startswith("[") and line.endswith("]"):
            current = groups.setdefault(line[1:-1], {})
        elif line and not line.startswith("#"):
            key, _, value = line.partition("=")
            current[key] = value
    return groups
