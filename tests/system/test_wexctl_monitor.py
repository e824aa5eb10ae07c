"""What `wexctl monitor` shows of what happens, how, and when it ends by itself."""

import datetime
import json
import re
import subprocess
import time

import pytest
from client import done
from describe import port
from gi.repository import GLib

from sim.bus import wait_until
from sim.peers import IoBox


@pytest.fixture
def daemon(device):
    device.box = IoBox(device, states={"5": "closed"})
    device.describe(
        port("door", 0, "input", "virtual", input_name="Front door")
        + port("relay", 1, optional="true")
        + port("lamp", 2, output_name="Lamp")
        + port("line", 5, "input", "iobox")
    )
    device.start()
    device.supervision.SetSupervised(5, True)
    return device


class Watch:
    """A monitor whose lines are read as they come."""

    def __init__(self, wexctl, tmp_path, *arguments, watching=True):
        self.output = tmp_path / "seen"
        with self.output.open("w") as output:
            self.process = wexctl.start("monitor", *arguments, stdout=output, stderr=subprocess.PIPE)
        if watching:
            self.wait_for("watching")

    @property
    def lines(self):
        return self.output.read_text().splitlines()

    @property
    def events(self):
        return [json.loads(line) for line in self.lines]

    def wait_for(self, pattern, count=1):
        wait_until(
            lambda: len(re.findall(pattern, self.output.read_text())) >= count,
            lambda: f"{count} {pattern} among {self.lines}",
        )

    def ended(self):
        """Its status and its messages, once it has ended by itself."""
        wait_until(lambda: self.process.poll() is not None, lambda: f"the end after {self.lines}")
        return self.process.returncode, self.process.stderr.read()


@pytest.fixture
def watch(daemon, wexctl, tmp_path):
    return lambda *arguments, **options: Watch(wexctl, tmp_path, *arguments, **options)


def test_settings_are_heard_from_the_daemon_alone(daemon, watch):
    seen = watch()
    interface = "com.norv.Configuration.Legacy.IOControl1.IOPort"
    bus = "org.freedesktop.DBus"
    everybody = daemon.first_client.call(bus, "/org/freedesktop/DBus", bus, "ListNames")
    for receiver in (None, *(name for name in everybody if name.startswith(":"))):
        daemon.first_client.connection.emit_signal(
            receiver, "/com/norv/Configuration/Legacy/IOControl/IOPort/1", "org.freedesktop.DBus.Properties",
            "PropertiesChanged",
            GLib.Variant("(sa{sv}as)", (interface, {"Usage": GLib.Variant.new_bytestring(b"Forged")}, [])),
        )  # fmt: skip
    daemon.state.SetUsage(1, "Gate")
    seen.wait_for("port 1 relay: IOPort.Usage is now 'Gate'")
    assert not any("Forged" in line for line in seen.lines)


def test_only_the_chosen_ports_are_shown(daemon, watch):
    seen = watch("relay", "Lamp")
    daemon.state.SetVirtual(0, True)
    daemon.state.SetUsage(0, "unheard")
    daemon.state.SetState(1, True)
    daemon.state.SetUsage(1, "Gate")
    daemon.state.StartActionSequence(0, True, [(True, 0)])
    daemon.state.StartActionSequence(2, False, [(True, 0)])
    seen.wait_for("lamp: sequence done")
    assert [line.split("  ", 1)[1] for line in seen.lines[1:]] == [
        "port 1 relay: on (output)", "port 1 relay: IOPort.Usage is now 'Gate'",
        "port 2 lamp: on (output)", "port 2 lamp: sequence done",
    ]  # fmt: skip


def test_a_full_count_ends_it_and_counts_what_is_shown_of_ports(daemon, watch):
    seen = watch("lamp", "--count", "2")
    daemon.state.SetState(1, True)
    daemon.restart()
    seen.wait_for("wexd is back")
    for state in (True, False, True):
        daemon.state.SetState(2, state)
    assert seen.ended() == (0, "")
    assert [line.split(": ")[-1] for line in seen.lines if "lamp" in line] == [
        "on (output)", "off (output)",
    ]  # fmt: skip


def test_the_present_states_come_first(daemon, watch):
    daemon.state.SetState(1, True)
    daemon.box.line(5, "cut")
    wait_until(lambda: daemon.supervision.GetSupervisedReadout(5)[0] == "cut", "the cut")
    seen = watch("--initial", "--count", "4")
    assert seen.ended() == (0, "")
    assert [line.split("  ", 1)[1] for line in seen.lines[1:]] == [
        "port 0 door: off (input, initial)", "port 1 relay: on (output, initial)",
        "port 2 lamp: off (output, initial)", "port 5 line: cut (input, initial)",
    ]  # fmt: skip


def test_the_present_states_come_again_with_another_daemon(daemon, watch):
    seen = watch("lamp", "--initial")
    seen.wait_for("lamp: off")
    daemon.restart()
    seen.wait_for("wexd is back\n.* port 2 lamp: off .*initial")


def test_quiet_says_nothing_of_the_watch(daemon, watch):
    seen = watch("relay", "--quiet", "--initial", "--count", "1", watching=False)
    assert seen.ended() == (0, "")
    assert len(seen.lines) == 1 and "relay" in seen.lines[0]


@pytest.mark.parametrize(
    "option, outcome",
    [("--idle-timeout", (0, "")), ("--timeout", (4, "wexctl: the time ran out\n"))],
)
def test_a_time_that_is_over_ends_it(daemon, watch, option, outcome):
    begun = time.monotonic()
    assert watch(option, "0.2s").ended() == outcome
    assert time.monotonic() - begun > 0.2


