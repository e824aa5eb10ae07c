"""The command-line client against the real daemon: every verb, every error, every exit status."""

import json
import os
import re
import signal
import subprocess
import time

import pytest
from client import done
from conftest import TOP
from describe import element, port

from sim.bus import wait_until
from sim.peers import IoBox
from sim.terminal import Terminal, simulation

PORTS = (
    port("door", 0, "input", input_name="Front door", usage="Entry")
    + port("relay", 1, output_name="Gate", optional="true")
    + port("both", 2, "io_ctrl", dir="output")
    + port("locked", 3, properties="ioport readonly")
    + port("screen", 4, properties="ioport video_connector")
    + port("line", 5, "input", "iobox")
    + port("Big bell", 6)
    + element("first_virtual_input", nbr=9)
)


@pytest.fixture
def daemon(device):
    IoBox(device, states={"5": "closed"})
    device.describe(PORTS)
    device.start()
    return device


def test_list_shows_every_port(daemon, wexctl):
    lines = done(wexctl("list")).out.splitlines()
    assert lines[0].split() == ["No", "Port", "Shown", "as", "Kind", "State", "Active", "Usage",
                                "Properties"]  # fmt: skip
    assert [line.split()[1] for line in lines[1:7]] == [
        "door", "relay", "both", "locked", "screen", "line",
    ]  # fmt: skip
    assert "Front door" in lines[1] and "Entry" in lines[1] and "output (switchable)" in lines[3]
    assert "\x1b" not in "".join(lines)


def test_list_in_json_tells_all(daemon, wexctl):
    ports = {entry["name"]: entry for entry in done(wexctl("list", "--json")).json}
    assert ports["door"] == {
        "number": 0, "name": "door", "state": False, "direction": "input", "configurable": False,
        "active_low": False, "input_name": "Front door", "output_name": "",
        "active_input": "closed", "active_output": "closed", "usage": "Entry",
        "properties": {"ioport": True},
    }  # fmt: skip


@pytest.mark.parametrize("name", ["1", "relay", "Gate"], ids=["number", "name", "shown name"])
def test_a_port_is_told_in_three_ways(daemon, wexctl, name):
    done(wexctl("set", name, "on"))
    assert daemon.state.GetState(1) is True
    assert done(wexctl("get", name, "--json")).json["state"] is True
    done(wexctl("set", name, "off"))
    assert daemon.state.GetState(1) is False
    assert done(wexctl("get", name)).out.startswith("port 1 relay: off\n")


@pytest.mark.parametrize("on, off", [("on", "off"), ("1", "0"), ("true", "false")])
def test_states_have_several_words(daemon, wexctl, on, off):
    done(wexctl("set", "1", on))
    assert daemon.state.GetState(1) is True
    done(wexctl("set", "1", off))
    assert daemon.state.GetState(1) is False


def test_direction(daemon, wexctl):
    assert done(wexctl("direction", "both")).out == "output\n"
    done(wexctl("direction", "both", "input"))
    assert daemon.state.GetDirection(2) == "input"


def test_active(daemon, wexctl):
    assert done(wexctl("active", "both")).out == "input closed\noutput closed\n"
    done(wexctl("active", "both", "open"))
    assert daemon.state.GetActive(2) == ("closed", "open")
    done(wexctl("active", "both", "open", "--side", "input"))
    assert daemon.state.GetActive(2) == ("open", "open")


def test_name(daemon, wexctl):
    done(wexctl("name", "relay", "Garage"))
    assert done(wexctl("name", "relay")).out == "input \noutput Garage\n"
    done(wexctl("name", "both", "In", "--side", "input"))
    assert daemon.state.GetNames(2)[0] == "In"
    done(wexctl("name", "both", "Out", "--side", "output"))
    assert daemon.state.GetNames(2) == ("In", "Out")
    done(wexctl("name", "relay", ""))
    assert daemon.state.GetNames(1) == ("", "")


def test_usage(daemon, wexctl):
    done(wexctl("usage", "relay", "for the gate"))
    assert done(wexctl("usage", "relay")).out == "for the gate\n"


def test_virtual(daemon, wexctl):
    signals = daemon.signals()
    done(wexctl("virtual", "door", "on"))
    (change,) = signals.take()
    assert (change.port, change.virtual_trig, change.state) == (0, True, True)


