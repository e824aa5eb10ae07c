// The user's settings: what was read is written, and reads the same again.
#include "fuzz-ports.h"

#include "param/param-port-group.h"

namespace {

void write_all(GKeyFile* file) {
  const IoPortListLock lock;
  for (IoPort* port : io_port_list_get()) {
    std::ignore = param_group_write(file, port);
  }
}

std::string text_of(GKeyFile* file) {
  g_autofree gchar* text = g_key_file_to_data(file, nullptr, nullptr);
  return text;
}

// The settings of fresh ports after reading the file, as they are saved.
std::string settings_from(GKeyFile* file) {
  fuzz_add_ports();
  {
    const IoPortListLock lock;
    for (IoPort* port : io_port_list_get()) {
      std::ignore = param_group_read(file, port);
    }
  }
  fuzz_check_ports();
  g_autoptr(GKeyFile) saved = g_key_file_new();
  write_all(saved);
  write_all(file);
  io_port_list_free();
  return text_of(saved);
}

bool load(GKeyFile* file, std::string_view text) {
  return g_key_file_load_from_data(file, text.data(), text.size(), G_KEY_FILE_KEEP_COMMENTS,
                                   nullptr);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const guint8* data, size_t size) {
  g_autoptr(GKeyFile) file = g_key_file_new();
  if (!load(file, {reinterpret_cast<const char*>(data), size})) {
    return 0;
  }
  const std::string settings = settings_from(file);
  g_autoptr(GKeyFile) merged = g_key_file_new();
  fuzz_require(load(merged, text_of(file)));
  fuzz_require(settings_from(merged) == settings);
  return 0;
}
