// The port object: state, inversion, direction, names and properties. Its life is in
// ioport-lifetime.cpp, its supervision in ioport-supervision.cpp.
#include "port/ioport.h"

#include "event/event.h"
#include "platform/checks.h"
#include "platform/log.h"
#include "port/port-observer.h"
#include "port/port-place.h"

#include <string_view>
#include <tuple>

namespace {

bool read_only(IoPort* ioport, const char* property) {
  return io_port_get_property(ioport, "readonly") || io_port_get_property(ioport, property);
}

bool too_long(const char* text) {
  return text != nullptr && std::string_view(text).size() > io_port_text_limit;
}

bool has_side(const IoPort* port, PortSide side) {
  return side == PortSide::Input ? io_port_has_input_side(port) : io_port_has_output_side(port);
}

PortSide current_side(IoPort* port) {
  return io_port_input(port) ? PortSide::Input : PortSide::Output;
}

bool activelow_of_current_side(IoPort* port) {
  return io_port_get_activelow(port, current_side(port));
}

// A state reaches the event system first, then whoever listens to signals.
void announce_state(IoPort* ioport, ReportedState state, Trigger trigger) {
  if (ioport->enabled) {
    io_port_send_events(ioport, state);
    io_port_send_signal(ioport, trigger, state);
  }
}

void announce_present_state(IoPort* ioport) {
  announce_state(ioport, ReportedState(io_port_get_state(ioport)), Trigger::Hardware);
}

void apply_input_activelow(IoPort* ioport) {
  announce_present_state(ioport);
  port_observer.setting_changed(*ioport, Setting::InputSense);
}

void apply_output_activelow(IoPort* ioport) WEXD_REQUIRES(ioport->gate) {
  // With the new sense stored, the unflipped line reads as the opposite logical state; flipping it
  // restores the old one, which the state setter announces once.
  const bool high = ioport->functions->get_state(ioport) != Level::Low;
  io_port_set_state_internal(ioport, high == ioport->activelow_output);
  port_observer.setting_changed(*ioport, Setting::OutputSense);
}

void copy_text(const OptionalText& text, gchar** copy) {
  *copy = g_strdup(c_str_or_null(text));
}

} // namespace

bool io_port_input(IoPort* port) {
  g_assert(port->functions != NULL);
  return io_port_faces_inwards(port);
}

bool io_port_direction_input(const IoPort* ioport) {
  WEXD_ASSERT_NONNULL(ioport);
  switch (ioport->type) {
  case PORT_INPUT:
    return true;
  case PORT_OUTPUT:
    return false;
  case PORT_IO_CTRL:
    return ioport->direction == Direction::Input;
  }
  g_assert_not_reached();
}

bool io_port_set_direction(IoPort* ioport, Direction direction) {
  WEXD_ASSERT_NONNULL(ioport);
  if (ioport->type != PORT_IO_CTRL) {
    return false;
  }

  const PortGate::Configuration change(ioport->gate);
  const PortPlace place(ioport);
  ioport->direction = direction;
  if (ioport->is_setup) {
    ioport->functions->set_direction(ioport, direction);
    if (direction == Direction::Input) {
      std::ignore = io_port_set_watch(ioport);
    }
    for (const auto& event : ioport->events) {
      if (io_event_currently_applicable(ioport, event.get())) {
        std::ignore = io_event_declare_event(ioport, event.get());
      } else {
        io_event_undeclare_event(event.get());
      }
    }
    announce_present_state(ioport);
    port_observer.setting_changed(*ioport, Setting::Direction);
  }
  return true;
}

bool io_port_get_state(IoPort* ioport) {
  WEXD_ASSERT_NONNULL(ioport);
  if (!ioport->is_setup) {
    return false;
  }
  g_assert(ioport->functions != NULL);
  const PortPlace place(ioport);
  const Level level = ioport->functions->get_state(ioport);
  return level != Level::Unknown && (level == Level::High) != activelow_of_current_side(ioport);
}

void io_port_set_state_internal(IoPort* ioport, bool state) {
  const PortPlace place(ioport);
  const bool before = io_port_get_state(ioport);
  ioport->functions->set_state(ioport, level_of(state != ioport->activelow_output));
  const bool after = io_port_get_state(ioport);
  if (after != before) {
    announce_state(ioport, ReportedState(after), Trigger::Hardware);
  }
}

