#include "param/key-file.h"

#include "platform/regular-file.h"

namespace {

constexpr std::string_view form_feed_sign = "\\f";

} // namespace

KeyFilePtr key_file_make() {
  return KeyFilePtr(g_key_file_new());
}

KeyFilePtr key_file_parse(const std::string& text, GError** error) {
  // Rewriting in place fills a file up with line ends before it cuts them off; a power cut may
  // leave them, and they would be kept as a comment.
  gsize length = text.size();
  while (length > 1 && text[length - 1] == '\n' && text[length - 2] == '\n') {
    length--;
  }
  KeyFilePtr file = key_file_make();
  if (!g_key_file_load_from_data(file.get(), text.data(), length, G_KEY_FILE_KEEP_COMMENTS,
                                 error)) {
    return nullptr;
  }
  return file;
}

KeyFilePtr key_file_load(const char* path, GError** error) {
  std::string text;
  if (!regular_file_get_contents(path, Links::Refused, &text, error)) {
    return nullptr;
  }
  return key_file_parse(text, error);
}

bool key_file_get_text(GKeyFile* file, const char* group, const char* key, std::string* text,
                       GError** error) {
  g_autofree gchar* raw = g_key_file_get_value(file, group, key, error);
  if (raw == nullptr) {
    return false;
  }
  const bool form_feed = std::string_view(raw).starts_with(form_feed_sign);
  if (form_feed) {
    g_key_file_set_value(file, group, key, raw + form_feed_sign.size());
  }
  // A value with a bad escape comes back as a text all the same, and only the error tells.
  g_autoptr(GError) malformed = nullptr;
  g_autofree gchar* decoded = g_key_file_get_string(file, group, key, &malformed);
  g_key_file_set_value(file, group, key, raw);
  if (malformed != nullptr) {
    g_propagate_error(error, g_steal_pointer(&malformed));
    return false;
  }
  *text = std::string(form_feed ? "\f" : "") + decoded;
  return true;
}

void key_file_set_text(GKeyFile* file, const char* group, const char* key, const char* text) {
  const bool form_feed = *text == '\f';
  g_key_file_set_string(file, group, key, text + (form_feed ? 1 : 0));
  if (form_feed) {
    g_autofree gchar* raw = g_key_file_get_value(file, group, key, nullptr);
    g_key_file_set_value(file, group, key, (std::string(form_feed_sign) + raw).c_str());
  }
}

void key_file_copy(GKeyFile* source, GKeyFile* target) {
  g_auto(GStrv) groups = g_key_file_get_groups(source, nullptr);
  for (gchar** group = groups; *group != nullptr; group++) {
    g_auto(GStrv) keys = g_key_file_get_keys(source, *group, nullptr, nullptr);
    for (gchar** key = keys; key != nullptr && *key != nullptr; key++) {
      g_autofree gchar* value = g_key_file_get_value(source, *group, *key, nullptr);
      g_key_file_set_value(target, *group, *key, value);
    }
  }
}
