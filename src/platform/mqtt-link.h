// A connection to an MQTT broker that comes and goes while the daemon does its work.
//
// Whatever the broker or the network does happens on a thread of its own; who has something to say
// leaves it there and goes on. States are kept: each broker that answers is told all of them.
#pragma once

#include "platform/mqtt-settings.h"

#include <glib.h>

#include <memory>
#include <string>

class MqttLink {
public:
  /// Starts to look for the broker.
  explicit MqttLink(MqttSettings settings);
  /// Gives what is still to be said a moment to get through. The broker notices by itself that
  /// nobody is there any more, and says so under "PREFIX/status".
  ~MqttLink();
  MqttLink(const MqttLink&) = delete;
  MqttLink& operator=(const MqttLink&) = delete;

  /// What holds from now on, retained by the broker; an empty text takes it back. Any thread.
  void set_state(std::string topic, std::string text);
  /// What happens now, and is of no use to a broker that answers later. Any thread.
  void tell(std::string topic, std::string text);

private:
  struct Outbox;
  class Session;
  static void* run(void* outbox);

  /// Shared with the thread, which may be held by the network when nobody waits for it any longer.
  std::shared_ptr<Outbox> outbox_;
  /// nullptr if there is none.
  GThread* thread_ = nullptr;
};
