#include "backends/readable-watch.h"

#include "platform/log.h"

#include <glib-unix.h>

namespace {

constexpr guint rest_ms = 100;

} // namespace

void ReadableWatch::start(int fd, const char* name, Handler handler, gpointer user_data) {
  if (*this) {
    return;
  }
  fd_ = fd;
  name_ = name;
  handler_ = handler;
  user_data_ = user_data;
  told_ = false;
  look();
}

void ReadableWatch::stop() {
  source_.reset();
  rest_.reset();
}

// Trouble is reported whether it was asked for or not; asked for, it gets here.
void ReadableWatch::look() {
  constexpr auto condition = static_cast<GIOCondition>(G_IO_IN | G_IO_ERR | G_IO_HUP | G_IO_NVAL);
  source_.reset(g_unix_fd_add(fd_, condition, on_condition, this));
}

void ReadableWatch::rest() {
  if (!told_) {
    g_warning("%s%s hung up, looking at it again every %u ms", log_prefix, name_.c_str(), rest_ms);
  }
  told_ = true;
  source_.forget();
  rest_.reset(g_timeout_add(rest_ms, on_rested, this));
}

gboolean ReadableWatch::on_condition(gint /*fd*/, GIOCondition condition, gpointer user_data) {
  auto* watch = static_cast<ReadableWatch*>(user_data);
  if ((condition & G_IO_IN) == 0) {
    watch->rest();
    return G_SOURCE_REMOVE;
  }
  watch->told_ = false;
  // The watch may be gone afterwards; its source then is too, whatever is returned.
  watch->handler_(watch->user_data_);
  return G_SOURCE_CONTINUE;
}

gboolean ReadableWatch::on_rested(gpointer user_data) {
  auto* watch = static_cast<ReadableWatch*>(user_data);
  watch->rest_.forget();
  watch->look();
  return G_SOURCE_REMOVE;
}
