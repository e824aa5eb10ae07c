#include "port/backend-registry.h"

#include "backends/all-backends.h"

#include <array>

namespace {

template <BackendKind kind, const BackendVocabulary& vocabulary, auto setup_functions>
constexpr BackendEntry entry_of(Backend<kind, vocabulary, setup_functions> /*backend*/) {
  return {.kind = kind, .name = vocabulary.name, .setup_functions = setup_functions};
}

template <typename... Each>
constexpr auto entries_of(BackendList<Each...> /*list*/) {
  return std::array{entry_of(Each{})...};
}

constexpr auto backends = entries_of(AllBackends{});

} // namespace

std::span<const BackendEntry> backend_registry() {
  return backends;
}
