"""Stand-ins for the services that the daemon calls."""

import os
import subprocess
import sys

from sim.bus import wait_until

MOCK = "org.freedesktop.DBus.Mock"


class BootBlock:
    """The service that reads boot-block parameters; it knows one, the hardware id.

    Start it before the daemon, which asks while it reads its hardware description.
    """

    NAME = "com.norv.PolicyKitSystem"
    PATH = "/com/norv/PolicyKitSystem"

    def __init__(self, device, hwid):
        self.client = device.client()
        self.process = subprocess.Popen(
            ["setpriv", "--pdeathsig", "TERM", sys.executable, "-m", "dbusmock", "--system",
             self.NAME, self.PATH, self.NAME],
            env={**os.environ, "DBUS_SYSTEM_BUS_ADDRESS": device.bus_address},
            stdout=subprocess.DEVNULL,
        )  # fmt: skip
        device.on_exit(self.close)
        wait_until(lambda: self.client.owner(self.NAME), f"{self.NAME} on the bus")
        answer = f"ret = {{'HWID': {hwid!r}}}[args[0]]"
        self._mock("AddMethod", "sssss", self.NAME, "ReadBootblockParam", "s", "s", answer)

    def _mock(self, method, signature="", *arguments):
        return self.client.call(self.NAME, self.PATH, MOCK, method, signature, *arguments)

    @property
    def asked(self):
        """The names of the parameters asked for, in order."""
        return [call[2][0] for call in self._mock("GetCalls") if call[1] == "ReadBootblockParam"]

    def close(self):
        self.process.terminate()
        self.process.wait()
