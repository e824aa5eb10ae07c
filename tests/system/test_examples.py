"""The clients in examples/ on a device, built and called as their users do."""

import json
import os
import pathlib
import shutil
import subprocess

import pytest
from describe import port

TOP = pathlib.Path(__file__).resolve().parents[2]
EXAMPLES = TOP / "examples"

# They are clients of whatever daemon there is; one is enough.
pytestmark = pytest.mark.uninstrumented

WORDS = """\
0 door: off
1 lamp: off
port 1 is on
port 1 is off
the pulse is over
port 0 refused: com.norv.IOControl.Error.Not_output
"""


@pytest.fixture
def device(make_device):
    device = make_device()
    device.describe(port("door", 0, "input") + port("lamp", 1))
    device.start()
    return device


@pytest.fixture(scope="module")
def installed(binary, tmp_path_factory):
    """A tree in which wexd is installed, as a package is staged: another root than it will have."""
    root = tmp_path_factory.mktemp("root")
    subprocess.run(
        ["cmake", "--install", binary.parent, "--prefix", "/usr"],
        env={**os.environ, "DESTDIR": str(root)}, check=True, capture_output=True,
    )  # fmt: skip
    return root / "usr"


def run(device, binary, *command):
    return subprocess.run(
        [*command, "1", "0"], capture_output=True, text=True, timeout=60, check=False,
        env={"PATH": f"{binary.parent}:{os.environ['PATH']}",
             "DBUS_SYSTEM_BUS_ADDRESS": device.bus_address},
    )  # fmt: skip


def build(folder, into, **environment):
    shutil.copytree(EXAMPLES / folder, into / folder)
    made = subprocess.run(
        ["make", "-C", into / folder], env={**os.environ, **environment},
        capture_output=True, text=True, check=False,
    )  # fmt: skip
    assert made.returncode == 0, made.stdout + made.stderr
    assert "warning" not in made.stderr
    return into / folder / "ports"


def assert_said(done, words):
    """The ports are listed in whatever order they are answered in."""
    lines = done.stdout.splitlines()
    assert (done.returncode, done.stderr) == (0, "")
    assert sorted(lines[:2]) + lines[2:] == words.splitlines()


@pytest.mark.parametrize("script", ["python/ports.py", "node/ports-by-wexctl.js"])
def test_a_script(device, binary, script):
    assert_said(run(device, binary, EXAMPLES / script), WORDS)


def test_the_client_in_node(device, binary, tmp_path):
    folder = shutil.copytree(EXAMPLES / "node", tmp_path / "node", ignore=shutil.ignore_patterns("node_modules"))
    subprocess.run(["npm", "ci", "--prefer-offline"], cwd=folder, check=True, timeout=600)
    assert_said(run(device, binary, folder / "ports.js"), WORDS)


def test_what_npm_installs_is_fixed_wherever_it_comes_from():
    packages = json.loads((EXAMPLES / "node/package-lock.json").read_text())["packages"]
    assert all("integrity" in entry for name, entry in packages.items() if name)
    assert not any("resolved" in entry for entry in packages.values())


def test_the_client_in_c_is_made_of_the_installed_interface(device, binary, installed, tmp_path):
    program = build("c", tmp_path, PKG_CONFIG_PATH=str(installed / "share/pkgconfig"))
    assert_said(run(device, binary, program), WORDS)


def test_the_client_in_cpp(device, binary, tmp_path):
    assert_said(run(device, binary, build("cpp", tmp_path)), WORDS)


def test_the_shell_script(device, binary):
    done = run(device, binary, EXAMPLES / "shell/ports.sh")
    assert done.returncode == 0
    listed = "\n".join(line[:10].strip() for line in done.stdout.splitlines()[:3])
    assert listed == "No  Port\n0   door\n1   lamp"
    assert done.stdout.splitlines()[3:] == [
        "watching wexd",
        "port 1 lamp: on (output)",
        "port 1 lamp: off (output)",
        "port 1 lamp: sequence done",
        "port 0 refused: status 1",
        "b false",
        "port 0 refused again",
    ]
    assert done.stderr.splitlines() == [
        "wexctl: Port not output. (com.norv.IOControl.Error.Not_output)",
        "Call failed: Port not output.",
    ]


def test_pkg_config_tells_where_the_interfaces_are(installed):
    asked = subprocess.run(
        ["pkg-config", "--variable=interfaces_dir", "wexd"], capture_output=True, text=True, check=True,
        env={**os.environ, "PKG_CONFIG_PATH": str(installed / "share/pkgconfig")},
    )  # fmt: skip
    kept = {path.name for path in pathlib.Path(asked.stdout.strip()).iterdir()}
    assert kept == {path.name for path in (TOP / "src/dbus").glob("*.xml")}


def test_each_example_is_told_of():
    folders = {path.name for path in EXAMPLES.iterdir() if path.is_dir()}
    table = (EXAMPLES / "README.md").read_text()
    assert folders == {"python", "c", "cpp", "shell", "node"}
    assert all(f"`{folder}/`" in table for folder in folders)
