#include "backends/iio-event-device.h"

#include "backends/readable-watch.h"
#include "platform/callbacks.h"
#include "platform/handles.h"
#include "platform/log.h"
#include "platform/mutex.h"

#include <fcntl.h>
#include <linux/iio/events.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <list>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace {

struct IntDevice {
  std::string path;
  UniqueFd event_fd;
  /// Set up on the device.
  std::vector<IoPort*> members;
  /// Served by its events, in the order in which they came; the first is the one that is served.
  std::vector<IoPort*> watchers;
  IioEventHandler handler = nullptr;
  /// Events in a row that changed nothing.
  guint idle_events = 0;
  /// Runs from the last of them.
  SourceId calm_timer;
  /// Events may have been lost while the device was left alone.
  bool look_anyway = false;
  Trouble restless;
  Trouble unreadable;
  // Last, so that it goes before the descriptor that it polls.
  ReadableWatch watch;
};

/// Guards the list of devices and the records in it.
Mutex devices_mutex;
std::list<std::unique_ptr<IntDevice>> devices WEXD_GUARDED_BY(devices_mutex);

IntDevice* find_device(const std::string& path) WEXD_REQUIRES(devices_mutex) {
  const auto found =
      std::ranges::find_if(devices, [&](const auto& device) { return device->path == path; });
  return found != devices.end() ? found->get() : nullptr;
}

int request_event_fd(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    g_warning("%sFailed to open device: %s", log_prefix, g_strerror(errno));
    return -1;
  }
  int event_fd = -1;
  if (ioctl(fd, IIO_GET_EVENT_FD_IOCTL, &event_fd) < 0 || event_fd < 0) {
    g_warning("%sFailed to open device %s: %s", log_prefix, path.c_str(), g_strerror(errno));
  }
  if (close(fd) != 0) {
    g_warning("%sCouldn't close char device", log_prefix);
  }
  return event_fd;
}

IntDevice* open_device(const std::string& path) WEXD_REQUIRES(devices_mutex) {
  auto device = std::unique_ptr<IntDevice>(new (std::nothrow) IntDevice);
  if (device == nullptr) {
    g_warning("%sFailed to allocate IntDevice", log_prefix);
    return nullptr;
  }
  device->path = path;
  device->event_fd.reset(request_event_fd(path));
  if (!device->event_fd) {
    return nullptr;
  }
  return devices.emplace_back(std::move(device)).get();
}

void insert_once(std::vector<IoPort*>& ports, IoPort* port) {
  if (std::ranges::find(ports, port) == ports.end()) {
    ports.push_back(port);
  }
}

using Found = ReadableWatch::Found;

constexpr guint idle_events_allowed = 32;
/// A device that was silent for longer than any rest has calmed down by itself.
constexpr guint calm_ms = 2 * longest_rest_ms;

// Reads one event; nothing when there is none to act on.
std::optional<gint> read_event_channel(IntDevice& device) {
  iio_event_data event{};
  const ssize_t got = read(device.event_fd.get(), &event, sizeof event);
  if (std::cmp_equal(got, sizeof event)) {
    if (device.unreadable.end()) {
      g_message("%s%s can be read again", log_prefix, device.path.c_str());
    }
    return static_cast<gint>(event.id & 0xFFFFU);
  }
  if (device.unreadable.tell()) {
    g_warning("%sread Error: %s", log_prefix, got < 0 ? g_strerror(errno) : "event cut short");
  }
  return std::nullopt;
}

struct PendingEvent {
  IoPort* port = nullptr;
  IioEventHandler handler = nullptr;
  gint channel = 0;
};

// Nothing when the device cannot be read.
std::optional<PendingEvent> take_event(const std::string& path) {
  const MutexLock guard(devices_mutex);
  IntDevice* const device = find_device(path);
  if (device == nullptr) {
    g_warning("%sCouldn't find interrupt device after triggered interrupt", log_prefix);
    return std::nullopt;
  }
  const auto channel = read_event_channel(*device);
  if (!channel) {
    return std::nullopt;
  }
  const bool look_anyway = std::exchange(device->look_anyway, false);
  return PendingEvent{.port = device->watchers.empty() ? nullptr : device->watchers.front(),
                      .handler = device->handler,
                      .channel = look_anyway ? iio_every_channel : *channel};
}

// What nobody came to read is no silence: an event that waits goes before this.
gboolean on_calm(IntDevice* device) {
  device->calm_timer.forget();
  return G_SOURCE_REMOVE;
}

void calm_down(IntDevice& device) {
  device.idle_events = 0;
  if (device.restless.end()) {
    g_message("%s%s reports true changes again", log_prefix, device.path.c_str());
  }
}

// One event that changes nothing is no trouble; a device that sends nothing else is.
Found judge(const std::string& path, Found found) {
  const bool news = found == Found::Sense;
  const MutexLock guard(devices_mutex);
  IntDevice* const device = find_device(path);
  if (device == nullptr) {
    return Found::Nothing;
  }
  const bool was_calm = !device->calm_timer;
  if (news || was_calm) {
    calm_down(*device);
  }
  device->calm_timer.reset(
      news ? 0 : g_timeout_add_full(G_PRIORITY_LOW, calm_ms, callback<on_calm>, device, nullptr));
  if (news) {
    return Found::Sense;
  }
  if (++device->idle_events < idle_events_allowed) {
    return was_calm ? Found::Sense : Found::Nothing;
  }
  device->idle_events = 0;
  device->look_anyway = true;
  if (device->restless.tell()) {
    g_warning("%s%s keeps reporting changes that are none, looking at it less often", log_prefix,
              device->path.c_str());
  }
  return Found::Trouble;
}

// The path is the record's own, which outlives its watch.
Found on_event(const std::string& path) {
  const auto event = take_event(path);
  if (!event) {
    return Found::Trouble;
  }
  const bool news = event->port != nullptr && event->handler(event->port, event->channel);
  return judge(path, news ? Found::Sense : Found::Nothing);
}

} // namespace

bool iio_event_device_join(IoPort* port, const std::string& path) {
  const MutexLock guard(devices_mutex);
  IntDevice* device = find_device(path);
  if (device == nullptr) {
    device = open_device(path);
  }
  if (device == nullptr) {
    g_warning("%sFailed to open backend->device", log_prefix);
    return false;
  }
  insert_once(device->members, port);
  return true;
}

void iio_event_device_leave(IoPort* port, const std::string& path) {
  const MutexLock guard(devices_mutex);
  IntDevice* const device = find_device(path);
  if (device != nullptr && std::erase(device->members, port) > 0 && device->members.empty()) {
    std::erase_if(devices, [&](const auto& entry) { return entry.get() == device; });
  }
}

void iio_event_device_watch(IoPort* port, const std::string& path, IioEventHandler handler) {
  const MutexLock guard(devices_mutex);
  IntDevice* const device = find_device(path);
  if (device == nullptr) {
    return;
  }
  insert_once(device->watchers, port);
  device->handler = handler;
  device->watch.start(device->event_fd.get(), device->path.c_str(),
                      [&path = device->path] { return on_event(path); });
}

bool iio_event_device_unwatch(IoPort* port, const std::string& path) {
  const MutexLock guard(devices_mutex);
  IntDevice* const device = find_device(path);
  if (device == nullptr || std::erase(device->watchers, port) == 0) {
    return false;
  }
  if (device->watchers.empty()) {
    device->watch.stop();
  }
  return true;
}
