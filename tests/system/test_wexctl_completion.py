"""What the client tells the shells, and what bash and fish make of it."""

import os
import subprocess

import pytest
from client import done
from conftest import TOP
from describe import port

from sim.terminal import Terminal

COMPLETION = TOP / "tools/wexctl/completion"


@pytest.fixture
def daemon(device):
    device.describe(
        port("relay", 1, optional="true") + port("Front door", 2, "input") + port("bad\x7fname", 3)
    )
    return device.start()


def offered(wexctl, *words):
    return [line.split("\t")[0] for line in done(wexctl("complete", *words)).out.splitlines()]


def test_ports_are_whole_and_can_be_typed(daemon, wexctl):
    assert offered(wexctl, "get", "") == ["relay", "Front door", "3"]
    assert offered(wexctl, "get", "Front ") == ["Front door"]


def test_several_settings_are_port_and_state_each(daemon, wexctl):
    assert offered(wexctl, "set", "relay=") == ["relay=on", "relay=off"]
    assert offered(wexctl, "set", "relay=on", "Fr") == ["Front door="]
    assert offered(wexctl, "set", "relay=on", "Front door=of") == ["Front door=off"]
    assert offered(wexctl, "set", "relay", "o") == ["on", "off"]


def test_what_is_offered_has_its_meaning(daemon, wexctl):
    assert "list\tShow all ports\n" in done(wexctl("complete", "")).out
    assert "relay\toutput\n" in done(wexctl("complete", "get", "")).out


@pytest.mark.parametrize("words", [(), ("",), ("nonsense", ""), ("get", "relay", ""), ("--", ""),
                                   ("supervised", "nonsense", ""), ("\x1b", "\n")])  # fmt: skip
def test_nothing_that_is_typed_is_a_mistake(daemon, wexctl, words):
    done(wexctl("complete", *words))


def test_without_a_daemon_there_are_no_ports_and_no_message(device, wexctl):
    assert done(wexctl("complete", "get", "")).out == ""
    assert "get" in offered(wexctl, "g")


def environment(daemon, binary):
    return {
        "DBUS_SYSTEM_BUS_ADDRESS": daemon.bus_address,
        "PATH": f"{binary.parent}:{os.environ['PATH']}",
        "HOME": "/nonexistent",
    }


@pytest.mark.parametrize(
    "line, expected",
    [
        ("wexctl dire", ["direction\tShow or switch a port's direction"]),
        ("wexctl get Fro", ["Front door\tinput"]),
        ("wexctl get 'Fro", ["Front door\tinput"]),
        ("wexctl stop relay ", ["on", "off"]),
        ("wexctl set relay=o", ["relay=on", "relay=off"]),
        ("wexctl set relay=on Fro", ["Front door=\tinput"]),
        ("wexctl pulse --wait re", ["relay\toutput"]),
        ("wexctl wait relay --timeout 5", ["500ms", "5s"]),
    ],
)
def test_fish_completes(daemon, binary, tmp_path, line, expected):
    run = subprocess.run(
        ["fish", "--no-config", "-c", f'source {COMPLETION}/wexctl.fish; complete -C "{line}"'],
        env={**environment(daemon, binary), "HOME": str(tmp_path)},
        capture_output=True, text=True, check=True,
    )  # fmt: skip
    assert sorted(run.stdout.splitlines()) == sorted(expected), run.stderr


@pytest.fixture
def bash(daemon, binary):
    shell = ["bash", "--norc", "--noprofile", "-i"]
    with Terminal(shell, columns=100, PS1="% ", **environment(daemon, binary)) as terminal:
        terminal.type(f"source {COMPLETION}/wexctl.bash && clear")
        terminal.wait_for(r"\A% *$")
        yield terminal


@pytest.mark.terminal
@pytest.mark.parametrize(
    "typed, completed",
    [
        ("wexctl dire", "wexctl direction"),
        ("wexctl get Fro", r"wexctl get Front\\ door"),
        ("wexctl get 'Fro", "wexctl get 'Front door'"),
        ("wexctl get Front\\\\ d", r"wexctl get Front\\ door"),
        ("wexctl set rel", "wexctl set relay"),
        ("wexctl set relay=of", "wexctl set relay=off"),
        ("wexctl set relay=", "wexctl set relay=o"),
        ("wexctl set relay=on Fro", r"wexctl set relay=on Front\\ door="),
        ("wexctl set 'Front door'=of", "wexctl set 'Front door'=off"),
        ("wexctl set Front\\ door=of", r"wexctl set Front\\ door=off"),
        ("wexctl set 'Front door=of", "wexctl set 'Front door=off'"),
        ("wexctl run relay 1:2", "wexctl run relay 1:2s,0:0"),
        ("wexctl pulse relay 2", "wexctl pulse relay 2s"),
        ("wexctl check /usr/share/do", "wexctl check /usr/share/doc"),
    ],
)
def test_bash_completes_a_name_with_its_blanks(bash, typed, completed):
    bash.keys("-l", typed.replace("\\\\", "\\"))
    bash.keys("Tab")
    bash.wait_for(rf"% {completed}[ /]*$")
