"""The settings file: what is read from it at the start, what is written to it, and how."""

import pytest
from describe import port

from sim.bus import BusError
from sim.device import KEY_FILE

OUTPUT = (
    "[out]\noutput_name=Kept\noutput_activelow=true\nbutton_type=pulse\npulse_time=500\n"
    "port_mode=monostable\ndelay_time=9\nusage=kept\n"
)


def without(text, key):
    return "".join(line for line in text.splitlines(True) if not line.startswith(f"{key}="))


def replaced(text, key, value):
    return without(text, key) + f"{key}={value}\n"


def start_with(device, settings, ports):
    device.settings(settings)
    device.describe(ports)
    device.start()
    return device


def test_the_first_start_writes_every_key_of_every_port_in_order(device):
    device.describe(
        port("i", 0, "input")
        + port("o", 1, "output")
        + port("b", 2, "io_ctrl", dir="output", port_mode="monostable", button_type="actinact",
               pulse_time=500, usage="door lock")
    )  # fmt: skip
    device.start()
    assert device.read(KEY_FILE) == (
        "[b]\ninput=false\ninput_name=Port 3\ninput_activelow=false\noutput_name=Port 3\n"
        "output_activelow=false\nbutton_type=actinact\npulse_time=500\nport_mode=monostable\n"
        "delay_time=0\nusage=door lock\n"
        "\n[o]\noutput_name=Port 2\noutput_activelow=false\nbutton_type=none\npulse_time=0\n"
        "port_mode=bistable\ndelay_time=0\nusage=\n"
        "\n[i]\ninput_name=Port 1\ninput_activelow=false\nusage=\n"
    )


def test_all_settings_survive_a_restart(device):
    start_with(device, OUTPUT, port("out", 0))
    assert device.saved["out"] == {
        "output_name": "Kept",
        "output_activelow": "true",
        "button_type": "pulse",
        "pulse_time": "500",
        "port_mode": "monostable",
        "delay_time": "9",
        "usage": "kept",
    }
    assert device.state.GetActive(0)[1] == "open"
    first = device.read(KEY_FILE)
    device.restart()
    assert device.read(KEY_FILE) == first


@pytest.mark.parametrize("direction, saved", [("input", "true"), ("output", "false")])
def test_the_direction_of_a_configurable_port_is_restored(device, direction, saved):
    device.describe(port("b", 0, "io_ctrl"))
    device.start()
    device.state.SetDirection(0, direction)
    device.sync()
    assert device.saved["b"]["input"] == saved
    device.restart()
    assert device.state.GetDirection(0) == direction


def test_an_empty_file_is_as_good_as_none(device):
    start_with(device, "", port("out", 0))
    assert device.saved["out"]["output_name"] == "Port 1"


def test_a_port_without_a_group_keeps_its_description(device):
    start_with(device, "[else]\nx=1\n", port("out", 0, output_name="Described", usage="u"))
    assert device.state.GetNames(0) == ("", "Described")
    assert device.state.GetUsage(0) == "u"
    assert device.stderr.count("param file") == 0


def test_comments_and_groups_of_others_are_kept(device):
    start_with(device, "# top\n[else]\n# inner\nx=1\n\n" + OUTPUT, port("out", 0))
    device.state.SetUsage(0, "new")
    device.sync()
    text = device.read(KEY_FILE)
    assert "# top\n" in text and "# inner\nx=1\n" in text
    assert device.saved["else"] == {"x": "1"}


def test_changes_made_by_others_between_two_saves_are_kept(device):
    start_with(device, "", port("out", 0) + port("other", 1))
    with open(device.path(KEY_FILE), "a", encoding="utf-8") as file:
        file.write("\n[else]\nx=1\n")
    device.state.SetUsage(0, "new")
    device.sync()
    assert device.saved["else"] == {"x": "1"}
    assert device.saved["out"]["usage"] == "new"


def test_a_save_writes_one_port_only(device):
    start_with(device, "", port("out", 0) + port("other", 1))
    text = device.read(KEY_FILE).replace("output_name=Port 2", "output_name=Edited")
    device.settings(text)
    device.state.SetUsage(0, "new")
    device.sync()
    assert device.saved["other"]["output_name"] == "Edited"
    device.state.SetUsage(1, "new")
    device.sync()
    assert device.saved["other"]["output_name"] == "Port 2"


def test_a_missing_button_type_is_tolerated(device):
    start_with(device, without(OUTPUT, "button_type"), port("out", 0, button_type="actinact"))
    assert device.saved["out"]["button_type"] == "actinact"
    assert device.saved["out"]["pulse_time"] == "500"
    assert device.saved["out"]["usage"] == "kept"
    assert "Error parsing" not in device.stderr