def test_a_sequence_runs_and_is_waited_for(daemon, wexctl):
    signals = daemon.signals()
    done(wexctl("run", "relay", "1:20,0:20x3", "--wait"))
    taken = signals.take()
    assert [getattr(change, "state", "done") for change in taken] == [True, False] * 3 + ["done"]


def test_a_virtual_sequence_runs_on_an_input(daemon, wexctl):
    signals = daemon.signals()
    done(wexctl("run", "door", "on:0", "--virtual", "--wait"))
    assert signals.take()[0].virtual_trig is True


def test_a_pulse_goes_on_and_off(daemon, wexctl):
    signals = daemon.signals()
    started = time.monotonic()
    done(wexctl("pulse", "relay", "300", "--wait"))
    assert time.monotonic() - started > 0.3
    on, off, _ = signals.take()
    assert (on.state, off.state) == (True, False)


def test_drop_and_refresh(daemon, wexctl):
    assert done(wexctl("drop", "relay")).out == "relay\n"
    assert 1 not in daemon.ports()
    done(wexctl("refresh"))
    assert 1 in daemon.ports()
    assert done(wexctl("drop", "relay", "--json")).json == ["relay"]


def test_a_port_that_stays_fails_the_drop(daemon, wexctl):
    result = wexctl("drop", "relay", "door")
    assert (result.status, result.out) == (1, "relay\n")
    assert result.err == "wexctl: some ports are unknown or not optional and stay\n"


def test_supervised(daemon, wexctl):
    done(wexctl("supervised", "on", "line"))
    assert daemon.supervision.GetSupervised(5) is True
    assert done(wexctl("supervised", "read", "line")).out == "closed 0\n"
    done(wexctl("supervised", "ranges", "line", "cut", "200", "255"))
    assert done(wexctl("supervised", "ranges", "line", "--json")).json == [
        {"state": "cut", "lower": 200, "upper": 255}
    ]
    shown = done(wexctl("supervised", "ranges", "line")).out.splitlines()
    assert [line.split() for line in shown] == [["State", "Lower", "Upper"], ["cut", "200", "255"]]
    shown = done(wexctl("supervised", "show")).out.splitlines()
    assert shown[1].split() == ["5", "line", "on", "closed", "0", "cut", "200-255"]
    assert done(wexctl("supervised", "show", "line", "--json")).json[0]["supervised"] is True
    done(wexctl("supervised", "off", "line"))
    assert daemon.supervision.GetSupervised(5) is False


def test_connectors(daemon, wexctl):
    assert done(wexctl("connectors", "video")).out == '1 video connectors: [0]\n'
    assert done(wexctl("connectors", "--json")).json["count"] == 1
    assert done(wexctl("connectors", "audio", "--json")).json["states"] == []


def test_legacy(daemon, wexctl):
    done(wexctl("legacy", "set", "relay", "PulseTime", "750"))
    assert done(wexctl("legacy", "get", "relay", "PulseTime")).out == "750\n"
    done(wexctl("legacy", "set", "relay", "Usage", "old way"))
    assert daemon.state.GetUsage(1) == "old way"
    everything = done(wexctl("legacy", "get", "both", "--json")).json
    assert everything["IOPort.Direction"] == "output" and "Input.Trig" in everything
    assert done(wexctl("legacy", "get", "relay", "Output.Name")).out == "Gate\n"


@pytest.mark.parametrize(
    "arguments, error",
    [
        (("set", "0", "on"), "Port not output. (com.norv.IOControl.Error.Not_output)"),
        (("set", "77", "on"), "No such port. (com.norv.IOControl.Error.No_port)"),
        (("get", "77"), "no port has number 77"),
        (("get", "nobody"), "no port is called 'nobody'"),
        (("direction", "relay", "input"),
         "Port not configurable. (com.norv.IOControl.Error.Not_configurable)"),
        (("name", "locked", "x"),
         "Could not set output name for the port. (com.norv.IOControl.Error.Generic)"),
        (("usage", "locked", "x"),
         "Could not set usage for the port. (com.norv.IOControl.Error.Generic)"),
        (("active", "locked", "open"),
         "Could not set port to open. (com.norv.IOControl.Error.Generic)"),
        (("run", "door", "1:1"), "Port not output. (com.norv.IOControl.Error.Not_output)"),
        (("supervised", "on", "relay"),
         "Port is not supervisable. (com.norv.IOSupervised.Not_supervisable)"),
        (("supervised", "on", "77"), "No such port. (com.norv.IOSupervised.Error.No_port)"),
        (("supervised", "ranges", "line", "open", "5", "5"),
         "Invalid range. (com.norv.IOSupervised.Bad_supervised_range)"),
        (("legacy", "set", "relay", "Button", "none"),
         "Unsupported write of property 'Button' (org.freedesktop.DBus.Error.InvalidArgs)"),
        (("legacy", "get", "relay", "Colour"), "the port has no property 'Colour'"),
        (("legacy", "get", "relay", "Output.Colour"), "the port has no property 'Output.Colour'"),
    ],
    ids=lambda value: " ".join(value) if isinstance(value, tuple) else "",
)  # fmt: skip
def test_a_refusal_is_told_with_its_error_name_and_status_1(daemon, wexctl, arguments, error):
    result = wexctl(*arguments)
    assert (result.status, result.out, result.err) == (1, "", f"wexctl: {error}\n")


