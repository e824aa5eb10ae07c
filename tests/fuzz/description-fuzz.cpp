// The hardware description, with what the real backends make of their part of it.
#include "fuzz-support.h"

#include "core/conf-reader.h"
#include "peers/bootblock.h"

void bootblock_read_param(const char* /*name*/, gchar** value) {
  *value = g_strdup("ABC123");
}

extern "C" int LLVMFuzzerTestOneInput(const guint8* data, size_t size) {
  const FuzzFile file({data, size});
  ConfReader reader;
  std::ignore = conf_read_configuration(reader, file.path());
  fuzz_check_ports();
  conf_finish_reading();
  io_port_list_free();
  return 0;
}
