"""The package on a clean Debian system: what it installs, who owns it, who may do what."""

import gzip
import json
import pathlib
import platform
import re
import subprocess
import xml.etree.ElementTree as ElementTree

import pytest
from conftest import TOP
from machine import run
from sim.bus import wait_until

READING = re.compile(r"^(Get|Is)")

SERVICES = {
    "com.norv.IOControl.State": ("com.norv.IOControl.State", "/com/norv/IOControl/State"),
    "com.norv.IOControl.Manager1": ("com.norv.IOControl.State", "/com/norv/IOControl/Manager"),
    "com.norv.IOSupervised.Supervised": (
        "com.norv.IOSupervised.Supervised", "/com/norv/IOSupervised/Supervised",
    ),
    "com.norv.WXD.Connector": ("com.norv.WXD.Connector", "/com/norv/WXD/Connector"),
}  # fmt: skip

# Dummy values of each argument type that occurs, as busctl writes them.
VALUES = {"u": ["0"], "i": ["0"], "b": ["false"], "s": ["x"], "as": ["1", "x"], "a(bi)": ["0"]}


def methods():
    """Every method of every interface that is installed: (interface, method, in-types)."""
    for file in sorted((TOP / "src/dbus").glob("*.xml")):
        for interface in ElementTree.parse(file).getroot().iter("interface"):
            for method in interface.iter("method"):
                types = [a.get("type") for a in method if a.get("direction") == "in"]
                yield pytest.param(
                    interface.get("name"), method.get("name"), types,
                    id=f"{interface.get('name').rsplit('.', 1)[1]}.{method.get('name')}",
                )  # fmt: skip


def denied(system, user, service, path, interface, method, types=(), values=()):
    command = ["busctl", "--system", "call", service, path, interface, method]
    if types:
        command += ["".join(types), *values]
    result = system.attempt(*command, user=user)
    return "Access denied" in result.stderr or "AccessDenied" in result.stderr or (
        "rejected" in result.stderr.lower()
    )


@pytest.mark.parametrize("interface, method, types", methods())
def test_everyone_reads_and_only_root_and_the_group_change(running, interface, method, types):
    service, path = SERVICES[interface]
    values = [word for kind in types for word in VALUES[kind]]
    call = (service, path, interface, method, types, values)
    assert not denied(running, None, *call)
    assert not denied(running, "member", *call)
    assert denied(running, "stranger", *call) == (not READING.match(method))


LEGACY = (
    "com.norv.Configuration.Legacy.IOControl1.IOPort",
    "/com/norv/Configuration/Legacy/IOControl/IOPort/0",
    "org.freedesktop.DBus.Properties",
)


@pytest.mark.parametrize("user, may_write", [(None, True), ("member", True), ("stranger", False)])
def test_legacy_properties_are_read_by_all_and_written_by_few(running, user, may_write):
    port = LEGACY[0]
    assert not denied(running, user, *LEGACY, "Get", ["s", "s"], [port, "Usage"])
    assert not denied(running, user, *LEGACY, "GetAll", ["s"], [port])
    refused = denied(running, user, *LEGACY, "Set", ["s", "s", "v"], [port, "Usage", "ay", "1", "0"])
    assert refused == (not may_write)


@pytest.mark.parametrize("user", ["member", "stranger"])
@pytest.mark.parametrize("service", sorted({LEGACY[0], *(name for name, _ in SERVICES.values())}))
def test_only_root_and_wxd_own_the_names(running, service, user):
    bus = ("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus")
    assert denied(running, user, *bus, "RequestName", ["s", "u"], [service, "0"])
    assert not denied(running, "wxd", *bus, "RequestName", ["s", "u"], [service, "0"])


@pytest.mark.parametrize("user", [None, "member", "stranger"])
@pytest.mark.parametrize("interface", sorted(SERVICES))
def test_everyone_introspects(running, interface, user):
    service, path = SERVICES[interface]
    assert not denied(
        running, user, service, path, "org.freedesktop.DBus.Introspectable", "Introspect"
    )


def journal(system):
    """What the daemon said since it was started last."""
    started = system.run("systemctl", "show", "--value", "--property=InvocationID", "wexd").strip()
    return system.run("journalctl", f"_SYSTEMD_INVOCATION_ID={started}", "--output=cat")