@pytest.mark.parametrize(
    "arguments",
    [
        (), ("fly",), ("set", "1"), ("set", "1", "maybe"), ("run", "1", "1"), ("run", "1", "2:5"),
        ("run", "1", "1:5x0"), ("run", "1", "1:-5"), ("run", "1", ""), ("pulse", "1", "soon"),
        ("direction", "1", "up"), ("active", "1", "ajar"), ("supervised",), ("legacy",),
        ("supervised", "ranges", "1", "open"), ("connectors", "hdmi"), ("get", "99999999999"),
        ("legacy", "set", "1", "PulseTime", "soon"), ("legacy", "get", "2", "Name"),
    ],
    ids=" ".join,
)  # fmt: skip
def test_a_command_line_without_sense_ends_with_status_2(daemon, wexctl, arguments):
    result = wexctl(*arguments)
    assert result.status == 2 and result.err


def test_a_busy_port_is_told(daemon, wexctl):
    done(wexctl("run", "relay", "1:5000"))
    result = wexctl("run", "relay", "1:1")
    assert (result.status, result.err) == (
        1, "wexctl: The port is busy. (com.norv.IOControl.Error.Busy)\n",
    )  # fmt: skip


def test_without_a_daemon_or_a_bus_the_status_is_3(device, wexctl):
    for address in (None, "unix:path=/nowhere"):
        result = wexctl("list", address=address)
        assert result.status == 3 and result.err.startswith("wexctl: wexd does not answer: ")


def test_help_names_every_verb_and_status(wexctl):
    out = done(wexctl("--help")).out
    for verb in ("list", "get", "set", "toggle", "direction", "active", "name", "usage", "virtual", "run",
                 "pulse", "stop", "wait", "drop", "refresh", "supervised", "status", "connectors", "monitor", "legacy",
                 "live", "check", "describe"):  # fmt: skip
        assert re.search(rf"^  {verb} ", out, re.MULTILINE), verb
    assert "Exit status of every verb:" in out and "NO_COLOR" in out and " complete" not in out


def verbs(wexctl):
    """Every verb that the help shows, with the verbs inside it."""
    return re.findall(r"^wexctl ([a-z ]+?) \[.*:$", done(wexctl("--help-all")).out, re.MULTILINE)


def test_every_verb_tells_of_itself_and_completes(wexctl):
    names = verbs(wexctl)
    assert len(names) == 21 + 5 + 2
    for name in names:
        out = done(wexctl(*name.split(), "--help")).out
        assert f"Usage: wexctl {name} " in out and "REQUIRED" not in out
        *outer, last = name.split()
        told = done(wexctl("complete", *outer, last[:2])).out.splitlines()
        assert last in [line.split("\t")[0] for line in told], name


def test_every_option_completes(daemon, wexctl, binary):
    """Whatever the help shows of a verb and nothing else."""
    for name in verbs(wexctl):
        shown = re.findall(r"^  (--[a-z-]+) ", done(wexctl(*name.split(), "--help")).out, re.MULTILINE)
        expected = {*shown, "--help"} - {"--help-all"}
        assert {*complete(daemon, binary, *name.split(), "--")} == expected, name


def test_the_examples_of_the_help_work(wexctl, binary):
    text = done(wexctl("--help-all")).out
    examples = re.findall(r"^ *Example: (wexctl .*)$", text, re.MULTILINE)
    examples.remove("wexctl live --control")  # which needs a terminal, and has one elsewhere
    assert len(examples) > 12
    commands = "".join(f"{example} || echo failed: {example}\n" for example in examples)
    shell = subprocess.run(
        simulation(binary, "--shell"), cwd=TOP, input=commands, capture_output=True, text=True,
        timeout=100, check=True,
    )  # fmt: skip
    assert "failed: " not in shell.stdout and shell.stderr == "", shell.stdout + shell.stderr