def test_whatever_is_shown_begins_the_idle_time_again(daemon, watch):
    seen = watch("relay", "--idle-timeout", "2s")
    begun = time.monotonic()
    wait_until(lambda: time.monotonic() - begun > 0.5, "half a second")
    daemon.state.SetState(1, True)
    shown = time.monotonic()
    assert seen.ended() == (0, "")
    assert time.monotonic() - shown >= 1.9
    assert "relay: on" in seen.lines[-1]


def test_times_have_date_and_zone(daemon, watch):
    seen = watch("--json")
    (event,) = seen.events
    told = datetime.datetime.fromisoformat(event["time"])
    assert re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}[+-]\d\d:\d\d", event["time"])
    assert abs(datetime.datetime.now(datetime.timezone.utc) - told).total_seconds() < 60


@pytest.mark.parametrize("state", ["cut", "short", "open"])
def test_a_supervised_change_has_its_word(daemon, watch, state):
    seen = watch("line", "--json")
    daemon.box.line(5, state)
    seen.wait_for("port-changed")
    event = seen.events[1]
    assert (event["name"], event["supervised"]) == ("line", state)
    assert isinstance(event["state"], bool)
    daemon.state.SetVirtual(5, True)
    seen.wait_for("port-changed", 2)
    assert seen.events[2]["state"] is True and "supervised" not in seen.events[2]


def test_list_and_get_have_the_word_too(daemon, wexctl):
    daemon.box.line(5, "cut")
    wait_until(lambda: daemon.supervision.GetSupervisedReadout(5)[0] == "cut", "the cut")
    assert re.search(r"^5 +line .* cut ", done(wexctl("list")).out, re.MULTILINE)
    assert done(wexctl("get", "line")).out.startswith("port 5 line: cut\n")
    told = {entry["name"]: entry for entry in done(wexctl("list", "--json")).json}
    assert told["line"]["supervised"] == "cut" and "supervised" not in told["door"]
    daemon.supervision.SetSupervised(5, False)
    assert "supervised" not in done(wexctl("get", "line", "--json")).json


def test_a_line_reads_as_it_is_asked_for(daemon, watch):
    seen = watch("--quiet", "--initial", "--format", "{{{kind}}} {port}|{name}={state} {direction}{x}"
                 .replace("{x}", " {interface}.{property}:{value}"), watching=False)  # fmt: skip
    seen.wait_for("line")
    daemon.state.SetState(1, True)
    daemon.state.SetUsage(1, "Gate\x1b")
    daemon.state.StartActionSequence(1, False, [(True, 0)])
    seen.wait_for("sequence-done")
    daemon.box.line(5, "short")
    seen.wait_for("short")
    assert seen.lines == [
        "{initial} 0|door=off input .:", "{initial} 1|relay=off output .:",
        "{initial} 2|lamp=off output .:", "{initial} 5|line=closed input .:",
        "{port-changed} 1|relay=on output .:",
        "{setting-changed} 1|relay=  IOPort.Usage:Gate\\x1b", "{sequence-done} 1|relay=  .:",
        "{port-changed} 5|line=short input .:",
    ]  # fmt: skip


def test_the_other_fields(daemon, watch):
    seen = watch("--initial", "relay", "--count", "1", "--format", "{kind} {time} [{text}]")
    assert seen.ended() == (0, "")
    assert re.fullmatch(r"watching \S+T\S+ \[watching wexd\]", seen.lines[0])
    assert seen.lines[1].endswith("[port 1 relay: off (output, initial)]")


@pytest.mark.parametrize(
    "arguments, status, error",
    [
        (("nobody",), 1, "no port is called 'nobody'"),
        (("relay", "77"), 1, "no port has number 77"),
        (("",), 2, "PORT is empty"),
        (("relay", ""), 2, "PORT is empty"),
        (("--count", "0"), 2, "--count: '0' is no whole number from 1 to 4294967295; see wexctl monitor --help"),
        (("--timeout", "x"), 2, "--timeout: 'x' is no length of time: write 500ms, 2s, 1m or 1h; see wexctl monitor --help"),
        (("--format", "{colour}"), 2, "--format: '{colour}' is no field of a line; see wexctl monitor --help"),
        (("--format", "{name"), 2, "--format: '{name' has a brace without the other; see wexctl monitor --help"),
        (("--format", "name}"), 2, "--format: 'name}' has a brace without the other; see wexctl monitor --help"),
        (("--format", "{name}", "--json"), 2, "--json excludes --format; see wexctl monitor --help"),
    ],
    ids=lambda value: " ".join(value) if isinstance(value, tuple) else "",
)  # fmt: skip
def test_what_makes_no_sense_is_not_watched(daemon, wexctl, arguments, status, error):
    result = wexctl("monitor", *arguments)
    assert (result.status, result.out, result.err) == (status, "", f"wexctl: {error}\n")


def test_ports_of_a_daemon_that_comes_later(daemon, watch):
    daemon.stop()
    seen = watch("lamp", "--initial", "--count", "1", watching=False)
    seen.wait_for("not running")
    daemon.start()
    assert seen.ended() == (0, "")
    assert "port 2 lamp: off" in seen.lines[-1]


def test_it_ends_with_the_bus(daemon, watch):
    seen = watch()
    daemon.end_bus()
    assert seen.ended() == (3, "wexctl: wexd does not answer: the system bus has ended\n")
    daemon.wait_exit(status=1)
