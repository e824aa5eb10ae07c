"""A real MQTT broker for a device, and those who listen to it.

    with Broker(device) as broker:
        messages = broker.listen()
        device.state.SetState(0, True)
        messages.wait_for("wexd/IOPort/0", '{"port":0,"state":true}')

The broker listens on a socket in the device's /run, and, if asked to, on a port of this machine that
nobody else has. It forgets everything when it ends.
"""

import collections
import os
import pathlib
import shutil
import signal
import socket
import subprocess
import tempfile

from sim.bus import wait_until
from sim.endings import undisturbed

SOCKET = "/run/mqtt.sock"  # for the device

Message = collections.namedtuple("Message", "topic text retained")


class Broker:
    """port: listen on the loopback device, too. password: who gives none is turned away; the user is
    called "door". certificate: that port speaks TLS only; `certificate` is then a file for the device.
    """

    def __init__(self, device, port=False, password=None, certificate=False):
        self.socket = device.path(SOCKET)
        self.scratch = pathlib.Path(tempfile.mkdtemp(prefix="wexd-mqtt-"))
        self.port = free_port() if port else None
        self.password = password
        self.certificate = self._certify(device) if certificate else None
        self.process = None
        self._listeners = []
        self._configure()

    def __enter__(self):
        self.start()
        return self

    def __exit__(self, *_):
        for listener in self._listeners:
            listener.close()
        self.stop()
        shutil.rmtree(self.scratch, ignore_errors=True)

    def _certify(self, device):
        inside = "/etc/broker.pem"
        new_certificate(self.scratch / "key.pem", device.path(inside))
        shutil.copy(device.path(inside), self.scratch / "certificate.pem")
        return inside

    def _configure(self):
        lines = ["per_listener_settings false", f"user {'root' if os.getuid() == 0 else ''}".strip()]
        if self.password is None:
            lines.append("allow_anonymous true")
        else:
            passwords = self.scratch / "passwords"
            subprocess.run(
                ["mosquitto_passwd", "-b", "-c", passwords, "door", self.password], check=True
            )
            lines += ["allow_anonymous false", f"password_file {passwords}"]
        lines.append(f"listener 0 {self.socket}")
        if self.port is not None:
            lines.append(f"listener {self.port} 127.0.0.1")
        if self.certificate is not None:
            lines += [f"certfile {self.scratch}/certificate.pem", f"keyfile {self.scratch}/key.pem"]
        (self.scratch / "conf").write_text("\n".join(line for line in lines if line != "user") + "\n")

    def start(self):
        with open(self.scratch / "log", "ab") as log, undisturbed():
            self.process = subprocess.Popen(
                [program("mosquitto"), "-c", self.scratch / "conf"], stdout=log, stderr=log
            )
        wait_until(self._answers, lambda: f"the broker: {(self.scratch / 'log').read_text()}")
        self.socket.chmod(0o777)

    def _answers(self):
        assert self.process.poll() is None, (self.scratch / "log").read_text()
        with socket.socket(socket.AF_UNIX) as client:
            return client.connect_ex(str(self.socket)) == 0

    def stop(self):
        if self.process.poll() is None:
            self.resume()
            self.process.terminate()
        self.process.wait()
        self.socket.unlink(missing_ok=True)

    def pause(self):
        """From now on the broker takes nothing and says nothing."""
        self.process.send_signal(signal.SIGSTOP)

    def resume(self):
        self.process.send_signal(signal.SIGCONT)

    @property
    def address(self):
        """How the clients of the package are told of the broker."""
        login = () if self.password is None else ("-u", "door", "-P", self.password)
        return ("--unix", str(self.socket), *login)

    def listen(self, topic="#"):
        """Everything of a topic from now on, what the broker retains first."""
        listener = Listener(self, topic)
        self._listeners.append(listener)
        return listener.start()


class Listener:
    def __init__(self, broker, topic):
        self.path = broker.scratch / f"messages-{len(broker._listeners)}"
        self.command = [
            "stdbuf", "-oL", "mosquitto_sub", *broker.address, "-q", "1", "-t", topic, "-F", "%r %t %p", "-d",
        ]  # fmt: skip

    def start(self):
        with open(self.path, "wb") as out, undisturbed():
            self.process = subprocess.Popen(self.command, stdout=out, stderr=out)
        wait_until(lambda: "Subscribed (mid" in self.path.read_text(), "the subscription")
        return self

    def close(self):
        self.process.kill()
        self.process.wait()

    @property
    def messages(self):
        """All messages so far, in order."""
        found = []
        for line in self.path.read_text().splitlines():
            if line[:2] in ("0 ", "1 "):
                topic, _, text = line[2:].partition(" ")
                found.append(Message(topic, text, line[0] == "1"))
        return found

    def texts(self, topic):
        return [message.text for message in self.messages if message.topic == topic]

    def wait_for(self, topic, text, count=1):
        """Waits until so many messages of the topic have had that text; returns the last one."""

        def found():
            seen = [message for message in self.messages if message[:2] == (topic, text)]
            return len(seen) >= count and seen[-1]

        return wait_until(found, lambda: f"{text!r} under {topic}; there were {self.messages}")


def new_certificate(key, certificate):
    """For whoever is on the loopback device."""
    subprocess.run(
        ["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=broker",
         "-addext", "subjectAltName=IP:127.0.0.1", "-keyout", key, "-out", certificate],
        check=True, capture_output=True,
    )  # fmt: skip
    certificate.chmod(0o644)


def program(name):
    """Servers are not in everybody's search path."""
    return shutil.which(name, path=f"{os.environ['PATH']}:/usr/sbin")


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]
