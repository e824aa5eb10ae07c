"""The tour of the README, typed as a newcomer would type it: every command, and all that it shows."""

import re
import time

import pytest
from conftest import TOP

from sim.terminal import DEADLINE, Terminal, simulation

PROMPT = r"wexd device / [#$]"
CLOCK = re.compile(r"\d\d:\d\d:\d\d\\\.\d{3}")  # as escaped
INTERRUPT = "^C"


def tour():
    """(command, lines that it shows) of every command in the README."""
    steps = []
    blocks = re.findall(r"^```console\n(.*?)^```", (TOP / "README.md").read_text(), re.M | re.S)
    for line in "".join(blocks).splitlines():
        if line.startswith("$ "):
            steps.append((line[2:], []))
        else:
            steps[-1][1].append(line)
    return steps


def pattern(lines):
    """What shows these lines: times may differ, and "..." stands for any lines."""
    whole = ""
    for line in lines:
        if line == "...":
            whole += r"(?:.*\n)*?"
        else:
            whole += CLOCK.sub(r"\\d\\d:\\d\\d:\\d\\d\\.\\d{3}", re.escape(line.rstrip())) + r"\n"
    return whole


def type_it(terminal, command):
    """Types a command on an empty screen; returns the pattern that the screen then starts with."""
    terminal.type("clear")
    terminal.wait_for(rf"\A{PROMPT} ?\n*\Z")
    terminal.type(command)
    return rf"\A{PROMPT} {re.escape(command)}\n"


def shows(terminal, command, expected):
    start = type_it(terminal, command)
    screen = "\n".join(terminal.wait_for(start + rf"(.*\n)*?{PROMPT} ?\n*\Z"))
    return re.search(start + expected + rf"{PROMPT} ?\n*\Z", screen), screen


@pytest.mark.terminal
def test_the_tour_shows_what_the_readme_says(binary):
    with Terminal(simulation(binary, "--shell"), columns=140, rows=50) as terminal:
        terminal.wait_for(rf"^{PROMPT} ?$")
        for command, shown in tour():
            if shown and shown[-1] == INTERRUPT:
                terminal.wait_for(type_it(terminal, command) + pattern(shown[:-1]))
                terminal.keys("C-c")
                terminal.wait_for(rf"\^C\s*{PROMPT} ?\n*\Z")
                continue
            found, screen = shows(terminal, command, pattern(shown))
            end = time.monotonic() + DEADLINE
            # What is read follows the wire by some milliseconds, or more on a busy machine.
            while not found and re.match("wexctl (get|supervised read)", command):
                assert time.monotonic() < end, screen
                found, screen = shows(terminal, command, pattern(shown))
            assert found, f"{pattern(shown)}\nis not\n{screen}"


def test_the_tour_is_whole():
    commands = " ".join(command for command, _ in tour())
    for part in ("wexctl check", "wexctl list", "wexctl set", "wexctl monitor", "wexctl supervised",
                 "restart-wexd"):  # fmt: skip
        assert part in commands
