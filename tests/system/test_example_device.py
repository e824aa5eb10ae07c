"""The example device of scripts/run without a terminal: its table and its story."""

import subprocess

import pytest
from conftest import TOP

from sim.peers import IoBox
from sim.terminal import simulation

STEPS = 14


@pytest.mark.parametrize("options", [("--scenario",), ()], ids=["asked for", "no terminal"])
def test_the_story_is_told_and_happens(binary, options):
    run = subprocess.run(
        simulation(binary, *options), cwd=TOP, capture_output=True, text=True, timeout=60, check=False
    )
    assert run.returncode == 0, run.stdout + run.stderr
    assert run.stderr == ""
    assert run.stdout.count("✓") == STEPS
    assert "All of it happened" in run.stdout
    for name in ("door", "PIR sensor", "hidden, ioport", "ioport, readonly", "virtual"):
        assert name in run.stdout.split("✓")[0], "the table of ports"


@pytest.mark.parametrize("imposter", ["/bin/false", "/bin/true"])
def test_a_story_that_does_not_happen_fails(imposter):
    run = subprocess.run(
        simulation(imposter, "--scenario"), cwd=TOP, capture_output=True, text=True, timeout=60,
        check=False,
    )  # fmt: skip
    assert run.returncode == 1
    assert "The run failed" in run.stderr
    assert "All of it happened" not in run.stdout


def test_a_neighbour_that_goes_before_it_came_is_not_waited_for(device):
    peer = IoBox(device, start=False)
    peer.launch()
    peer.freeze()
    peer.stop()
