"""What keys do to the simulated device.

Some turn its wires or its neighbours, some are calls that any client might make. Calls are sent
and not waited for; a refusal becomes a line among the changes when it comes.
"""

from sim import example

PULSE = [(True, 500), (False, 0)]


class Controls:
    def __init__(self, device, model):
        self._device = device
        self._model = model
        self._lines = example.lines(device)
        self.optional = example.optional_ports()
        self._client = device.client()

    def line_of(self, port):
        """The wire that an input hangs on; None for outputs and for inputs without one."""
        return self._lines.get(port.name) if port.input else None

    # -- wires -------------------------------------------------------------------------------

    def flip(self, port):
        """Turns an input's wire, drives an output, sets what has neither."""
        line = self.line_of(port)
        if line is not None:
            line.flip()
        elif port.input or is_virtual(port):
            self._call(self._client.state, "SetVirtual", port.number, not port.state)
        else:
            self._call(self._client.state, "SetState", port.number, not port.state)

    def set_line(self, port, word):
        """Cuts, shorts, opens or closes a line that can tell them apart."""
        line = self.line_of(port)
        if line is None or word not in line.words:
            self._model.note("trouble", f"port {port.number} {port.name} has no line to {word}")
        else:
            line.set(word)

    # -- calls that any client might make ----------------------------------------------------

    def pulse(self, port):
        self._call(self._client.state, "StartActionSequence", port.number, False, PULSE)

    def drop(self, port):
        self._call(self._client.state, "DropIOPorts", [port.name], answered=self._dropped)

    def plug(self, _port):
        self._call(self._client.state, "RefreshIOPorts")

    def turn(self, port):
        direction = "output" if port.input else "input"
        self._call(self._client.state, "SetDirection", port.number, direction)

    def invert(self, port):
        sense = "closed" if port.active == "open" else "open"
        self._call(self._client.state, "SetActive", port.number, port.input, sense)

    def supervise(self, port):
        self._call(self._client.supervision, "SetSupervised", port.number, not port.supervised)

    def _call(self, interface, method, *arguments, answered=lambda values: None):
        def arrived(values, error):
            if error is None:
                answered(values)
            else:
                self._model.note("trouble", f"{method}: {error.message} ({error.name})")

        interface.begin(method, *arguments).then(arrived)

    def _dropped(self, values):
        for name in values[0]:
            self._model.note("note", f"{name} is out of service")
        if not values[0]:
            self._model.note("trouble", "that port is not optional and stays")

    # -- the daemon and its neighbours -------------------------------------------------------

    def toggle_peer(self, index):
        peer = self._device.peers.everyone[index]
        if peer.process is None:
            peer.launch()
        else:
            peer.stop()

    def restart(self):
        """Ends the daemon, if it still runs, and starts it."""
        if self._device.running:
            self._device.stop()
        self._device.start()


def is_virtual(port):
    """Whether a port has no hardware, such as a video channel's manual trigger."""
    return bool(port.properties.get("virtual"))