def test_an_unknown_button_type_ends_the_read_of_its_port_quietly(device):
    described = port("out", 0, pulse_time=1, port_mode="bistable", usage="described")
    settings = OUTPUT.replace("button_type=pulse", "button_type=Pulse")
    start_with(device, settings, described)
    saved = device.saved["out"]
    assert saved["output_name"] == "Kept"
    assert saved["output_activelow"] == "true"
    assert saved["button_type"] == "none"
    assert saved["pulse_time"] == "1"
    assert saved["port_mode"] == "bistable"
    assert saved["delay_time"] == "0"
    assert saved["usage"] == "described"
    assert "Error parsing" not in device.stderr


def test_a_missing_usage_empties_it(device):
    start_with(device, without(OUTPUT, "usage"), port("out", 0, usage="described"))
    assert device.state.GetUsage(0) == ""
    assert device.state.GetNames(0) == ("", "Kept")
    assert "Error parsing" not in device.stderr


@pytest.mark.parametrize(
    "text, mode",
    [
        pytest.param("bistable", "bistable", id="bistable"),
        pytest.param("Bistable", "monostable", id="capital"),
        pytest.param("monostable", "monostable", id="monostable"),
        pytest.param("", "monostable", id="empty"),
    ],
)
def test_every_port_mode_but_bistable_is_monostable(device, text, mode):
    start_with(device, replaced(OUTPUT, "port_mode", text), port("out", 0))
    assert device.saved["out"]["port_mode"] == mode


@pytest.mark.parametrize(
    "written, kept",
    [
        pytest.param("18446744073709551615", "18446744073709551615", id="minus one"),
        pytest.param("0", "0", id="zero"),
        pytest.param("2147483647", "2147483647", id="largest"),
        pytest.param("2147483648", "18446744071562067968", id="cut to 32 bits, negative"),
        pytest.param("4294967296", "0", id="cut to 32 bits, zero"),
    ],
)
def test_a_delay_time_is_cut_to_32_bits_and_sign_extended_when_written(device, written, kept):
    start_with(device, replaced(OUTPUT, "delay_time", written), port("out", 0))
    assert device.saved["out"]["delay_time"] == kept
    device.restart()
    assert device.saved["out"]["delay_time"] == kept


@pytest.mark.parametrize(
    "key, group, missing",
    [
        pytest.param("input_name", "both", "input", id="input name"),
        pytest.param("output_name", "both", "output", id="output name"),
    ],
)
def test_a_missing_name_is_told_with_port_and_number(device, key, group, missing):
    settings = (
        "[both]\ninput=true\ninput_name=I\ninput_activelow=true\noutput_name=O\n"
        "output_activelow=true\npulse_time=5\nport_mode=monostable\ndelay_time=0\nusage=kept\n"
    )
    start_with(device, without(settings, key), port(group, 0, "io_ctrl", usage="described"))
    assert f"No {missing} name for port both:0\n" in device.stdout
    assert device.stderr.count("Error parsing param file: ") == 1
    assert device.state.GetUsage(0) == "described", "nothing after the missing key is read"
    assert device.state.GetActive(0)[0] == ("open" if missing == "output" else "closed")


def test_a_missing_name_is_told_at_once(device):
    """Also where nothing is logged after it."""
    device.describe(port("in", 0, "input"))
    device.write(KEY_FILE, "[in]\n")
    device.start("--disable_legacy_interface")
    assert device.log == ["No input name for port in:0"]


@pytest.mark.parametrize(
    "key, value",
    [
        pytest.param("output_activelow", "maybe", id="no boolean"),
        pytest.param("pulse_time", "soon", id="no number"),
        pytest.param("output_activelow", None, id="active sense missing"),
        pytest.param("pulse_time", None, id="pulse time missing"),
        pytest.param("port_mode", None, id="mode missing"),
        pytest.param("delay_time", None, id="delay time missing"),
    ],
)
def test_a_broken_key_ends_the_read_of_its_port_with_an_error(device, key, value):
    broken = without(OUTPUT, key)
    if value is not None:
        broken = OUTPUT.replace(
            next(line for line in OUTPUT.splitlines() if line.startswith(key)), f"{key}={value}"
        )
    start_with(
        device,
        broken + "\n[next]\noutput_name=Next\noutput_activelow=false\npulse_time=0\n"
        "port_mode=bistable\ndelay_time=0\nusage=next\n",
        port("out", 0, usage="described") + port("next", 1),
    )
    assert device.stderr.count("Error parsing param file: ") == 1
    assert device.state.GetNames(0) == ("", "Kept"), "values before the broken key stay"
    assert device.state.GetUsage(0) == "described"
    assert device.state.GetNames(1) == ("", "Next"), "other ports are read"


