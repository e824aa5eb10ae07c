#include "backends/spi-utils.h"

#include <gtest/gtest.h>

namespace {

TEST(SpiLevel, IsBits4To11OfTheWordWhoseLowByteCameFirst) {
  for (guint word = 0; word <= G_MAXUINT16; word++) {
    const SpiWord bytes{static_cast<guint8>(word % 256), static_cast<guint8>(word / 256)};
    ASSERT_EQ(spi_level(bytes), word % 4096 / 16) << word;
  }
  EXPECT_EQ(spi_level({0xF0, 0x0A}), 0xAF);
}

} // namespace