def test_a_stranger_gets_ports_with_nothing_but_the_readme(running, walk):
    for number, name in enumerate(("door", "relay", "aux")):
        assert re.search(rf"^\s*{number}\s+{name}\s", walk.stdout, re.MULTILINE), walk.stdout
    assert walk.stdout.endswith("b true\n")
    assert running.run("systemctl", "is-enabled", "wexd").strip() == "enabled"


def test_a_user_turns_the_example_s_door(running):
    for word, state in (("0", "off"), ("1", "on"), ("0", "off")):
        running.run("sh", "-c", f"echo {word} >/run/wexd-door")
        running.run("wexctl", "wait", "door", state, "--timeout", "30s")


def test_the_daemon_has_dropped_root(running):
    found = pathlib.Path(f"/proc/{running.main_process('wexd.service')}/status").read_text()
    assert "Name:\twexd\n" in found
    uid, gid = (running.run("id", flag, "wxd").strip() for flag in ("-u", "-g"))
    assert re.search(rf"^Uid:\s+{uid}\s+{uid}\s+{uid}\s+{uid}$", found, re.MULTILINE)
    assert re.search(rf"^Gid:\s+{gid}\s+{gid}\s+{gid}\s+{gid}$", found, re.MULTILINE)
    assert re.search(rf"^Groups:\s+{gid}\s*$", found, re.MULTILINE)
    for capabilities in ("CapInh", "CapPrm", "CapEff", "CapAmb"):
        assert re.search(rf"^{capabilities}:\s+0+$", found, re.MULTILINE), capabilities


def test_the_sandbox_of_the_unit_is_around_it(running):
    """Where the manager had to leave a directive out, the drop was not checked inside it."""
    found = pathlib.Path(f"/proc/{running.main_process('wexd.service')}/status").read_text()
    assert "NoNewPrivs:\t1\n" in found
    assert "Seccomp:\t2\n" in found
    asked = {"setuid": 7, "setgid": 6, "chown": 0, "dac_override": 1, "fowner": 3}
    bounding = int(re.search(r"^CapBnd:\s+(\w+)$", found, re.MULTILINE)[1], 16)
    assert bounding == sum(1 << bit for bit in asked.values())
    mounts = pathlib.Path(f"/proc/{running.main_process('wexd.service')}/mounts").read_text()
    modes = {line.split()[1]: line.split()[3].split(",")[0] for line in mounts.splitlines()}
    assert modes["/"] == modes["/sys"] == "ro"
    written = {place for place, mode in modes.items() if place.startswith("/etc") and mode == "rw"}
    assert written == {
        "/etc/wexd", "/etc/wexd.d", "/etc/service_registry/services.d",
        "/etc/legacyconfig/legacymappings.d",
    }  # fmt: skip
    assert "hidepid=invisible" in mounts


def test_saves_drops_and_refreshes_work_after_the_drop(running):
    def wexctl(*arguments):
        return running.run("wexctl", *arguments, user="member")

    running.run("systemctl", "restart", "wexd")
    wait_until(
        lambda: running.attempt("wexctl", "list").returncode == 0, "the daemon", deadline=60
    )
    wexctl("usage", "relay", "kept")
    settings = running.path("/etc/wexd/wexd.conf")
    wait_until(lambda: "usage=kept" in settings.read_text(), "the save, which follows the answer")
    registry = running.path("/etc/service_registry/services.d/wexd_service_registry.conf")
    before = registry.stat().st_ctime_ns
    assert wexctl("drop", "relay") == "relay\n"
    wexctl("refresh")
    assert "relay" in wexctl("list")
    assert registry.stat().st_ctime_ns != before
    assert "WARNING" not in journal(running), journal(running)


IMPORT = "/tmp/wexd_ioport.conf"


def restart_with_import(system, usage, *, user=None, link=False):
    """Puts settings to import in place as that user, then starts the daemon anew."""
    text = f"[IOPort.I1.Output]\\nName={usage}\\n"
    target = "/tmp/elsewhere" if link else IMPORT
    system.run("sh", "-c", f"umask 022; rm -f {IMPORT} {target}; printf '{text}' >{target}", user=user)
    if link:
        system.run("ln", "-s", target, IMPORT, user=user)
    system.run("systemctl", "reset-failed", "wexd")  # none of these starts has failed
    system.run("systemctl", "restart", "wexd")
    return system.run("wexctl", "list")


