// The lists and their look-ups. What is done to all ports in turn stands in ioport-list-setup.cpp.
#include "port/ioport-list.h"

#include "event/event.h"
#include "port/action-sequence.h"
#include "port/ioport-list-internal.h"
#include "port/port-observer.h"

#include <algorithm>

using namespace port_list;

namespace port_list {

// Never destroyed: a daemon that gives up early leaves its ports to the kernel.
Lists& lists = *new Lists;

MissingPort missing_port(const IoPort* port, const std::string& reason) {
  return {.name = port->name.value_or(""),
          .number = port->number,
          .optional = port->optional,
          .reason = reason};
}

bool addressable(IoPort* port) {
  return io_port_get_property(port, "ioport") || io_port_get_property(port, "virtual");
}

void update_action_registration_internal() {
  if (!port_observer.outputs_wanted) {
    return;
  }
  const bool wanted = std::ranges::any_of(lists.io_port_list, [](IoPort* port) {
    return io_port_has_output_side(port) && io_port_get_property(port, "ioport");
  });
  port_observer.outputs_wanted(wanted);
}

} // namespace port_list

namespace {

IoPortRef find_by_number(const std::deque<IoPort*>& ports, gint number) {
  IoPort* candidate = nullptr;
  for (IoPort* port : ports) {
    if (port->number == number && addressable(port)) {
      candidate = port;
    }
  }
  return io_port_ref(candidate);
}

auto find_by_name(const char* name) WEXD_REQUIRES(lists.mutex) {
  return std::ranges::find_if(lists.io_port_list, [name](const IoPort* port) {
    return g_strcmp0(c_str_or_null(port->name), name) == 0;
  });
}

// Counts ports that are of the fixed type, or configurable and currently that way round.
guint count_ports(PortType type, Direction direction) {
  const MutexLock guard(lists.mutex);
  guint count = 0;
  for (const IoPort* port : lists.io_port_list) {
    const bool counts =
        port->type == type || (port->type == PORT_IO_CTRL && port->direction == direction);
    count += counts && io_port_get_property(port, "ioport") ? 1U : 0U;
  }
  return count;
}

} // namespace

void io_port_list_add(IoPort* port) {
  const MutexLock guard(lists.mutex);
  lists.io_port_list.push_front(io_port_ref(port).release());
  update_action_registration_internal();
}

IoPortRef io_port_list_nth_data(guint n) {
  const MutexLock guard(lists.mutex);
  return n < lists.io_port_list.size() ? io_port_ref(lists.io_port_list[n]) : nullptr;
}

const std::deque<IoPort*>& io_port_list_get() {
  return lists.io_port_list;
}

guint io_port_list_length() {
  const MutexLock guard(lists.mutex);
  return static_cast<guint>(lists.io_port_list.size());
}

IoPortRef io_port_list_get_by_name(const char* name) {
  const MutexLock guard(lists.mutex);
  const auto found = find_by_name(name);
  return found != lists.io_port_list.end() ? io_port_ref(*found) : nullptr;
}

IoPortRef io_port_list_get_port(gint number) {
  const MutexLock guard(lists.mutex);
  return find_by_number(lists.io_port_list, number);
}

IoPortRef io_port_list_get_dynamic_port(gint number) {
  const MutexLock guard(lists.mutex);
  return find_by_number(lists.io_port_dynamic_list, number);
}

std::vector<IoPortRef> io_port_list_get_port_list(gint number) {
  const MutexLock guard(lists.mutex);
  std::vector<IoPortRef> ports;
  for (IoPort* port : lists.io_port_list) {
    if (port->number == number && addressable(port)) {
      ports.push_back(io_port_ref(port));
    }
  }
  return ports;
}

guint io_port_list_nbr_inputs() {
  return count_ports(PORT_INPUT, Direction::Input);
}

guint io_port_list_nbr_outputs() {
  return count_ports(PORT_OUTPUT, Direction::Output);
}

std::vector<gint> io_port_list_get_supervised_port_numbers() {
  const MutexLock guard(lists.mutex);
  std::vector<gint> numbers;
  for (IoPort* port : lists.io_port_list) {
    if (io_port_is_supervisable(port)) {
      numbers.push_back(port->number);
    }
  }
  return numbers;
}

bool io_port_list_get_port_any_value() {
  const MutexLock guard(lists.mutex);
  return std::ranges::any_of(lists.io_port_list, [](IoPort* port) {
    return io_port_got_port_any(port) && io_port_get_state(port);
  });
}

void io_port_list_move_to_dynamic(IoPort* port) {
  const MutexLock guard(lists.mutex);
  if (!port->optional || std::erase(lists.io_port_list, port) == 0) {
    return;
  }
  port->absence = "it was dropped";
  lists.io_port_dynamic_list.push_front(port);
  update_action_registration_internal();
}

void io_port_list_free_by_name(const char* name) {
  IoPortRef removed;
  const MutexLock guard(lists.mutex);
  if (const auto found = find_by_name(name); found != lists.io_port_list.end()) {
    removed.reset(*found);
    lists.io_port_list.erase(found);
  }
  update_action_registration_internal();
}

void io_port_list_drop_without_backend(void (*report)(const IoPort* port)) {
  std::vector<IoPortRef> removed;
  const MutexLock guard(lists.mutex);
  std::erase_if(lists.io_port_list, [&](IoPort* port) WEXD_REQUIRES(lists.mutex) {
    if (port->functions != nullptr) {
      return false;
    }
    report(port);
    lists.lost_ports.push_back(missing_port(port, "it names no known backend"));
    removed.emplace_back(port);
    return true;
  });
  if (!removed.empty()) {
    update_action_registration_internal();
  }
}

void io_port_list_update_action_registration() {
  const MutexLock guard(lists.mutex);
  update_action_registration_internal();
}

void io_port_list_free() {
  {
    const MutexLock guard(lists.mutex);
    for (auto* ports : {&lists.io_port_list, &lists.io_port_dynamic_list}) {
      std::ranges::for_each(*ports, io_port_free);
      ports->clear();
    }
    lists.lost_ports.clear();
  }
  // Sequences on ports that left the lists while they ran.
  action_sequences_stop();
}

void io_port_list_lock() {
  lists.mutex.lock();
}

void io_port_list_unlock() {
  lists.mutex.unlock();
}
