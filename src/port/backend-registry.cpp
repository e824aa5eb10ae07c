#include "port/backend-registry.h"

#include <algorithm>

namespace {

template <typename Matches>
const BackendEntry* find_if(Matches matches) {
  const auto entries = backend_registry();
  const auto found = std::ranges::find_if(entries, matches);
  return found == entries.end() ? nullptr : &*found;
}

} // namespace

const BackendEntry* backend_registry_find(guint kind) {
  return find_if([kind](const BackendEntry& entry) { return entry.kind == kind; });
}

const BackendEntry* backend_registry_find(const char* name) {
  return find_if([name](const BackendEntry& entry) { return g_str_equal(entry.name, name); });
}
