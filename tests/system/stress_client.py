"""One client of the stress test: sends requests without pause and counts what came back.

Usage: stress_client.py BUS-ADDRESS SEED REQUESTS

Prints one JSON object: how many sequences were accepted, how many requests were answered, and the
texts of the errors by count. Several requests are always under way at once.
"""

import collections
import json
import pathlib
import random
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2]))

from sim import bus  # noqa: E402

PORTS = range(8)
OPTIONAL = ["port2", "port3"]
UNDER_WAY = 8
PATIENCE = 60  # seconds for one answer


def request(dice):
    """One request: (method, arguments)."""
    number = dice.choice(PORTS)
    what = dice.random()
    if what < 0.40:
        steps = [(dice.random() < 0.5, dice.randrange(4)) for _ in range(dice.randint(1, 4))]
        return "StartActionSequence", (number, dice.random() < 0.3, steps)
    if what < 0.75:
        return "GetState", (number,)
    if what < 0.80:
        return "GetPortProps", ()
    if what < 0.86:
        return "SetActive", (number, dice.random() < 0.5, dice.choice(["open", "closed"]))
    if what < 0.92:
        return "SetDirection", (number, dice.choice(["input", "output"]))
    if what < 0.95:
        return "SetState", (number, dice.random() < 0.5)
    if what < 0.97:
        return "SetVirtual", (number, dice.random() < 0.5)
    if what < 0.98:
        return "DropIOPorts", (OPTIONAL,)
    return "RefreshIOPorts", ()


def main(address, seed, requests):
    client = bus.Client(address)
    dice = random.Random(seed)
    under_way = collections.deque()
    errors = collections.Counter()
    accepted = 0
    for count in range(requests + UNDER_WAY):
        if len(under_way) == UNDER_WAY or count >= requests:
            method, call = under_way.popleft()
            try:
                call.wait(PATIENCE)
                accepted += method == "StartActionSequence"
            except bus.BusError as error:
                errors[error.message] += 1
        if count < requests:
            method, arguments = request(dice)
            under_way.append((method, client.state.begin(method, *arguments)))
    client.close()
    print(json.dumps({"accepted": accepted, "answered": requests, "errors": errors}))


if __name__ == "__main__":
    main(sys.argv[1], int(sys.argv[2]), int(sys.argv[3]))
