"""A terminal of a given size with a program in it, as tmux plays it."""

import contextlib
import os
import pathlib
import re
import shlex
import shutil
import subprocess
import sys
import tempfile
import time

from sim import bus, sandbox

TOP = pathlib.Path(__file__).resolve().parents[1]

DEADLINE = float(os.environ.get("WEXD_DEADLINE", "60"))  # the machine may be busy


class Terminal:
    """Runs a command; the folder that its scratch folders go to is its own, so that none hides.

    Leaving the block takes the terminal away, and fails if something of it stays.
    """

    def __init__(self, command, columns=80, rows=24, **environment):
        # Short, because the name of a socket may have no more than 107 characters.
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="wexd-tty-"))
        self._socket = self.folder / "tmux"
        kept = {name: os.environ[name] for name in os.environ if name.endswith("SAN_OPTIONS")}
        words = [f"{name}={value}" for name, value in {
            "PATH": os.environ["PATH"], "TERM": "tmux-256color", "LANG": "C.UTF-8",
            "TMPDIR": str(self.folder), **kept, **environment,
        }.items()]  # fmt: skip
        program = shlex.join(["env", "-i", *words, *command])
        (self.folder / "tmux.conf").write_text("set -g default-terminal tmux-256color\n")
        self._tmux(
            "-f", str(self.folder / "tmux.conf"), "new-session", "-d", "-x", str(columns),
            "-y", str(rows), "-c", str(TOP),
            # An interrupt is for the program alone.
            f"trap : INT; {program}; echo ended with status $?; exec sleep 1000",
        )  # fmt: skip

    def _tmux(self, *arguments):
        return subprocess.run(
            ["tmux", "-S", str(self._socket), *arguments],
            env={"PATH": os.environ["PATH"], "LANG": "C.UTF-8", "SHELL": "/bin/sh"},
            capture_output=True, text=True, timeout=DEADLINE, check=True,
        ).stdout  # fmt: skip

    def screen(self, *options):
        """What is on the screen, line by line; with -e among the options, with its colours."""
        return self._tmux("capture-pane", "-p", *options).splitlines()

    def wait_for(self, *patterns):
        """Waits until each pattern is found somewhere on the screen; returns the screen."""
        end = time.monotonic() + DEADLINE
        while True:
            lines = self.screen()
            missing = [each for each in patterns if not re.search(each, "\n".join(lines), re.M)]
            if not missing:
                return lines
            assert time.monotonic() < end, f"no {missing} on the screen:\n" + "\n".join(lines)
            time.sleep(0.05)

    def keys(self, *keys):
        """Presses keys, by tmux's names; Space is one of them."""
        self._tmux("send-keys", *keys)

    def type(self, text):
        """Types a text and Enter."""
        self._tmux("send-keys", "-l", text)
        self._tmux("send-keys", "Enter")

    def resize(self, columns, rows):
        self._tmux("resize-window", "-x", str(columns), "-y", str(rows))

    def client(self):
        """A connection to the bus of the device that runs in the terminal."""
        (address,) = self.folder.glob("wexd-*/root" + sandbox.BUS_SOCKET)
        return bus.Client(f"unix:path={address}")

    @property
    def process(self):
        """The program that runs in the terminal."""
        shell = self._tmux("display-message", "-p", "#{pane_pid}").strip()
        return sandbox.child_of(shell)

    def inhabitants(self):
        """The processes in a sandbox of this terminal's: process id and name."""
        found = {}
        for process in filter(str.isdigit, os.listdir("/proc")):
            with contextlib.suppress(OSError):
                proc = pathlib.Path(f"/proc/{process}")
                if f"/{self.folder.name}/wexd-" in (proc / "mountinfo").read_text():
                    found[int(process)] = (proc / "comm").read_text().strip()
        return found

    def process_called(self, name):
        (found,) = (process for process, each in self.inhabitants().items() if each == name)
        return found

    def leftovers(self):
        """Scratch folders of this terminal's, and processes that live in them."""
        return [*map(str, self.folder.glob("wexd-*")), *self.inhabitants().items()]

    def wait_clean(self):
        """Waits until nothing is left of what ran here."""
        end = time.monotonic() + DEADLINE
        while left := self.leftovers():
            assert time.monotonic() < end, f"left behind: {left}"
            time.sleep(0.05)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()
        try:
            self.wait_clean()
        finally:
            self.remove()

    def close(self):
        """Takes the terminal away."""
        with contextlib.suppress(subprocess.CalledProcessError):
            self._tmux("kill-server")

    def remove(self):
        shutil.rmtree(self.folder, ignore_errors=True)


def simulation(binary, *options):
    """The command that scripts/run ends in."""
    return [sys.executable, "-m", "sim", "--binary", str(binary), *options]
