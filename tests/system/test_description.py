"""The hardware description: what each element and attribute makes of a port."""

import os
import stat

import pytest
from describe import element, port, sysfs_input

from sim.device import DESCRIPTION, DROP_FOLDER
from sim.sandbox import WXD_GID, WXD_UID


def names(device):
    return [entry.name for entry in device.port_list()]


def start_with(device, ports):
    device.describe(ports)
    device.start()
    return device


def bare(inside, name="a", number=0):
    """A check port with given elements between its kind and its backend."""
    return element(
        "port",
        element("port_no", nbr=number) + inside + element("backend", name="check")
        + element("properties", ioport="true"),
        name=name,
    )  # fmt: skip


def test_a_bare_port_has_the_defaults(device):
    """Without a kind it is an input; without a number it has -1."""
    start_with(device, "<port><backend name='check'/></port>")
    (entry,) = device.port_list()
    assert (entry.name, entry.number, entry.state) == ("", -1, False)
    assert (entry.input, entry.configurable, entry.activelow) == (True, False, False)
    assert entry.properties == {}


@pytest.mark.parametrize(
    "text, number",
    [
        pytest.param("7", 7, id="plain"),
        pytest.param("-3", -3, id="negative"),
        pytest.param("12abc", 12, id="trailing letters"),
        pytest.param("abc", 0, id="no digits"),
        pytest.param("010", 10, id="base ten"),
    ],
)
def test_the_number_is_read_leniently(device, text, number):
    start_with(device, port("a", text))
    assert device.port_list()[0].number == number


HIGH_NUMBER = (
    r"^WARNING: You have a port with higher number than FIRST_VIRTUAL_PORT "
    r"this might lead to unexpected behaviour$"
)


@pytest.mark.parametrize(
    "numbers, warnings",
    [
        pytest.param([100], 0, id="a first high number"),
        pytest.param([5, 100], 0, id="a low number before"),
        pytest.param([6, 0], 1, id="a high number before"),
        pytest.param([6, 7, 8, 1], 3, id="each high number but the last"),
    ],
)
def test_the_number_warning_looks_at_the_number_before(device, numbers, warnings):
    elements = "".join(element("port_no", nbr=number) for number in numbers)
    start_with(device, element("port", elements + element("backend", name="check"), name="a"))
    assert device.log_count(HIGH_NUMBER) == warnings
    assert device.port_list()[0].number == numbers[-1]


@pytest.mark.parametrize(
    "kind, is_input, configurable",
    [
        pytest.param("input", True, False, id="input"),
        pytest.param("output", False, False, id="output"),
        pytest.param("io_ctrl", True, True, id="configurable"),
    ],
)
def test_kinds_of_port(device, kind, is_input, configurable):
    start_with(device, port("a", 0, kind))
    entry = device.ports()[0]
    assert (entry.input, entry.configurable) == (is_input, configurable)


@pytest.mark.parametrize("kind", ["Input", "io", ""])
def test_an_unknown_kind_is_critical_and_changes_nothing(device, kind):
    device.expect(rf"^CRITICAL: Unsupported port type {kind}$")
    start_with(device, bare(element("port_type", type="output") + element("port_type", type=kind)))
    assert device.state.GetDirection(0) == "output"


def test_an_unknown_kind_leaves_a_configurable_port_its_direction(device):
    device.expect(r"^CRITICAL: Unsupported port type nonsense$")
    start_with(
        device,
        bare(
            element("port_type", type="io_ctrl")
            + element("param_defaults", dir="output")
            + element("port_type", type="nonsense")
        ),
    )
    assert device.state.GetDirection(0) == "output"


@pytest.mark.parametrize("first, second", [("input", "output"), ("output", "input")])
def test_a_fixed_kind_sets_the_direction_that_a_later_configurable_kind_keeps(
    device, first, second
):
    start_with(
        device,
        bare(element("port_type", type=first) + element("port_type", type="io_ctrl"))
        + bare(
            element("port_type", type=first)
            + element("port_type", type=second)
            + element("port_type", type="io_ctrl"),
            name="b",
            number=1,
        ),
    )
    assert device.state.GetDirection(0) == first
    assert device.state.GetDirection(1) == second


