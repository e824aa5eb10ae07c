"""What scripts may rely on: the exit statuses, the keys of JSON, and a help that fits a screen."""

import json
import re
import subprocess

import jsonschema
import pytest
from client import done
from conftest import TOP
from describe import element, failing, port

from sim.bus import wait_until
from sim.peers import IoBox

SCHEMA = json.loads((TOP / "data/wexctl.schema.json").read_text())


def strict(schema):
    """The same schema where no key may be one that it does not know."""
    if isinstance(schema, list):
        return [strict(item) for item in schema]
    if not isinstance(schema, dict):
        return schema
    made = {
        key: value if key in ("if", "then") else strict(value) for key, value in schema.items()
    }
    if isinstance(made.get("properties"), dict) and "type" in made:
        made.setdefault("additionalProperties", False)
    return made


def check(verb, printed):
    jsonschema.Draft202012Validator({**strict(SCHEMA), "$ref": f"#/$defs/{verb}"}).validate(printed)


@pytest.fixture
def daemon(device):
    device.box = IoBox(device, states={"5": "closed"})
    device.describe(
        port("door", 0, "input", input_name="Front door", usage="Entry")
        + port("relay", 1, optional="true", properties="ioport video_connector")
        + failing("loop", 2, optional="true")
        + port("line", 5, "input", "iobox")
        + element("first_virtual_input", nbr=9)
    )
    device.start()
    device.supervision.SetSupervised(5, True)
    device.supervision.SetSupervisedRanges(5, "cut", 200, 255)
    return device


COMMANDS = [
    "list --json", "get door --json", "get line --json", "drop relay --json",
    "supervised show --json", "supervised ranges line --json", "supervised read line --json",
    "connectors --json", "legacy get relay --json", "legacy get relay PulseTime --json",
    "status --json", "check --json /nowhere", "check --json {description}",
]  # fmt: skip


def verb_of(command):
    words = command.split()
    return " ".join(words[: 2 if words[0] in ("supervised", "legacy") else 1])


@pytest.mark.parametrize("command", COMMANDS)
def test_json_is_as_the_schema_says(daemon, wexctl, command):
    description = daemon.path("/usr/share/wexd/conf.xml")
    result = wexctl(*command.format(description=description).split())
    assert result.err == "" and result.status == (1 if "nowhere" in command else 0)
    check(verb_of(command), result.json)


def test_a_failed_save_is_as_the_schema_says(daemon, wexctl):
    file = daemon.path("/etc/wexd/wexd.conf")
    file.unlink()
    file.mkdir()
    daemon.expect("^CRITICAL: param_save_for_port: assertion .* failed$")
    daemon.state.SetUsage(1, "unsaved")
    wait_until(lambda: wexctl("status", "--json").json["last_failed_save"], "the failed save")
    check("status", wexctl("status", "--json").json)


def test_each_line_of_monitor_is_as_the_schema_says(daemon, wexctl, tmp_path):
    seen = tmp_path / "seen"
    with seen.open("w") as output:
        process = wexctl.start("monitor", "--json", "--initial", stdout=output)

    def lines():
        return [json.loads(line) for line in seen.read_text().splitlines(keepends=True)
                if line.endswith("\n")]  # fmt: skip

    def wait_for(event):
        wait_until(lambda: event in [line["event"] for line in lines()], f"{event}")

    wait_for("initial")
    daemon.state.SetUsage(1, "Gate")
    daemon.state.StartActionSequence(1, False, [(True, 0)])
    daemon.box.line(5, "cut")
    wait_for("setting-changed")
    wait_for("sequence-done")
    daemon.restart()
    wait_for("daemon-back")
    process.terminate()
    process.wait()
    told = lines()
    assert {"watching", "initial", "port-changed", "setting-changed", "sequence-done",
            "daemon-gone", "daemon-back"} == {line["event"] for line in told}  # fmt: skip
    for line in told:
        check("monitor", line)


def test_every_verb_that_prints_json_has_its_schema(wexctl):
    text = done(wexctl("--help-all")).out
    sections = re.split(r"^(?=wexctl [a-z ]+ \[)", text, flags=re.MULTILINE)[1:]
    printing = {
        re.match(r"wexctl ([a-z ]+?) \[", section)[1] for section in sections if "--json" in section
    }
    covered = {verb_of(command) for command in COMMANDS} | {"monitor"}
    assert printing == covered == printing & SCHEMA["$defs"].keys()


def test_the_strict_schema_finds_a_key_too_many():
    check("supervised read", {"state": "cut", "level": 1})
    for wrong in ({"state": "cut", "level": 1, "colour": 1}, {"state": "ajar", "level": 1}, {}):
        with pytest.raises(jsonschema.ValidationError):
            check("supervised read", wrong)


def test_the_help_fits_a_screen(wexctl):
    lines = done(wexctl("--help")).out.splitlines()
    assert len(lines) <= 50 and max(map(len, lines)) <= 100


def test_help_man_page_and_code_have_the_same_statuses(wexctl, binary):
    help_text = done(wexctl("--help")).out
    told = {int(n) for n in re.findall(r"^  (\d)  \w", help_text, re.MULTILINE)}
    code = (TOP / "tools/wexctl/bus.h").read_text()
    assert told == {int(n) for n in re.findall(r"^  \w+ = (\d),$", code, re.MULTILINE)}
    page = binary.parent / "data/wexctl.1"
    shown = subprocess.run(["man", "--local-file", page], capture_output=True, text=True,
                           env={"MANWIDTH": "100", "PATH": "/usr/bin:/bin"}, check=True).stdout  # fmt: skip
    for status in told:
        assert re.search(rf"^ +{status} +\w", shown, re.MULTILINE), status
    assert "wexctl.schema.json" in shown
