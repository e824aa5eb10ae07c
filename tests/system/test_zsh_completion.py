"""Completion of wexctl in zsh, which has no other way to be asked than at a terminal."""

import os

import pytest
from conftest import TOP
from describe import port

from sim.terminal import Terminal

pytestmark = pytest.mark.terminal


@pytest.fixture
def zsh(device, binary):
    device.describe(port("relay", 1, optional="true") + port("lamp", 2) + port("both", 3, "io_ctrl"))
    device.start()
    environment = {
        "DBUS_SYSTEM_BUS_ADDRESS": device.bus_address,
        "PATH": f"{binary.parent}:{os.environ['PATH']}",
        "PS1": "%% ",
    }
    with Terminal(["zsh", "-f", "-i"], columns=100, **environment) as terminal:
        terminal.type(
            f"fpath=({TOP}/tools/wexctl/completion $fpath); autoload -Uz compinit; compinit -u -D"
            " && echo ready to complete"
        )
        terminal.wait_for("^ready to complete")
        terminal.type("clear")
        terminal.wait_for(r"\A% *$")
        yield terminal


@pytest.mark.parametrize(
    "typed, completed",
    [
        ("wexctl dire", "wexctl direction"),
        ("wexctl set la", "wexctl set lamp"),
        ("wexctl direction both inp", "wexctl direction both input"),
        ("wexctl drop relay la", "wexctl drop relay lamp"),
        ("wexctl supervised rea", "wexctl supervised read"),
        ("wexctl supervised ranges relay sh", "wexctl supervised ranges relay short"),
        ("wexctl legacy get relay Output.P", "wexctl legacy get relay Output.PulseTime"),
        ("wexctl --ver", "wexctl --version"),
        ("wexctl list --j", "wexctl list --json"),
        ("wexctl pulse --wait la", "wexctl pulse --wait lamp"),
        ("wexctl name relay --side ou", "wexctl name relay --side output"),
        ("wexctl active --side input both cl", "wexctl active --side input both closed"),
        ("wexctl set lamp=of", "wexctl set lamp=off"),
        ("wexctl set lamp=on rel", "wexctl set lamp=on relay="),
        ("wexctl connectors vi", "wexctl connectors video"),
        ("wexctl check /usr/share/do", "wexctl check /usr/share/doc"),
    ],
)
def test_a_word_is_completed(zsh, typed, completed):
    zsh.keys("-l", typed)
    zsh.keys("Tab")
    zsh.wait_for(rf"^% {completed}[ /]*$")


def test_a_port_that_waits_for_its_state_has_it_typed_at_once(zsh):
    zsh.keys("-l", "wexctl set lamp=on rel")
    zsh.keys("Tab")
    zsh.wait_for("relay=")
    zsh.keys("-l", "of")
    zsh.keys("Tab")
    zsh.wait_for(r"^% wexctl set lamp=on relay=off *$")


def test_every_port_of_the_running_daemon_is_offered(zsh):
    zsh.keys("-l", "wexctl get ")
    zsh.keys("Tab")
    zsh.wait_for(r"^both +lamp +relay *$")