def test_settings_of_root_are_imported_once(running):
    assert "Imported" in restart_with_import(running, "Imported")
    assert running.attempt("test", "-e", IMPORT).returncode != 0
    assert "WARNING" not in journal(running), journal(running)
    running.run("wexctl", "name", "relay", "Relay")
    running.run("systemctl", "restart", "wexd")
    assert "Imported" not in running.run("wexctl", "list")


@pytest.mark.parametrize(
    "user, link, reason",
    [
        ("stranger", False, "belongs to another user"),
        ("wxd", False, "belongs to another user"),
        ("stranger", True, "is a symbolic link, which is not followed"),
        (None, True, "is a symbolic link, which is not followed"),
    ],
)
def test_settings_that_anyone_could_have_placed_are_not_imported(running, user, link, reason):
    assert "Planted" not in restart_with_import(running, "Planted", user=user, link=link)
    wait_until(
        lambda: f"Not importing settings: '{IMPORT}' {reason}" in journal(running), "the warning"
    )
    assert running.attempt("test", "-L" if link else "-f", IMPORT).returncode == 0
    running.run("rm", "-f", IMPORT, "/tmp/elsewhere")


def test_it_comes_back_after_a_crash_and_stops_when_told(running):
    before = running.run("systemctl", "show", "--value", "--property=MainPID", "wexd")
    running.run("systemctl", "kill", "--signal=SEGV", "wexd")
    wait_until(
        lambda: running.attempt("wexctl", "list").returncode == 0
        and running.run("systemctl", "show", "--value", "--property=MainPID", "wexd") != before,
        "the restarted daemon", deadline=60,
    )  # fmt: skip
    assert "kept" in running.run("wexctl", "list")
    running.run("systemctl", "stop", "wexd")
    shown = running.run("systemctl", "show", "--property=Result,ExecMainStatus,ActiveState", "wexd")
    assert set(shown.split()) == {"Result=success", "ExecMainStatus=0", "ActiveState=inactive"}
    running.run("systemctl", "start", "wexd")


def test_a_drop_in_that_ends_the_daemon_is_named_with_its_line(running):
    """A port of files must be an input, on which the daemon insists."""
    wrong = running.path("/etc/wexd.d/wrong.xml")
    wrong.write_text(
        '<config>\n<port name="wrong"><port_no nbr="77"/><port_type type="output"/>\n'
        '<backend name="sysfs"><device path="/x" timeout="10"/></backend></port>\n</config>\n'
    )
    before = process(running)
    running.attempt("systemctl", "restart", "wexd")
    said = running.run("journalctl", "--unit=wexd", "--output=cat", "--priority=warning")
    assert re.search(r"^/etc/wexd.d/wrong.xml:2: error: .*wrong", said, re.MULTILINE), said
    wrong.unlink()
    wait_for_another(running, before)


PRIORITIES = {
    "ERROR": "2", "CRITICAL": "3", "WARNING": "4", "MESSAGE": "5", "USER": "5", "INFO": "6",
    # What an assertion says around its own line.
    "**": "4", "Bail out! ERROR": "2",
}  # fmt: skip


def test_the_journal_gives_each_line_the_priority_of_its_level(running):
    running.run("systemctl", "restart", "wexd")
    said = running.run("journalctl", "--unit=wexd", "_COMM=wexd", "--output=json").splitlines()
    lines = [json.loads(line) for line in said]
    levels = {line["MESSAGE"].split(":")[0]: line["PRIORITY"] for line in lines}
    assert {"MESSAGE", "INFO"} <= levels.keys() <= PRIORITIES.keys(), levels
    for line in lines:
        assert line["PRIORITY"] == PRIORITIES[line["MESSAGE"].split(":")[0]], line


def process(system):
    """The daemon's process as systemd numbers it; "0" without one."""
    return system.run("systemctl", "show", "--value", "--property=MainPID", "wexd").strip()


def wait_for_another(system, before):
    """Waits until another daemon than that process answers, and returns its process."""
    wait_until(
        lambda: process(system) not in ("0", before)
        and system.attempt("wexctl", "list").returncode == 0,
        "another daemon", deadline=60,
    )  # fmt: skip
    return process(system)


