"""scripts/run --shell: a shell on the simulated device, alone and on a terminal."""

import contextlib
import os
import re
import signal
import subprocess
import time

import pytest
from conftest import TOP

from sim.bus import wait_until
from sim.terminal import Terminal, simulation

PROMPT = r"wexd device / [#$] ?$"


def run(binary, commands):
    return subprocess.run(
        simulation(binary, "--shell"), cwd=TOP, input=commands, capture_output=True, text=True,
        timeout=60, check=False,
    )  # fmt: skip


@pytest.mark.parametrize(
    "command, shown",
    [
        ("wexctl get relay", "port 3 relay: off"),
        ("busctl call com.norv.IOControl.State /com/norv/IOControl/State com.norv.IOControl.State"
         " GetDirection u 3", 's "output"'),
        ("gdbus call --system -d com.norv.IOControl.State -o /com/norv/IOControl/State"
         " -m com.norv.IOControl.State.GetNbrPorts", "(uint32 6, uint32 7)"),
        ("echo 3850 > /sys/devices/inputs/window; wexctl supervised on window;"
         " until wexctl supervised read window | grep cut; do :; done", "cut 3850"),
        ("cat /etc/wexd/wexd.conf", "[relay]"),
    ],
    ids=["wexctl", "busctl", "gdbus", "wires", "files"],
)  # fmt: skip
def test_commands_from_standard_input_reach_the_device(binary, command, shown):
    result = run(binary, command)
    assert (result.returncode, result.stderr) == (0, "")
    assert shown in result.stdout


def test_the_status_is_that_of_the_shell(binary):
    assert run(binary, "wexctl set door on").returncode == 1
    assert run(binary, "exit 7").returncode == 7


@pytest.fixture
def shell(binary):
    with Terminal(simulation(binary, "--shell"), columns=110, rows=40) as terminal:
        terminal.wait_for("Tab completes port names", PROMPT)
        yield terminal


@pytest.mark.terminal
def test_wexctl_works_and_completes_port_names(shell):
    shell.type("wexctl list")
    shell.wait_for("12 +window +Window +input")
    shell.keys("-l", "wexctl set rel")
    shell.keys("Tab")
    shell.wait_for(r"[#$] wexctl set relay *$")
    shell.keys("-l", "o")
    shell.keys("Tab", "Tab")
    shell.wait_for(r"^off +on")
    shell.keys("-l", "n")
    shell.keys("Enter")
    shell.type("wexctl get relay")
    shell.wait_for("port 3 relay: on")


@pytest.mark.terminal
def test_an_interrupt_is_for_the_command_and_an_end_for_the_shell(shell):
    shell.type("wexctl monitor")
    shell.wait_for("watching wexd")
    shell.keys("C-c")
    shell.wait_for(r"\^C\s*" + PROMPT)
    shell.type("sleep 1000")
    wait_until(lambda: "sleep" in shell.inhabitants().values(), "the command to run")
    shell.keys("C-c")
    shell.wait_for(r"sleep 1000\n\^C\s*" + PROMPT)
    assert "sleep" not in shell.inhabitants().values()
    shell.type("sleep 1000 &")
    shell.type("jobs")
    shell.wait_for(r"\[1\].*Running.*sleep 1000")
    assert "sleep" in shell.inhabitants().values()
    shell.keys("C-d")
    shell.wait_for("ended with status 0")
    assert shell.leftovers() == []


@pytest.mark.terminal
def test_a_shell_whose_terminal_goes_away_leaves_nothing_behind(shell):
    shell.type("sleep 1000 &")
    shell.type("jobs")
    shell.wait_for(r"\[1\].*Running.*sleep 1000")
    shell.close()
    shell.wait_clean()


@pytest.mark.terminal
def test_impatience_does_not_disturb_the_cleaning_up(shell):
    process = shell.process
    with contextlib.suppress(ProcessLookupError):
        while True:
            os.kill(process, signal.SIGHUP)
            time.sleep(0.001)
    assert shell.leftovers() == []


@pytest.mark.terminal
def test_the_prompt_has_colours_unless_they_are_unwanted(shell, binary):
    assert re.search(r"\x1b\[\S*32m", "\n".join(shell.screen("-e")))
    with Terminal(simulation(binary, "--shell"), NO_COLOR="1") as plain:
        plain.wait_for(PROMPT)
        assert not re.search(r"\x1b\[\S*3\dm", "\n".join(plain.screen("-e")))


def test_help_lists_all_of_it():
    shown = subprocess.run(
        ["scripts/run", "--help"], cwd=TOP, capture_output=True, text=True, timeout=60, check=True
    ).stdout
    for option in ("--scenario", "--shell", "NO_COLOR", "live"):
        assert option in shown
