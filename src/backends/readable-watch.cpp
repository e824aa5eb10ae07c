#include "backends/readable-watch.h"

#include "platform/callbacks.h"
#include "platform/flags.h"
#include "platform/log.h"

#include <glib-unix.h>

#include <utility>

void ReadableWatch::start(int fd, const char* name, Handler handler) {
  if (*this) {
    return;
  }
  fd_ = fd;
  name_ = name;
  handler_ = std::move(handler);
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
  source_.reset(g_unix_fd_add(fd_, flags(G_IO_IN, G_IO_ERR, G_IO_HUP, G_IO_NVAL),
                              callback<&ReadableWatch::on_condition>, this));
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
  rest_timer_.reset(g_timeout_add(duration_ms, callback<&ReadableWatch::on_rested>, this));
}

gboolean ReadableWatch::on_condition(gint /*fd*/, GIOCondition condition) {
  if ((condition & G_IO_IN) == 0) {
    hang_up();
    return G_SOURCE_REMOVE;
  }
  if (hung_up_.end()) {
    g_message("%s%s is back", log_prefix, name_.c_str());
  }
  const Found found = handler_();
  if (found == Found::Sense) {
    rest_.reset();
  } else if (found == Found::Trouble && source_) {
    rest(rest_.next());
    return G_SOURCE_REMOVE;
  }
  return G_SOURCE_CONTINUE;
}

gboolean ReadableWatch::on_rested() {
  rest_timer_.forget();
  look();
  return G_SOURCE_REMOVE;
}
