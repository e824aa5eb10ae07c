#include "param/key-file.h"

#include "platform/regular-file.h"

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