def test_an_unknown_kind_restores_the_direction_of_the_kind(device):
    """The direction was turned by a default; the unknown kind puts it back."""
    device.expect(r"^CRITICAL: Unsupported port type nonsense$")
    start_with(
        device,
        bare(
            element("port_type", type="output")
            + element("param_defaults", dir="input")
            + element("port_type", type="nonsense")
            + element("port_type", type="io_ctrl")
        ),
    )
    assert device.state.GetDirection(0) == "output"


@pytest.mark.parametrize("kind, other", [("output", "input"), ("input", "output")])
def test_a_default_direction_does_not_turn_a_port_of_a_fixed_kind(device, kind, other):
    start_with(device, port("a", 0, kind, dir=other))
    assert device.state.GetDirection(0) == kind
    assert device.ports()[0].input is (kind == "input")
    assert device.state.GetNbrPorts() == ((1, 0) if kind == "input" else (0, 1))


@pytest.mark.parametrize(
    "text, direction",
    [
        pytest.param("output", "output", id="output"),
        pytest.param("OutPut", "output", id="any case"),
        pytest.param("INPUT", "input", id="input"),
        pytest.param("out", "input", id="unknown"),
    ],
)
def test_the_default_direction(device, text, direction):
    start_with(device, port("a", 0, "io_ctrl", dir=text))
    assert device.state.GetDirection(0) == direction


@pytest.mark.parametrize(
    "default, key, text, saved",
    [
        pytest.param("port_mode", "port_mode", "monostable", "monostable", id="monostable"),
        pytest.param("port_mode", "port_mode", "MonoStable", "monostable", id="mode in any case"),
        pytest.param("port_mode", "port_mode", "Bistable", "bistable", id="bistable"),
        pytest.param("port_mode", "port_mode", "tristable", "bistable", id="unknown mode"),
        pytest.param("button_type", "button_type", "none", "none", id="no button"),
        pytest.param("button_type", "button_type", "PULSE", "pulse", id="button in any case"),
        pytest.param("button_type", "button_type", "actinact", "actinact", id="actinact"),
        pytest.param("button_type", "button_type", "push", "none", id="unknown button"),
        pytest.param("pulse_time", "pulse_time", "500", "500", id="pulse time"),
        pytest.param("pulse_time", "pulse_time", "12abc", "12", id="pulse time and letters"),
        pytest.param("pulse_time", "pulse_time", "abc", "0", id="no pulse time"),
        pytest.param("pulse_time", "pulse_time", "4294967295", "4294967295", id="long pulse"),
        pytest.param("usage", "usage", "Door lock", "Door lock", id="usage"),
    ],
)
def test_defaults_become_settings(device, default, key, text, saved):
    start_with(device, port("a", 0, **{default: text}))
    assert device.saved["a"][key] == saved


def test_a_pulse_time_without_digits_keeps_the_one_before(device):
    start_with(
        device,
        bare(
            element("port_type", type="output")
            + element("param_defaults", pulse_time="12abc", usage="first")
            + element("param_defaults", pulse_time="abc", usage="second")
        ),
    )
    assert device.saved["a"]["pulse_time"] == "12"
    assert device.state.GetUsage(0) == "second"


def test_the_first_default_name_wins(device):
    start_with(
        device,
        bare(
            element("port_type", type="io_ctrl")
            + element("param_default_name", input="I1")
            + element("param_default_name", input="I2", output="O1")
            + element("param_default_name", output="O2")
        ),
    )
    assert device.state.GetNames(0) == ("I1", "O1")


def test_properties_are_true_in_any_case_and_else_false(device):
    texts = {"ioport": "TRUE", "b": "true", "c": "True", "d": "false", "e": "yes", "f": "1", "g": ""}
    start_with(device, port("a", 0, properties=texts))
    assert device.ports()[0].properties == {
        "ioport": True, "b": True, "c": True, "d": False, "e": False, "f": False, "g": False,
    }  # fmt: skip


def test_a_later_property_replaces_an_earlier(device):
    start_with(
        device, bare(element("properties", x="true", y="false") + element("properties", x="no"))
    )
    assert device.ports()[0].properties == {"ioport": True, "x": False, "y": False}


