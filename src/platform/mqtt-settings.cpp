#include "platform/mqtt-settings.h"

#include "platform/log.h"
#include "platform/regular-file.h"

#include <glib.h>

#include <algorithm>
#include <array>

namespace {

constexpr const char* group = "broker";

struct TextKey {
  const char* name;
  std::string MqttSettings::*member;
};

constexpr std::array text_keys{
    TextKey{.name = "host", .member = &MqttSettings::host},
    TextKey{.name = "user", .member = &MqttSettings::user},
    TextKey{.name = "password", .member = &MqttSettings::password},
    TextKey{.name = "ca_file", .member = &MqttSettings::ca_file},
    TextKey{.name = "prefix", .member = &MqttSettings::prefix},
};
constexpr const char* port_key = "port";

bool fail(GError** error, const char* what, const char* which) {
  g_set_error(error, G_KEY_FILE_ERROR, G_KEY_FILE_ERROR_INVALID_VALUE, "%s '%s'", what, which);
  return false;
}

// What is left in the end is a word that nobody knows: a typing error never passes as a default.
bool is_used_up(GKeyFile* file, GError** error) {
  g_auto(GStrv) keys = g_key_file_get_keys(file, group, nullptr, nullptr);
  if (keys != nullptr && keys[0] != nullptr) {
    return fail(error, "no such key:", keys[0]);
  }
  g_key_file_remove_group(file, group, nullptr);
  g_auto(GStrv) groups = g_key_file_get_groups(file, nullptr);
  return groups[0] == nullptr || fail(error, "no such group:", groups[0]);
}

bool take_text(GKeyFile* file, const TextKey& key, MqttSettings* settings, GError** error) {
  if (!g_key_file_has_key(file, group, key.name, nullptr)) {
    return true;
  }
  g_autofree gchar* text = g_key_file_get_string(file, group, key.name, error);
  // What has a mistake in it comes with an error, and yet comes.
  if (text == nullptr || *error != nullptr) {
    return false;
  }
  settings->*key.member = text;
  return g_key_file_remove_key(file, group, key.name, error);
}

bool take_port(GKeyFile* file, MqttSettings* settings, GError** error) {
  if (!g_key_file_has_key(file, group, port_key, nullptr)) {
    return true;
  }
  g_autofree gchar* text = g_key_file_get_string(file, group, port_key, error);
  guint64 port = 0;
  if (text == nullptr || !g_ascii_string_to_unsigned(text, 10, 1, G_MAXUINT16, &port, error)) {
    return false;
  }
  settings->port = static_cast<int>(port);
  return g_key_file_remove_key(file, group, port_key, error);
}

bool is_prefix(const std::string& text) {
  return text.empty()
         || (text.find_first_of("+#") == std::string::npos && text.front() != '/'
             && text.back() != '/');
}

bool parse(const std::string& text, MqttSettings* settings, GError** error) {
  g_autoptr(GKeyFile) file = g_key_file_new();
  const auto take = [&](const TextKey& key) { return take_text(file, key, settings, error); };
  return g_key_file_load_from_data(file, text.c_str(), text.size(), G_KEY_FILE_NONE, error)
         && std::ranges::all_of(text_keys, take) && take_port(file, settings, error)
         && is_used_up(file, error)
         && (is_prefix(settings->prefix)
             || fail(error, "no prefix of topics:", settings->prefix.c_str()));
}

bool read(MqttSettings* settings, GError** error) {
  std::string text;
  if (!regular_file_get_contents(mqtt_settings_file, Links::Refused, &text, error)) {
    if (!g_error_matches(*error, G_FILE_ERROR, G_FILE_ERROR_NOENT)) {
      return false;
    }
    g_clear_error(error);
  }
  return parse(text, settings, error);
}

} // namespace

std::string mqtt_topic_level(std::string text) {
  std::ranges::replace_if(
      text, [](char c) { return c == '/' || c == '+' || c == '#'; }, '_');
  return text;
}

std::optional<MqttSettings> mqtt_settings_read() {
  MqttSettings settings;
  g_autoptr(GError) error = nullptr;
  if (!read(&settings, &error)) {
    g_warning("%sNo broker is told of events: %s: %s", log_prefix, mqtt_settings_file,
              error->message);
    return std::nullopt;
  }
  if (settings.prefix.empty()) {
    settings.prefix = "wexd/" + mqtt_topic_level(g_get_host_name());
  }
  return settings;
}
