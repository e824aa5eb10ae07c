#include "dbus/signal-flush.h"

#include "platform/mutex.h"

#include <chrono>
#include <condition_variable>
#include <memory>

namespace {

// A wait, by one thread, for another to have flushed a connection.
class Flush {
public:
  void done() {
    {
      const std::lock_guard guard(mutex_);
      done_ = true;
    }
    changed_.notify_one();
  }

  void wait() {
    std::unique_lock guard(mutex_);
    changed_.wait_for(guard, longest_wait, [this] { return done_; });
  }

private:
  /// A bus that stands still must not hold up a sequence.
  static constexpr std::chrono::milliseconds longest_wait{100};

  std::mutex mutex_;
  std::condition_variable changed_;
  bool done_ = false;
};

using SharedFlush = std::shared_ptr<Flush>;

/// Held while a flush goes from one thread to another; what the library does about that is out of
/// the thread sanitizer's sight.
Mutex handover_mutex;

gpointer hand_over(const SharedFlush& flush) {
  const MutexLock guard(handover_mutex);
  return new SharedFlush(flush);
}

SharedFlush handed_over(gpointer data) {
  const MutexLock guard(handover_mutex);
  return *static_cast<SharedFlush*>(data);
}

void drop_handed_over(gpointer data) {
  const MutexLock guard(handover_mutex);
  delete static_cast<SharedFlush*>(data);
}

void flush_in_thread(GTask* task, gpointer connection, gpointer data, GCancellable* /*unused*/) {
  g_dbus_connection_flush_sync(static_cast<GDBusConnection*>(connection), nullptr, nullptr);
  handed_over(data)->done();
  g_task_return_boolean(task, TRUE);
}

} // namespace

// GLib's flush cannot be interrupted, so a thread of its pool does it.
void signal_flush(GDBusConnection* connection) {
  const auto flush = std::make_shared<Flush>();
  g_autoptr(GTask) task = g_task_new(connection, nullptr, nullptr, nullptr);
  g_task_set_task_data(task, hand_over(flush), drop_handed_over);
  g_task_run_in_thread(task, flush_in_thread);
  flush->wait();
}
