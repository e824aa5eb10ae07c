"""The two generated files: parsed and compared, element by element."""

import os
import signal
import xml.etree.ElementTree as ElementTree

import pytest
from describe import port
from legacy import BASE, INPUT, IOPORT, OUTPUT

REGISTRY = "/etc/service_registry/services.d/wexd_service_registry.conf"
MAPPING = "/etc/legacyconfig/legacymappings.d/wexd.xml"
TEMPORARY = "/etc/wexd.d/legacy.tmp"

USER = "admin:3;operator:1"

FIXED = [
    ("root.Input", "NbrOfInputs"),
    ("root.Output", "NbrOfOutputs"),
    ("root.Properties.IO", "ManualTriggerNbr"),
]


def parsed(device, file):
    return ElementTree.fromstring(device.read(file))


def registry(device):
    """The registry as (service, [(object, [interface attributes])])."""
    service = parsed(device, REGISTRY)
    assert (service.tag, [child.tag for child in service]) == ("service", ["objects"])
    objects = []
    for found in service.find("objects"):
        assert (found.tag, [child.tag for child in found]) == ("object", ["interfaces"])
        objects.append((found.get("name"), [(i.tag, i.attrib) for i in found.find("interfaces")]))
    return service.attrib, objects


def mapping(device):
    """The mapping as [(group, [(parameter, property attributes, type attributes, options)])]."""
    root = parsed(device, MAPPING)
    assert root.tag == "mapping"
    groups = []
    for group in root:
        assert group.tag == "group"
        parameters = []
        for parameter in group:
            assert parameter.tag == "parameter"
            assert [child.tag for child in parameter] == ["property", "legacyoptions"]
            found = parameter.find("property")
            (kind,) = found
            options = [(o.attrib["name"], o.attrib["value"]) for o in parameter.find("legacyoptions")]
            parameters.append((parameter.get("name"), found.attrib, kind.attrib, options))
        groups.append((group.get("name"), parameters))
    return groups


def expected_object(number):
    return (
        f"{BASE}/{number}",
        [("interface", {"name": name, "emitspropertieschanged": "true"})
         for name in (IOPORT, INPUT, OUTPUT)],
    )  # fmt: skip


def parameter(name, number, interface, kind, legacy_type, access=USER, more=()):
    kind = {"type": kind}
    if kind["type"] == "bool":
        kind |= {"truevalue": "yes", "falsevalue": "no"}
    return (
        name,
        {"dbus": IOPORT, "object": f"{BASE}/{number}", "interface": interface, "name": name},
        kind,
        [("type", legacy_type), ("accessControl", access), *more],
    )


def fixed_groups():
    return [
        (group, [parameter(name, 0, IOPORT, "int", "readonly:int:maxlen=3,min=0,max=100",
                           "admin:1;operator:1;viewer:1")])
        for group, name in FIXED
    ]  # fmt: skip


def port_group(number, direction_prefix="readonly:", usage_prefix=""):
    return (f"root.IOPort.I{number}", [
        parameter("Configurable", number, IOPORT, "bool", "readonly:yes_no", "admin:1;operator:1"),
        parameter("Direction", number, IOPORT, "string",
                  direction_prefix + "enum:input|Input, output|Output"),
        parameter("Usage", number, IOPORT, "string", usage_prefix + "string"),
    ])  # fmt: skip


def input_group(number, name_prefix="", trig_prefix=""):
    return (f"root.IOPort.I{number}.Input", [
        parameter("Name", number, INPUT, "string", name_prefix + "string"),
        parameter("Trig", number, INPUT, "string", trig_prefix + "enum:closed|Closed, open|Open",
                  more=[("nicename", "Generate when circuit is..."), ("daemon", "wxd"),
                        ("signal", "1")]),
    ])  # fmt: skip


def output_group(number, name_prefix=""):
    return (f"root.IOPort.I{number}.Output", [
        parameter("DelayTime", number, OUTPUT, "int", "int"),
        parameter("Mode", number, OUTPUT, "string",
                  "enum:bistable|Bistable, monostable|Monostable"),
        parameter("Name", number, OUTPUT, "string", name_prefix + "string"),
        parameter("Active", number, OUTPUT, "string", "enum:closed|Closed, open|Open"),
        parameter("Button", number, OUTPUT, "string",
                  "enum: none|None, pulse|Pulse, actinact|Active/Inactive"),
        parameter("PulseTime", number, OUTPUT, "int", "int"),
    ])  # fmt: skip


