"""Runs the example device; see scripts/run."""

import argparse
import pathlib
import sys
import time

from sim import example, sandbox, scenario, show
from sim.device import Device
from sim.peers import Neighbourhood

TOP = pathlib.Path(__file__).parent.parent


def main():
    parser = argparse.ArgumentParser(prog="scripts/run", description="Runs an example device.")
    parser.add_argument("--scenario", action="store_true", help="play a short story and end")
    parser.add_argument("--binary", default=TOP / "build/release/wexd", type=pathlib.Path)
    options = parser.parse_args()

    able, reason = sandbox.usable()
    if not able:
        sys.exit(f"This host does not let bubblewrap make a sandbox: {reason}")

    story = options.scenario or not sys.stdout.isatty()
    started = time.monotonic()
    try:
        with Device(options.binary, quiet=True) as device:
            example.furnish(device)
            device.peers = Neighbourhood(device)
            device.start()
            took = (time.monotonic() - started) * 1000
            count = len(device.ports())
            print(f"wexd runs on a scratch device with {count} ports, up in {took:.0f} ms.\n")
            show.table(device)
            if story:
                scenario.play(device)
            else:
                show.follow(device)
    except KeyboardInterrupt:
        print("\nStopped.")
    except Exception as failure:  # noqa: BLE001  whatever it was, the story did not happen
        print(f"{show.red('The run failed:')} {failure}", file=sys.stderr)
        return 1
    if story:
        seconds = time.monotonic() - started
        print(f"\n{show.green('All of it happened')}, in {seconds:.1f} s.")
    return 0


if __name__ == "__main__":
    sys.exit(main())
