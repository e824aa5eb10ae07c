"""Which port a name given to the client means, and that it drives no other."""

import pytest
from client import done
from describe import port

PORTS = (
    port("door", 0, "input", input_name="Front door")
    + port("relay", 1, output_name="Gate")
    + port("lamp", 2, output_name="Gate")
    + port("both", 3, "io_ctrl", dir="output", input_name="In", output_name="Out")
    + port("siren", 4, output_name="relay")
)


@pytest.fixture
def daemon(device):
    device.describe(PORTS)
    return device.start()


def driven(daemon):
    return [number for number in (1, 2, 3, 4) if daemon.state.GetState(number)]


@pytest.mark.parametrize(
    "arguments",
    [("set", "", "on"), ("get", ""), ("pulse", "", "5"), ("run", "", "1:5"), ("name", "", "x"),
     ("virtual", "", "on"), ("supervised", "show", ""), ("legacy", "get", "")],
    ids=" ".join,
)  # fmt: skip
def test_an_empty_port_is_refused(daemon, wexctl, arguments):
    result = wexctl(*arguments)
    assert (result.status, result.out, result.err) == (2, "", "wexctl: PORT is empty\n")
    assert driven(daemon) == []


def test_the_name_of_a_side_not_in_use_means_nothing(daemon, wexctl):
    result = wexctl("set", "In", "on")
    assert (result.status, result.err) == (1, "wexctl: no port is called 'In'\n")
    done(wexctl("set", "Out", "on"))
    assert driven(daemon) == [3]
    done(wexctl("direction", "both", "input"))
    assert wexctl("get", "Out").status == 1
    assert done(wexctl("get", "In", "--json")).json["number"] == 3


def test_a_name_of_several_ports_is_refused_with_all_of_them(daemon, wexctl):
    result = wexctl("set", "Gate", "on")
    assert (result.status, result.err) == (
        2, "wexctl: 'Gate' is the name of several ports: 1 relay, 2 lamp; say which by number\n",
    )  # fmt: skip
    assert driven(daemon) == []


def test_a_name_of_the_description_comes_first(daemon, wexctl):
    done(wexctl("set", "relay", "on"))
    assert driven(daemon) == [1]
