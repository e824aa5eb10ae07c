// The watch on a device that is read whenever it has something to tell.
//
// What a device reports without having anything to read (the other end of a pipe has closed, a
// driver is being replaced) is no event, and what cannot be read stays there. Polling such a device
// would never rest, and what it tells later still counts; so it is left alone for a while and then
// looked at again. Main thread only.
#pragma once

#include "backends/trouble.h"
#include "platform/handles.h"

#include <functional>
#include <string>

class ReadableWatch {
public:
  /// What a handler found.
  enum class Found {
    /// Something to go by: whatever was wrong is over.
    Sense,
    /// Nothing that says whether the device is well.
    Nothing,
    /// A reason to leave the device alone for a while, each time for longer until it makes sense.
    Trouble,
  };
  using Handler = std::function<Found()>;

  ReadableWatch() = default;
  ~ReadableWatch() { stop(); }
  ReadableWatch(const ReadableWatch&) = delete;
  ReadableWatch& operator=(const ReadableWatch&) = delete;

  /// Calls `handler` whenever the descriptor, which must outlive the watch, is readable; a running
  /// watch stays as it is. The handler may stop the watch, but not start it anew. `name` is the
  /// device's in messages.
  void start(int fd, const char* name, Handler handler);
  void stop();
  explicit operator bool() const { return source_ || rest_timer_; }

private:
  gboolean on_condition(gint fd, GIOCondition condition);
  gboolean on_rested();
  void look();
  void hang_up();
  void rest(guint duration_ms);

  int fd_ = -1;
  std::string name_;
  Handler handler_;
  Trouble hung_up_;
  Rest rest_;
  SourceId source_;
  SourceId rest_timer_;
};
