"""The daemon whose events go to an MQTT broker, and what the broker's clients see of it."""

import json
import os
import socket

import pytest
from describe import element, port

from sim.bus import PortChanged
from sim.mqtt import SOCKET, Broker, new_certificate

SETTINGS = "/etc/wexd/mqtt.conf"
IO_PORT = element("event", declaration="IOPort")
LAMP = "site/IOPort/0"
STATUS = "site/status"
TOPICS = {"topic0": "Device", "topic1": "IO", "topic2": "Port"}


@pytest.fixture
def device(binary, make_device):
    device = make_device(binary=binary.parent / "tests" / "wexd-mqtt")
    device.describe(port("lamp", 0, inside=IO_PORT) + port("gate", 1, inside=IO_PORT))
    configure(device)
    return device


@pytest.fixture
def broker(device):
    with Broker(device) as broker:
        yield broker


def configure(device, host=SOCKET, prefix="site", **more):
    lines = "".join(f"{key}={value}\n" for key, value in {"host": host, "prefix": prefix, **more}.items())
    device.write(SETTINGS, f"[broker]\n{lines}")


def told(state, number=0):
    """What is published of an IOPort event."""
    return json.dumps({"port": number, "state": state, **TOPICS}, separators=(",", ":"))


def set_state(device, number, state):
    signals = device.signals()
    device.state.SetState(number, state)
    signals.wait_for(PortChanged, port=number, state=state)
    signals.close()


def test_states_are_retained_and_follow_the_port(device, broker):
    messages = broker.listen()
    device.start()
    messages.wait_for(STATUS, "online")
    messages.wait_for(LAMP, told(False))
    set_state(device, 0, True)
    messages.wait_for(LAMP, told(True))
    later = broker.listen()
    assert later.wait_for(LAMP, told(True)).retained
    assert later.wait_for("site/IOPort/1", told(False, 1)).retained
    assert later.wait_for(STATUS, "online").retained
    assert device.log_count("^MESSAGE: event ") == 0


def test_every_change_is_told_in_order(device, broker):
    messages = broker.listen()
    device.start()
    messages.wait_for(LAMP, told(False))
    for turn in range(100):
        device.state.SetState(0, turn % 2 == 0)
    set_state(device, 0, True)
    messages.wait_for(LAMP, told(True), count=51)
    changes = messages.texts(LAMP)
    changes = changes[changes.index(told(True)) :]
    assert changes == [told(turn % 2 == 0) for turn in range(101)]


@pytest.mark.uninstrumented
def test_a_broker_that_takes_a_message_in_pieces_has_them_all(make_device, binary, preloadable):
    library = "/run/slow-socket.so"
    device = make_device(
        binary=binary.parent / "tests" / "wexd-mqtt", wrapper=("env", f"LD_PRELOAD={library}")
    )
    device.write(library, preloadable("slow-socket.c").read_bytes())
    device.describe(port("lamp", 0, inside=IO_PORT))
    configure(device)
    with Broker(device) as broker:
        messages = broker.listen()
        device.start()
        messages.wait_for(LAMP, told(False))
        for turn in range(20):
            device.state.SetState(0, turn % 2 == 0)
        messages.wait_for(LAMP, told(False), count=11)
        changes = messages.texts(LAMP)
        assert changes[changes.index(told(True)) :] == [told(turn % 2 == 0) for turn in range(20)]


def test_an_occurrence_is_not_retained(device, broker):
    alarm = element("keyvalue", key="what", value='a "knock"', type="string") + element(
        "keyvalue", key="loud", value="0.5", type="double"
    )
    device.describe(port("lamp", 0, inside=element("event", alarm, declaration="Port")))
    messages = broker.listen()
    device.start()
    messages.wait_for(STATUS, "online")
    set_state(device, 0, True)
    occurrence = messages.wait_for("site/Port", '{"loud":0.5,"what":"a \\"knock\\""}')
    assert not occurrence.retained
    later = broker.listen()
    later.wait_for(STATUS, "online")
    assert later.texts("site/Port") == []


def turnable(events):
    return port("lamp", 0, "io_ctrl", inside=events)


def test_a_withdrawn_state_is_taken_back(device, broker):
    device.describe(turnable(element("event", declaration="IOPort", input="false")))
    device.start()
    device.state.SetDirection(0, "output")
    messages = broker.listen()
    messages.wait_for(LAMP, told(False))
    device.state.SetDirection(0, "input")
    messages.wait_for(LAMP, "")
    assert broker.listen().texts(LAMP) == []
    device.state.SetDirection(0, "output")
    messages.wait_for(LAMP, told(False), count=2)


def test_a_shared_topic_stands_as_long_as_one_event_does(device, broker):
    both = IO_PORT + element("event", declaration="IOPort", input="false")
    device.describe(turnable(both) + port("gate", 1, inside=IO_PORT))
    device.start()
    device.state.SetDirection(0, "output")
    messages = broker.listen()
    messages.wait_for(LAMP, told(False))
    device.state.SetDirection(0, "input")
    set_state(device, 1, True)
    messages.wait_for("site/IOPort/1", told(True, 1))  # after all that was told of the lamp
    assert "" not in messages.texts(LAMP)


def test_whoever_comes_later_is_told_everything(device):
    """The daemon is there first, and serves whether or not there is a broker."""
    device.start()
    device.wait_for_log(rf"^WARNING: The broker at {SOCKET} cannot be told of events: ")
    set_state(device, 0, True)
    with Broker(device) as broker:
        broker.listen().wait_for(LAMP, told(True))
        assert device.log_count("cannot be told") == 1


