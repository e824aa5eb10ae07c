"""The system calls of a running daemon's main thread on its settings, watched and made to fail."""

import contextlib
import pathlib
import re
import subprocess

from campaign import Broken

# What the settings, what is written beside them, and their folder are called in a call.
PATHS = [
    option
    for path in ("/etc/wexd", "wexd.conf", ".wexd.conf.new", ".")
    for option in ("-P", path, *(("-P", f"/etc/wexd/{path}") if path.endswith(("f", "w")) else ()))
]
CALL = re.compile(r"^(?P<call>\w+)\((?P<arguments>.*)\) += (?P<result>-?\d+|\?)")


@contextlib.contextmanager
def traced(device, *options):
    """Traces the main thread while the block lasts; yields a function that returns the calls."""
    log = device.scratch / "trace"
    process = subprocess.Popen(
        ["strace", "-y", "-o", log, *PATHS, *options, "-p", str(device.pid)],
        stderr=subprocess.PIPE, text=True,
    )  # fmt: skip
    try:
        said = iter(process.stderr.readline, "")
        if not any("attached" in line for line in said):
            raise RuntimeError("strace does not get at the daemon")
        yield lambda: calls(log)
    finally:
        process.terminate()
        process.wait()
        process.stderr.close()


def calls(log):
    """The calls of a trace, in their order, as matches of CALL."""
    return [match for line in log.read_text().splitlines() if (match := CALL.match(line))]


def steps(device, save):
    """The calls that a save makes, each as its name and how manieth of that name it is."""
    with traced(device) as found:
        save()
    return numbered(found())


def steps_of_a_start(device):
    """The same of a whole start."""
    device.wrapper = ("strace", "-qq", "-y", "-o", "/run/trace", *PATHS)
    device.start(ready=True)
    device.kill()
    return numbered(calls(device.path("/run/trace")))


def killed_at(call, count):
    """A command that runs the daemon and kills it as it begins its count-th such call."""
    return ("strace", "-qq", "-o", "/dev/null", *PATHS, "-e", f"inject={call}:signal=KILL:when={count}")


def numbered(found):
    made = [call["call"] for call in found]
    return [(name, made[: place + 1].count(name)) for place, name in enumerate(made) if name != "close"]


class Disk:
    """What of one folder would be there after a power cut, on the most forgetful file system.

    A file's content is lost until the file is synced; a name may be as it was when the folder was
    synced last, or as it is by now.
    """

    def __init__(self, name):
        self.name = name
        self.torn = set()  # files, by number, that were written and not synced
        self.files = 0
        self.now = {name: 0}
        self.safe = dict(self.now)
        self.open = {}  # descriptor -> file

    def take(self, call):
        """Follows one call, and fails when a cut after it would leave half a file."""
        if int(call["result"].replace("?", "-1")) >= 0 and call["call"] in self.EFFECTS:
            self.EFFECTS[call["call"]](self, call["arguments"], int(call["result"]))
        if {self.now.get(self.name), self.safe.get(self.name)} & self.torn:
            raise Broken(f"a power cut after {call[0][:70]} leaves half a file")

    def assert_safe(self):
        if self.now != self.safe:
            raise Broken("a power cut after the save brings the old file back")

    def _opened(self, arguments, descriptor):
        name = pathlib.Path(re.search(r'"([^"]*)"', arguments)[1]).name
        if "O_CREAT" in arguments and (name not in self.now or "O_EXCL" in arguments):
            self.files += 1
            self.now[name] = self.files
        self.open[descriptor] = self.now.get(name)
        if "O_TRUNC" in arguments:
            self.torn.add(self.open[descriptor])

    def _written(self, arguments, _result):
        self.torn.add(self.open.get(int(re.match(r"\d+", arguments)[0])))

    def _synced(self, arguments, _result):
        file = self.open.get(int(re.match(r"\d+", arguments)[0]))
        if file is None:  # the folder
            self.safe = dict(self.now)
        self.torn.discard(file)

    def _renamed(self, arguments, _result):
        old, new = re.findall(r'"([^"]*)"', arguments)
        self.now[new] = self.now.pop(old)

    def _removed(self, arguments, _result):
        self.now.pop(re.search(r'"([^"]*)"', arguments)[1], None)

    EFFECTS = {
        "openat": _opened, "pwrite64": _written, "write": _written, "ftruncate": _written,
        "fsync": _synced, "fdatasync": _synced, "renameat": _renamed, "rename": _renamed,
        "unlinkat": _removed,
    }  # fmt: skip
