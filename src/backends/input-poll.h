// The poll of an input whose hardware does not tell its changes: what a class of such hardware
// derives from. Main thread only.
#pragma once

#include "platform/handles.h"
#include "port/ioport.h"

class InputPoll {
public:
  explicit InputPoll(IoPort& port) : port_(port) {}
  InputPoll(const InputPoll&) = delete;
  InputPoll& operator=(const InputPoll&) = delete;

  /// Starts the poll; a running one stays as it is. The port has its true state from then on, which
  /// is what its events are declared with; the first poll reports it.
  bool set_watch();

protected:
  ~InputPoll() = default;

  /// Reads the hardware anew; whether the value is another than before.
  virtual bool refresh() = 0;
  /// The same, but changes nothing about the hardware.
  virtual bool look() { return refresh(); }

  IoPort& port_;
  /// 0 polls on every turn of the main loop.
  guint interval_ms_ = 0;

private:
  gboolean on_time();

  /// What was found at the start is not reported yet.
  bool unreported_ = false;
  SourceId source_;
};
