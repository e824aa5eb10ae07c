// The watch on a device that is read whenever it has something to tell.
//
// What a device reports without having anything to read (the other end of a pipe has closed, a
// driver is being replaced) is no event. Polling it meanwhile would never rest, and what it tells
// later still counts; so it is left alone for a moment and then looked at again. Main thread only.
#pragma once

#include "platform/handles.h"

#include <string>

class ReadableWatch {
public:
  using Handler = void (*)(gpointer user_data);

  ReadableWatch() = default;
  ~ReadableWatch() { stop(); }
  ReadableWatch(const ReadableWatch&) = delete;
  ReadableWatch& operator=(const ReadableWatch&) = delete;

  /// Calls `handler` whenever the descriptor, which must outlive the watch, is readable; a running
  /// watch stays as it is. The handler may stop the watch. `name` is the device's in messages.
  void start(int fd, const char* name, Handler handler, gpointer user_data);
  void stop();
  explicit operator bool() const { return source_ || rest_; }

private:
  static gboolean on_condition(gint fd, GIOCondition condition, gpointer user_data);
  static gboolean on_rested(gpointer user_data);
  void look();
  void rest();

  int fd_ = -1;
  std::string name_;
  Handler handler_ = nullptr;
  gpointer user_data_ = nullptr;
  /// Whether the present trouble has been told.
  bool told_ = false;
  SourceId source_;
  SourceId rest_;
};