@pytest.mark.parametrize(
    "backend",
    [
        pytest.param(None, id="none"),
        pytest.param("Check", id="wrong case"),
        pytest.param("nonsense", id="unknown"),
        pytest.param("", id="empty"),
    ],
)
def test_a_port_without_a_known_backend_is_dropped_with_a_warning(device, backend):
    start_with(device, port("lost", 0, backend=backend) + port("kept", 1))
    assert names(device) == ["kept"]
    warnings = [line for line in device.log if line.startswith("WARNING: ") and "lost" in line]
    assert len(warnings) == 1
    assert DESCRIPTION in warnings[0]
    assert "lost" not in device.saved


def test_a_backend_named_in_a_later_file_saves_the_port(device):
    """An element applies to the newest port, so the file after may complete it; but a port is
    judged at the end of the reading, not before."""
    device.describe(port("a", 0, backend=None))
    device.drop_in("more", element("backend", name="check"))
    device.start()
    assert names(device) == ["a"]


def test_unknown_elements_and_attributes_are_ignored(device):
    start_with(
        device,
        element("nonsense", nbr=7)
        + bare(
            element("port_type", type="output", nonsense="x")
            + element("nonsense", nbr=7)
            + element("param_defaults", nonsense="x")
            + element("port_no", number=9)
        ),
    )
    assert device.ports()[0].name == "a"
    assert device.log_count("nonsense") == 0


def test_elements_outside_a_port_belong_to_the_newest_port(device):
    start_with(
        device,
        element("port_no", nbr=5)
        + port("a", 0)
        + port("b", 1)
        + element("param_default_name", output="Late")
        + element("properties", late="true"),
    )
    assert device.state.GetNames(1) == ("", "Late")
    assert device.ports()[1].properties == {"ioport": True, "late": True}
    assert device.ports()[0].properties == {"ioport": True}


def test_a_later_port_of_a_name_replaces_the_earlier(device):
    start_with(device, port("a", 0) + port("b", 1) + port("a", 2))
    assert [(entry.name, entry.number) for entry in device.port_list()] == [("a", 2), ("b", 1)]


def test_a_port_in_a_drop_in_replaces_one_of_the_description(device):
    device.describe(port("a", 0) + port("b", 1))
    device.drop_in("over", port("a", 2))
    device.start()
    assert [(entry.name, entry.number) for entry in device.port_list()] == [("a", 2), ("b", 1)]


def test_a_name_that_is_not_the_first_attribute_replaces_nothing(device):
    second = (
        '<port optional="true" name="a"><port_no nbr="1"/><port_type type="output"/>'
        '<backend name="check"/><properties ioport="true"/></port>'
    )
    start_with(device, port("a", 0) + second)
    assert [(entry.name, entry.number) for entry in device.port_list()] == [("a", 1), ("a", 0)]
    assert device.state.DropIOPorts(["a"]) == ["a"], "the newer one is found first"
    assert [entry.number for entry in device.port_list()] == [0]


def test_a_description_cut_short_is_taken_as_far_as_it_goes(device):
    text = "<config>" + port("a", 0) + port("b", 1).removesuffix("</port>")
    device.write(DESCRIPTION, text)
    device.start()
    assert names(device) == ["b", "a"]


@pytest.mark.parametrize("tail", ["<port name=", '<port name="c', "<port name='c'><port_no nbr"])
def test_a_description_cut_within_a_tag_is_taken_up_to_the_tag(device, tail):
    device.write(DESCRIPTION, "<config>" + port("a", 0) + tail)
    device.start()
    assert "a" in names(device)
    assert device.log_count("CRITICAL") == 0


def test_text_comments_and_instructions_are_passed_over(device):
    start_with(
        device, "text &amp; more <!-- <port/> --> <?do it?> <![CDATA[<port/>]]>" + port("a", 0)
    )
    assert names(device) == ["a"]


def test_every_file_of_the_drop_folder_is_read_whatever_its_name(device):
    device.describe("")
    for number, name in enumerate((".hidden", "no extension", "z.xml", "a.conf~")):
        device.drop_in(name, port(name, number))
    device.start()
    assert sorted(names(device)) == [".hidden", "a.conf~", "no extension", "z.xml"]
    order = list(os.listdir(device.path(DROP_FOLDER)))
    assert names(device) == list(reversed(order)), "in the order of the folder itself"


