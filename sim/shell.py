"""A shell on the simulated device.

It sees what the daemon sees: the device's files and its bus, with wexctl beside the daemon. It is
the first process of a namespace of its own, so that whatever it leaves behind ends with it.
"""

import os
import pathlib
import signal
import subprocess
import sys
import time

from sim import example, sandbox

HERE = pathlib.Path(__file__).parent
COMPLETION = HERE.parent / "tools/wexctl/completion/wexctl.bash"
START_FILE = "/etc/wexd-shell.bashrc"
# While this file is there, somebody waits for a restart; see restart-wexd in the start file.
RESTART = "/run/restart-wexd"
POLL_S = 0.05

GREETING = f"""\
wexd runs here on a simulated device. Try:

  wexctl list                               the ports; wexctl --help has the rest
  echo 1 > {example.INPUTS}/door         open the door
  echo 3850 > {example.INPUTS}/window    cut the window's line
  wexctl supervised on window               have lines measured
  wexctl monitor                            watch changes, until Ctrl-C
  restart-wexd                              end the daemon and start it again

Tab completes port names. exit, or Ctrl-D, leaves; nothing stays behind.
"""


OWN_BOARD = """\
wexd runs here on a simulated board. Try wexctl list, wexctl monitor; restart-wexd starts the daemon
again. These files turn the inputs: a contact's holds 0 or 1, a measured line's its level.

{}
exit, or Ctrl-D, leaves; nothing stays behind.
"""


def wires(board):
    """The files that turn inputs, one a line."""
    files = {name: line.path for name, line in board.lines.items() if hasattr(line, "path")}
    return "".join(f"  {name:<24}{path}\n" for name, path in files.items())


def run(device, board=None):
    """Runs a shell until it ends; returns its status. Its commands come from standard input."""
    device.write(START_FILE, (HERE / "shell.bashrc").read_text())
    device.write("/etc/bash_completion.d/wexctl", COMPLETION.read_text())
    interactive = sys.stdin.isatty()
    if interactive:
        print(OWN_BOARD.format(wires(board)) if board else GREETING)
    argv = ["bash", "--noprofile", "--rcfile", START_FILE, "-i"] if interactive else ["bash", "-s"]
    beside = [device.binary.parent / "wexctl"]
    command = device.sandbox.command(argv, device.binary, beside=beside)
    # The terminal's interrupts are for whatever runs in the shell. Not ignored, which the shell and
    # all that it starts would inherit.
    before = signal.signal(signal.SIGINT, lambda *_: None)
    shell = subprocess.Popen(command, env=environment())
    try:
        while shell.poll() is None:
            if device.exists(RESTART):
                device.restart()
                device.path(RESTART).unlink()
            time.sleep(POLL_S)
        return shell.returncode
    finally:
        shell.kill()
        shell.wait()
        take_terminal_back()
        signal.signal(signal.SIGINT, before)


def environment():
    kept = {name: os.environ[name] for name in ("TERM", "LANG", "LC_ALL", "NO_COLOR", "COLUMNS")
            if name in os.environ}  # fmt: skip
    return {
        "LANG": "C.UTF-8",
        **kept,
        "HOME": "/tmp",
        "PATH": f"{sandbox.PROGRAMS}:/usr/sbin:/usr/bin:/sbin:/bin",
        "DBUS_SYSTEM_BUS_ADDRESS": f"unix:path={sandbox.BUS_SOCKET}",
        "SHELL": "/bin/bash",
        "BASH_ENV": START_FILE,
    }


def take_terminal_back():
    """Makes this process the terminal's foreground again: the shell was, and could not hand back."""
    if not sys.stdin.isatty():
        return
    before = signal.signal(signal.SIGTTOU, signal.SIG_IGN)
    os.tcsetpgrp(sys.stdin.fileno(), os.getpgrp())
    signal.signal(signal.SIGTTOU, before)
