// Words of a file or a message, and what they stand for.
#pragma once

#include <algorithm>
#include <array>
#include <optional>
#include <ranges>
#include <string_view>

#include <glib.h>

/// One word of a vocabulary.
template <typename Value>
struct Word {
  const char* word;
  Value value;
};
template <typename Value>
Word(const char*, Value) -> Word<Value>;

/// What the word stands for in a table of words; nothing for any other text.
template <typename Table>
[[nodiscard]] constexpr auto find_word(const Table& table, std::string_view text) {
  using Value = decltype(table.front().value);
  const auto found =
      std::ranges::find_if(table, [text](const auto& entry) { return text == entry.word; });
  return found != std::ranges::end(table) ? std::optional<Value>(found->value) : std::nullopt;
}

/// The same for a word in whatever letter case.
template <typename Table>
[[nodiscard]] auto find_word_in_any_case(const Table& table, const char* text) {
  using Value = decltype(table.front().value);
  const auto found = std::ranges::find_if(
      table, [text](const auto& entry) { return g_ascii_strcasecmp(entry.word, text) == 0; });
  return found != std::ranges::end(table) ? std::optional<Value>(found->value) : std::nullopt;
}

/// The enumerator whose number is the place of the word in an array of all of them.
template <typename Enumeration, std::size_t count>
[[nodiscard]] constexpr std::optional<Enumeration>
enumerator_of(const std::array<const char*, count>& words, std::string_view text) {
  for (std::size_t i = 0; i < count; i++) {
    if (text == words[i]) {
      return static_cast<Enumeration>(i);
    }
  }
  return std::nullopt;
}
