// Hardware: a line as in supervised-spi-backend.h, measured by a converter with a kernel driver; or
// ("adc" mode) a converter channel alone.
// Kernel interface: IIO buffered sampling: a high-resolution timer trigger made through configfs,
// one voltage channel, samples read from the device node; sysfs GPIO.
// Vocabulary: pins as in supervised-spi-backend.h; "device" with "name" (converter), "adc" (device
// whose trigger is set), "hrtimer" (trigger to make), "freq" (Hz), "shift" (more bits to drop),
// "channel", "mode" ("adc": no pins); "range" with "state", "lower" and, last, "upper".
// Limits: unsigned samples of up to 32 bits; one port per converter, whose node opens once.
#pragma once

struct IoPort;
struct PortFunctions;

/// The operation table of ports of kind "iio"; gives the port a record if it has none.
const PortFunctions* iio_setup_functions(IoPort* port);
