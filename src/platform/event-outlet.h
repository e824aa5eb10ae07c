// Where the events of our event libraries go. Each library is event-library.cpp with an outlet of
// its own: event-outlet-log.cpp, event-outlet-mqtt.cpp.
#pragma once

#include "platform/event-records.h"

#include <memory>
#include <string>

/// Is told of one event after the other, on any thread, with locks held: nothing here may block.
class EventOutlet {
public:
  explicit EventOutlet(const std::string& producer);
  ~EventOutlet();
  EventOutlet(const EventOutlet&) = delete;
  EventOutlet& operator=(const EventOutlet&) = delete;

  void declared(guint id, const NvEventDeclaration& declaration);
  void withdrawn(guint id, const NvEventDeclaration& declaration);
  /// A complete event: every key has a value.
  void sent(const NvEvent& event, const NvEventDeclaration& declaration);

private:
  struct State;
  std::unique_ptr<State> state_;
};