@pytest.mark.terminal
@pytest.mark.parametrize("environment, coloured", [({}, True), ({"NO_COLOR": "1"}, False)])
def test_colours_are_for_terminals_that_want_them(daemon, binary, environment, coloured):
    address = {"DBUS_SYSTEM_BUS_ADDRESS": daemon.bus_address}
    with Terminal([str(binary.parent / "wexctl"), "list"], 120, **address, **environment) as terminal:
        terminal.wait_for("ended with status 0")
        assert ("\x1b[1m" in "".join(terminal.screen("-e"))) is coloured


class Monitor:
    def __init__(self, device, binary, output, *options):
        self.output = output
        self.process = subprocess.Popen(
            [binary.parent / "wexctl", "monitor", *options],
            env={**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": device.bus_address},
            stdout=output.open("w"),
        )
        device.on_exit(self.process.kill)

    def wait_for(self, pattern):
        wait_until(
            lambda: re.search(pattern, self.output.read_text()),
            lambda: f"{pattern} among {self.output.read_text()}",
        )

    def end(self, number=signal.SIGINT):
        self.process.send_signal(number)
        assert self.process.wait(10) == 0


def test_monitor_shows_changes_and_survives_a_restart(daemon, binary, tmp_path):
    monitor = Monitor(daemon, binary, tmp_path / "seen")
    monitor.wait_for("watching wexd")
    daemon.state.SetState(1, True)
    monitor.wait_for(r"\d\d:\d\d:\d\d\.\d{3}  port 1 relay: on \(output\)\n")
    daemon.state.SetName(1, False, "Bell")
    monitor.wait_for(r"port 1 relay: Output.Name is now 'Bell'\n")
    daemon.state.StartActionSequence(1, False, [(False, 0)])
    monitor.wait_for(r"port 1 relay: sequence done\n")
    daemon.restart()
    monitor.wait_for("wexd is gone, waiting for it\n(.*\n)*.*wexd is back")
    daemon.state.SetState(4, True)
    monitor.wait_for(r"port 4 screen: on \(output\)\n")
    monitor.end()


def test_monitor_names_a_port_that_came_into_service_later(daemon, binary, tmp_path):
    daemon.state.DropIOPorts(["relay"])
    monitor = Monitor(daemon, binary, tmp_path / "seen")
    monitor.wait_for("watching wexd")
    daemon.state.RefreshIOPorts()
    daemon.state.SetState(1, True)
    monitor.wait_for(r"port 1 relay: on \(output\)\n")
    monitor.end()


def test_monitor_speaks_json(device, daemon, binary, tmp_path):
    monitor = Monitor(daemon, binary, tmp_path / "seen", "--json")
    monitor.wait_for('"watching"')
    daemon.state.SetState(1, True)
    monitor.wait_for('"port-changed"')
    monitor.end(signal.SIGTERM)
    events = [json.loads(line) for line in (tmp_path / "seen").read_text().splitlines()]
    assert events[1] | {"time": None} == {
        "event": "port-changed", "port": 1, "name": "relay", "state": True, "input": False,
        "virtual": False, "hidden": False, "virtual_trig": False, "active_low": False,
        "time": None,
    }  # fmt: skip


FINDINGS = [
    pytest.param("<port name='a'><port_no nbr='0'/><port_type type='input'/></port>",
                 "warning: port 'a' names no known backend and is dropped", id="no backend"),
    pytest.param(port("a", 0) + port("b", 0), "warning: number 0 is also that of", id="numbers"),
    pytest.param(port("a", 0) + port("a", 1), "warning: port 'a' replaces the one of",
                 id="replaced"),
    pytest.param(port("a", 0, inside="<colour red='1'/>"),
                 "warning: unknown element 'colour' is ignored", id="element"),
    pytest.param(port("a", 0, colour="red"),
                 "warning: unknown attribute 'colour' of 'param_defaults' is ignored",
                 id="attribute"),
    pytest.param(port("a", "x"), "warning: nbr of 'port_no': 'x' is no whole number", id="number"),
    pytest.param(port("a", 0, "inout"), "warning: type of 'port_type': 'inout' is no value for it",
                 id="type"),
    pytest.param(port("a", 0, "output", "sysfs"), "error: port 'a': a sysfs port that is no input",
                 id="sysfs output"),
    pytest.param(port("a", 0, "input", "sysfs"), "warning: port 'a' has no 'timeout'", id="poll"),
    pytest.param(port("a", 0, "input", "spi"), "error: port 'a': without a 'sio_ctrl' pin",
                 id="sio_ctrl"),
    pytest.param(port("a", 9, "output", "spi"), "warning: port 'a': spi ports have the numbers 0 to 5", id="spi"),
    pytest.param(port("a", 0, "input", "iobox", inside="<keyvalue key='k'/>"),
                 "warning: a 'keyvalue' without an 'event' is ignored", id="keyvalue"),
    pytest.param(port("a", 0, inside="<event declaration='E'><keyvalue key='k' type='text'/></event>"),
                 "error: type 'text' of a key value would end the daemon", id="key type"),
    pytest.param(port("a", 0, "input", "iio", backend_inside=(
        "<sio_ctrl pin='1'/><range upper='5' state='open' lower='1'/>")),
        "warning: 'state' after 'upper' belongs to the next range", id="range order"),
    pytest.param(port("a", 0, "input", "iio", backend_inside=(
        "<sio_ctrl pin='1'/><range state='open' lower='5' upper='5'/>")),
        "warning: the range 5 to 5 is refused", id="range limits"),
    pytest.param("<first_virtual_input nbr='5'/>" + port("a", 0),
                 "warning: 'first_virtual_input' before the first port is ignored", id="too early"),
    pytest.param("<port name='a' hwid='X'><port_no nbr='0'/><backend name='null'/></port>",
                 "warning: 'hwid' is no filter here", id="hwid"),
    pytest.param("<port name='a'><port_no nbr='0'/><backend colour='red' name='null'/></port>",
                 "warning: 'colour' before the backend's name is lost", id="before the name"),
    pytest.param(port("a", 0, usage="x" * 65_537),
                 "warning: usage of 'param_defaults' has more than 65536 bytes and is ignored",
                 id="long usage"),
    pytest.param(port("x" * 65_537, 0),
                 "warning: name of 'port' has more than 65536 bytes and is ignored", id="long name"),
    pytest.param(port("a", 0) + "<", "warning: the file is cut short", id="cut short"),
    pytest.param(port("a", 0) + "</port>", "error: ", id="no xml"),
]  # fmt: skip


@pytest.mark.parametrize("text, finding", FINDINGS)
def test_check_names_file_and_line(wexctl, tmp_path, text, finding):
    file = tmp_path / "conf.xml"
    tail = "" if text.endswith("<") else "\n</config>"
    file.write_text(f"<config>\n{text}{tail}")
    result = wexctl("check", str(file))
    assert result.status == 1
    assert re.search(rf"^{re.escape(str(file))}:\d+: .*{re.escape(finding.split(': ', 1)[1])}",
                     result.out, re.MULTILINE), result.out  # fmt: skip
    assert f": {finding.split(': ')[0]}: " in result.out
    findings = wexctl("check", "--json", str(file)).json
    assert findings and all(entry["file"] == str(file) for entry in findings)


SHIPPED = ["sim/conf.xml", *(f"data/examples/{f.name}" for f in (TOP / "data/examples").iterdir())]


@pytest.mark.parametrize("shipped", sorted(SHIPPED))
def test_shipped_descriptions_pass_the_check_and_the_schema(wexctl, shipped):
    result = wexctl("check", str(TOP / shipped))
    assert (result.status, result.out) == (0, "")
    subprocess.run(
        ["xmllint", "--noout", "--relaxng", str(TOP / "data/wexd-hardware.rng"), str(TOP / shipped)],
        check=True, capture_output=True,
    )  # fmt: skip


def test_a_pipe_fails_the_check_and_does_not_hold_it(wexctl, tmp_path):
    pipe = tmp_path / "pipe"
    os.mkfifo(pipe)
    result = wexctl("check", str(pipe))
    assert result.status == 1
    assert result.out == f"{pipe}:0: error: '{pipe}' is not a regular file\n"


def test_without_files_the_check_reads_what_the_daemon_reads(device, wexctl):
    device.describe(port("a", 0, "sideways"))
    for name in ("wrong", "legacy.tmp", "open", "linked"):
        device.drop_in(name, port(name, 1, "upwards"))
    device.path("/etc/wexd.d/open").chmod(0o666)
    device.path("/etc/wexd.d/folder").mkdir()
    device.path("/etc/wexd.d/linked").rename(device.path("/etc/wexd/linked"))
    device.path("/etc/wexd.d/link").symlink_to("/etc/wexd/linked")
    command = device.sandbox.command(
        ["/app/wexctl", "check", "--json"], device.binary, beside=[wexctl.program]
    )
    said = subprocess.run(command, capture_output=True, text=True, check=False)
    assert said.returncode == 1, said.stderr
    files = {finding["file"] for finding in json.loads(said.stdout)}
    assert files == {"/usr/share/wexd/conf.xml", "/etc/wexd.d/wrong", "/etc/wexd.d/link"}


def test_the_check_tells_the_journal_what_matters(wexctl, tmp_path):
    file = tmp_path / "conf.xml"
    file.write_text(f"<config>{port('a', 0, 'sideways')}</config>")
    with open(tmp_path / "journal", "w+", encoding="utf-8") as journal:
        status = os.stat(journal.fileno())
        told = {"JOURNAL_STREAM": f"{status.st_dev}:{status.st_ino}"}
        subprocess.run([wexctl.program, "check", file], stdout=journal, env=told, check=False)
        journal.seek(0)
        assert re.match(rf"<4>{file}:1: warning: ", journal.read())


def test_a_missing_file_fails_the_check(wexctl, tmp_path):
    result = wexctl("check", str(tmp_path / "none.xml"))
    assert result.status == 1 and "error: " in result.out


def complete(device, binary, *words):
    script = (
        f"source {TOP}/tools/wexctl/completion/wexctl.bash; COMP_WORDS=(\"$@\");"
        ' COMP_CWORD=$(($# - 1)); COMP_LINE="$*"; COMP_POINT=${#COMP_LINE};'
        " _wexctl; printf '%s\\n' \"${COMPREPLY[@]}\""
    )
    run = subprocess.run(
        ["bash", "-c", script, "bash", "wexctl", *words],
        env={"PATH": f"{binary.parent}:{os.environ['PATH']}",
             "DBUS_SYSTEM_BUS_ADDRESS": device.bus_address},
        capture_output=True, text=True, check=True,
    )  # fmt: skip
    return run.stdout.splitlines()


@pytest.mark.parametrize(
    "words, expected",
    [
        (("di",), ["direction"]),
        (("set", "Big"), ["Big bell"]),
        (("set", "'Big b"), ["Big bell"]),
        (("set", "Big\\ b"), ["Big bell"]),
        (("toggle", "relay", "bo"), ["both"]),
        (("wait", "relay", "--timeout", "5"), ["500ms", "5s"]),
        (("wait", "line", "c"), ["closed", "cut"]),
        (("list", "--columns", "p"), ["properties"]),
        (("monitor", "--idle-timeout", "5"), ["500ms", "5s"]),
        (("monitor", "--count", "1"), ["1", "10"]),
        (("monitor", "--format", ""), ["{time} {name} is {state}"]),
        (("live", "--keys", f"{TOP}/READ"), [f"{TOP}/README.md"]),
        (("live", "--notes", f"{TOP}/READ"), [f"{TOP}/README.md"]),
        (("run", "relay", "1:5"), ["1:500ms,0:500msx10"]),
        (("supervised", "ranges", "line", "s"), ["short"]),
        (("supervised", "ranges", "line", "short", ""), ["0", "3200"]),
        (("supervised", "ranges", "line", "short", "0", ""), ["800", "4095"]),
        (("get", "relay", ""), [""]),
        (("bogus", ""), [""]),
        (("check", f"{TOP}/READ"), [f"{TOP}/README.md"]),
        (("set", "re"), ["relay"]),
        (("set", "relay", ""), ["on", "off"]),
        (("supervised", "r"), ["ranges", "read"]),
        (("supervised", "read", "li"), ["line"]),
        (("drop", "relay", "do"), ["door"]),
        (("legacy", "get", "relay", "Output.N"), ["Output.Name"]),
        (("connectors", "v"), ["video"]),
        (("--v",), ["--version"]),
        (("list", "--j"), ["--json"]),
        (("run", "--wait", "re"), ["relay"]),
        (("run", "relay", "--"), ["--help", "--virtual", "--wait"]),
        (("name", "relay", "--side", "in"), ["input"]),
        (("active", "--side", "input", "both", "o"), ["open"]),
    ],
    ids=lambda value: " ".join(value),
)
def test_bash_completes_from_the_running_daemon(daemon, binary, words, expected):
    assert complete(daemon, binary, *words) == expected
