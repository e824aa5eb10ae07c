// Birth, locking, backend attachment and death of a port.
#include "port/ioport.h"

#include "event/event.h"
#include "platform/checks.h"
#include "port/backend-registry.h"
#include "port/port-place.h"

namespace {

// Tells a fresh instance of a backend what the hardware description said. Ranges are user settings
// by now and must not be added once more.
void describe_to_backend(IoPort* ioport) {
  auto ranges = std::exchange(ioport->ranges, {});
  for (const auto& attribute : ioport->backend_description) {
    ioport->functions->parse_data(ioport, attribute.element.c_str(), attribute.key.c_str(),
                                  attribute.value.c_str());
  }
  ioport->ranges = std::move(ranges);
}

void ensure_backend_instance(IoPort* ioport) {
  if (ioport->backend_private != nullptr) {
    return;
  }
  if (const auto* entry = backend_registry_find(ioport->backend)) {
    entry->setup_functions(ioport);
    describe_to_backend(ioport);
  }
}

} // namespace

IoPortRef io_port_new() {
  IoPortRef port(new IoPort);
  port->properties = g_hash_table_new_full(g_str_hash, g_str_equal, g_free, nullptr);
  return port;
}

IoPortRef io_port_ref(IoPort* ioport) {
  if (ioport != nullptr) {
    ioport->refcount.fetch_add(1);
  }
  return IoPortRef(ioport);
}

void io_port_unref(IoPort* ioport) {
  if (ioport != nullptr && ioport->refcount.fetch_sub(1) == 1) {
    io_port_free(ioport);
  }
}

void io_port_free(IoPort* ioport) {
  WEXD_ASSERT_NONNULL(ioport);
  {
    const PortGate::Configuration change(ioport->gate);
    ioport->events.clear();
  }
  g_clear_pointer(&ioport->properties, g_hash_table_unref);
  if (ioport->functions != nullptr) {
    ioport->functions->free(ioport);
  }
  delete ioport;
}

const PortFunctions* io_port_set_backend(IoPort* ioport, BackendKind kind) {
  const auto replaced = std::exchange(ioport->backend, kind);
  const auto* entry = backend_registry_find(kind);
  if (entry == nullptr) {
    return nullptr;
  }
  if (ioport->functions != nullptr && replaced != kind) {
    // The instance belongs to the backend that is being replaced.
    ioport->functions->free(ioport);
    ioport->backend_description.clear();
  }
  ioport->functions = entry->setup_functions(ioport);
  return ioport->functions;
}

bool io_port_setup(IoPort* ioport) {
  WEXD_ASSERT_NONNULL(ioport);
  WEXD_ASSERT_NONNULL(ioport->functions);
  ensure_backend_instance(ioport);
  const PortPlace place(ioport);
  if (!ioport->functions->setup(ioport, level_of(ioport->activelow_output))) {
    return false;
  }
  ioport->is_setup = true;
  ioport->hardware_gone = false;
  return true;
}

void io_port_close(IoPort* ioport) {
  WEXD_ASSERT_NONNULL(ioport);
  if (ioport->functions == nullptr) {
    return;
  }
  const PortGate::Configuration change(ioport->gate);
  const PortPlace place(ioport);
  ioport->is_setup = false;
  for (const auto& event : ioport->events) {
    io_event_mark_stale(event.get());
  }
  if (ioport->functions->close != nullptr) {
    ioport->functions->close(ioport);
  } else {
    ioport->functions->free(ioport);
  }
}

void io_port_parse_backend_data(IoPort* ioport, const char* element, const char* key,
                                const char* value) {
  WEXD_ASSERT_NONNULL(ioport);
  WEXD_ASSERT_NONNULL(ioport->functions);
  ioport->backend_description.push_back({.element = element, .key = key, .value = value});
  ioport->functions->parse_data(ioport, element, key, value);
}

bool io_port_set_watch(IoPort* ioport) {
  WEXD_ASSERT_NONNULL(ioport);
  if (!ioport->enabled || !io_port_input(ioport)) {
    return false;
  }
  return ioport->functions->set_watch(ioport);
}

bool io_port_lock_taken(IoPort* ioport) {
  return ioport->gate.busy();
}