def test_a_restart_of_the_bus_is_survived(running):
    before = process(running)
    ended = running.run("systemctl", "show", "--value", "--property=InvocationID", "wexd").strip()
    running.run("systemctl", "restart", "dbus")
    wait_for_another(running, before)
    said = running.run("journalctl", f"_SYSTEMD_INVOCATION_ID={ended}", "--output=cat")
    assert "Lost the connection to the bus: " in said
    seen = running.run("journalctl", f"INVOCATION_ID={ended}", "--output=cat")
    assert "wexd.service: Main process exited, code=exited, status=1/FAILURE" in seen


def test_no_service_that_hangs_can_use_up_the_time_of_the_start(running):
    limit = running.run("systemctl", "show", "--value", "--property=TimeoutStartUSec", "wexd")
    assert limit.strip() == "infinity"


def test_crashes_in_a_row_are_survived(running):
    last = process(running)
    for _ in range(5):
        running.run("systemctl", "kill", "--kill-whom=main", "--signal=SEGV", "wexd")
        # Without waiting for its names: a daemon that crashes at its start is started again, too.
        wait_until(lambda: process(running) not in ("0", last), "another process", deadline=60)
        last = process(running)
    wait_for_another(running, before="")


@pytest.mark.parametrize(
    "path, owner, mode",
    [
        ("/etc/wexd", "wxd:wxd", "751"),
        ("/etc/wexd.d", "root:wxd", "1775"),
        ("/etc/wexd/actions", "root:root", "755"),
        ("/etc/service_registry/services.d", "root:wxd", "1775"),
        ("/etc/legacyconfig/legacymappings.d", "root:wxd", "1775"),
        ("/usr/sbin/wexd", "root:root", "755"),
    ],
)
def test_folders_have_the_owners_that_the_daemon_needs(running, path, owner, mode):
    assert running.run("stat", "--format=%U:%G %a", path) == f"{owner} {mode}\n"


def test_a_stranger_cannot_lock_the_settings_but_reads_the_templates(running):
    assert running.attempt("flock", "--nonblock", "/etc/wexd", "true", user="stranger").returncode
    template = "/etc/wexd/actions/com.norv.action.fixed.io.toggle.xml"
    assert "<" in running.run("cat", template, user="stranger")


def test_a_second_daemon_says_so_and_ends(running):
    second = running.attempt("/usr/sbin/wexd")
    assert second.returncode == 1
    assert "wexd is already running" in second.stdout
    assert second.stdout.count("\n") == 1 and second.stderr == ""
    running.run("wexctl", "list")


SHARED = (
    "/etc/service_registry/services.d", "/etc/legacyconfig/legacymappings.d", "/etc/wexd.d",
)  # fmt: skip


@pytest.mark.parametrize("folder", SHARED)
def test_the_daemon_s_user_replaces_no_file_of_others(running, folder):
    other = running.path(folder) / "other.conf"
    other.write_text("kept")
    running.run("sh", "-c", f"echo mine > {folder}/mine", user="wxd")
    for command in (("rm", "-f", f"{folder}/other.conf"),
                    ("mv", "-f", f"{folder}/mine", f"{folder}/other.conf"),
                    ("mv", "-f", f"{folder}/other.conf", f"{folder}/gone")):  # fmt: skip
        assert running.attempt(*command, user="wxd").returncode != 0, command
    assert other.read_text() == "kept"
    running.run("rm", f"{folder}/mine", str(other).removeprefix(str(running.root)))


def test_the_daemon_s_user_moves_no_template(running):
    """Whoever has the daemon has its view of the file system; who is its user otherwise has not."""
    process = str(running.main_process("wexd.service"))
    inside = ["nsenter", "--mount", "--root", "--wd=/", "--target", process]
    become = ["setpriv", "--reuid", running.run("id", "-u", "wxd").strip(), "--clear-groups"]
    for move in (
        lambda: running.attempt("mv", "/etc/wexd/actions", "/etc/wexd/moved", user="wxd"),
        lambda: subprocess.run(
            [*inside, *become, "mv", "/etc/wexd/actions", "/etc/wexd/moved"],
            capture_output=True, text=True, check=False,
        ),
    ):  # fmt: skip
        moved = move()
        assert moved.returncode != 0
        assert "Device or resource busy" in moved.stderr
    assert running.run("ls", "/etc/wexd/actions", user="stranger") == (
        "com.norv.action.fixed.io.toggle.xml\ncom.norv.action.unlimited.io.toggle.xml\n"
    )


