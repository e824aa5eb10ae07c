// The poll of an input whose hardware does not tell its changes.
//
// A record of such a backend has an `InputPoll poll`, a function `refresh`, which reads the
// hardware anew and returns whether the value is another than before, and a function `look`, which
// does the same and changes nothing about the hardware.
#pragma once

#include "backends/backend-data.h"
#include "backends/description-keys.h"
#include "platform/callbacks.h"
#include "platform/handles.h"
#include "port/ioport.h"
#include "port/port-place.h"

struct InputPoll {
  /// 0 polls on every turn of the main loop.
  guint interval_ms = 0;
  /// What was found at the start is not reported yet.
  bool unreported = false;
  SourceId source;
};

/// Reports the port's state when it has changed; keeps polling.
[[nodiscard]] gboolean input_poll_report(IoPort* port, bool changed);

template <typename Data>
gboolean input_poll_on_time(IoPort* port) {
  const PortPlace place(port);
  auto* data = backend_data<Data>(port);
  const bool unreported = std::exchange(data->poll.unreported, false);
  return input_poll_report(port, data->refresh() || unreported);
}

/// The slot that starts the poll; a running one stays as it is. The port has its true state from
/// then on, which is what its events are declared with; the first poll reports it.
template <typename Data>
[[nodiscard]] bool input_poll_set_watch(IoPort* port) {
  auto* data = backend_data_ensure<Data>(port);
  InputPoll& poll = data->poll;
  if (!poll.source) {
    poll.unreported = data->look();
    poll.source.reset(g_timeout_add(poll.interval_ms, callback<input_poll_on_time<Data>>, port));
  }
  return true;
}

/// A row's function for the attribute that tells the interval; decimal, 0x-hexadecimal or octal.
template <typename Data>
void take_interval(Data& data, const char* value) {
  take_number<&InputPoll::interval_ms, 0>(data.poll, value);
}

/// The table of such a backend.
template <typename Data>
[[nodiscard]] constexpr PortFunctions input_poll_table(PortFunctions slots) {
  slots.set_watch = [](IoPort* port) { return input_poll_set_watch<Data>(port); };
  return backend_table<Data>(slots);
}
