#include "backends/iio-event-device.h"

#include "platform/handles.h"
#include "platform/log.h"

#include <fcntl.h>
#include <glib-unix.h>
#include <linux/iio/events.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <list>
#include <memory>
#include <mutex>
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
  // Last, so that it goes before the descriptor that it polls.
  SourceId watch;
};

/// Guards the list of devices and the records in it.
std::mutex devices_mutex;
std::list<std::unique_ptr<IntDevice>> devices;

IntDevice* find_device(const std::string& path) {
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
    event_fd = -1;
  }
  if (close(fd) != 0) {
    g_warning("%sCouldn't close char device", log_prefix);
  }
  return event_fd;
}

IntDevice* open_device(const std::string& path) {
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

// Reads one event; -1 when there is none to act on.
gint read_event_channel(int fd) {
  iio_event_data event{};
  const ssize_t got = read(fd, &event, sizeof event);
  if (got != static_cast<ssize_t>(sizeof event)) {
    g_warning("%sread Error: %s", log_prefix, got < 0 ? g_strerror(errno) : "event cut short");
    return -1;
  }
  return static_cast<gint>(event.id & 0xFFFFU);
}

struct PendingEvent {
  IoPort* port = nullptr;
  IioEventHandler handler = nullptr;
  gint channel = -1;
  bool gone = false;
};

PendingEvent take_event(const std::string& path, GIOCondition condition) {
  const std::lock_guard guard(devices_mutex);
  IntDevice* const device = find_device(path);
  if (device == nullptr) {
    g_warning("%sCouldn't find interrupt device after triggered interrupt", log_prefix);
    return {.gone = true};
  }
  PendingEvent event{.handler = device->handler,
                     .channel = read_event_channel(device->event_fd.get()),
                     .gone = (condition & G_IO_IN) == 0};
  if (event.gone) {
    // A device that only reports trouble is gone; polling it would never rest.
    device->watch.forget();
  }
  event.port = device->watchers.empty() ? nullptr : device->watchers.front();
  return event;
}

gboolean on_event(gint /*fd*/, GIOCondition condition, gpointer user_data) {
  const PendingEvent event = take_event(*static_cast<std::string*>(user_data), condition);
  if (event.port != nullptr && event.channel >= 0) {
    event.handler(event.port, event.channel);
  }
  return event.gone ? G_SOURCE_REMOVE : G_SOURCE_CONTINUE;
}

void start_watch(IntDevice* device) {
  constexpr auto condition = static_cast<GIOCondition>(G_IO_IN | G_IO_ERR | G_IO_HUP | G_IO_NVAL);
  device->watch.reset(
      g_unix_fd_add_full(G_PRIORITY_DEFAULT, device->event_fd.get(), condition, on_event,
                         new std::string(device->path),
                         [](gpointer path) { delete static_cast<std::string*>(path); }));
}

} // namespace

bool iio_event_device_join(IoPort* port, const std::string& path) {
  const std::lock_guard guard(devices_mutex);
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
  const std::lock_guard guard(devices_mutex);
  IntDevice* const device = find_device(path);
  if (device != nullptr && std::erase(device->members, port) > 0 && device->members.empty()) {
    std::erase_if(devices, [&](const auto& entry) { return entry.get() == device; });
  }
}

void iio_event_device_watch(IoPort* port, const std::string& path, IioEventHandler handler) {
  const std::lock_guard guard(devices_mutex);
  IntDevice* const device = find_device(path);
  if (device == nullptr) {
    return;
  }
  insert_once(device->watchers, port);
  device->handler = handler;
  if (!device->watch) {
    start_watch(device);
  }
}

bool iio_event_device_unwatch(IoPort* port, const std::string& path) {
  const std::lock_guard guard(devices_mutex);
  IntDevice* const device = find_device(path);
  if (device == nullptr || std::erase(device->watchers, port) == 0) {
    return false;
  }
  if (device->watchers.empty()) {
    device->watch.reset();
  }
  return true;
}
