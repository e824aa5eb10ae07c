#include "param/key-file.h"

#include "platform/regular-file.h"

namespace {

constexpr std::string_view form_feed_sign = "\\f";
constexpr std::string_view blanks = " \t\n\r";

// What stands behind a backslash for a character that would be read as something else; '\0':
// nothing does.
char sign_of(char c) {
  switch (c) {
  case '\n':
    return 'n';
  case '\r':
    return 'r';
  case '\\':
    return '\\';
  default:
    return '\0';
  }
}

// The same for a character of the start, where blanks would be lost.
char sign_of_first(char c) {
  switch (c) {
  case ' ':
    return 's';
  case '\t':
    return 't';
  default:
    return sign_of(c);
  }
}

} // namespace

KeyFilePtr key_file_make() {
  return KeyFilePtr(g_key_file_new());
}

KeyFilePtr key_file_parse(std::string_view text, GError** error) {
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

std::string key_file_raw_text(std::string_view text) {
  std::string raw;
  if (text.starts_with('\f')) {
    raw = form_feed_sign;
    text.remove_prefix(1);
  }
  bool leading = true;
  for (const char c : text) {
    leading = leading && blanks.find(c) != std::string_view::npos;
    const char sign = leading ? sign_of_first(c) : sign_of(c);
    if (sign != '\0') {
      raw += '\\';
    }
    raw += sign != '\0' ? sign : c;
  }
  return raw;
}

std::string key_file_to_text(GKeyFile* file) {
  gsize length = 0;
  g_autofree gchar* text = g_key_file_to_data(file, &length, nullptr);
  return {text, length};
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
