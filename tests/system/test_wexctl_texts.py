"""Texts that would command a terminal, or forge a line of what the client says."""

import os
import subprocess

import pytest
from client import done
from describe import port

# All that a terminal acts on, a backslash, and letters of two and four bytes between.
HOSTILE = "a\x1b[31m\tb\nport 9 forged: on\x7f\x80\u009b\u009f\u00a0\\ä🚪"
SHOWN = "a\\x1b[31m\\x09b\\x0aport 9 forged: on\\x7f\\x80\\x9b\\x9f\u00a0\\ä🚪"


@pytest.fixture
def daemon(device):
    device.describe(port("door", 0, "input") + port("relay", 1) + port("line", 2, "input"))
    return device.start()


@pytest.mark.parametrize(
    "arguments",
    [("list",), ("get", "relay"), ("name", "relay"), ("usage", "relay"), ("legacy", "get", "relay"),
     ("legacy", "get", "relay", "Usage")],
    ids=" ".join,
)  # fmt: skip
def test_no_control_character_is_shown(daemon, wexctl, arguments):
    lines = done(wexctl(*arguments)).out.count("\n")
    daemon.state.SetName(1, False, HOSTILE)
    daemon.state.SetUsage(1, HOSTILE)
    out = done(wexctl(*arguments)).out
    assert SHOWN in out
    assert out.count("\n") == lines
    assert not any(ord(c) < 32 or 127 <= ord(c) < 160 for c in out.replace("\n", ""))


@pytest.mark.parametrize(
    "arguments, key",
    [(("get", "relay", "--json"), "usage"), (("legacy", "get", "relay", "--json"), "IOPort.Usage")],
    ids=["get", "legacy"],
)  # fmt: skip
def test_json_has_every_text_exactly_and_no_control_character(daemon, wexctl, arguments, key):
    daemon.state.SetUsage(1, HOSTILE)
    result = done(wexctl(*arguments))
    assert result.json[key] == HOSTILE
    assert not any(ord(c) < 32 or 127 <= ord(c) < 160 for c in result.out.replace("\n", ""))


@pytest.mark.parametrize("options", [(), ("--json",)], ids=["text", "json"])
def test_monitor_tells_one_line_of_each_change(daemon, wexctl, options):
    process = wexctl.start("monitor", *options, stdout=subprocess.PIPE)
    assert "watching" in process.stdout.readline()
    daemon.state.SetName(1, False, HOSTILE)
    daemon.state.SetState(1, True)
    line = process.stdout.readline()
    assert ('"setting-changed"' if options else f"Output.Name is now '{SHOWN}'\n") in line
    assert not any(ord(c) < 32 or 127 <= ord(c) < 160 for c in line[:-1])
    assert ('"port-changed"' if options else "port 1 relay: on (output)\n") in process.stdout.readline()


def test_a_description_is_checked_without_commanding_the_terminal(wexctl, tmp_path):
    file = tmp_path / "conf.xml"
    file.write_text(f"<config>{port('a&#x9b;31m&#10;', 'x')}</config>")
    result = wexctl("check", os.fspath(file))
    assert result.status == 1 and "\u009b" not in result.out
    assert all(line.startswith(str(file)) for line in result.out.splitlines())
