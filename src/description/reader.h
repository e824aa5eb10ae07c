// The elements of a hardware description as they come: one reader for all who want to know what it
// says.
#pragma once

#include <glib.h>

#include <functional>
#include <span>
#include <string>

struct DescribedAttribute {
  const char* name;
  const char* value;
};

struct DescribedElement {
  const char* name;
  /// Where its tag ends, counted from 1.
  int line;
  std::span<const DescribedAttribute> attributes;
};

/// What is done with each element at its start, and with its name at its end. The texts last until
/// the function returns.
struct DescriptionHandler {
  std::function<void(const DescribedElement&)> start;
  std::function<void(const char* name)> end;
};

enum class Reading {
  Whole,
  /// The text ends too early; all that it says has been handed on.
  CutShort,
  /// What comes before the mistake has been handed on.
  Broken,
};

/// Hands on the elements of a description. Tells of what is wrong in `error`, unless all was whole.
[[nodiscard]] Reading description_read(const std::string& text, DescriptionHandler handler,
                                       GError** error);
