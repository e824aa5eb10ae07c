"""The daemon built with another event library than its own."""

from describe import element, port

from sim.bus import PortChanged
from sim.device import Device


def test_another_event_library_is_told_of_the_ports_events(binary):
    daemon = binary.parent / "tests" / "wexd-second-event-library"
    with Device(daemon) as device:
        events = element("event", declaration="IOPort") + element(
            "event",
            element("keyvalue", key="state", value="PORT_STATUS", type="bool", property="true"),
            declaration="Anything",
        )
        device.describe(port("lamp", 0, inside=events))
        device.start()
        device.wait_for_log(r"^second library: declare \d+ IOPort port=0")
        device.wait_for_log(r"^second library: declare \d+ Anything")
        device.wait_for_log(r"^second library: send \d+  state=0")

        signals = device.signals()
        device.state.SetState(0, True)
        signals.wait_for(PortChanged, port=0, state=True)
        device.wait_for_log(r"^second library: send \d+  state=1", count=2)
        assert device.log_count("^MESSAGE: event ") == 0
