"""Sixty-four clients that mean no good, in one process: some vanish amid their calls, some never read
an answer, the rest call anything with anything and count their answers.

Usage: hostile.py BUS-SOCKET SEED SECONDS

Prints one JSON object: how many calls were sent, answers due and had, and clients that came and went.
"""

import json
import os
import pathlib
import random
import socket
import sys
import time

TOP = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(TOP), str(TOP / "tests/system")]

from test_hostile_calls import random_call  # noqa: E402

from sim.bus import STATE_NAME, STATE_PATH  # noqa: E402

from gi.repository import Gio  # noqa: E402

VANISHING, DEAF, BABBLING = 16, 16, 32
BURST = 8
DEAF_CALLS = 2000  # of one deaf client; what the bus keeps for it is the bus's business
PATIENCE_S = 60
HEADER = 16  # bytes that tell how long a message is


class Raw:
    """A connection that does no more than it is told to."""

    def __init__(self, address):
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.settimeout(PATIENCE_S)
        self.socket.connect(address)
        self.socket.sendall(b"\0AUTH EXTERNAL " + str(os.getuid()).encode().hex().encode() + b"\r\n")
        self.socket.recv(200)
        self.socket.sendall(b"BEGIN\r\n")
        self.serial = 0
        bus = "org.freedesktop.DBus"
        self.send(bus, "/org/freedesktop/DBus", bus, "Hello", None)

    def send(self, name, path, interface, method, arguments):
        message = Gio.DBusMessage.new_method_call(name, path, interface, method)
        if arguments is not None:
            message.set_body(arguments)
        self.serial += 1
        message.set_serial(self.serial)
        self.socket.sendall(message.to_blob(Gio.DBusCapabilityFlags.NONE))

    def answers(self, serials):
        """Reads until each of these calls has its answer, or there is none in time."""
        missing = set(serials)
        try:
            while missing:
                missing.discard(self.receive().get_reply_serial())
        except (TimeoutError, EOFError):
            pass
        return len(serials) - len(missing)

    def receive(self):
        head = self.exactly(HEADER)
        rest = Gio.DBusMessage.bytes_needed(head) - HEADER
        return Gio.DBusMessage.new_from_blob(head + self.exactly(rest), Gio.DBusCapabilityFlags.NONE)

    def exactly(self, size):
        parts = b""
        while len(parts) < size:
            part = self.socket.recv(size - len(parts))
            if not part:
                raise EOFError
            parts += part
        return parts

    def close(self):
        self.socket.close()


class Mob:
    def __init__(self, address, dice):
        self.address, self.dice = address, dice
        self.tally = {"calls": 0, "due": 0, "answered": 0, "clients": 0}
        self.deaf = [self.join() for _ in range(DEAF)]
        self.babbling = [self.join() for _ in range(BABBLING)]

    def join(self):
        self.tally["clients"] += 1
        return Raw(self.address)

    def shout(self, client, count):
        """Some calls of any kind; returns their serials."""
        before = client.serial
        for _ in range(count):
            client.send(*random_call(self.dice))
        self.tally["calls"] += count
        return range(before + 1, client.serial + 1)

    def vanish(self):
        client = self.join()
        self.shout(client, BURST)
        client.close()

    def be_deaf(self):
        client = self.dice.choice(self.deaf)
        if client.serial < DEAF_CALLS:
            for _ in range(BURST):
                client.send(STATE_NAME, STATE_PATH, STATE_NAME, "GetPortProps", None)
            self.tally["calls"] += BURST

    def babble(self):
        """Several at once, so that the answers of one come among those of the others."""
        speakers = self.dice.sample(self.babbling, 4)
        due = [(client, self.shout(client, BURST)) for client in speakers]
        self.tally["due"] += BURST * len(due)
        self.tally["answered"] += sum(client.answers(serials) for client, serials in due)


def main(address, seed, seconds):
    mob = Mob(address, random.Random(seed))
    print("ready", flush=True)
    end = time.monotonic() + seconds
    while time.monotonic() < end and mob.tally["due"] == mob.tally["answered"]:
        for _ in range(VANISHING // 4):
            mob.vanish()
        mob.be_deaf()
        mob.babble()
    print(json.dumps(mob.tally))


if __name__ == "__main__":
    main(sys.argv[1], int(sys.argv[2]), float(sys.argv[3]))