CASES = [
    pytest.param(port("p", 3, "input"), [port_group(3), input_group(3)], id="input"),
    pytest.param(port("p", 3, "output"), [port_group(3), output_group(3)], id="output"),
    pytest.param(port("p", 3, "io_ctrl"),
                 [port_group(3, ""), input_group(3), output_group(3)], id="configurable"),
    pytest.param(port("p", 3, "io_ctrl", properties="ioport readonly"),
                 [port_group(3, "", "readonly:"), input_group(3, "readonly:", "readonly:"),
                  output_group(3, "readonly:")], id="read-only"),
    pytest.param(port("p", 3, "io_ctrl", properties="ioport readonly_Usage"),
                 [port_group(3, "", "readonly:"), input_group(3), output_group(3)],
                 id="read-only usage"),
    pytest.param(port("p", 3, "io_ctrl", properties="ioport readonly_Name"),
                 [port_group(3, ""), input_group(3, "readonly:"), output_group(3, "readonly:")],
                 id="read-only name"),
    pytest.param(port("p", 3, "io_ctrl", properties="ioport readonly_Trig readonly_Active"),
                 [port_group(3, ""), input_group(3, "", "readonly:"), output_group(3)],
                 id="read-only senses"),
]  # fmt: skip


@pytest.mark.parametrize("ports, groups", CASES)
def test_the_mapping_of_one_port(device, ports, groups):
    device.describe(ports)
    device.start()
    assert mapping(device) == fixed_groups() + groups
    assert registry(device) == ({"name": IOPORT}, [expected_object(3)])


def test_groups_come_in_three_passes_over_the_ports_newest_first(device):
    device.describe(port("a", 0, "input") + port("b", 1, "output") + port("c", 2, "io_ctrl"))
    device.start()
    assert [name for name, _ in mapping(device)[3:]] == [
        "root.IOPort.I2", "root.IOPort.I1", "root.IOPort.I0",
        "root.IOPort.I2.Input", "root.IOPort.I0.Input",
        "root.IOPort.I2.Output", "root.IOPort.I1.Output",
    ]  # fmt: skip
    assert [name for name, _ in registry(device)[1]] == [f"{BASE}/{n}" for n in (2, 1, 0)]


def test_a_device_without_io_ports_shows_the_port_0_object_and_the_counts(device):
    device.describe(port("v", 1, "output", properties="virtual") + port("s", 2, properties=""))
    device.start()
    assert registry(device) == ({"name": IOPORT}, [expected_object(0)])
    assert mapping(device) == fixed_groups()


@pytest.mark.parametrize("file", [REGISTRY, MAPPING])
def test_the_layout_is_one_element_a_line_indented_by_two(device, file):
    device.describe(port("p", 0, "io_ctrl"))
    device.start()
    lines = device.read(file).splitlines()
    assert lines[0] == '<?xml version="1.0" encoding="UTF-8"?>'
    level = 0
    for line in lines[1:]:
        text = line.strip()
        level -= text.startswith("</")
        assert line == "  " * level + text and text.count("<") == 1
        level += not text.startswith("</") and not text.endswith("/>")
    assert level == 0


def test_the_files_follow_drops_and_refreshes_after_the_drop_of_privileges(device):
    device.describe(port("a", 0) + port("extra", 1, optional="true"))
    device.start()
    device.state.DropIOPorts(["extra"])
    assert [name for name, _ in registry(device)[1]] == [f"{BASE}/0"]
    assert "root.IOPort.I1" not in device.read(MAPPING)
    device.state.RefreshIOPorts()
    assert [name for name, _ in registry(device)[1]] == [f"{BASE}/1", f"{BASE}/0"]
    assert not device.exists(TEMPORARY)


@pytest.mark.parametrize(
    "closed, message",
    [
        ("/etc/wexd.d", "Couldn't write to service registry"),
        ("/etc/wexd.d", "Couldn't write to legacy mappings"),
        ("/etc/service_registry/services.d", "Couldn't move service registry file correctly"),
        ("/etc/legacyconfig/legacymappings.d", "Couldn't move service registry file correctly"),
    ],
)
def test_a_folder_that_refuses_is_named_and_keeps_its_file(device, closed, message):
    device.describe(port("a", 0) + port("extra", 1, optional="true"))
    device.start()
    before = device.read(REGISTRY), device.read(MAPPING)
    folder = device.path(closed)
    if os.getuid() == 0:
        os.chown(folder, 0, 0)
    folder.chmod(0o555)
    device.on_exit(lambda: folder.chmod(0o755))
    device.state.DropIOPorts(["extra"])
    device.wait_for_log(f"WARNING: {message}")
    device.wait_for_log(closed)
    device.wait_for_log("must be writable by the daemon's user")
    expected = 2 if closed == "/etc/wexd.d" else 1
    assert device.log_count("^WARNING: ") == expected, "one warning for each file"
    after = device.read(REGISTRY), device.read(MAPPING)
    assert (after[0] == before[0]) == (closed != "/etc/legacyconfig/legacymappings.d")
    assert (after[1] == before[1]) == (closed != "/etc/service_registry/services.d")


def killed_at_rename(count):
    """A command that runs the daemon and kills it as it begins its count-th rename of the text."""
    return (
        "strace", "-f", "-qq", "-o", "/dev/null", "-P", TEMPORARY,
        "-e", "trace=rename", "-e", f"inject=rename:signal=SIGKILL:when={count}",
    )  # fmt: skip


