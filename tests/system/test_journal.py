"""What the journal is told of each line, where it is at the other end, and that nobody else is."""

import re
import signal

import pytest
from describe import element, failing, port

# The stand-ins of the device's libraries speak at the level of a message; the rest are the daemon's.
LINES = [
    (3, "CRITICAL: Couldn't parse markup file (/usr/share/wexd/conf.xml)"),
    (4, "WARNING: /usr/share/wexd/conf.xml: Error on line "),
    (5, "MESSAGE: config-event declare "),
    (5, "USER: Setup failed for port 1, removing from list"),
    (6, "INFO: Got SIGHUP"),
]


def start(device, **streams):
    """Starts a daemon that says something at each level; `streams` are taken for the journal's:
    out or err, and the descriptor's own file or any other."""
    device.expect("CRITICAL: Couldn't parse markup file")
    device.describe(
        failing("bad", 1) + port("fine", 2) + element("first_virtual_input", nbr=10) + "</nonsense>"
    )
    told = {}
    for kind, own in streams.items():
        path = device.scratch / f"{device.lives + 1}.{kind}" if own else device.scratch / "other"
        path.touch()
        told["JOURNAL_STREAM"] = f"{path.stat().st_dev}:{path.stat().st_ino}"
    device.start(environment=told)
    device.signal(signal.SIGHUP)
    device.wait_for_log("INFO: Got SIGHUP")
    device.stop()


def without_marks(text):
    return re.sub(r"^<\d>", "", text, flags=re.MULTILINE)


def test_every_line_has_the_priority_of_its_level(device):
    start(device, out=True)
    for priority, text in LINES:
        assert device.log_count(rf"^<{priority}>{re.escape(text)}") >= 1, text
    assert all(re.match(r"<[2-7]>(ERROR|CRITICAL|WARNING|MESSAGE|USER|INFO): ", line) for line in device.log)


@pytest.mark.parametrize("streams", [{}, {"out": False}, {"err": True}], ids=str)
def test_nobody_else_is_told_priorities(device, streams):
    start(device, **streams)
    assert device.stdout == without_marks(device.stdout)
    for _, text in LINES:
        assert device.log_count(f"^{re.escape(text)}") >= 1, text


@pytest.mark.root
@pytest.mark.parametrize("kind", ["out", "err"])
def test_what_is_printed_directly_is_a_warning(device, kind):
    device.sandbox.set_accounts(user=False)
    start(device, **{kind: True})
    plain = 'Couldn\'t get uid for user "wxd".\n'
    assert device.stderr == ("<4>" if kind == "err" else "") + plain


def test_each_line_of_a_text_has_its_own_priority(device):
    """A failed assertion speaks in two lines, of which the second is what happened."""
    device.expect("assertion failed")
    path = device.scratch / "1.err"
    path.touch()
    device.describe(port("wrong", 0, "output", "sysfs"))
    device.start(
        ready=False,
        environment={"JOURNAL_STREAM": f"{path.stat().st_dev}:{path.stat().st_ino}"},
    )
    device.wait_exit(128 + signal.SIGABRT)
    first, second = device.stderr.splitlines()
    assert first == "<4>**"
    assert re.match(r"<2>ERROR:.*assertion failed", second)


def test_what_an_assertion_says_on_standard_output_is_marked_too(device):
    device.expect("assertion failed")
    device.describe(port("wrong", 0, "output", "sysfs"))
    path = device.scratch / "1.out"
    path.touch()
    device.start(
        ready=False,
        environment={"JOURNAL_STREAM": f"{path.stat().st_dev}:{path.stat().st_ino}"},
    )
    device.wait_exit(128 + signal.SIGABRT)
    assert all(re.match(r"<[2-7]>", line) for line in device.log), device.log
    assert device.log_count("^<2>Bail out! ERROR:.*assertion failed") == 1


def test_the_bus_library_does_not_talk_to_its_developers(device):
    device.describe(port("a", 0))
    device.start()
    device.stop()
    assert "-DEBUG: " not in device.stdout


def test_the_bus_library_talks_when_it_is_asked_to(device):
    device.describe(port("a", 0))
    device.start(environment={"G_MESSAGES_DEBUG": "GLib-GIO"})
    assert device.log_count("^GLib-GIO-DEBUG: ") >= 1


@pytest.mark.parametrize("kind, step", [("sysfs", "sysfs_port_setup"), ("spiadc", "spiadc_port_setup")])
def test_a_failed_assertion_names_the_step(device, kind, step):
    device.expect("assertion failed")
    device.describe(port("wrong", 0, "output", kind))
    device.start(ready=False)
    device.wait_exit(128 + signal.SIGABRT)
    assert re.search(rf"ERROR:.*{step}\(.*assertion failed: \(port->type == PORT_INPUT\)", device.stderr)