bool io_port_set_state(IoPort* ioport, bool state) {
  WEXD_ASSERT_NONNULL(ioport);
  if (io_port_input(ioport) || ioport->backend == BACKEND_VIRTUAL || !ioport->is_setup) {
    const PortPlace place(ioport);
    g_warning("%sSet state on incorrect port", log_prefix);
    return false;
  }
  const PortGate::Write turn(ioport->gate);
  io_port_set_state_internal(ioport, state);
  return true;
}

bool io_port_set_virtual(IoPort* ioport, bool state) {
  WEXD_ASSERT_NONNULL(ioport);
  if (!ioport->enabled) {
    return true;
  }
  WEXD_ASSERT_NONNULL(ioport->functions);
  if (ioport->backend == BACKEND_VIRTUAL && ioport->type == PORT_OUTPUT) {
    ioport->functions->set_state(ioport, level_of(state));
  }
  announce_state(ioport, ReportedState(state), Trigger::Virtual);
  return true;
}

void io_port_trigger(IoPort* ioport, ReportedState state) {
  WEXD_ASSERT_NONNULL(ioport);
  announce_state(ioport, state, Trigger::Hardware);
}

void io_port_send_events(IoPort* ioport, ReportedState state) {
  for (const auto& event : ioport->events) {
    if (io_event_currently_applicable(ioport, event.get())) {
      std::ignore = io_event_send_event(ioport, event.get(), state);
    }
  }
}

void io_port_send_signal(IoPort* port, Trigger trigger, ReportedState state) {
  g_assert(port->functions != NULL);
  if (!port->enabled) {
    return;
  }
  port_observer.port_changed(PortChange{.number = port->number,
                                        .is_virtual = io_port_get_property(port, "virtual"),
                                        .hidden = io_port_get_property(port, "hidden"),
                                        .input = io_port_input(port),
                                        .trigger = trigger,
                                        .state = state.active(),
                                        .activelow = activelow_of_current_side(port)});
}

bool io_port_get_activelow(IoPort* ioport, PortSide side) {
  WEXD_ASSERT_NONNULL(ioport);
  return side == PortSide::Input ? ioport->activelow_input : ioport->activelow_output;
}

bool io_port_set_activelow(IoPort* ioport, bool value, PortSide side) {
  WEXD_ASSERT_NONNULL(ioport);
  const bool input_side = side == PortSide::Input;
  if (!has_side(ioport, side)) {
    return false;
  }
  bool& activelow = input_side ? ioport->activelow_input : ioport->activelow_output;
  if (activelow == value) {
    return true;
  }
  if (read_only(ioport, input_side ? "readonly_Trig" : "readonly_Active")) {
    return false;
  }

  const PortGate::Configuration change(ioport->gate);
  if (activelow == value) {
    return true;
  }
  io_port_reset_event_filters(ioport);
  activelow = value;
  if (ioport->is_setup && current_side(ioport) == side) {
    if (input_side) {
      apply_input_activelow(ioport);
    } else {
      apply_output_activelow(ioport);
    }
  }
  return true;
}

gchar* io_port_get_name(IoPort* ioport) {
  WEXD_RETURN_VAL_IF_FAIL(ioport, nullptr);
  if (io_port_faces_inwards(ioport)) {
    return g_strdup(c_str_or_null(ioport->input_name));
  }
  return io_port_has_output_side(ioport) ? g_strdup(c_str_or_null(ioport->output_name)) : nullptr;
}

void io_port_get_names(IoPort* ioport, gchar** input_name, gchar** output_name) {
  WEXD_RETURN_IF_FAIL(ioport);
  if (io_port_has_input_side(ioport)) {
    copy_text(ioport->input_name, input_name);
  }
  if (io_port_has_output_side(ioport)) {
    copy_text(ioport->output_name, output_name);
  }
}

namespace {

bool set_name(IoPort* ioport, const char* name, PortSide side) {
  if (ioport == nullptr || !has_side(ioport, side)) {
    return false;
  }
  const bool input_side = side == PortSide::Input;
  OptionalText& stored = input_side ? ioport->input_name : ioport->output_name;
  if (g_strcmp0(name, c_str_or_null(stored)) == 0) {
    return true;
  }
  if (read_only(ioport, "readonly_Name") || too_long(name)) {
    return false;
  }
  stored = name != nullptr ? OptionalText(name) : std::nullopt;
  port_observer.setting_changed(*ioport, input_side ? Setting::InputName : Setting::OutputName);

  // Declarations carry the name of the side in use only.
  if (io_port_faces_inwards(ioport) == input_side) {
    io_port_redeclare_events(ioport);
  }
  return true;
}

} // namespace

