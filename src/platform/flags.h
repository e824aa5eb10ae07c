// Flags of C libraries, whose enumerations lose their type when they are put together.
#pragma once

#include <concepts>

/// All of these flags.
template <typename Flag, std::same_as<Flag>... Flags>
[[nodiscard]] constexpr Flag flags(Flag one, Flags... others) {
  return static_cast<Flag>((one | ... | others));
}