def test_the_first_bad_file_of_the_drop_folder_ends_its_reading(device):
    device.expect(rf"^CRITICAL: Couldn't parse markup file \({DROP_FOLDER}//bad\)")
    device.describe(port("first", 0))
    for number in range(8):
        device.drop_in(f"good{number}", port(f"good{number}", number + 1))
    device.write(f"{DROP_FOLDER}/bad", "<config></nonsense>")
    device.start()
    order = list(os.listdir(device.path(DROP_FOLDER)))
    read = order[: order.index("bad")]
    assert names(device) == [*reversed(read), "first"]


def make_folder(path):
    path.mkdir()


def make_device_node(path):
    """What never ends when it is read; only root can make one."""
    os.mknod(path, stat.S_IFCHR | 0o644, os.makedev(1, 5))


no_regular_file = pytest.mark.parametrize(
    "make",
    [
        pytest.param(os.mkfifo, id="pipe"),
        pytest.param(make_folder, id="folder"),
        pytest.param(make_device_node, id="device", marks=pytest.mark.root),
    ],
)


@no_regular_file
def test_what_is_no_regular_file_is_no_description(device, make):
    device.expect(rf"^CRITICAL: Couldn't load XML \({DESCRIPTION}\)$")
    make(device.path(DESCRIPTION))
    device.drop_in("more", port("a", 0))
    device.start()
    assert device.log_count(rf"^WARNING: '{DESCRIPTION}' is not a regular file$") == 1
    assert names(device) == ["a"]


def test_a_description_may_be_a_link(device):
    device.write("/usr/share/wexd/variant.xml", f"<config>{port('a', 0)}</config>")
    device.path(DESCRIPTION).symlink_to("variant.xml")
    device.start()
    assert names(device) == ["a"]


def skipped(device, name, reason):
    return device.log_count(rf"^WARNING: Skipping {DROP_FOLDER}//{name}: {reason}$") == 1


def drop_in_around(device, name):
    """Drop-ins on both sides of another entry, whatever the order of the folder."""
    device.describe(port("first", 0))
    for number in range(8):
        device.drop_in(f"good{number}", port(f"good{number}", number + 1))
    return device.path(f"{DROP_FOLDER}/{name}")


ALL_GOOD = sorted(["first", *(f"good{number}" for number in range(8))])


@no_regular_file
def test_a_drop_in_that_is_no_regular_file_is_skipped(device, make):
    make(drop_in_around(device, "odd"))
    device.start()
    assert skipped(device, "odd", "it is not a regular file")
    assert sorted(names(device)) == ALL_GOOD


@pytest.mark.parametrize("mode", [0o664, 0o646, 0o666])
def test_a_drop_in_that_others_may_write_is_skipped(device, mode):
    drop_in_around(device, "open")
    device.drop_in("open", port("open", 20))
    device.path(f"{DROP_FOLDER}/open").chmod(mode)
    device.start()
    assert skipped(device, "open", "others may write it")
    assert sorted(names(device)) == ALL_GOOD


@pytest.mark.root
def test_a_drop_in_of_another_user_is_skipped(device):
    path = drop_in_around(device, "foreign")
    device.drop_in("foreign", port("foreign", 20))
    os.chown(path, WXD_UID, WXD_GID)
    device.start()
    assert skipped(device, "foreign", "it belongs to another user")
    assert sorted(names(device)) == ALL_GOOD


@pytest.mark.parametrize("target", ["../elsewhere.xml", "/etc/elsewhere.xml"])
def test_a_drop_in_may_be_a_link_of_the_starting_user(device, target):
    device.describe("")
    device.write("/etc/elsewhere.xml", f"<config>{port('a', 0)}</config>")
    device.path(f"{DROP_FOLDER}/link").symlink_to(target)
    device.start()
    assert names(device) == ["a"]


@pytest.mark.root
def test_a_link_of_another_user_is_skipped_wherever_it_leads(device):
    path = drop_in_around(device, "link")
    device.write("/etc/elsewhere.xml", f"<config>{port('elsewhere', 20)}</config>")
    path.symlink_to("/etc/elsewhere.xml")
    os.lchown(path, WXD_UID, WXD_GID)
    device.start()
    assert skipped(device, "link", "the link belongs to another user")
    assert sorted(names(device)) == ALL_GOOD