bool io_port_set_input_name(IoPort* ioport, const char* name) {
  return set_name(ioport, name, PortSide::Input);
}

bool io_port_set_output_name(IoPort* ioport, const char* name) {
  return set_name(ioport, name, PortSide::Output);
}

gchar* io_port_get_usage(IoPort* ioport) {
  WEXD_RETURN_VAL_IF_FAIL(ioport, nullptr);
  return g_strdup(ioport->usage.c_str());
}

bool io_port_set_usage(IoPort* ioport, const char* usage) {
  if (ioport == nullptr) {
    return false;
  }
  const std::string text = usage != nullptr ? usage : "";
  if (text == ioport->usage) {
    return true;
  }
  if (read_only(ioport, "readonly_Usage") || too_long(usage)) {
    return false;
  }
  ioport->usage = text;
  port_observer.setting_changed(*ioport, Setting::Usage);
  return true;
}

void io_port_add_property(IoPort* ioport, const char* key, const char* value) {
  WEXD_ASSERT_NONNULL(ioport);
  const gboolean truth = g_ascii_strcasecmp(value, "true") == 0;
  g_hash_table_replace(ioport->properties, g_strdup(key), GINT_TO_POINTER(truth));
}

bool io_port_get_property(const IoPort* ioport, const char* key) {
  bool value = false;
  return io_port_lookup_property(ioport, key, &value) && value;
}

bool io_port_lookup_property(const IoPort* ioport, const char* key, bool* value) {
  gpointer stored = nullptr;
  if (ioport->properties == nullptr
      || !g_hash_table_lookup_extended(ioport->properties, key, nullptr, &stored)) {
    return false;
  }
  *value = GPOINTER_TO_INT(stored) != 0;
  return true;
}

GList* io_port_get_property_keys(IoPort* ioport) {
  return g_hash_table_get_keys(ioport->properties);
}

GList* io_port_get_property_values(IoPort* ioport) {
  return g_hash_table_get_values(ioport->properties);
}

void io_port_set_enabled(IoPort* ioport, bool enabled) {
  WEXD_ASSERT_NONNULL(ioport);
  if (ioport->enabled == enabled) {
    return;
  }
  ioport->enabled = enabled;
  for (const auto& event : ioport->events) {
    if (enabled) {
      std::ignore = io_event_declare_event(ioport, event.get());
    } else {
      io_event_undeclare_event(event.get());
    }
  }
}

bool io_port_got_port_any(IoPort* ioport) {
  if (!ioport->enabled) {
    return false;
  }
  for (const auto& event : ioport->events) {
    if (event->declaration == event_port_any) {
      return true;
    }
  }
  return false;
}

void io_port_redeclare_events(IoPort* ioport) {
  for (const auto& event : ioport->events) {
    io_event_redeclare_port(ioport, event.get());
  }
}

void io_port_reset_event_filters(IoPort* ioport) {
  for (const auto& event : ioport->events) {
    io_event_reset_filter(event.get());
  }
}

bool io_port_set_mode(IoPort* ioport, PortMode mode) {
  if (mode != PORT_MODE_MONOSTABLE && mode != PORT_MODE_BISTABLE) {
    return false;
  }
  ioport->mode = mode;
  return true;
}

PortMode io_port_get_mode(IoPort* ioport) {
  return ioport != nullptr ? ioport->mode : PORT_MODE_NONE;
}

void io_port_set_delay_time(IoPort* ioport, gint32 delay_time) {
  ioport->delay_time = delay_time;
}

gint32 io_port_get_delay_time(IoPort* ioport) {
  return ioport != nullptr ? ioport->delay_time : -1;
}

void io_port_set_spare_count(IoPort* ioport, guint32 count) {
  if (count != 0) {
    ioport->spare_count = count;
  }
}

guint32 io_port_get_spare_count(IoPort* ioport) {
  return ioport->spare_count;
}
