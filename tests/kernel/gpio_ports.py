"""Descriptions of ports on pins, for the tests."""

from chips import BY_SYSFS
from describe import element, port


def pin(tag, line, *, by="number", inverted=None):
    """A pin element: by "number" (by name where the kernel has no numbers), by "alias", or by
    "both", where the number leads nowhere."""
    if by == "number" and not BY_SYSFS:
        by = "alias"
    number = {"number": line.number, "alias": None, "both": 99999}[by]
    alias = line.alias if by in ("alias", "both") else None
    return element(tag, pin=number, alias=alias, inverted=inverted)


def gpio_input(name, number, line, *, by="number", inverted=None, **more):
    return port(
        name, number, "input", "gpio",
        backend_inside=pin("input", line, by=by, inverted=inverted), **more,
    )  # fmt: skip


def gpio_output(name, number, line, *, by="number", inverted=None, **more):
    return port(
        name, number, "output", "gpio",
        backend_inside=pin("output", line, by=by, inverted=inverted), **more,
    )  # fmt: skip


def gpio_configurable(name, number, lines, *, direction, inverted=None, **more):
    """lines are those of the input, of the output and of the driver switch."""
    tags = ("input", "output", "io_ctrl")
    inside = "".join(
        pin(tag, line, inverted=inverted if tag == "output" else None)
        for tag, line in zip(tags, lines)
    )
    return port(name, number, "io_ctrl", "gpio", backend_inside=inside, dir=direction, **more)
