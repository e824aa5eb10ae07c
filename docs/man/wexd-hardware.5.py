#!/usr/bin/python3
"""Prints wexd-hardware(5) as scdoc source, made from the schema of the hardware description.

usage: wexd-hardware.5.py SCHEMA VERSION
"""

import re
import sys
import xml.etree.ElementTree as ElementTree

RNG = "{http://relaxng.org/ns/structure/1.0}"
NOTE = "{http://relaxng.org/ns/compatibility/annotations/1.0}documentation"

HEAD = """wexd-hardware(5) "wexd {version}"

# NAME

wexd-hardware - which ports a device has

# DESCRIPTION

*wexd*(8) reads the device's ports from _/usr/share/wexd/conf.xml_ and then from every file in
_/etc/wexd.d/_ that belongs to root and that only root may write. The files are XML; every *port* element describes a port, the elements in it fill it.
The reader is lenient: elements and attributes that it does not know are ignored, and an element
applies to the port described last, wherever it stands. *wexctl check* tells what the daemon would
make of a file; the schema is _/usr/share/wexd/wexd-hardware.rng_.
"""

TAIL = """
# EXAMPLE

```
<config>
  <port name="door">
    <port_no nbr="0"/>
    <port_type type="input"/>
    <param_default_name input="Door"/>
    <properties ioport="true"/>
    <backend name="gpio">
      <input alias="door-contact" inverted="true"/>
    </backend>
    <event declaration="IOPort"/>
  </port>
</config>
```

Pins are best described by *alias*, the name that the device tree gives their line: numbers are given
out as chips appear, and may be another pin's under the next kernel. *wexctl describe* prints the names
of the machine that it runs on.

# SEE ALSO

*wexd*(8), *wexd.conf*(5), *wexctl*(1)
"""


def escape(text):
    return re.sub(r"([_*\\])", r"\\\1", text)


def note(node):
    found = node.find(NOTE)
    return escape(" ".join(found.text.split())) if found is not None else ""


def children(node, tag):
    """Elements or attributes right below, looking through grouping but not into elements."""
    for child in node:
        if child.tag == RNG + tag:
            yield child
        elif child.tag not in (RNG + "element", RNG + "attribute", NOTE):
            yield from children(child, tag)


def values(attribute):
    words = [value.text for value in attribute.iter(RNG + "value")]
    if words:
        return "One of " + ", ".join(f"*{escape(word)}*" for word in words) + ". "
    return ""


def print_attributes(element, skip=()):
    for attribute in children(element, "attribute"):
        name = attribute.get("name")
        if name is None or name in skip:
            continue
        print(f"*{escape(name)}*\n\t{values(attribute)}{note(attribute)}\n")


def print_element(element, level="##"):
    print(f"{level} {escape(element.get('name'))}\n\n{note(element)}\n")
    print_attributes(element)


def main():
    grammar = ElementTree.parse(sys.argv[1]).getroot()
    defines = {define.get("name"): define for define in grammar.findall(RNG + "define")}
    port = defines["port"].find(RNG + "element")
    event = defines["event"].find(RNG + "element")
    start = grammar.find(RNG + "start")

    print(HEAD.format(version=sys.argv[2]))
    print("# ELEMENTS OF A PORT\n")
    print_element(port)
    for element in children(port, "element"):
        print_element(element)
    print_element(event)
    for element in children(event, "element"):
        print_element(element)

    print("# OTHER ELEMENTS\n")
    for element in start.iter(RNG + "element"):
        if element.get("name") != "config":
            print_element(element)

    print("# BACKENDS\n\nThe *backend* element's *name* selects the kind of hardware; its other attributes")
    print("and the elements in it belong to that kind.\n")
    for backend in children(defines["backend"], "element"):
        kind = backend.find(f"{RNG}attribute[@name='name']/{RNG}value").text
        print(f"## {escape(kind)}\n\n{note(backend)}\n")
        print_attributes(backend, skip=("name",))
        for element in children(backend, "element"):
            print(f"*<{escape(element.get('name'))}>*\n\n{note(element)}\n")
            print_attributes(element)
    print(TAIL)


main()
