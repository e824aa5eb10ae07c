"""Short ways to write hardware descriptions."""

from xml.sax.saxutils import quoteattr


def attributes(values):
    """name="value" pairs, in the order given."""
    return "".join(
        f" {name}={quoteattr(str(value))}"
        for name, value in values.items()
        if value is not None
    )


def element(tag, inside="", /, **values):
    """An element with attributes; those that are None are left out."""
    return f"<{tag}{attributes(values)}>{inside}</{tag}>"


def port(
    name,
    number,
    kind="output",
    backend="check",
    *,
    properties="ioport",
    optional=None,
    input_name=None,
    output_name=None,
    inside="",
    backend_inside="",
    backend_attributes=None,
    **defaults,
):
    """A port element.

    properties are names that are set to true, separated by blanks, or a dictionary of texts; the
    remaining arguments (usage, dir, ...) become the port's defaults. A None leaves things out.
    """
    if isinstance(properties, str):
        properties = dict.fromkeys(properties.split(), "true")
    parts = []
    if number is not None:
        parts.append(element("port_no", nbr=number))
    if kind is not None:
        parts.append(element("port_type", type=kind))
    if defaults:
        parts.append(element("param_defaults", **defaults))
    if input_name is not None or output_name is not None:
        parts.append(element("param_default_name", input=input_name, output=output_name))
    if properties:
        parts.append(element("properties", **properties))
    if backend is not None:
        parts.append(
            element("backend", backend_inside, name=backend, **(backend_attributes or {}))
        )
    return element("port", "".join(parts) + inside, name=name, optional=optional)


def sysfs_input(name, number, path, *, timeout=10, clear_flag=None, inverted=None, **more):
    """An input that polls a file."""
    device = element(
        "device", path=path, timeout=timeout, clear_flag=clear_flag, inverted=inverted
    )
    return port(name, number, "input", "sysfs", backend_inside=device, **more)


def failing(name, number, kind="output", **more):
    """A port whose set-up fails."""
    return port(name, number, kind, "check", backend_attributes={"setup": "fail"}, **more)
