#!/usr/bin/python3
"""Lists the ports of wexd, watches them, pulses an output, and is refused by an input.

Usage: ports.py OUTPUT INPUT    (numbers of ports)
"""

import sys

import gi

gi.require_version("Gio", "2.0")
from gi.repository import Gio, GLib  # noqa: E402

PULSE_MS = 200


def word(state):
    return "on" if state else "off"


class Ports:
    def __init__(self, loop):
        self.loop = loop
        self.proxy = Gio.DBusProxy.new_for_bus_sync(
            Gio.BusType.SYSTEM, Gio.DBusProxyFlags.DO_NOT_LOAD_PROPERTIES, None,
            "com.norv.IOControl.State", "/com/norv/IOControl/State", "com.norv.IOControl.State", None,
        )  # fmt: skip
        self.proxy.connect("g-signal", self.on_signal)

    def list(self):
        _count, ports = self.proxy.GetPortProps()
        for name, number, state, *_ in ports:
            print(f"{number} {name}: {word(state)}")

    def pulse(self, output):
        """The steps run in the daemon; the call returns at once."""
        self.proxy.StartActionSequence("(uba(bi))", output, False, [(True, PULSE_MS), (False, 1)])

    def on_signal(self, _proxy, _sender, signal, parameters):
        if signal == "PortChanged":
            number, *_, state, _activelow = parameters.unpack()
            print(f"port {number} is {word(state)}")
        elif signal == "ActionSequenceDone":
            print("the pulse is over")
            self.loop.quit()

    def drive(self, port):
        try:
            self.proxy.SetState("(ub)", port, True)
        except GLib.Error as error:
            print(f"port {port} refused: {Gio.DBusError.get_remote_error(error)}")


def main():
    output, unwilling = map(int, sys.argv[1:])
    loop = GLib.MainLoop()
    ports = Ports(loop)
    ports.list()
    ports.pulse(output)
    loop.run()
    ports.drive(unwilling)


if __name__ == "__main__":
    main()
