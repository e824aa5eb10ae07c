// The words of a hardware description: elements, attributes, and the form of their values.
#pragma once

#include <span>
#include <string_view>

namespace wexctl {

/// Form of a value.
enum class ValueForm {
  Text,
  /// A name or usage of a port, which has a longest length.
  PortText,
  /// Whole number, decimal.
  Decimal,
  /// Whole number, decimal, not negative.
  Unsigned,
  /// Whole number, decimal, 0x-hexadecimal or octal.
  AnyBase,
  /// Hexadecimal without prefix.
  Hex,
  /// "true" or "false".
  Flag,
};

struct AttributeWord {
  /// "*": any attribute.
  std::string_view name;
  ValueForm form = ValueForm::Text;
};

struct ElementWord {
  std::string_view name;
  std::span<const AttributeWord> attributes;
};

/// Elements of every port.
std::span<const ElementWord> common_vocabulary();

/// Elements inside the backend of that name; empty for one without, or for an unknown one.
std::span<const ElementWord> backend_vocabulary(std::string_view backend);

bool backend_known(std::string_view backend);

/// Whether the text has the form.
bool fits_form(std::string_view text, ValueForm form);

} // namespace wexctl
