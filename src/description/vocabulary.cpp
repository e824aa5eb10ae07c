#include "description/vocabulary.h"

#include "description/limits.h"

#include <glib.h>

#include <string>

namespace {

bool is_number(const std::string& text, guint base) {
  return g_ascii_string_to_signed(text.c_str(), base, G_MININT64, G_MAXINT64, nullptr, nullptr);
}

bool has_hex_mark(const std::string& text) {
  return text.starts_with("0x") || text.starts_with("0X");
}

bool is_number_in_any_base(const std::string& text) {
  if (has_hex_mark(text)) {
    return is_number(text.substr(2), 16);
  }
  return text.size() > 1 && text.starts_with('0') ? is_number(text.substr(1), 8)
                                                  : is_number(text, 10);
}

bool equal_in_any_case(const std::string& text, const char* word) {
  return g_ascii_strcasecmp(text.c_str(), word) == 0;
}

bool is_true_or_false(const std::string& text) {
  return equal_in_any_case(text, "true") || equal_in_any_case(text, "false");
}

} // namespace

const BackendVocabulary* find_backend_vocabulary(std::string_view name) {
  const auto all = backend_vocabularies();
  const auto found =
      std::ranges::find_if(all, [name](const auto* one) { return name == one->name; });
  return found != all.end() ? *found : nullptr;
}

bool has_form(const AttributeWord& attribute, std::string_view text) {
  const std::string copy(text);
  switch (attribute.form) {
  case ValueForm::Text:
    return true;
  case ValueForm::PortText:
    return text.size() <= io_port_text_limit;
  case ValueForm::Decimal:
    return is_number(copy, 10);
  case ValueForm::Unsigned:
    return !copy.starts_with('-') && is_number(copy, 10);
  case ValueForm::AnyBase:
    return is_number_in_any_base(copy);
  case ValueForm::Hex:
    return is_number(has_hex_mark(copy) ? copy.substr(2) : copy, 16);
  case ValueForm::Flag:
  case ValueForm::Mark:
    return is_true_or_false(copy);
  case ValueForm::Switch:
  case ValueForm::SwitchOff:
    return text == "true" || text == "false";
  case ValueForm::Words:
  case ValueForm::JudgedWords:
    return std::ranges::find(attribute.words, text) != attribute.words.end();
  case ValueForm::WordsInAnyCase:
    return std::ranges::any_of(attribute.words,
                               [&](const char* word) { return equal_in_any_case(copy, word); });
  }
  return true;
}
