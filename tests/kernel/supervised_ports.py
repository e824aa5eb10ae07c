"""The three kinds of supervised input on the simulated converters, under one roof: what a test can
do with any of them, and how each is described."""

from chips import ADC_BE12, ADC_LE12, NAMED, PLAIN, SPI_CONVERTERS
from describe import element, port
from gpio_ports import pin
from sim.bus import STATE_NAME, wait_until
from sim.bus import SUPERVISED_METHODS as METHODS
from sim.bus import SUPERVISED_NAME as NAME
from sim.bus import SUPERVISED_PATH as PATH

# Levels that all three can show. Between the ranges a level means nothing.
RANGES = (("short", 0, 40), ("closed", 50, 100), ("open", 110, 180), ("cut", 200, 255))
LEVELS = {"short": 20, "closed": 75, "open": 140, "cut": 230, "undefined": 190}

EVENT = element(
    "event", declaration="com.norv.Event.Wxd.SupervisedPort", input="false", output="false",
    supervised_input="true",
)  # fmt: skip


class Supervision:
    """The supervision interface of a device's daemon, in its present life."""

    def __init__(self, device):
        self._client = device.first_client
        # Its name comes after the one by which the daemon counts as ready.
        wait_until(
            lambda: self._client.owner(NAME) == self._client.owner(STATE_NAME),
            f"{NAME} on the bus",
        )

    def __getattr__(self, method):
        return lambda *arguments: self._client.call(
            NAME, PATH, NAME, method, METHODS[method], *arguments
        )


def ranges(levels=RANGES):
    return "".join(
        element("range", state=state, lower=lower, upper=upper) for state, lower, upper in levels
    )


class Kind:
    """A kind of supervised input: its pins, its converter, its description."""

    name = None
    inputs, outputs = PLAIN[0], PLAIN[1]
    ioctrl, sioctrl = PLAIN[2], PLAIN[3]
    plain_ioctrl, supervised_ioctrl = 1, 0

    def __repr__(self):
        return self.name

    def show(self, state):
        self.set_level(LEVELS[state])

    def pins(self, kind):
        wanted = {
            "input": (kind != "output", self.inputs),
            "output": (kind != "input", self.outputs),
            "io_ctrl": (True, self.ioctrl),
            "sio_ctrl": (True, self.sioctrl),
        }
        return "".join(pin(tag, line) for tag, (there, line) in wanted.items() if there)

    def port(self, name="zone", number=0, kind="input", levels=RANGES, pins=None, **more):
        attributes = {key: more.pop(key) for key in list(more) if key in self.vocabulary}
        inside = (self.pins(kind) if pins is None else pins) + self.converter(**attributes)
        more.setdefault("inside", EVENT)
        return port(
            name, number, kind, self.name, backend_inside=inside + ranges(levels), **more
        )


class Spi(Kind):
    name = "spi"
    vocabulary = ("path", "speed", "address")
    chip = SPI_CONVERTERS[0]

    def set_level(self, level):
        self.chip.show_level(level)

    def converter(self, path=None, speed=500000, address="90"):
        return (
            element("device", path=path or self.chip.device)
            + element("speed", value=speed)
            + element("address", value=address)
        )


class Iio(Kind):
    name = "iio"
    vocabulary = ("device", "adc", "hrtimer", "freq", "shift", "channel", "mode")
    chip = ADC_LE12
    channel = 1

    def set_level(self, level):
        self.chip.set_value(level, self.channel)

    def converter(self, device=None, adc=None, **attributes):
        described = {"hrtimer": "wexd-rate", "freq": 50, "channel": self.channel, **attributes}
        device = device or self.chip.name
        return element("device", name=device, adc=adc or device, **described)


class IioInterrupt(Kind):
    name = "iio-interrupt"
    vocabulary = (
        "driver", "channel", "channel_name", "chan_extend_name", "hysteresis", "lower_limit",
        "upper_limit", "limit_timeout", "bitshift", "integration_time", "one_threshold", "mode",
        "shared_samplefreq", "shared_thresh_either_period", "cache_ad_value",
        "pullup_when_supervised",
    )  # fmt: skip
    chip = ADC_LE12
    channel = 2

    def set_level(self, level):
        self.chip.set_value(level, self.channel)

    def converter(self, driver=None, **attributes):
        described = {"channel": self.channel, "cache_ad_value": "false", **attributes}
        return element("device", driver=driver or self.chip.name, **described)


class IioInterruptEither(IioInterrupt):
    """On a converter that can only switch both directions of an event together."""

    chip = ADC_BE12
    inputs, outputs, ioctrl, sioctrl = NAMED[0:4]

    def __repr__(self):
        return "iio-interrupt-either"


SPI, IIO, IIO_INTERRUPT, IIO_EITHER = Spi(), Iio(), IioInterrupt(), IioInterruptEither()
KINDS = (SPI, IIO, IIO_INTERRUPT, IIO_EITHER)
