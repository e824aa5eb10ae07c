// IIO devices whose threshold events wake the daemon. The kernel hands out one event descriptor per
// device, so the ports on a device share its record.
//
// A threshold may fire again and again without a change of state (a converter that compares levels,
// of which the daemon sees fewer bits), and so may one of a channel that somebody else armed. After
// 32 events in a row that change nothing the device is left alone, for 100 ms at first and up to a
// second if that goes on. What its queue had no room for meanwhile is made up for by one look.
//
// A record lives as long as a port is set up on it; it is watched as long as a port wants its
// events. The watch is bound to the port that came first and passes on when that one leaves.
#pragma once

#include <glib.h>

#include <string>

struct IoPort;

/// For a handler: an event of any channel may have been lost.
inline constexpr gint iio_every_channel = -1;

/// Called for an event of the port's device, with the channel that the event names; returns whether
/// it led to a new state. Main thread.
using IioEventHandler = bool (*)(IoPort* port, gint channel);

/// Opens the device's record for a port, or joins it. False, with a warning, on failure.
[[nodiscard]] bool iio_event_device_join(IoPort* port, const std::string& path);
/// Leaves the record; the last port to leave closes it.
void iio_event_device_leave(IoPort* port, const std::string& path);

/// Has the port served by the device's events; a port that is served already stays as it is.
void iio_event_device_watch(IoPort* port, const std::string& path, IioEventHandler handler);
/// Ends that; true when the port was served. The last port to leave ends the device's watch.
[[nodiscard]] bool iio_event_device_unwatch(IoPort* port, const std::string& path);
