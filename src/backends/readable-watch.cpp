#include "backends/readable-watch.h"

#include "platform/callbacks.h"
#include "platform/log.h"

#include <glib-unix.h>

void ReadableWatch::start(int fd, const char* name, Handler handler, gpointer user_data) {
  if (*this) {
    return;
  }
  fd_ = fd;
  name_ = name;
  handler_ = handler;
  user_data_ = user_data;
  hung_up_ = Trouble();
  rest_.reset();
  look();
}

void ReadableWatch::stop() {
  source_.reset();
  rest_timer_.reset();
}

// Trouble is reported whether it was asked for or not; asked for, it gets here.
void ReadableWatch::look() {
  constexpr auto condition = static_cast<GIOCondition>(G_IO_IN | G_IO_ERR | G_IO_HUP | G_IO_NVAL);
  source_.reset(g_unix_fd_add(fd_, condition, on_condition, this));
}

void ReadableWatch::hang_up() {
  if (hung_up_.tell()) {
    g_warning("%s%s hung up, looking at it again every %u ms", log_prefix, name_.c_str(),
              shortest_rest_ms);
  }
  rest(shortest_rest_ms);
}

void ReadableWatch::rest(guint duration_ms) {
  source_.reset();
  rest_timer_.reset(g_timeout_add(duration_ms, source_callback<on_rested>, this));
}

gboolean ReadableWatch::on_condition(gint /*fd*/, GIOCondition condition, gpointer user_data) {
  auto* watch = static_cast<ReadableWatch*>(user_data);
  if ((condition & G_IO_IN) == 0) {
    watch->hang_up();
    return G_SOURCE_REMOVE;
  }
  if (watch->hung_up_.end()) {
    g_message("%s%s is back", log_prefix, watch->name_.c_str());
  }
  const Found found = watch->handler_(watch->user_data_);
  if (found == Found::Sense) {
    watch->rest_.reset();
  } else if (found == Found::Trouble && watch->source_) {
    watch->rest(watch->rest_.next());
    return G_SOURCE_REMOVE;
  }
  return G_SOURCE_CONTINUE;
}

gboolean ReadableWatch::on_rested(ReadableWatch* watch) {
  watch->rest_timer_.forget();
  watch->look();
  return G_SOURCE_REMOVE;
}
