// A port on a backend as it ships.
#pragma once

#include "port/backend-registry.h"
#include "port/ioport.h"
#include "port/port-observer.h"
#include "support/log-capture.h"
#include "support/main-loop.h"
#include "support/scratch.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

class BackendTest : public testing::Test {
protected:
  void SetUp() override {
    states_.clear();
    port_observer.port_changed = [](const PortChange& change) { states_.push_back(change.state); };
  }
  void TearDown() override { port_observer.port_changed = nullptr; }

  /// A port of the kind, not set up.
  static IoPortRef make(const char* backend, PortType type) {
    IoPortRef port = io_port_new();
    port->number = 1;
    port->type = type;
    EXPECT_NE(io_port_set_backend(port.get(), backend_registry_find(backend)->kind), nullptr);
    return port;
  }

  /// States announced since the last call.
  static std::vector<bool> take_states() { return std::exchange(states_, {}); }
  static std::size_t states() { return states_.size(); }

private:
  static inline std::vector<bool> states_;
};
