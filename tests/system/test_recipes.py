"""The lines of docs/recipes.md, as they stand there, on a device and a real MQTT broker."""

import json
import os
import pathlib
import re
import signal
import socket
import subprocess

import pytest
from describe import port

from sim.bus import wait_until
from sim.mqtt import Broker

PAGE = pathlib.Path(__file__).resolve().parents[2] / "docs/recipes.md"
# They are clients of whatever daemon there is; one is enough.
pytestmark = pytest.mark.uninstrumented


def recipes():
    """{heading: lines} of the page."""
    found = {}
    for section in re.split(r"^## ", PAGE.read_text(), flags=re.MULTILINE)[1:]:
        (lines,) = re.findall(r"^```sh\n(.*?)^```$", section, re.DOTALL | re.MULTILINE)
        found[section.partition("\n")[0]] = lines
    return found


@pytest.fixture
def device(make_device):
    device = make_device()
    device.describe(
        port("door", 0, "input", usage="Front door") + port("lamp", 1) + port("gate", 2)
    )
    device.start()
    return device


@pytest.fixture
def broker(device):
    with Broker(device) as broker:
        yield broker


@pytest.fixture
def follow(device, binary):
    """Starts the lines under a heading; they end with the device."""

    def start(heading, **settings):
        process = subprocess.Popen(
            ["sh", "-c", recipes()[heading]], start_new_session=True,
            env={"PATH": f"{binary.parent}:{os.environ['PATH']}", "SITE": "hut",
                 "DBUS_SYSTEM_BUS_ADDRESS": device.bus_address, **settings},
        )  # fmt: skip
        device.on_exit(lambda: end(process))
        return process

    return start


def end(process):
    try:
        os.killpg(process.pid, signal.SIGKILL)
    except ProcessLookupError:
        pass
    process.wait()


def mqtt(broker):
    return {"BROKER": " ".join(broker.address)}


def drive_until(device, number, told):
    """A recipe says nothing of when it listens: the port is driven until it is heard."""
    turns = iter(range(1_000_000))

    def driven():
        device.state.SetState(number, next(turns) % 2 == 0)
        return told()

    return wait_until(driven, "a change that somebody hears")


def test_every_heading_is_tried():
    tried = set(re.findall(r'follow\("([^"]+)"', pathlib.Path(__file__).read_text()))
    assert set(recipes()) == tried


def test_every_change_to_mqtt(device, broker, follow):
    messages = broker.listen()
    follow("Every change to MQTT", **mqtt(broker))

    def told():
        texts = str(messages.texts("hut/changes"))
        return "watching" in texts and "port-changed" in texts

    drive_until(device, 1, told)
    events = [json.loads(text) for text in messages.texts("hut/changes")]
    assert {event["event"] for event in events} == {"watching", "port-changed"}
    assert {event.get("name") for event in events} == {None, "lamp"}


def test_states_to_mqtt(device, broker, follow):
    messages = broker.listen()
    follow("States to MQTT", **mqtt(broker))
    for number in range(3):
        messages.wait_for(f"hut/port/{number}", "OFF")
    device.state.SetState(2, True)
    messages.wait_for("hut/port/2", "ON")
    later = broker.listen()
    assert later.wait_for("hut/port/2", "ON").retained
    assert later.wait_for("hut/port/0", "OFF").retained


def test_commands_from_mqtt(device, broker, follow):
    follow("Commands from MQTT", **mqtt(broker))

    def commanded():
        for number in (0, 1):  # the first is refused, and the second taken
            subprocess.run(
                ["mosquitto_pub", *broker.address, "-t", f"hut/port/{number}/set", "-m", "ON"], check=True
            )
        return device.state.GetState(1)

    wait_until(commanded, "the lamp to be driven")
    assert not device.state.GetState(0)


def test_home_assistant(device, broker, follow):
    assert follow("Home Assistant", **mqtt(broker)).wait(timeout=60) == 0
    messages = broker.listen("homeassistant/#")

    def told():
        return len(messages.messages) >= 3 and messages.messages

    found = {message.topic: json.loads(message.text) for message in wait_until(told, "three descriptions")}
    device_told = {"identifiers": ["hut"], "name": "hut"}
    assert found == {
        "homeassistant/binary_sensor/hut-port-0/config": {
            "name": "Front door", "unique_id": "hut-port-0", "state_topic": "hut/port/0",
            "device": device_told,
        },
        "homeassistant/switch/hut-port-1/config": {
            "name": "lamp", "unique_id": "hut-port-1", "state_topic": "hut/port/1",
            "command_topic": "hut/port/1/set", "device": device_told,
        },
        "homeassistant/switch/hut-port-2/config": {
            "name": "gate", "unique_id": "hut-port-2", "state_topic": "hut/port/2",
            "command_topic": "hut/port/2/set", "device": device_told,
        },
    }  # fmt: skip
    assert all(message.retained for message in messages.messages)


def test_to_a_log_collector(device, follow):
    with socket.create_server(("127.0.0.1", 0)) as collector:
        follow("To a log collector", COLLECTOR="127.0.0.1", PORT=str(collector.getsockname()[1]))
        connection, _ = collector.accept()
    with connection:
        connection.setblocking(False)
        taken = bytearray()

        def told():
            try:
                taken.extend(connection.recv(65_536))
            except BlockingIOError:
                pass
            return b'"port-changed"' in taken

        drive_until(device, 1, told)
    frame = re.match(rb"(\d+) ", taken)
    first = taken[frame.end() : frame.end() + int(frame[1])].decode()
    assert first.startswith("<134>1 ")  # local0.info, RFC 5424
    assert " wexd-ports " in first
    assert json.loads(first[first.index("{") :])["event"] in ("watching", "port-changed")