@pytest.mark.parametrize(
    "usage",
    [
        pytest.param(r"x\q", id="no such escape"),
        pytest.param("x\\", id="half an escape"),
        pytest.param("x" * 65_537, id="too long"),
    ],
)
def test_a_malformed_text_is_an_error_and_leaves_the_text_alone(device, usage):
    start_with(device, replaced(OUTPUT, "usage", usage), port("out", 0, usage="described"))
    assert device.stderr.count("Error parsing param file: ") == 1
    assert device.state.GetUsage(0) == "described"
    assert device.state.GetNames(0) == ("", "Kept")


def test_a_text_that_is_too_long_to_set_is_left_out_of_the_description(device):
    device.describe(port("out", 0, usage="x" * 65_537, output_name="y" * 65_537))
    device.start()
    assert device.log_count("^WARNING: .*has a name or usage of more bytes than a port takes") == 2
    assert device.state.GetUsage(0) == ""
    assert device.state.GetNames(0) == ("", "Port 1")


@pytest.mark.parametrize("text", ["\f", "\fGate", "\f \f Gate", " \fGate", "\\fGate"])
def test_a_form_feed_survives_a_restart_wherever_it_stands(device, text):
    start_with(device, "", port("out", 0))
    device.state.SetUsage(0, text)
    device.state.SetName(0, False, text)
    device.restart()
    assert device.state.GetUsage(0) == text
    assert device.state.GetNames(0) == ("", text)
    device.restart()
    assert device.state.GetUsage(0) == text


def test_a_port_without_a_name_is_told_and_never_saved(device):
    start_with(device, "", port(None, 0) + port("out", 1))
    assert "Port does not have a name!\n" in device.stderr
    assert list(device.saved) == ["out"]
    assert [entry.name for entry in device.port_list()] == ["out", ""]
    told = device.stderr.count("Port does not have a name!\n")
    device.state.SetUsage(0, "x")
    device.sync()
    assert device.state.GetUsage(0) == "x"
    assert list(device.saved) == ["out"]
    assert device.stderr.count("Port does not have a name!\n") >= told


def test_an_empty_name_is_saved_as_empty_and_keeps_the_rest_of_the_group(device):
    """A port without default name: its number is not below the count of ports."""
    device.describe(port("far", 40, "io_ctrl"))
    device.start()
    assert device.saved["far"]["input_name"] == ""
    assert device.saved["far"]["output_name"] == ""
    device.state.SetUsage(40, "kept")
    device.state.SetActive(40, False, "open")
    device.restart()
    assert device.state.GetUsage(40) == "kept"
    assert device.state.GetActive(40)[1] == "open"
    assert device.state.GetNames(40) == ("", "")
    assert "No input name" not in device.stdout
    assert device.stderr.count("param file") == 0


def test_settings_broken_while_running_are_not_overwritten(device):
    device.expect(r"param_read_configuration ?\(file\)")
    start_with(device, "", port("out", 0))
    device.settings("no key file\n")
    device.state.SetUsage(0, "new")
    device.sync()
    assert device.state.GetUsage(0) == "new"
    assert device.read(KEY_FILE) == "no key file\n"
    assert device.stderr.count("Could not read key file: ") == 1

    device.settings("")
    device.state.SetUsage(0, "newer")
    device.sync()
    assert device.saved["out"]["usage"] == "newer"


def test_unreadable_settings_tell_why(device):
    device.path(KEY_FILE).mkdir()
    device.describe(port("out", 0))
    device.start(ready=False)
    device.wait_exit(1)
    assert device.stderr.startswith("Could not read key file: ")
    assert len(device.stderr.splitlines()[0]) > len("Could not read key file: ")


@pytest.mark.uninstrumented
def test_settings_that_cannot_be_reached_are_not_taken_for_missing_ones(make_device):
    """The disk fails for a moment; a start without them would save over all of them."""
    device = make_device(
        wrapper=("strace", "-f", "-qq", "-o", "/dev/null", "-P", KEY_FILE, "-e", "trace=newfstatat",
                 "-e", "inject=newfstatat:error=EIO:when=1"),
        patience=3,
    )  # fmt: skip
    settings = "[gone]\nusage=of a port that is not described\n"
    device.describe(port("out", 0))
    device.settings(settings)
    device.start(ready=False)
    device.wait_exit(1)
    assert device.stderr == (
        f"Could not read key file: Failed to open '{KEY_FILE}': Input/output error\n"
    )
    assert device.read(KEY_FILE) == settings


@pytest.mark.parametrize("asked", ["SetUsage", "SetState"])
def test_a_client_is_answered_even_if_nothing_can_be_saved(device, asked):
    device.expect(r"param_read_configuration ?\(file\)")
    start_with(device, "", port("out", 0))
    device.path(KEY_FILE).unlink()
    device.path(KEY_FILE).mkdir()
    if asked == "SetUsage":
        device.state.SetUsage(0, "new")
    else:
        device.state.SetState(0, True)
    device.sync()
    with pytest.raises(BusError, match="No such port."):
        device.state.GetUsage(1)
