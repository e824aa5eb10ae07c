"""What the bench guest does between boot and power-off: makes the device's
surroundings (users, kernel modules, a system bus), then runs the tests or the
benchmark and leaves their result on the writable share."""

import os
import pathlib
import subprocess
import sys
import time

BENCH = pathlib.Path("/bench")
OUT = pathlib.Path("/out")
BUS_SOCKET = "/run/dbus/system_bus_socket"

PASSWD = """\
root:x:0:0:root:/tmp:/bin/sh
wxd:x:990:990:I/O ports:/nonexistent:/usr/sbin/nologin
"""
GROUP = """\
root:x:0:
wxd:x:990:
"""
BUS_CONFIG = f"""\
<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path={BUS_SOCKET}</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_type="method_call"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow send_type="signal"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
  </policy>
</busconfig>
"""


def make_surroundings():
    """A file system as the daemon and the bus expect it, all in memory."""
    etc = pathlib.Path("/etc")
    (etc / "passwd").write_text(PASSWD)
    (etc / "group").write_text(GROUP)
    (etc / "machine-id").write_text("0" * 31 + "1\n")
    for folder in ("/run/dbus", "/run/lock"):
        os.makedirs(folder, exist_ok=True)


def load_modules():
    for module in sorted((BENCH / "modules").glob("*.ko")):
        subprocess.run(["/usr/sbin/insmod", module], check=True)


def start_bus():
    config = pathlib.Path("/run/dbus/bench.conf")
    config.write_text(BUS_CONFIG)
    bus = subprocess.Popen(
        ["/usr/bin/dbus-daemon", "--nofork", "--nopidfile", f"--config-file={config}",
         "--print-address=1"],
        stdout=subprocess.PIPE,
        text=True,
    )
    assert bus.stdout.readline(), "the bus did not start"


def run(arguments):
    """Runs the tests, or with --bench the benchmark; the rest of the arguments is pytest's."""
    os.chdir(BENCH / "tests")
    if arguments[:1] == ["--bench"]:
        return subprocess.run([sys.executable, "bench_edge.py", *arguments[1:]], check=False).returncode
    import pytest  # pylint: disable=import-outside-toplevel

    return pytest.main(
        ["-p", "no:cacheprovider", "--timeout=60", f"--junitxml={OUT}/kernel.xml", "--tb=short", "-v", *arguments]
    )


def main():
    started = time.monotonic()
    os.environ["DBUS_SYSTEM_BUS_ADDRESS"] = f"unix:path={BUS_SOCKET}"
    make_surroundings()
    load_modules()
    start_bus()
    print(f"guest ready after {started:.1f} + {time.monotonic() - started:.1f} s", flush=True)
    status = run((BENCH / "arguments").read_text().splitlines())
    sys.stdout.flush()
    (OUT / "status").write_text(f"{int(status)}\n")
    os.sync()


main()
