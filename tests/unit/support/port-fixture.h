// A bench of ports on fake hardware, with an observer and an event system that remember.
#pragma once

#include "event/event.h"
#include "port/ioport-list.h"
#include "port/ioport.h"
#include "port/port-observer.h"
#include "support/fake-backend.h"
#include "support/fake-event-library.h"
#include "support/log-capture.h"
#include "support/main-loop.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

/// What no description can ask for.
inline constexpr auto unknown_type = static_cast<PortType>(3);

/// A port as a test describes it.
struct PortDescription {
  PortType type = PORT_OUTPUT;
  gint number = 0;
  BackendKind backend = BACKEND_GPIO;
  OptionalText name = std::nullopt;
  /// Properties that are true.
  std::vector<const char*> properties = {"ioport"};
  bool optional = false;
  bool direction_input = true;
  bool supervised = false;
  bool set_up = true;
};

/// An event record of that declaration.
IoEventPtr make_event(const char* declaration);

class PortTest : public testing::Test {
public:
  using Texts = std::vector<std::string>;

protected:
  void SetUp() override;
  void TearDown() override;

  /// A port on fake hardware.
  IoPortRef make(const PortDescription& description);
  /// The same, added to the list. The pointer is the list's.
  IoPort* add(const PortDescription& description);
  /// Gives the port an event of that declaration, declared when asked for.
  IoEvent* give_event(IoPort* port, const char* declaration, bool declared = true);

  /// PortChanged announcements since the last call, oldest first, each as "3: state=1" followed by
  /// the flags that are set: virtual, hidden, input, virtual_trig, activelow.
  static Texts take_changes();
  /// Setting announcements, as "3: input name=door".
  static Texts take_settings();
  /// Changes, settings and what the event library heard, all in the order in which they came.
  static Texts take_history();
  /// Numbers of the ports whose sequences ended.
  static std::vector<gint> take_dones();
  static std::size_t dones();
  /// Announcements of whether outputs are wanted.
  static std::vector<bool> take_wanted();

  /// Waits until a sequence on the port has ended.
  static bool idle(IoPort* port);
};