@pytest.mark.uninstrumented
@pytest.mark.parametrize("file", [REGISTRY, MAPPING])
def test_a_crash_between_write_and_rename_leaves_the_old_file(make_device, file):
    # The start renames both files once.
    device = make_device(wrapper=killed_at_rename(3 if file == REGISTRY else 4), patience=3)
    device.describe(port("a", 0) + port("extra", 1, optional="true"))
    device.start()
    before = device.read(REGISTRY), device.read(MAPPING)
    device.state.begin("DropIOPorts", ["extra"])
    device.wait_exit(128 + signal.SIGKILL)
    # The new text of the one is there in whole, and both files are as they were, but for the
    # registry that was complete before the mapping's turn.
    new = device.read(TEMPORARY)
    assert "IOPort/0" in new and "IOPort/1" not in new
    assert ElementTree.fromstring(new).tag == ("service" if file == REGISTRY else "mapping")
    assert device.read(MAPPING) == before[1]
    assert (device.read(REGISTRY) == before[0]) == (file == REGISTRY)
    assert len(registry(device)[1]) == (2 if file == REGISTRY else 1)
    assert len(mapping(device)) == len(fixed_groups()) + 4


def beside(file):
    folder, name = file.rsplit("/", 1)
    return f"{folder}/.{name}.new"


def on_mounts_of_their_own(*more):
    """A command that runs the daemon where nothing is moved from one of its folders to another."""
    return (
        "strace", "-D", "-f", "-qq", "-o", "/dev/null", "-P", TEMPORARY,
        "-e", "trace=rename", "-e", "inject=rename:error=EXDEV", *more,
    )  # fmt: skip


@pytest.mark.uninstrumented
def test_folders_that_are_mounts_of_their_own_get_their_files(make_device):
    device = make_device(wrapper=on_mounts_of_their_own(), patience=3)
    device.describe(port("a", 0) + port("extra", 1, optional="true"))
    device.start()
    assert (len(registry(device)[1]), len(mapping(device))) == (2, len(fixed_groups()) + 4)
    device.write(beside(MAPPING), "half a te")
    device.state.DropIOPorts(["extra"])
    device.sync()
    assert (len(registry(device)[1]), len(mapping(device))) == (1, len(fixed_groups()) + 2)
    assert device.log_count("^WARNING: ") == 0
    for file in (REGISTRY, MAPPING):
        assert [found.name for found in device.path(file).parent.iterdir()] == [
            file.rsplit("/", 1)[1]
        ]
    assert not device.path(TEMPORARY).exists()


@pytest.mark.uninstrumented
@pytest.mark.parametrize("file", [REGISTRY, MAPPING])
def test_a_folder_on_a_mount_of_its_own_that_refuses_keeps_its_file(make_device, file):
    device = make_device(wrapper=on_mounts_of_their_own(), patience=3)
    device.describe(port("a", 0) + port("extra", 1, optional="true"))
    device.start()
    before = device.read(file)
    folder = device.path(file).parent
    if os.getuid() == 0:
        os.chown(folder, 0, 0)
    folder.chmod(0o555)
    device.on_exit(lambda: folder.chmod(0o755))
    device.state.DropIOPorts(["extra"])
    device.wait_for_log("WARNING: Couldn't move service registry file correctly")
    device.wait_for_log("must be writable by the daemon's user")
    assert device.log_count("^WARNING: ") == 1
    assert device.read(file) == before


@pytest.mark.uninstrumented
@pytest.mark.parametrize("file", [REGISTRY, MAPPING])
def test_what_is_no_file_on_a_mount_of_its_own_stays(make_device, file):
    device = make_device(wrapper=on_mounts_of_their_own(), patience=3)
    device.describe(port("a", 0))
    device.path(file).mkdir(parents=True)
    device.start()
    assert device.log_count("^WARNING: ") == 1
    assert device.log_count("^WARNING: Couldn't move service registry file correctly$") == 1
    device.sync()
    assert device.path(file).is_dir() and not device.exists(beside(file))


@pytest.mark.parametrize("file", [REGISTRY, MAPPING])
def test_what_a_save_left_beside_a_file_goes(device, file):
    device.describe(port("a", 0))
    device.write(beside(file), "half a te")
    device.start()
    assert not device.path(beside(file)).exists()


@pytest.mark.parametrize("file", [REGISTRY, MAPPING])
def test_what_a_crash_left_behind_is_no_port(device, file):
    """The temporary file is in a folder whose files are read as hardware descriptions."""
    device.describe(port("a", 0, "io_ctrl") + port("b", 1))
    device.start()
    written = device.read(REGISTRY), device.read(MAPPING)
    device.stop()
    device.write(TEMPORARY, device.read(file))
    device.start()
    assert [entry.name for entry in device.port_list()] == ["b", "a"]
    assert (device.read(REGISTRY), device.read(MAPPING)) == written