def test_the_unit_lets_the_daemon_at_its_hardware_and_at_no_other(running):
    """The kernel's names of what pins, and converters, are opened on."""
    allowed = running.run("systemctl", "show", "--property=DevicePolicy,DeviceAllow", "wexd.service")
    devices = ("char-gpiochip", "char-spi", "char-iio")
    assert sorted(allowed.split("\n")) == sorted(
        # The protection of the clock brings its own, to be read.
        ["", "DevicePolicy=closed", "DeviceAllow=char-rtc r", *(f"DeviceAllow={device} rw" for device in devices)]
    )


def test_the_package_brings_what_it_promises(running):
    files = running.run("dpkg", "-L", "wexd").split()
    for name in (
        "/usr/sbin/wexd", "/usr/bin/wexctl", "/usr/lib/systemd/system/wexd.service",
        "/usr/lib/systemd/system/etc-wexd-actions.mount",
        "/usr/lib/udev/rules.d/60-wexd.rules", "/usr/lib/sysusers.d/wexd.conf", "/usr/lib/tmpfiles.d/wexd.conf",
        "/usr/share/dbus-1/system.d/com.norv.wexd.conf", "/usr/share/wexd/wexd-hardware.rng",
        "/usr/share/wexd/wexctl.schema.json", "/usr/share/dbus-1/interfaces/com.norv.IOControl.Manager1.xml",
        "/usr/share/fish/vendor_completions.d/wexctl.fish",
        "/usr/share/doc/wexd/examples/conf.xml", "/usr/share/doc/wexd/examples/any-machine.xml",
        "/etc/wexd/actions/com.norv.action.fixed.io.toggle.xml",
        "/etc/wexd/actions/com.norv.action.unlimited.io.toggle.xml",
        "/usr/share/man/man8/wexd.8.gz", "/usr/share/man/man5/wexd.conf.5.gz",
        "/usr/share/man/man5/wexd-hardware.5.gz", "/usr/share/man/man1/wexctl.1.gz",
        "/usr/share/doc/wexd/operating.md.gz", "/usr/share/doc/wexd/copyright",
        "/usr/share/doc/wexd/NEWS.gz", "/usr/share/doc/wexd/changelog.gz",
    ):  # fmt: skip
        assert name in files, name


@pytest.fixture(scope="module")
def shipped(pytestconfig, tmp_path_factory):
    """The package's files."""
    folder = tmp_path_factory.mktemp("shipped")
    run("dpkg-deb", "--extract", pytestconfig.getoption("--package"), str(folder))
    return folder


BINARIES = pytest.mark.parametrize("binary", ["usr/sbin/wexd", "usr/bin/wexctl"])
# What each processor has of its own against a wrong jump, where it is tested.
OWN_MEANS = [platform.machine()] if platform.machine() == "x86_64" else []


@BINARIES
def test_a_binary_looks_its_functions_up_at_the_start_and_seals_the_table(shipped, binary):
    dynamic = run("readelf", "--dynamic", "--wide", str(shipped / binary))
    assert re.search(r"\(FLAGS\).*\bBIND_NOW\b", dynamic)
    assert re.search(r"\(FLAGS_1\).*\bNOW\b.*\bPIE\b", dynamic)
    segments = run("readelf", "--program-headers", "--wide", str(shipped / binary))
    assert re.search(r"^\s*GNU_RELRO\s", segments, re.MULTILINE)
    assert re.search(r"^\s*GNU_STACK\s.*\sRW\s", segments, re.MULTILINE)


@BINARIES
def test_a_binary_watches_its_stack_and_its_buffers(shipped, binary):
    symbols = run("readelf", "--dyn-syms", "--wide", str(shipped / binary))
    assert "__stack_chk_fail@" in symbols
    assert re.search(r"\s__(?!stack)\w+_chk@", symbols)


