"""What every test on the bench starts from: chips as after boot, and a device to start."""

import contextlib
import pathlib

import pytest

import chips
from guest_device import GuestDevice, start_bus

BINARY = pathlib.Path("/bench/wexd")
# What a test may be about, and whether this kernel has it.
MARKERS = {
    "pins": ("works with pins", True),
    "sysfs": ("looks at the kernel's GPIO files in sysfs", chips.BY_SYSFS),
    "chardev": ("looks at pins where the kernel has no such files", not chips.BY_SYSFS),
}


def pytest_addoption(parser):
    parser.addoption(
        "--saves", type=int, default=6, help="how many changes of settings the power is cut in"
    )


def pytest_configure(config):
    for name, (meaning, _) in MARKERS.items():
        config.addinivalue_line("markers", f"{name}: {meaning}")


def pytest_collection_modifyitems(config, items):
    """Leaves out what this kernel does not have; the other one is there for it."""
    absent = {name for name, (_, here) in MARKERS.items() if not here}
    left_out = [item for item in items if any(map(item.get_closest_marker, absent))]
    config.hook.pytest_deselected(items=left_out)
    items[:] = [item for item in items if item not in left_out]


@pytest.fixture(autouse=True)
def fresh_chips():
    for chip in chips.CHIPS:
        chip.reset()
    for converter in chips.SPI_CONVERTERS:
        converter.reset()
    for adc in chips.ADCS:
        adc.reset()
    chips.remove_triggers()


@pytest.fixture(scope="session")
def message_bus():
    with contextlib.closing(start_bus()) as message_bus:
        yield message_bus


@pytest.fixture
def make_device(fresh_chips, message_bus):
    """Makes the device with options of its own; it is checked and stopped after the test."""
    with contextlib.ExitStack() as stack:
        yield lambda **options: stack.enter_context(
            GuestDevice(BINARY, message_bus, **options)
        )


@pytest.fixture
def device(make_device):
    """A device whose daemon changes to its own user."""
    return make_device()


@pytest.fixture
def root_device(make_device):
    """A device whose daemon stays root."""
    return make_device(user=False)
