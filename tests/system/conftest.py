"""Fixtures of the system tests: each test drives the real binary on a device of its own."""

import collections
import contextlib
import os
import pathlib
import shutil
import subprocess

import pytest
from client import Client

from sim import sandbox
from sim.device import Device

TOP = pathlib.Path(__file__).resolve().parents[2]

# Who runs the daemon where a test wants an ordinary user: any id that is not root's.
ORDINARY_UID = 65534

# How many tests were left out for which reason.
NOT_APPLICABLE = collections.Counter()


def pytest_addoption(parser):
    parser.addoption(
        "--binary",
        default=os.environ.get("WEXD_BINARY", str(TOP / "build/release/wexd")),
        help="the daemon under test",
    )
    parser.addoption("--preload", help="a library that the daemon is to have loaded before all others")


def pytest_configure(config):
    able, reason = sandbox.usable()
    if not able:
        pytest.exit(f"no sandbox on this host: {reason}", returncode=2)
    binary = pathlib.Path(config.getoption("--binary"))
    if not binary.exists():
        pytest.exit(f"no daemon to test: {binary}", returncode=2)


def pytest_deselected(items):
    """What cannot hold with the thread sanitizer is told with the reason, and not just left out."""
    if "not without_tsan" in items[0].config.option.markexpr:
        marks = filter(None, (item.get_closest_marker("without_tsan") for item in items))
        NOT_APPLICABLE.update(mark.args[0] for mark in marks)


def pytest_terminal_summary(terminalreporter):
    for why, count in NOT_APPLICABLE.most_common():
        terminalreporter.write_line(f"{count} not applicable: {why}")


@pytest.fixture(scope="session")
def binary(pytestconfig):
    return pathlib.Path(pytestconfig.getoption("--binary")).resolve()


@pytest.fixture(scope="session")
def preloadable(tmp_path_factory):
    """Builds a library of those beside the tests, for a daemon to load before all others."""

    def build(source, *packages):
        built = tmp_path_factory.mktemp("preloadable") / pathlib.PurePath(source).with_suffix(".so")
        needed = ["pkg-config", "--cflags", "--libs", *packages]
        flags = subprocess.run(needed, check=True, capture_output=True, text=True).stdout.split() if packages else []
        subprocess.run(
            ["cc", "-shared", "-fPIC", "-Wall", "-Wextra", "-Werror",
             pathlib.Path(__file__).with_name(source), "-o", built, *flags, "-ldl"], check=True,
        )  # fmt: skip
        return built

    return build


@pytest.hookimpl(hookwrapper=True)
def pytest_runtest_makereport(item):
    outcome = yield
    if outcome.get_result().failed:
        item.has_failed = True


@pytest.fixture
def make_device(binary, request, pytestconfig):
    """Makes devices with options of their own; each is checked and removed after the test."""
    usual = {"binary": binary, "preload": pytestconfig.getoption("--preload")}
    with contextlib.ExitStack() as stack:
        devices = []

        def make(**options):
            devices.append(stack.enter_context(Device(**{**usual, **options})))
            return devices[-1]

        yield make
        for device in devices:
            # One failure is enough to tell; the end of a device amid a failed test proves nothing.
            device.abandoned |= getattr(request.node, "has_failed", False)


@pytest.fixture
def device(make_device):
    """A device whose daemon starts as whoever runs the tests."""
    return make_device()


@pytest.fixture
def ordinary_device(make_device, binary, tmp_path):
    """A device whose daemon starts as an ordinary user, wherever it was built."""
    if os.getuid() != 0:
        return make_device()
    closed = tmp_path / "closed"
    closed.mkdir(mode=0o700)
    return make_device(user=ORDINARY_UID, binary=pathlib.Path(shutil.copy2(binary, closed)))


@pytest.fixture
def wexctl(device, binary):
    """Runs the client: wexctl("set", "relay", "on")."""
    return Client(device, binary)
