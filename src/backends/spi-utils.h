// One reading of an SPI analogue-to-digital converter.
#pragma once

#include <glib.h>

#include <array>

/// The two bytes that a converter answers, in the order in which they came.
using SpiWord = std::array<guint8, 2>;

/// Sends the converter's command byte and reads its answer in one message of two transfers. False
/// with errno set on failure; `word` is then untouched.
[[nodiscard]] bool spi_exchange(int fd, guint8 command, SpiWord* word);

/// The level in an answer: bits 4-11 of the word whose low byte came first, 0-255.
constexpr guint8 spi_level(const SpiWord& word) {
  return static_cast<guint8>((word[1] & 0x0FU) << 4U | word[0] >> 4U);
}
