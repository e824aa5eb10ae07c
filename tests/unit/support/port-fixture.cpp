#include "support/port-fixture.h"

#include <mutex>

namespace {

std::mutex mutex;
std::vector<std::string> changes;
std::vector<std::string> settings;
std::vector<gint> done_numbers;
std::vector<bool> wanted_flags;
std::vector<std::string> history;

// A line of one of the lists, and its place among all that was announced.
void note(std::vector<std::string>& list, const std::string& text) {
  const std::lock_guard guard(mutex);
  list.push_back(text);
  history.push_back(text);
}

void on_event(const std::string& line) {
  const std::lock_guard guard(mutex);
  history.push_back(line);
}

void on_port_changed(const PortChange& change) {
  std::string text = std::to_string(change.number) + ": state=" + (change.state ? "1" : "0");
  text += change.is_virtual ? " virtual" : "";
  text += change.hidden ? " hidden" : "";
  text += change.input ? " input" : "";
  text += change.trigger == Trigger::Virtual ? " virtual_trig" : "";
  text += change.activelow ? " activelow" : "";
  note(changes, text);
}

void on_sequence_done(gint number) {
  const std::lock_guard guard(mutex);
  done_numbers.push_back(number);
}

std::string setting_text(const IoPort& port, Setting setting) {
  const auto name = [](const OptionalText& text) { return text.value_or("(none)"); };
  switch (setting) {
  case Setting::InputName:
    return "input name=" + name(port.input_name);
  case Setting::OutputName:
    return "output name=" + name(port.output_name);
  case Setting::InputSense:
    return std::string("input sense=") + open_or_closed(port.activelow_input);
  case Setting::OutputSense:
    return std::string("output sense=") + open_or_closed(port.activelow_output);
  case Setting::Direction:
    return std::string("direction=") + direction_word(port.direction);
  case Setting::Usage:
    return "usage=" + port.usage;
  }
  g_assert_not_reached();
}

void on_setting_changed(const IoPort& port, Setting setting) {
  note(settings, std::to_string(port.number) + ": " + setting_text(port, setting));
}

void on_outputs_wanted(gboolean wanted) {
  const std::lock_guard guard(mutex);
  wanted_flags.push_back(wanted != FALSE);
}

template <typename List>
List take(List& list) {
  const std::lock_guard guard(mutex);
  return std::exchange(list, {});
}

} // namespace

IoEventPtr make_event(const char* declaration) {
  IoEventPtr event(new IoEvent);
  event->declaration = declaration;
  return event;
}

void PortTest::SetUp() {
  fake_backend::reset();
  fake_events::reset();
  port_observer.port_changed = on_port_changed;
  port_observer.sequence_done = on_sequence_done;
  port_observer.setting_changed = on_setting_changed;
  port_observer.outputs_wanted = on_outputs_wanted;
  fake_events::listener = on_event;
  take_changes();
  take_settings();
  take_dones();
  take_wanted();
  take_history();
}

void PortTest::TearDown() {
  io_port_list_free();
  fake_events::listener = nullptr;
  port_observer.port_changed = nullptr;
  port_observer.sequence_done = nullptr;
  port_observer.setting_changed = nullptr;
  port_observer.outputs_wanted = nullptr;
  EXPECT_EQ(fake_backend::live_records(), 0) << "a port or its hardware was not released";
}

IoPortRef PortTest::make(const PortDescription& description) {
  IoPortRef port = io_port_new();
  port->type = description.type;
  port->number = description.number;
  port->name = description.name;
  port->optional = description.optional;
  port->direction = description.direction_input ? Direction::Input : Direction::Output;
  port->supervised = description.supervised;
  for (const char* property : description.properties) {
    io_port_add_property(port.get(), property, "true");
  }
  io_port_set_backend(port.get(), description.backend);
  if (description.set_up) {
    EXPECT_TRUE(io_port_setup(port.get()));
  }
  fake_backend::take_calls();
  return port;
}

IoPort* PortTest::add(const PortDescription& description) {
  const auto port = make(description);
  io_port_list_add(port.get());
  take_wanted();
  return port.get();
}

IoEvent* PortTest::give_event(IoPort* port, const char* declaration, bool declared) {
  port->events.push_front(make_event(declaration));
  IoEvent* const event = port->events.front().get();
  if (declared) {
    io_event_declare_event(port, event);
    fake_events::take_log();
  }
  return event;
}

PortTest::Texts PortTest::take_changes() {
  return take(changes);
}

PortTest::Texts PortTest::take_settings() {
  return take(settings);
}

PortTest::Texts PortTest::take_history() {
  return take(history);
}

std::vector<gint> PortTest::take_dones() {
  return take(done_numbers);
}

std::size_t PortTest::dones() {
  const std::lock_guard guard(mutex);
  return done_numbers.size();
}

std::vector<bool> PortTest::take_wanted() {
  return take(wanted_flags);
}

bool PortTest::idle(IoPort* port) {
  return run_until([port] { return !io_port_lock_taken(port); });
}
