// A port is built up by the elements that follow it: nesting is not checked, every element applies
// to the port created last, even one from an earlier file. What each attribute does is in
// conf-vocabulary.cpp.
#include "core/conf-reader.h"

#include "core/conf-vocabulary.h"
#include "core/drop-folder.h"
#include "description/reader.h"
#include "event/event.h"
#include "peers/bootblock.h"
#include "platform/handles.h"
#include "platform/log.h"
#include "platform/regular-file.h"
#include "port/ioport-list.h"
#include "port/port-place.h"

#include <memory>
#include <string_view>

namespace {

// One file being read.
struct File {
  ConfReader& reader;
  const char* name;
  /// The device's hardware id, once asked for and answered.
  std::unique_ptr<gchar, FreeWith<g_free>> hwid_value;
};

// Where the parser stands, for messages.
struct Place {
  const char* file_name;
  gint line;
  const char* element;
};

std::string_view view(const char* text) {
  return text;
}

bool hwid_matches(const char* hwid_value, const char* prefixes) {
  g_auto(GStrv) pieces = g_strsplit(prefixes, ":", -1);
  for (gchar** piece = pieces; *piece != nullptr; piece++) {
    if (g_str_has_prefix(hwid_value, *piece)) {
      return true;
    }
  }
  return false;
}

// Whether the device has the hardware that the port is meant for. Without an id to compare, a
// port too many is better than a door that does not open.
bool hardware_accepted(File& file, const char* prefixes) {
  if (file.hwid_value == nullptr) {
    gchar* value = nullptr;
    bootblock_read_param("HWID", &value);
    file.hwid_value.reset(value);
    if (value != nullptr && *value == '\0') {
      file.hwid_value.reset();
    }
  }
  if (file.hwid_value == nullptr || *prefixes == '\0') {
    g_warning("%sCould not get the hardware id", log_prefix);
    return true;
  }
  return hwid_matches(file.hwid_value.get(), prefixes);
}

// Creates the port of a "port" element, unless its hardware is absent. The hardware filter must be
// the first attribute, and a name that replaces an earlier port the first of the others.
IoPortRef start_port(File& file, const Place& place, std::span<const DescribedAttribute>& rest) {
  if (!rest.empty() && view(rest.front().name) == "hwid") {
    if (!hardware_accepted(file, rest.front().value)) {
      file.reader.ignore_elements = true;
      return nullptr;
    }
    rest = rest.subspan(1);
  }
  if (!rest.empty() && view(rest.front().name) == "name") {
    io_port_list_free_by_name(rest.front().value);
  }
  IoPortRef port = io_port_new();
  port->origin = std::string(place.file_name) + ':' + std::to_string(place.line);
  io_port_list_add(port.get());
  return port;
}

void refuse(const Place& place, const char* reason) {
  g_warning("%s%s:%d: element '%s' %s", log_prefix, place.file_name, place.line, place.element,
            reason);
}

// The event that the element belongs to, created by the element itself if it is one.
IoEvent* current_event(IoPort* port, std::string_view element) {
  if (element == "event") {
    port->events.emplace_front(new IoEvent);
  }
  return port->events.empty() ? nullptr : port->events.front().get();
}

bool lost_for_backend(const ConfReader& reader, const IoPort* port, std::string_view element,
                      std::string_view key) {
  const bool meant_for_backend = reader.backend_data || element == "backend";
  const bool selects_backend = element == "backend" && key == "name";
  return meant_for_backend && !selects_backend && port->functions == nullptr;
}

void apply_attribute(ConfReader& reader, IoPort* port, IoEvent* event, const Place& place,
                     const char* key, const char* value) {
  const PortPlace of_port(port);
  if (lost_for_backend(reader, port, place.element, key)) {
    refuse(place, "has data for a backend that is not known yet; the attribute is ignored");
  }
  if (reader.backend_data && port->functions != nullptr) {
    io_port_parse_backend_data(port, place.element, key, value);
  }
  if (conf_is_port_text(place.element, key) && view(value).size() > io_port_text_limit) {
    refuse(place, "has a name or usage of more bytes than a port takes; the attribute is ignored");
  } else {
    conf_apply_attribute({.port = port, .event = event}, place.element, key, value);
  }
  if (view(place.element) == "backend") {
    reader.backend_data = true;
  }
}

void start_element(File& file, const DescribedElement& element) {
  if (file.reader.ignore_elements) {
    return;
  }
  const Place place{.file_name = file.name, .line = element.line, .element = element.name};
  auto rest = element.attributes;
  const IoPortRef port =
      view(element.name) == "port" ? start_port(file, place, rest) : io_port_list_nth_data(0);
  if (port == nullptr) {
    return;
  }
  IoEvent* const event = current_event(port.get(), element.name);
  if (view(element.name) == "keyvalue") {
    if (event == nullptr) {
      refuse(place, "belongs to no event; it is ignored");
      return;
    }
    event->key_values.emplace_front();
  }
  for (const auto& [name, value] : rest) {
    apply_attribute(file.reader, port.get(), event, place, name, value);
  }
}

void end_element(ConfReader& reader, std::string_view element) {
  if (element == "backend") {
    reader.backend_data = false;
  } else if (element == "port") {
    reader.ignore_elements = false;
  }
}

void report_dropped(const IoPort* port) {
  g_warning("%s%s: port '%s' (number %d) names no known backend, dropping it", log_prefix,
            port->origin.c_str(), port->name ? port->name->c_str() : "", port->number);
}

bool parse(ConfReader& reader, const char* file_name, const std::string& text) {
  File file{.reader = reader, .name = file_name, .hwid_value = nullptr};
  const DescriptionHandler handler{
      .start = [&](const DescribedElement& element) { start_element(file, element); },
      .end = [&](std::string_view element) { end_element(reader, element); }};
  g_autoptr(GError) error = nullptr;
  // A description that is merely cut short counts as far as it goes.
  if (description_read(text, handler, &error) == Reading::Broken) {
    g_critical("%sCouldn't parse markup file (%s)\n", log_prefix, file_name);
    g_warning("%s%s: %s", log_prefix, file_name, error->message);
    return false;
  }
  return true;
}

} // namespace

bool conf_read_configuration(ConfReader& reader, const char* file_name) {
  std::string text;
  g_autoptr(GError) error = nullptr;
  if (!regular_file_get_contents(file_name, Links::Followed, &text, &error)) {
    g_critical("%sCouldn't load XML (%s)\n", log_prefix, file_name);
    if (!g_error_matches(error, G_FILE_ERROR, G_FILE_ERROR_NOENT)) {
      g_warning("%s%s", log_prefix, error->message);
    }
    return false;
  }
  return parse(reader, file_name, text);
}

bool conf_read_drop_dir(ConfReader& reader, const char* directory) {
  return drop_folder_read(directory, [&](const char* file_name, const std::string& text) {
    return parse(reader, file_name, text);
  });
}

void conf_finish_reading() {
  io_port_list_drop_without_backend(report_dropped);
}
