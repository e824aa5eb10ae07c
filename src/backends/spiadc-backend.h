// Hardware: an SPI analogue-to-digital converter whose level is judged by bands with hysteresis.
// Kernel interface: spidev, polled; mode, word size and speed stay as the driver has them.
// Vocabulary: element "device" with "device" (path), "timeout" (poll interval, ms), "address"
// (converter command), "inverted" ("true"); element "range", each attribute of which opens a band;
// element "input" with "active_min", "active_max" and "hysteresis" of the newest band.
// Limits: inputs only, no supervision; levels are 0-255.
#pragma once

struct IoPort;
struct PortFunctions;

/// The operation table of ports of kind "spiadc"; gives the port a record if it has none.
const PortFunctions* spiadc_setup_functions(IoPort* port);
