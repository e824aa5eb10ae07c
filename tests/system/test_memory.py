"""A whole life under memcheck: no invalid access, nothing lost at the end."""

import pytest
from describe import element, failing, port, sysfs_input

from sim.bus import ActionSequenceDone, BusError, PortChanged
from sim.device import VALGRIND
from sim.peers import BootBlock

IN = "/sys/in"
EVENT = element(
    "event", element("keyvalue", key="state", value="PORT_STATUS", type="bool"), declaration="Port"
)


@pytest.mark.uninstrumented
@pytest.mark.without_tsan("memcheck runs no binary with a sanitizer")
def test_a_whole_life_loses_and_misuses_no_memory(make_device):
    device = make_device(wrapper=VALGRIND, patience=6)
    BootBlock(device, "ABC")
    device.write(IN, "0\n").chmod(0o666)
    device.describe(
        sysfs_input("in", 0, IN, optional="true", inside=EVENT)
        + port("out", 1, optional="true", inside=EVENT, output_name="O")
        + port("both", 2, "io_ctrl", dir="output", usage="u")
        + port("v", 3, backend="virtual", properties="virtual ioport")
        + port("n", 4, backend="null")
        + failing("bad", 5)
        + failing("absent", 6, optional="true")
        + port("double", 1)
        + port("lost", 7, backend="nonsense")
        + '<port hwid="X" name="skipped"/><port hwid="AB" name="kept"><backend name="check"/></port>'
        + port("n", 4, backend="null")
    )
    device.drop_in("more", port("out", 1, optional="true", inside=EVENT))
    device.settings("[both]\ninput=false\ninput_name=I\n[out]\noutput_name=X\n")
    device.start()
    signals, state = device.signals(), device.state

    device.poke(IN, "1\n")
    signals.wait_for(PortChanged, port=0, state=True)
    for number in range(5):
        for method, arguments in (
            ("SetState", (True,)),
            ("SetActive", (True, "open")),
            ("SetActive", (False, "open")),
            ("SetActive", (False, "x")),
            ("SetDirection", ("input",)),
            ("SetDirection", ("output",)),
            ("SetName", (True, "name")),
            ("SetName", (False, "name")),
            ("SetUsage", ("usage",)),
            ("SetVirtual", (True,)),
            ("GetNames", ()),
            ("GetUsage", ()),
            ("StartActionSequence", (False, [])),
        ):
            try:
                getattr(state, method)(number, *arguments)
            except BusError as error:
                assert error.name.startswith("com.norv.IOControl.Error."), error
    state.StartActionSequence(2, False, [(True, 1), (False, 1)])
    signals.wait_for(ActionSequenceDone, port=2)
    for _ in range(3):
        assert state.DropIOPorts(["in", "out", "nothing"]) == ["in", "out"]
        state.RefreshIOPorts()
    # What waits in the dynamic list, and a sequence under way, are the end's business too.
    assert state.DropIOPorts(["out"]) == ["out"]
    state.StartActionSequence(2, False, [(True, 2_000_000)])
    device.stop(0)
    assert device.stderr.count("==") == 0, device.stderr
