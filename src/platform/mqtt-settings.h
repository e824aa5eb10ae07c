// Which MQTT broker is told of the ports' events, and under which topics.
#pragma once

#include <optional>
#include <string>

/// Read once, when the first event is declared.
inline constexpr const char* mqtt_settings_file = "/etc/wexd/mqtt.conf";

struct MqttSettings {
  /// A host's name or address, or the path of a Unix socket.
  std::string host = "localhost";
  int port = 1883;
  /// Both empty for a broker that takes anybody.
  std::string user = {};
  std::string password = {};
  /// The certificates by which the broker proves who it is; empty: nothing is encrypted.
  std::string ca_file = {};
  /// The first levels of every topic.
  std::string prefix = {};
};

/// What the file says, with defaults for what it does not, or if there is no file. A file that says
/// what cannot be meant is logged and read as nothing at all.
[[nodiscard]] std::optional<MqttSettings> mqtt_settings_read();

/// A text as one level of a topic: what parts levels, or stands for several, becomes '_'.
[[nodiscard]] std::string mqtt_topic_level(std::string text);
