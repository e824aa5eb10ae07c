"""Requests to end, and when they are heard."""

import contextlib
import os
import signal
import threading

ENDINGS = (signal.SIGTERM, signal.SIGHUP)


@contextlib.contextmanager
def undisturbed():
    """Has requests to end wait until the block is left.

    One that came while a process starts would leave that process to nobody, for instance.
    """
    if threading.current_thread() is not threading.main_thread():  # signals are not its business
        yield
        return
    came = []
    before = {
        number: signal.signal(number, lambda number, _frame: came.append(number))
        for number in (signal.SIGINT, *ENDINGS)
    }
    try:
        yield
    finally:
        for number, handler in before.items():
            signal.signal(number, handler)
        for number in came:
            os.kill(os.getpid(), number)
