"""The terminal: keys in, lines out."""

import asyncio
import os
import signal
import sys

from gi.repository import GLib
from prompt_toolkit.application import Application
from prompt_toolkit.formatted_text import to_formatted_text
from prompt_toolkit.key_binding import KeyBindings
from prompt_toolkit.layout import FormattedTextControl, Layout, Window
from prompt_toolkit.output import ColorDepth
from prompt_toolkit.styles import Style

from sim.endings import ENDINGS
from sim.live import keys, view
from sim.live.controls import Controls
from sim.live.model import PEERS, Model

BUS_INTERVAL_S = 0.02  # between two looks at what the bus has brought
TICK_INTERVAL_S = 0.2  # between two rounds of questions to the daemon

# Only the sixteen colours of the terminal's own choice, so that they suit its background.
STYLE = Style.from_dict({
    "title": "reverse bold", "title.trouble": "bg:ansired ansiwhite bold noreverse",
    "heading": "bold", "rule": "ansibrightblack", "hint": "ansibrightblack",
    "chosen": "reverse", "key": "bold ansicyan",
    "on": "bold ansigreen", "off": "", "trouble": "bold ansired",
    "bar": "ansibrightblack", "bar.mark": "bold reverse", "bar.short": "ansired",
    "bar.cut": "ansimagenta", "bar.closed": "ansigreen", "bar.open": "ansiyellow",
    "bar.undefined": "bold ansired",
    "change.on": "ansigreen", "change.off": "", "change.note": "ansicyan",
    "change.event": "ansibrightblack", "change.trouble": "ansired",
})  # fmt: skip


class Live:
    def __init__(self, device):
        self._model = Model(device)
        self._controls = Controls(device, self._model)
        self._seat = view.Seat()
        no_colour = bool(os.environ.get("NO_COLOR"))
        self._app = Application(
            layout=Layout(Window(FormattedTextControl(self._text, show_cursor=False))),
            key_bindings=self._bindings(),
            style=STYLE,
            color_depth=ColorDepth.DEPTH_1_BIT if no_colour else None,
            full_screen=True,
            min_redraw_interval=BUS_INTERVAL_S,
        )
        # An escape alone means nothing here, so nobody waits for what might follow it.
        self._app.ttimeoutlen = 0.05
        self._model.on_change(self._app.invalidate)

    async def run(self):
        """Returns when the user quits, or the process is told to end."""
        loop = asyncio.get_running_loop()
        # Not handlers of the loop, which would go with it and leave the cleaning up unprotected.
        for number in ENDINGS:
            signal.signal(number, lambda *_: loop.call_soon_threadsafe(self._quit))
        helpers = [loop.create_task(self._carry()), loop.create_task(self._ask())]
        for helper in helpers:
            helper.add_done_callback(self._failed)
        # A mistake in a callback from the bus is handed to the hook, which prints by default.
        hook, sys.excepthook = sys.excepthook, lambda _kind, mistake, _trace: self._fail(mistake)
        try:
            await self._app.run_async()
        except (EOFError, OSError):  # the terminal is gone
            pass
        finally:
            sys.excepthook = hook
            for number in ENDINGS:
                signal.signal(number, signal.SIG_IGN)
            for helper in helpers:
                helper.cancel()

    async def _carry(self):
        """Hands on what the bus brings."""
        context = GLib.MainContext.default()
        while True:
            while context.iteration(False):
                pass
            await asyncio.sleep(BUS_INTERVAL_S)

    async def _ask(self):
        while True:
            self._model.tick()
            await asyncio.sleep(TICK_INTERVAL_S)

    def _failed(self, helper):
        if not helper.cancelled() and helper.exception():
            self._fail(helper.exception())

    def _fail(self, mistake):
        if self._app.is_running and not self._app.future.done():
            self._app.exit(exception=mistake)

    def _quit(self):
        if self._app.is_running and not self._app.future.done():
            self._app.exit()

    def _text(self):
        size = self._app.output.get_size()
        port = self._chosen()
        hints = keys.hints(self._controls, port) if port else []
        lines = view.screen(self._model, self._seat, hints, size.columns, size.rows)
        fragments = []
        for index, line in enumerate(lines):
            fragments += ([("", "\n")] if index else []) + line
        return to_formatted_text(fragments)

    # -- keys --------------------------------------------------------------------------------

    def _chosen(self):
        return self._model.ports.get(self._seat.chosen)

    def _move(self, step):
        numbers = sorted(self._model.ports)
        if self._seat.chosen in numbers:
            at = numbers.index(self._seat.chosen) + step
            self._seat.chosen = numbers[max(0, min(at, len(numbers) - 1))]

    def _attempt(self, act, *arguments):
        """Does it; what goes wrong is told among the changes."""
        try:
            act(*arguments)
        except Exception as failure:  # noqa: BLE001  the view outlives whatever a key does
            self._model.note("trouble", str(failure).splitlines()[0])

    def _act(self, key):
        port = self._chosen()
        if port is not None and not self._seat.help:
            self._attempt(key.act, self._controls, port)

    def _toggle_help(self):
        self._seat.help = not self._seat.help

    def _bindings(self):
        bindings = KeyBindings()
        moves = {
            "up": lambda: self._move(-1),
            "down": lambda: self._move(1),
            "first": lambda: self._move(-len(self._model.ports)),
            "last": lambda: self._move(len(self._model.ports)),
            "help": self._toggle_help,
            "restart": lambda: self._attempt(self._controls.restart),
            "quit": self._quit,
        }
        for name, bound in keys.MOVES.items():
            self._bind(bindings, bound, moves[name])
        for key in keys.PORT_KEYS:
            self._bind(bindings, key.keys, lambda key=key: self._act(key))
        for index in range(len(PEERS)):
            self._bind(
                bindings, (str(index + 1),),
                lambda index=index: self._attempt(self._controls.toggle_peer, index),
            )  # fmt: skip
        return bindings

    @staticmethod
    def _bind(bindings, bound, act):
        for key in bound:
            bindings.add(key)(lambda _event, act=act: act())


def run(device):
    asyncio.run(Live(device).run())