@pytest.mark.root
def test_a_link_to_a_file_of_another_user_is_skipped(device):
    path = drop_in_around(device, "link")
    os.chown(
        device.write("/etc/elsewhere.xml", f"<config>{port('elsewhere', 20)}</config>"), WXD_UID, 0
    )
    path.symlink_to("/etc/elsewhere.xml")
    device.start()
    assert skipped(device, "link", "it belongs to another user")
    assert sorted(names(device)) == ALL_GOOD


@pytest.mark.root
def test_the_temporary_of_the_legacy_files_is_passed_over_without_a_word(device):
    path = drop_in_around(device, "legacy.tmp")
    device.write(f"{DROP_FOLDER}/legacy.tmp", f"<config>{port('legacy', 20)}</config>")
    os.chown(path, WXD_UID, WXD_GID)
    device.write(f"{DROP_FOLDER}/legacy.tmp.A1b2C3", "<config></nonsense>")
    device.start()
    assert device.log_count("Skipping") == 0
    assert sorted(names(device)) == ALL_GOOD
    assert sorted(os.listdir(device.path(DROP_FOLDER))) == sorted(
        name for name in ALL_GOOD if name != "first"
    )


def test_a_file_in_place_of_the_drop_folder_is_passed_over(device):
    device.describe(port("a", 0))
    device.path(DROP_FOLDER).rmdir()
    device.write(DROP_FOLDER, port("b", 1))
    device.start()
    assert names(device) == ["a"]


def test_a_backend_left_open_takes_the_attributes_of_the_next_file(device):
    """The reader remembers across files that it is inside a backend element."""
    device.write("/sys/in", "0\n")
    device.write(
        DESCRIPTION,
        "<config>" + sysfs_input("a", 0, "/sys/in").split("</backend>")[0],
    )
    device.drop_in("more", element("anything", path="/nowhere"))
    device.start()
    assert device.log_count(r"^WARNING: Could not parse backend data!$") >= 1
    assert names(device) == ["a"]


def test_a_keyvalue_without_an_event_is_refused_with_file_line_and_element(device):
    device.write(
        DESCRIPTION,
        "<config>\n" + bare("\n" + element("keyvalue", key="k", value="v")) + "</config>",
    )
    device.start()
    assert names(device) == ["a"]
    (warning,) = [line for line in device.log if "keyvalue" in line]
    assert warning.startswith("WARNING: ")
    assert DESCRIPTION in warning and "3" in warning.replace(DESCRIPTION, "")


def test_backend_attributes_before_its_name_are_refused_with_file_line_and_element(device):
    device.write(
        DESCRIPTION,
        '<config>\n<port name="a">\n<port_no nbr="0"/>\n'
        '<backend setup="fail" name="check"/>\n'
        '<properties ioport="true"/></port></config>',
    )
    device.start()
    # The first attribute opens the element for the backend, but nothing is there yet to take it.
    assert names(device) == ["a"]
    warnings = [line for line in device.log if line.startswith("WARNING: ") and "backend" in line]
    assert warnings
    assert all(DESCRIPTION in line and "4" in line for line in warnings)


def test_a_backend_child_before_any_name_is_refused_with_file_line_and_element(device):
    device.write(
        DESCRIPTION,
        '<config>\n<port name="a">\n<port_no nbr="0"/>\n'
        '<backend x="y">\n<device path="/nowhere"/></backend>\n'
        '<backend name="check"/><properties ioport="true"/></port></config>',
    )
    device.start()
    assert names(device) == ["a"]
    warnings = [line for line in device.log if "device" in line and line.startswith("WARNING: ")]
    assert len(warnings) == 1
    assert DESCRIPTION in warnings[0] and "5" in warnings[0].replace(DESCRIPTION, "")


def test_events_and_their_values_are_accepted_wherever_they_stand(device):
    event = element("event", declaration="Port", input="TRUE", output="maybe", declare_only="false")
    values = element("keyvalue", key="k", value="v", type="string", property="TRUE")
    start_with(device, event + bare(event + values) + event + values)
    assert names(device) == ["a"]
    assert device.log_count("WARNING") == 0


def test_a_bare_event_harms_nothing(device):
    start_with(device, bare("<event/>"))
    assert names(device) == ["a"]
