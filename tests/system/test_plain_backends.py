"""The backends without hardware: null, check and virtual."""

import pytest
from describe import element, failing, port

from sim.bus import ActionSequenceDone, BusError, PortChanged

# Children of the backend element that mean nothing to these backends.
ATTRIBUTES = element("device", path="/nowhere", timeout="x") + element("pin", name="7")


def test_a_null_port_reads_0_whatever_is_written(device):
    device.describe(port("n", 0, backend="null"))
    device.start()
    changes = device.signals()
    device.state.SetState(0, True)
    assert device.state.GetState(0) is False
    changes.assert_none()


def test_an_inverted_null_port_reads_1(device):
    device.describe(port("n", 0, backend="null") + port("i", 1, "input", "null"))
    device.start()
    device.state.SetActive(0, False, "open")
    device.state.SetActive(1, True, "open")
    assert device.state.GetState(0) is True
    assert device.state.GetState(1) is True


def test_a_null_port_can_run_a_sequence_that_shows_nothing(device):
    device.describe(port("n", 0, backend="null"))
    device.start()
    changes = device.signals()
    device.state.StartActionSequence(0, False, [(True, 0), (False, 0)])
    assert changes.wait_for(ActionSequenceDone, port=0)
    changes.assert_none(PortChanged)


@pytest.mark.parametrize("backend", ["null", "check", "virtual"])
def test_any_attributes_inside_the_backend_are_accepted(device, backend):
    device.describe(port("a", 0, backend=backend, backend_inside=ATTRIBUTES))
    device.start()
    assert device.state.GetState(0) is False
    assert device.log_count("^WARNING") == 0


@pytest.mark.parametrize("backend", ["null", "check", "virtual"])
@pytest.mark.parametrize("kind", ["input", "output", "io_ctrl"])
def test_every_kind_of_port_is_possible(device, backend, kind):
    device.describe(port("a", 0, kind, backend))
    device.start()
    assert device.state.GetDirection(0) == ("output" if kind == "output" else "input")
    assert device.state.GetState(0) is False


def test_a_check_port_keeps_its_level_when_it_is_turned(device):
    device.describe(port("c", 0, "io_ctrl", dir="output"))
    device.start()
    device.state.SetState(0, True)
    device.state.SetDirection(0, "input")
    assert device.state.GetState(0) is True
    device.state.SetDirection(0, "output")
    assert device.state.GetState(0) is True


def test_the_word_that_fails_a_check_port_counts_on_any_element_of_its_backend(device):
    """Attributes are recorded with their element; the set-up looks at attribute and value."""
    device.describe(
        failing("on the backend", 0)
        + port("inside", 1, backend_inside=element("device", setup="fail"))
        + port("deep", 2, backend_inside=element("a", element("b", x="y", setup="fail")))
        + port("other value", 3, backend_inside=element("device", setup="failed", fail="setup"))
    )
    device.start()
    assert [entry.name for entry in device.port_list()] == ["other value"]


def test_a_check_port_starts_at_0_again_after_a_restart(device):
    device.describe(port("c", 0))
    device.start()
    device.state.SetState(0, True)
    device.restart()
    assert device.state.GetState(0) is False


@pytest.mark.parametrize("backend", ["null", "check", "virtual"])
def test_dropping_and_refreshing_works_again_and_again(device, backend):
    device.describe(port("a", 0, backend=backend, optional="true", backend_inside=ATTRIBUTES))
    device.start()
    for _ in range(20):
        assert device.state.DropIOPorts(["a"]) == ["a"]
        with pytest.raises(BusError, match="No such port."):
            device.state.GetState(0)
        device.state.RefreshIOPorts()
        assert device.state.GetState(0) is False


def test_a_virtual_input_is_only_told_about_not_stored(device):
    device.describe(port("v", 0, "input", "virtual"))
    device.start()
    changes = device.signals()
    device.state.SetVirtual(0, True)
    changes.wait_for(PortChanged, port=0, input=True, virtual_trig=True, state=True)
    assert device.state.GetState(0) is False


def test_a_virtual_output_is_stored_by_a_virtual_write(device):
    device.describe(port("v", 0, "output", "virtual", properties="virtual ioport"))
    device.start()
    for state in (True, False, True):
        device.state.SetVirtual(0, state)
        assert device.state.GetState(0) is state


def test_a_configurable_virtual_port_does_not_store_a_virtual_write(device):
    """Only a port that is an output by its kind stores it."""
    device.describe(port("v", 0, "io_ctrl", "virtual", dir="output"))
    device.start()
    device.state.SetVirtual(0, True)
    assert device.state.GetState(0) is False