@pytest.mark.parametrize("processor", OWN_MEANS)
@BINARIES
def test_a_binary_keeps_its_jumps_and_returns_in_order(shipped, binary, processor):
    """The mark for indirect jumps is missing from the C library's start files, and so from ours."""
    notes = run("readelf", "--notes", "--wide", str(shipped / binary))
    assert re.search(r"x86 feature: .*\bSHSTK\b", notes)
    code = run("objdump", "--disassemble", "--no-show-raw-insn", str(shipped / binary))
    assert code.count("endbr64") > 1000
    # A frame of more than a page is touched page by page.
    assert re.search(r"\sorq\s+\$0x0,\S*\(%rsp", code)


def test_the_debug_symbols_belong_to_the_binaries(pytestconfig, shipped, tmp_path):
    package = pathlib.Path(pytestconfig.getoption("--package"))
    symbols = package.with_name(package.name.replace("wexd_", "wexd-dbgsym_"))
    run("dpkg-deb", "--extract", str(symbols), str(tmp_path))
    for binary in ("usr/sbin/wexd", "usr/bin/wexctl"):
        notes = run("readelf", "--notes", "--wide", str(shipped / binary))
        build = re.search(r"Build ID: (\w+)", notes)[1]
        found = tmp_path / f"usr/lib/debug/.build-id/{build[:2]}/{build[2:]}.debug"
        assert ".debug_info" in run("readelf", "--sections", "--wide", str(found)), binary


def library_packages(package):
    """Those that dpkg's own tool found the programs to link."""
    depends = run("dpkg-deb", "--field", str(package), "Depends")
    return set(re.findall(r"\b(lib[^ ,]*)", depends))


def test_the_bill_of_materials_is_what_the_programs_are_made_of(pytestconfig, shipped):
    bill = json.loads((shipped / "usr/share/doc/wexd/sbom.spdx.json").read_text())
    parts = {part["SPDXID"]: part for part in bill["packages"]}
    assert len(parts) == len(bill["packages"])
    kinds = {}
    for relation in bill["relationships"]:
        kinds.setdefault(relation["relationshipType"], set()).add(
            parts[relation["relatedSpdxElement"]]["name"]
        )
    assert kinds == {
        "DESCRIBES": {"wexd"},
        "DYNAMIC_LINK": library_packages(pytestconfig.getoption("--package")),
        "STATIC_LINK": {"libcli11-dev", "nlohmann-json3-dev"},
    }
    for part in parts.values():
        if part["name"] != "wexd":
            installed = run("dpkg-query", "--show", "--showformat=${Version}\n", part["name"])
            assert part["versionInfo"] in installed.split()
            (reference,) = part["externalRefs"]
            assert reference["referenceLocator"].startswith(f"pkg:deb/debian/{part['name']}@")


def test_lintian_finds_nothing(pytestconfig):
    """Neither errors nor warnings; debian/wexd.lintian-overrides gives its reasons."""
    (changes,) = pathlib.Path(pytestconfig.getoption("--package")).parent.glob("*.changes")
    checked = subprocess.run(
        ["lintian", "--allow-root", "--fail-on", "error,warning", str(changes)],
        capture_output=True, text=True, check=False,
    )  # fmt: skip
    assert checked.returncode == 0, checked.stdout + checked.stderr


def test_cpack_makes_the_same_for_those_without_debians_tools(pytestconfig, tmp_path):
    subprocess.run(
        ["cpack", "-B", tmp_path], cwd=TOP / "build/release", capture_output=True, check=True
    )
    (made,) = tmp_path.glob("wexd_*.deb")

    def control(package, name):
        text = run("dpkg-deb", "--info", str(package), name).replace("#DEBHELPER#", "")
        return [line for line in text.splitlines() if line and not line.startswith("# ")]

    def files(package):
        listed = run("dpkg-deb", "--contents", str(package)).splitlines()
        shown = {line.split()[5].removesuffix(".gz"): line.split()[0] for line in listed}
        return {file: mode for file, mode in shown.items() if not file.endswith("/")}

    package = pytestconfig.getoption("--package")
    for name in ("postinst", "prerm", "postrm", "conffiles"):
        assert control(made, name) == control(package, name)
    # And what lintian is to overlook.
    debian_only = {"changelog", "copyright", "wexd", "sbom.spdx.json"}
    rest = files(package)
    for file in set(rest) - set(files(made)):
        assert pathlib.PurePath(file).name in debian_only, file
        del rest[file]
    assert files(made) == rest


