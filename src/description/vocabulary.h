// The words of a hardware description: elements, attributes, the form of their values, what they
// mean.
//
// Each word stands here once, or beside its backend; the daemon, `wexctl check`, the schema and the
// man page take it from there. A description has the elements of every port, in
// common-vocabulary.h, and inside a backend the elements of that kind of hardware.
#pragma once

#include <algorithm>
#include <span>
#include <string_view>

/// Form of a value, and with it what the daemon makes of a text that has another form.
enum class ValueForm {
  Text,
  /// A name or usage of a port, of at most io_port_text_limit bytes; a longer one is ignored.
  PortText,
  /// Whole number, decimal. Of another text the digits that lead it count, or 0.
  Decimal,
  /// Whole number, decimal, not negative.
  Unsigned,
  /// Whole number, decimal, 0x-hexadecimal or octal.
  AnyBase,
  /// Whole number, hexadecimal, with or without 0x.
  Hex,
  /// "true" or "false" in any letter case; another text changes nothing.
  Flag,
  /// "true" in any letter case, or "false", for which every other text counts.
  Mark,
  /// Exactly "true", or "false", for which every other text counts.
  Switch,
  /// Exactly "false", or "true", for which every other text counts.
  SwitchOff,
  /// One of the words, exactly; another text changes nothing.
  Words,
  /// One of the words in any letter case; another text changes nothing.
  WordsInAnyCase,
  /// One of the words, exactly; what another does depends on the rest of the element.
  JudgedWords,
};

struct AttributeWord {
  const char* name;
  ValueForm form;
  /// One sentence or two.
  const char* meaning;
  std::span<const char* const> words = {};
  bool required = false;
};

enum class Occurs {
  Once,
  AtMostOnce,
  AnyTimes,
  /// Any times, each before one of the element that follows in the table and needs it.
  BeforeNext,
};

struct ElementWord {
  const char* name;
  const char* meaning;
  std::span<const AttributeWord> attributes;
  Occurs occurs = Occurs::AtMostOnce;
  /// The form of attributes of any other name; nullptr when others mean nothing.
  const ValueForm* others = nullptr;
};

/// A pin that ports of some types cannot do without.
struct PinNeed {
  const char* element;
  bool of_inputs;
  bool of_outputs;
  bool of_configurables;
  /// Without it the set-up ends the daemon.
  bool is_fatal = false;
};

/// What a kind of hardware is told, and what it needs to be told.
struct BackendVocabulary {
  /// Value of the "backend" element's "name".
  const char* name;
  const char* meaning;
  std::span<const ElementWord> elements = {};
  /// Attributes of the "backend" element itself, after its name.
  std::span<const AttributeWord> attributes = {};
  /// Keeps any word that it is told.
  bool takes_all = false;
  /// Any other type of port ends the daemon.
  bool only_inputs = false;
  /// Is polled at the interval that the attribute "timeout" of "device" gives.
  bool is_polled = false;
  std::span<const PinNeed> pins = {};
  /// An input may have no "output" pin, and an output no "input" pin.
  bool refuses_other_pin = false;
  /// Port numbers are below it; 0 when any number will do.
  int number_limit = 0;
};

/// All kinds of hardware of this build; defined beside them.
std::span<const BackendVocabulary* const> backend_vocabularies();

/// The kind of that name, or nullptr.
[[nodiscard]] const BackendVocabulary* find_backend_vocabulary(std::string_view name);

/// Whether the text has the form that the attribute asks for.
[[nodiscard]] bool has_form(const AttributeWord& attribute, std::string_view text);

[[nodiscard]] constexpr const ElementWord* find_element(std::span<const ElementWord> elements,
                                                        std::string_view name) {
  const auto found =
      std::ranges::find_if(elements, [name](const auto& element) { return name == element.name; });
  return found != elements.end() ? &*found : nullptr;
}

[[nodiscard]] constexpr const AttributeWord*
find_attribute(std::span<const AttributeWord> attributes, std::string_view name) {
  const auto found = std::ranges::find_if(
      attributes, [name](const auto& attribute) { return name == attribute.name; });
  return found != attributes.end() ? &*found : nullptr;
}

/// Whether a table that gives words their values has exactly these words, in whatever order.
template <typename Table>
[[nodiscard]] constexpr bool same_words(const Table& table, std::span<const char* const> words) {
  return table.size() == words.size() && std::ranges::all_of(words, [&](std::string_view word) {
           return std::ranges::any_of(table, [word](const auto& row) { return word == row.word; });
         });
}

[[nodiscard]] constexpr bool has_attribute(std::span<const AttributeWord> attributes,
                                           std::string_view name) {
  return std::ranges::any_of(attributes,
                             [name](const auto& attribute) { return name == attribute.name; });
}

/// Whether every row of a table of attributes, which have a `key`, is one of an element's.
template <typename Table>
[[nodiscard]] constexpr bool known_keys(std::span<const AttributeWord> attributes,
                                        const Table& table) {
  return std::ranges::all_of(
      table, [attributes](const auto& row) { return has_attribute(attributes, row.key); });
}

/// Whether a table of attributes, which have a `key`, has exactly those of an element.
template <typename Table>
[[nodiscard]] constexpr bool same_keys(std::span<const AttributeWord> attributes,
                                       const Table& table) {
  return table.size() == attributes.size() && known_keys(attributes, table);
}
