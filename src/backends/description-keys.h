// The vocabulary of a backend as data: for every attribute of an element, the field of the port's
// record that takes its value, and how.
//
// Every backend that is told more than its pins has such a table, so how a value becomes a text, a
// number or a switch is written once. What is no number gives what the conversion makes of it.
#pragma once

#include <glib.h>

#include "platform/numbers.h"

#include <array>
#include <type_traits>

template <typename Record>
struct DescriptionKey {
  const char* key;
  void (*take)(Record& record, const char* value);
};

/// Gives the value to the key's field; an attribute that is in no row is ignored.
template <typename Record, gsize Count>
void take_described(const std::array<DescriptionKey<Record>, Count>& keys, Record& record,
                    const char* key, const char* value) {
  for (const auto& entry : keys) {
    if (g_str_equal(entry.key, key)) {
      entry.take(record, value);
    }
  }
}

template <auto Field, typename Record>
void take_text(Record& record, const char* value) {
  record.*Field = value;
}

/// Base 0 takes decimal, 0x-hexadecimal and octal numbers. What is beyond the field wraps.
template <auto Field, guint Base = 10, typename Record>
void take_number(Record& record, const char* value) {
  record.*Field = number_of<std::remove_reference_t<decltype(record.*Field)>>(value, Base);
}

/// As take_number, for numbers that are never negative and may need 64 bits.
template <auto Field, typename Record>
void take_unsigned(Record& record, const char* value) {
  record.*Field = unsigned_of<std::remove_reference_t<decltype(record.*Field)>>(value);
}

/// On for exactly "true", else off.
template <auto Field, typename Record>
void take_switch(Record& record, const char* value) {
  record.*Field = g_str_equal(value, "true");
}
