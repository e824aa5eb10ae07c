"""The settings file and what lies beside it, as a death or a failure leaves them."""

import os
import time

from campaign import Broken

from describe import port
from sim.device import KEY_FILE

FOLDER = "/etc/wexd"
# Settings as somebody has edited them, which a start completes.
EDITED = "[b]\noutput_name=B\noutput_activelow=true\npulse_time=0\nport_mode=\ndelay_time=0\nusage=x\n"
PORTS = "".join(port(name, n, usage="u" * 20_000) for n, name in enumerate("abc"))


def beside(device):
    """What lies beside the settings; more than one half file never does."""
    others = set(os.listdir(device.path(FOLDER))) - {"actions", "wexd.conf"}
    if not others <= {".wexd.conf.new"}:
        raise Broken(f"{sorted(others)} beside the settings")
    return others


def assert_nothing_beside(device):
    if beside(device):
        raise Broken("a half file outlives the next start")


def assert_starts_with(device, text):
    if start_once(device, ...)[0] != text:
        raise Broken("the start after a death leaves other settings")
    assert_nothing_beside(device)


def put_settings(device, text):
    device.path(KEY_FILE).unlink(missing_ok=True)
    if text is not None:
        device.settings(text)


def start_once(device, text):
    """What a whole start makes of the settings (... for those that are there), and how long it takes."""
    if text is not ...:
        put_settings(device, text)
    began = time.monotonic()
    device.start()
    took = time.monotonic() - began
    device.assert_quiet()
    device.stop()
    return device.read(KEY_FILE), took


def assert_one_of(device, texts):
    found = device.read(KEY_FILE) if device.exists(KEY_FILE) else None
    if found not in texts:
        raise Broken(f"settings that nobody wrote: {len(str(found))} bytes, ending in {str(found)[-40:]!r}")
