// What descriptions say of each kind of hardware; for whoever reads them without driving any.
#include "backends/all-backends.h"

#include <array>

namespace {

template <BackendKind kind, const BackendVocabulary& vocabulary, auto setup_functions>
constexpr const BackendVocabulary*
vocabulary_of(Backend<kind, vocabulary, setup_functions> /*backend*/) {
  return &vocabulary;
}

template <typename... Each>
constexpr auto vocabularies_of(BackendList<Each...> /*list*/) {
  return std::array{vocabulary_of(Each{})...};
}

constexpr auto vocabularies = vocabularies_of(AllBackends{});

} // namespace

std::span<const BackendVocabulary* const> backend_vocabularies() {
  return vocabularies;
}
