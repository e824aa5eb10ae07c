"""The daemon's action templates, registered while there is an output to act on."""

import pytest
from describe import port

from sim.bus import wait_until
from sim.peers import ActionEngine

FIXED = "com.norv.action.fixed.io.toggle"
UNLIMITED = "com.norv.action.unlimited.io.toggle"
FILES = [(f"/etc/wexd/actions/{name}.xml",) for name in (FIXED, UNLIMITED)]


def wait_for_templates(engine, *templates):
    wait_until(lambda: sorted(engine.templates) == sorted(templates), f"templates {templates}")


@pytest.mark.parametrize("kind", ["output", "io_ctrl"])
def test_a_device_with_an_output_registers_both_in_order(device, kind):
    engine = ActionEngine(device)
    device.describe(port("in", 0, "input") + port("out", 1, kind))
    device.start()
    wait_for_templates(engine, FIXED, UNLIMITED)
    assert engine.calls("AddFromFile") == FILES


@pytest.mark.parametrize(
    "ports",
    [
        pytest.param(port("in", 0, "input"), id="an input"),
        pytest.param(port("out", 0, "output", properties="virtual"), id="a virtual output"),
        pytest.param("", id="no port"),
    ],
)
def test_a_device_without_one_removes_both(device, ports):
    engine = ActionEngine(device, templates=[FIXED, UNLIMITED, "other"])
    device.describe(ports)
    device.start()
    wait_for_templates(engine, "other")
    assert engine.calls("Remove") == [(FIXED,), (UNLIMITED,)]


def test_a_template_that_is_there_is_not_added_again(device):
    engine = ActionEngine(device, templates=[FIXED])
    device.describe(port("out", 0))
    device.start()
    wait_for_templates(engine, FIXED, UNLIMITED)
    assert engine.calls("AddFromFile") == FILES[1:]


def test_the_engine_may_come_later_and_come_back(device):
    device.describe(port("out", 0))
    device.start()
    engine = ActionEngine(device)
    wait_for_templates(engine, FIXED, UNLIMITED)
    engine.stop()
    engine.start()
    wait_for_templates(engine, FIXED, UNLIMITED)


def test_drops_and_refreshes_change_the_wish(device):
    engine = ActionEngine(device)
    device.describe(port("in", 0, "input") + port("out", 1, optional="true"))
    device.start()
    wait_for_templates(engine, FIXED, UNLIMITED)
    device.state.DropIOPorts(["out"])
    wait_for_templates(engine)
    device.state.RefreshIOPorts()
    wait_for_templates(engine, FIXED, UNLIMITED)


@pytest.mark.parametrize("fault", ["fail", "mistype"])
def test_without_a_list_nothing_is_added_or_removed(device, fault):
    engine = ActionEngine(device)
    getattr(engine, fault)("List")
    device.describe(port("out", 0))
    device.start()
    device.wait_for_log("WARNING: Could not retrieve the template list: ")
    assert engine.calls("AddFromFile") == []


def test_a_failed_addition_stops_there(device):
    engine = ActionEngine(device)
    engine.fail("AddFromFile")
    device.describe(port("out", 0))
    device.start()
    device.wait_for_log(rf"WARNING: Failed to add template {FIXED}: .*out of order")
    device.sync()
    assert engine.calls("AddFromFile") == FILES[:1]


def test_a_failed_removal_stops_there(device):
    engine = ActionEngine(device, templates=[FIXED, UNLIMITED])
    engine.fail("Remove")
    device.describe(port("in", 0, "input"))
    device.start()
    device.wait_for_log(rf"WARNING: Failed to remove template {FIXED}: .*out of order")
    device.sync()
    assert engine.calls("Remove") == [(FIXED,)]


def test_a_late_engine_holds_nothing_back_for_good(device):
    engine = ActionEngine(device)
    engine.delay("List", 1.5, "a(sssa{ss})", "ret = dbus.Array([], signature='(sssa{ss})')")
    device.describe(port("out", 0))
    device.start()
    device.state.SetState(0, True)
    assert device.state.GetState(0) is True
    wait_for_templates(engine, FIXED, UNLIMITED)


def test_the_shipped_templates_are_well_formed_and_complete():
    import pathlib
    import xml.etree.ElementTree as ElementTree

    folder = pathlib.Path(__file__).resolve().parents[2] / "data/actions"
    for name in (FIXED, UNLIMITED):
        root = ElementTree.parse(folder / f"{name}.xml").getroot()
        assert root.get("id") == name
        parameters = [node.get("name") for node in root.iter("parameter")]
        assert parameters == (["port", "duration"] if name == FIXED else ["port"])
        for call in root.iter("call"):
            assert call.get("service") == "com.norv.IOControl.State"


def test_an_engine_that_has_gone_is_not_asked(device):
    engine = ActionEngine(device)
    device.describe(port("relay", 0, optional="true"))
    device.start()
    wait_until(lambda: len(engine.templates) == 2, "both templates")
    engine.stop()
    device.sync()
    assert device.state.DropIOPorts(["relay"]) == ["relay"]
    device.sync()
    assert device.log_count("Could not retrieve the template list") == 0
