"""One description for several hardware variants: the hardware id decides which ports exist."""

import pytest
from describe import element, port

from sim.device import DESCRIPTION
from sim.peers import BootBlock

NO_ID = r"^WARNING: Could not get the hardware id$"


def variant(hwid, name, number=0):
    """A port with a hardware id as its first attribute."""
    return port(name, number).replace("<port ", f'<port hwid="{hwid}" ', 1)


def names(device):
    return [entry.name for entry in device.port_list()]


@pytest.mark.parametrize(
    "hwid, kept",
    [
        pytest.param("ABC123", True, id="the whole id"),
        pytest.param("AB", True, id="a prefix"),
        pytest.param("X:AB", True, id="the second of two"),
        pytest.param("AB:X", True, id="the first of two"),
        pytest.param("X:Y", False, id="neither of two"),
        pytest.param("ABC1234", False, id="longer than the id"),
        pytest.param("BC", False, id="in the middle"),
        pytest.param("ab", False, id="wrong case"),
        pytest.param(" AB", False, id="a blank before"),
        pytest.param("X:", True, id="an empty piece is a prefix of all"),
    ],
)
def test_a_port_is_kept_if_the_id_starts_with_one_of_its_pieces(device, hwid, kept):
    BootBlock(device, "ABC123")
    device.describe(variant(hwid, "a") + port("always", 1))
    device.start()
    assert names(device) == (["always", "a"] if kept else ["always"])
    assert device.log_count(NO_ID) == 0


def test_an_empty_hardware_id_keeps_the_port_with_a_warning(device):
    BootBlock(device, "ABC123")
    device.describe(variant("", "a"))
    device.start()
    assert names(device) == ["a"]
    assert device.log_count(NO_ID) == 1


def test_without_the_service_every_port_is_kept_with_a_warning(device):
    device.describe(variant("X", "a") + variant("Y", "b", 1))
    device.start()
    assert names(device) == ["b", "a"]
    assert device.log_count(NO_ID) == 2
    assert device.log_count(r"^INFO: Failed to request policykit system: .") == 2


def test_an_empty_answer_keeps_every_port_with_a_warning(device):
    BootBlock(device, "")
    device.describe(variant("X", "a") + variant("Y", "b", 1))
    device.start()
    assert names(device) == ["b", "a"]
    assert device.log_count(NO_ID) == 2


@pytest.mark.parametrize(
    "fault, told",
    [
        ("fail", "GDBus.Error:com.norv.Error.Mock: out of order"),
        ("mistype", r"Unexpected reply of type '\(ad\)' from ReadBootblockParam"),
    ],
)
def test_a_service_that_answers_badly_is_asked_again_and_keeps_every_port(device, fault, told):
    boot_block = BootBlock(device, "ABC123")
    getattr(boot_block, fault)("ReadBootblockParam")
    device.describe(variant("X", "a") + variant("Y", "b", 1))
    device.start()
    assert names(device) == ["b", "a"]
    assert device.log_count(NO_ID) == 2
    assert device.log_count(f"^INFO: Failed to request policykit system: {told}$") == 2
    assert boot_block.asked == ["HWID", "HWID"]


def test_a_late_answer_counts(device):
    boot_block = BootBlock(device, "ABC123")
    boot_block.delay("ReadBootblockParam", 2, "s", "ret = 'ABC123'")
    device.describe(variant("X", "a") + variant("AB", "b", 1))
    device.start()
    assert names(device) == ["b"]
    assert boot_block.asked == ["HWID"]


def test_the_service_counts_where_a_description_is_read_and_nowhere_else(device):
    """Ports are neither taken nor brought when it comes, goes or returns, but by the next start."""
    device.describe(variant("X", "a") + variant("AB", "b", 1))
    device.start()
    assert names(device) == ["b", "a"]
    boot_block = BootBlock(device, "ABC123")
    device.state.DropIOPorts(["b"])
    device.state.RefreshIOPorts()
    assert names(device) == ["b", "a"] and boot_block.asked == []
    device.stop()
    device.start()
    assert names(device) == ["b"] and boot_block.asked == ["HWID"]
    boot_block.stop()
    device.sync()
    assert names(device) == ["b"]
    device.stop()
    device.start()
    assert names(device) == ["b", "a"]
    boot_block.start()
    device.stop()
    device.start()
    assert names(device) == ["b"]


def test_everything_within_a_skipped_port_is_skipped(device):
    BootBlock(device, "ABC123")
    inside = element("param_default_name", output="Stray") + element("properties", stray="true")
    skipped = variant("X", "skipped", 1).replace("</port>", inside + "</port>")
    device.describe(port("a", 0) + skipped)
    device.start()
    assert names(device) == ["a"]
    assert device.state.GetNames(0) == ("", "Port 1")
    assert device.ports()[0].properties == {"ioport": True}


def test_a_skipped_port_replaces_nothing_and_a_kept_one_does(device):
    BootBlock(device, "ABC123")
    device.describe(port("a", 0) + port("b", 1) + variant("X", "a", 2) + variant("AB", "b", 3))
    device.start()
    assert [(entry.name, entry.number) for entry in device.port_list()] == [("b", 3), ("a", 0)]


def test_a_hardware_id_that_is_not_the_first_attribute_filters_nothing(device):
    BootBlock(device, "ABC123")
    device.describe(port("a", 0).replace('name="a"', 'name="a" hwid="X"', 1))
    device.start()
    assert names(device) == ["a"]


def test_a_port_with_nothing_but_a_hardware_id_has_the_defaults(device):
    BootBlock(device, "ABC123")
    device.describe('<port hwid="AB"><backend name="check"/></port>')
    device.start()
    assert names(device) == [""]


def test_the_id_is_asked_for_once_per_file_and_only_where_needed(device):
    boot_block = BootBlock(device, "ABC123")
    device.describe(port("none", 0) + variant("AB", "a", 1) + variant("X", "b", 2))
    device.drop_in("with", variant("AB", "c", 3) + variant("AB", "d", 4))
    device.drop_in("without", port("e", 5))
    device.start()
    assert boot_block.asked == ["HWID", "HWID"]


def test_no_hardware_id_means_no_question(device):
    boot_block = BootBlock(device, "ABC123")
    device.describe(port("a", 0))
    device.start()
    assert boot_block.asked == []


def test_a_file_that_ends_within_a_skipped_port_skips_on_into_the_next(device):
    """The reader goes on skipping up to the next end of a port, whichever file it stands in."""
    BootBlock(device, "ABC123")
    device.write(DESCRIPTION, "<config>" + port("a", 0) + '<port hwid="X" name="cut">')
    device.drop_in("more", port("swallowed", 1) + port("b", 2))
    device.start()
    assert names(device) == ["b", "a"]
