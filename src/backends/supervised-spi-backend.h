// Hardware: a line with a logic input, an optional output, two control pins, and an SPI
// analogue-to-digital converter that measures the line while it is supervised.
// Kernel interface: sysfs GPIO, spidev (16 bits a word), polled every 250 ms while supervised.
// Vocabulary: pins "input", "output", "io_ctrl", "sio_ctrl" (see libugpio-backend.h); "device" with
// "path"; "speed" with "value" (Hz); "address" (any attribute, hexadecimal); "range" with "state",
// "lower" and, last, "upper".
// Limits: ports numbered 0-5; levels are 0-255.
#pragma once

struct IoPort;
struct PortFunctions;

/// The operation table of ports of kind "spi"; gives the port a record if it has none.
const PortFunctions* spi_setup_functions(IoPort* port);
