// The one-time import of an older service's settings.
#include "fuzz-ports.h"

#include "param/sedrin-import.h"

extern "C" int LLVMFuzzerTestOneInput(const guint8* data, size_t size) {
  const FuzzFile file({data, size});
  fuzz_add_ports();
  g_autoptr(GError) error = nullptr;
  std::ignore = read_sedrin_parameters(file.path(), &error);
  fuzz_check_ports();
  io_port_list_free();
  return 0;
}