def test_the_man_page_of_the_description_names_every_word_of_the_schema(shipped):
    page = gzip.decompress((shipped / "usr/share/man/man5/wexd-hardware.5.gz").read_bytes()).decode()
    text = page.replace("\\-", "-").replace("\\", "")
    schema = ElementTree.parse(TOP / "data/wexd-hardware.rng")
    rng = "{http://relaxng.org/ns/structure/1.0}"
    note = "{http://relaxng.org/ns/compatibility/annotations/1.0}"
    for kind in ("element", "attribute"):
        for node in schema.iter(rng + kind):
            name = node.get("name")
            if name not in (None, "config"):
                assert name in text, name
                assert node.find(f"{note}documentation") is not None, f"{name} is not documented"


def test_an_upgrade_keeps_the_settings_and_starts_the_new_daemon(running):
    running.run("wexctl", "usage", "relay", "upgraded")
    before = running.run("systemctl", "show", "--value", "--property=InvocationID", "wexd")
    running.run("sh", "-c", "dpkg -i /root/walk/wexd_*.deb")
    assert running.run("systemctl", "show", "--value", "--property=InvocationID", "wexd") != before
    wait_until(
        lambda: "upgraded" in running.attempt("wexctl", "list").stdout, "the settings", deadline=60
    )


def enabled(system):
    return system.attempt("systemctl", "is-enabled", "wexd").stdout.strip()


def active(system):
    return system.attempt("systemctl", "is-active", "wexd").stdout.strip()


def upgrade(system):
    system.run("sh", "-c", "dpkg -i /root/walk/wexd_*.deb")
    assert system.run("dpkg-query", "--show", "--showformat=${db:Status-Abbrev}", "wexd") == "ii "


@pytest.fixture
def undisturbed(running):
    """The system, whose daemon is enabled and runs again after the test."""
    yield running
    running.run("systemctl", "unmask", "wexd")
    running.run("systemctl", "enable", "wexd")
    running.run("systemctl", "restart", "wexd")
    wait_for_another(running, before="")


@pytest.mark.parametrize("recorded", [True, False], ids=["recorded", "of an older release"])
def test_a_disabled_daemon_stays_so_on_an_upgrade(undisturbed, recorded):
    undisturbed.run("systemctl", "disable", "--now", "wexd")
    if not recorded:
        undisturbed.run("sh", "-c", "rm -r /var/lib/systemd/deb-systemd-helper-enabled/*wexd*")
    upgrade(undisturbed)
    assert (enabled(undisturbed), active(undisturbed)) == ("disabled", "inactive")


def test_a_masked_daemon_stays_so_on_an_upgrade(undisturbed):
    undisturbed.run("systemctl", "mask", "--now", "wexd")
    upgrade(undisturbed)
    assert (enabled(undisturbed), active(undisturbed)) == ("masked", "inactive")


def test_an_enabled_daemon_of_an_older_release_stays_so(undisturbed):
    undisturbed.run("sh", "-c", "rm -r /var/lib/systemd/deb-systemd-helper-enabled/*wexd*")
    upgrade(undisturbed)
    assert (enabled(undisturbed), active(undisturbed)) == ("enabled", "active")


def test_a_daemon_that_does_not_start_does_not_fail_the_upgrade(undisturbed):
    settings = undisturbed.path("/etc/wexd/wexd.conf")
    kept = settings.read_text()
    undisturbed.run("systemctl", "stop", "wexd")
    settings.write_text("not a key file\n")
    try:
        upgrade(undisturbed)
        assert active(undisturbed) != "active"
    finally:
        settings.write_text(kept)


def test_a_purge_leaves_nothing_but_the_description(running):
    """The last test: the system is without the package afterwards."""
    running.run("dpkg", "--purge", "wexd")
    assert active(running) == "inactive"
    assert enabled(running) in ("", "not-found")
    assert not list(running.path("/etc/systemd/system").rglob("*wexd*"))
    assert not list(running.path("/var/lib/systemd").rglob("*wexd*"))
    for folder in ("/etc/wexd", "/etc/wexd.d", "/usr/share/wexd", "/etc/service_registry",
                   "/etc/legacyconfig"):  # fmt: skip
        left = [path for path in running.path(folder).rglob("*") if not path.is_dir()]
        assert left in ([], [running.path("/usr/share/wexd/conf.xml")]), left