def test_a_broker_that_forgot_everything_is_told_again(device, broker):
    device.start()
    broker.listen().wait_for(LAMP, told(False))
    broker.stop()
    device.wait_for_log("cannot be told of events: ")
    for state in (True, False, True):
        set_state(device, 0, state)
    broker.start()
    messages = broker.listen()
    messages.wait_for(LAMP, told(True))
    messages.wait_for("site/IOPort/1", told(False, 1))
    device.wait_for_log("Telling the broker", count=2)


def test_a_broker_that_hangs_holds_no_call(device, broker):
    messages = broker.listen()
    device.start()
    messages.wait_for(LAMP, told(False))
    broker.pause()
    for turn in range(1200):
        device.state.SetState(0, turn % 2 == 0)
    device.state.SetState(1, True)
    device.wait_for_log("falls behind, telling it the latest states only")
    broker.resume()
    messages.wait_for("site/IOPort/1", told(True, 1))
    messages.wait_for(STATUS, "online", count=2)
    messages.wait_for(LAMP, told(False), count=2)
    assert broker.listen().wait_for(LAMP, told(False)).retained
    assert device.log_count("falls behind") == 1


def test_a_broker_hears_of_the_daemon_once_a_minute_at_least(device):
    """A broker takes one that is silent for half as long again for lost."""
    with socket.socket(socket.AF_UNIX) as listener:
        listener.bind(str(device.path(SOCKET)))
        device.path(SOCKET).chmod(0o777)
        listener.listen()
        device.start()
        connection, _ = listener.accept()
        with connection:
            greeting = connection.recv(4096)
        protocol = greeting.index(b"MQTT")
        assert int.from_bytes(greeting[protocol + 6 : protocol + 8]) == 60
        device.stop()


@pytest.mark.parametrize("ending", ["kill", "stop"])
def test_the_end_of_the_daemon_shows(device, broker, ending):
    device.start()
    messages = broker.listen()
    messages.wait_for(LAMP, told(False))
    getattr(device, ending)()
    messages.wait_for(STATUS, "offline")
    if ending == "stop":
        assert messages.texts(LAMP)[-1] == ""


def test_the_end_does_not_wait_for_a_broker_that_hangs(device, broker):
    device.start()
    broker.listen().wait_for(LAMP, told(False))
    broker.pause()
    device.stop()


def test_a_broker_on_the_network_with_a_password(device):
    with Broker(device, port=True, password="se same=") as broker:
        configure(device, host="127.0.0.1", port=broker.port, user="door", password="se same=")
        device.start()
        broker.listen().wait_for(LAMP, told(False))
        device.wait_for_log(rf"^MESSAGE: Telling the broker at 127.0.0.1:{broker.port} of events, as site$")


def test_a_broker_that_proves_who_it_is(device):
    with Broker(device, port=True, certificate=True) as broker:
        configure(device, host="127.0.0.1", port=broker.port, ca_file=broker.certificate)
        device.start()
        messages = broker.listen()
        messages.wait_for(LAMP, told(False))
        for turn in range(50):
            device.state.SetState(0, turn % 2 == 0)
        device.state.SetState(1, True)
        messages.wait_for("site/IOPort/1", told(True, 1))
        assert messages.texts(LAMP).count(told(True)) == 25


def test_a_broker_that_is_another_one(device):
    with Broker(device, port=True, certificate=True) as broker:
        configure(device, host="127.0.0.1", port=broker.port, ca_file=broker.certificate)
        new_certificate(broker.scratch / "other-key.pem", device.path(broker.certificate))
        device.start()
        device.wait_for_log("cannot be told of events: .")
        assert broker.listen().messages == []


def test_a_broker_that_turns_us_away(device):
    with Broker(device, password="sesame") as broker:
        configure(device, user="door", password="simsalabim")
        device.start()
        device.wait_for_log("cannot be told of events: Connection Refused: not authorised")
        set_state(device, 0, True)
        assert broker.listen().messages == []


def test_the_prefix_names_the_device_unless_told_otherwise(device, broker):
    configure(device, prefix="")
    device.start()
    broker.listen().wait_for(f"wexd/{os.uname().nodename}/IOPort/0", told(False))


@pytest.mark.parametrize(
    ("text", "reason"),
    [
        ("[broker]\nhots=x\n", "no such key: 'hots'"),
        ("[broker]\nport=65536\n", "65536"),
        ("[broker]\nport=x\n", "not an unsigned number"),
        ("[brokers]\n", "no such group: 'brokers'"),
        ("[broker]\nprefix=a/#\n", "no prefix of topics: 'a/#'"),
        ("[broker]\nprefix=/a\n", "no prefix of topics: '/a'"),
        ("host=x\n", "does not start with a group"),
        ("[broker]\nhost=a\\x\n", "cannot be interpreted"),
    ],
)
def test_settings_that_cannot_be_meant(device, text, reason):
    device.write(SETTINGS, text)
    device.start()
    device.wait_for_log(rf"^WARNING: No broker is told of events: {SETTINGS}: .*{reason}")
    set_state(device, 0, True)


def test_a_pipe_in_place_of_the_settings_holds_nobody(device):
    device.path(SETTINGS).unlink()
    os.mkfifo(device.path(SETTINGS))
    device.start()
    device.wait_for_log("No broker is told of events: .* is not a regular file")
