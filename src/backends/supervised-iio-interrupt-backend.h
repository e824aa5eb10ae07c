// Hardware: a line as in supervised-spi-backend.h, measured by a converter that can raise an event
// when a level is crossed; or ("adc" mode) a converter channel alone.
// Kernel interface: IIO threshold events armed around the range that holds the level, so that the
// daemon sleeps until the level leaves it; the raw value from sysfs; sysfs GPIO.
// Vocabulary: pins as in supervised-spi-backend.h ("sio_ctrl" optional); "device" with "driver",
// "channel", "channel_name", "chan_extend_name", "hysteresis", "lower_limit", "upper_limit",
// "limit_timeout" (ms), "bitshift", "integration_time" (us), "one_threshold", "mode" ("adc": no
// pins), "shared_samplefreq", "shared_thresh_either_period", "cache_ad_value",
// "pullup_when_supervised"; "range" with "state", "lower" and, last, "upper".
// Limits: of several ports on one device, only the first to be watched gets its events.
#pragma once

struct IoPort;
struct PortFunctions;

/// The operation table of ports of kind "iio-interrupt"; gives the port a record if it has none.
const PortFunctions* iio_int_setup_functions(IoPort* port);
