"""The command-line client as a script calls it."""

import json
import os
import subprocess


class Client:
    """Calls the client on a device: client("set", "relay", "on")."""

    def __init__(self, device, binary):
        self.device = device
        self.program = binary.parent / "wexctl"

    def __call__(self, *arguments, address=None, **environment):
        return Result(
            subprocess.run(
                [self.program, *arguments], env=self.environment(address, **environment),
                capture_output=True, text=True, timeout=30, check=False,
            )
        )  # fmt: skip

    def start(self, *arguments, **options):
        """The client as a process of its own, which ends with the device."""
        process = subprocess.Popen(
            [self.program, *arguments], env=self.environment(), text=True, **options
        )
        self.device.on_exit(lambda: end(process))
        return process

    def environment(self, address=None, **more):
        return {
            "PATH": os.environ["PATH"],
            "DBUS_SYSTEM_BUS_ADDRESS": address or self.device.bus_address,
            **{k: v for k, v in os.environ.items() if k.endswith("SAN_OPTIONS")},
            **more,
        }


class Result:
    def __init__(self, run):
        self.status, self.out, self.err = run.returncode, run.stdout, run.stderr

    @property
    def json(self):
        return json.loads(self.out)


def end(process):
    """Ends it by SIGTERM, after which a client that counts which of its lines run leaves the counts."""
    process.terminate()
    try:
        process.wait(timeout=5)
    except subprocess.TimeoutExpired:  # one that was stopped
        process.kill()
        process.wait()
    for stream in filter(None, (process.stdout, process.stderr)):
        stream.close()


def done(result):
    assert (result.status, result.err) == (0, ""), result.err + result.out
    return result
