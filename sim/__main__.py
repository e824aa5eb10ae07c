"""Runs the example device; see scripts/run."""

import argparse
import contextlib
import os
import pathlib
import signal
import subprocess
import sys
import time

from sim import example, live, sandbox, scenario, shell, show
from sim.board import WRAPPER, Board, provide_library
from sim.device import Device
from sim.endings import ENDINGS
from sim.peers import Neighbourhood

TOP = pathlib.Path(__file__).parent.parent


def parse():
    parser = argparse.ArgumentParser(
        prog="scripts/run",
        description="Builds wexd and runs it on a simulated device, in a scratch folder and on a bus"
        " of its own. On a terminal the device is shown live, and keys play with it; without one a"
        " short story is played. Nothing stays behind.",
        epilog="In the live view ? lists the keys. NO_COLOR=1 keeps colours away.",
    )
    kind = parser.add_mutually_exclusive_group()
    kind.add_argument(
        "--scenario", action="store_const", dest="kind", const="scenario",
        help="play the short story and end; the status is 0 only if all of it happened",
    )  # fmt: skip
    kind.add_argument(
        "--shell", action="store_const", dest="kind", const="shell",
        help="open a shell on the device, where wexctl, busctl and gdbus talk to it and"
        f" {example.INPUTS} holds its wires; commands may also come from standard input",
    )  # fmt: skip
    parser.add_argument(
        "--description", metavar="FILE", type=pathlib.Path,
        help="simulate the board that this hardware description describes, instead of the example",
    )
    parser.add_argument(
        "--binary", default=TOP / "build/release/wexd", type=pathlib.Path,
        help="the daemon to run, with wexctl beside it (default: %(default)s)",
    )  # fmt: skip
    options = parser.parse_args()
    if options.description and options.kind == "scenario":
        parser.error("the story is the example device's")
    told = "list" if options.description else "scenario"
    options.kind = options.kind or ("live" if on_a_terminal() else told)
    return options


def on_a_terminal():
    able = os.environ.get("TERM", "dumb") != "dumb"
    return sys.stdin.isatty() and sys.stdout.isatty() and able


def end(number, _frame):
    """What the first request to end does: unwind, so that all is cleaned up on the way, in peace."""
    for other in ENDINGS:
        signal.signal(other, signal.SIG_IGN)
    sys.exit(128 + number)


def check(binary, description):
    """Ends the run, with what is wrong and where, if the daemon would not take the description as it
    stands."""
    checked = subprocess.run(
        [binary.parent / "wexctl", "check", description], capture_output=True, text=True, check=False
    )
    if checked.returncode != 0:
        print(checked.stdout + checked.stderr, end="", file=sys.stderr)
        sys.exit(checked.returncode)


def list_ports(device, board):
    """Whether the daemon serves every port of the board."""
    show.table(device)
    served = {port.name for port in device.ports().values()}
    missing = [port.name for port in board.ports if port.name not in served]
    if missing:
        print(f"{show.red('Not in service:')} {', '.join(missing)}. The daemon's reasons:")
        print("".join(f"  {line}\n" for line in device.log if line.startswith("WARNING")), end="")
        return 1
    print(f"{show.green('All ports are in service.')}")
    return 0


def tell_the_story(device, started):
    took = (time.monotonic() - started) * 1000
    print(f"wexd runs on a scratch device with {len(device.ports())} ports, up in {took:.0f} ms.\n")
    show.table(device)
    scenario.play(device)
    seconds = time.monotonic() - started
    print(f"\n{show.green('All of it happened')}, in {seconds:.1f} s.")


def show_live(device):
    for number in device.supervision.GetSupervisedPortNumbers():
        device.supervision.SetSupervised(number, True)
    status = live.run(device)
    if status != 0:
        raise RuntimeError(f"the screen ended with status {status}")


def main():
    options = parse()
    able, reason = sandbox.usable()
    if not able:
        sys.exit(f"This host does not let bubblewrap make a sandbox: {reason}")
    for number in ENDINGS:
        signal.signal(number, end)

    started = time.monotonic()
    try:
        if options.description:
            check(options.binary.resolve(), options.description)
            board, wrapper = Board(options.description), WRAPPER
        else:
            board, wrapper = example.board(), ()
        with Device(options.binary, wrapper=wrapper, quiet=True) as device:
            if wrapper:
                provide_library(device)
            board.furnish(device)
            device.peers = Neighbourhood(device, board)
            device.start()
            if not options.description:
                example.wait_complete(device)
            if options.kind == "live":
                show_live(device)
            elif options.kind == "shell":
                return shell.run(device, board if options.description else None)
            elif options.kind == "list":
                return list_ports(device, board)
            else:
                tell_the_story(device, started)
    except KeyboardInterrupt:
        print("\nStopped.")
        return 128 + signal.SIGINT
    except Exception as failure:  # noqa: BLE001  whatever it was, the run did not go well
        print(f"{show.red('The run failed:')} {failure}", file=sys.stderr)
        return 1
    if options.kind == "live":
        with contextlib.suppress(OSError):  # the terminal may be what ended it
            print("The simulated device is gone; nothing is left of it.", flush=True)
    return 0


if __name__ == "__main__":
    sys.exit(main())
