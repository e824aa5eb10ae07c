#include "backends/iio-utils.h"
#include "support/log-capture.h"
#include "support/scratch.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace {

using Bits = std::vector<bool>;

/// The sample as bits, the least significant one first: what the buffer's layout says, literally.
Bits bits_of(char endianness, std::vector<guint8> bytes) {
  if (endianness == 'b') {
    bytes = {bytes.rbegin(), bytes.rend()};
  }
  Bits bits;
  for (const guint8 byte : bytes) {
    for (unsigned bit = 0; bit < 8; bit++) {
      bits.push_back(((byte >> bit) & 1U) != 0);
    }
  }
  return bits;
}

/// What iio_decode_sample must give, bit by bit.
guint32 slow_decode(const IioScanType& type, const std::vector<guint8>& bytes) {
  const Bits stored = bits_of(type.endianness, bytes);
  const auto bit = [&](gsize index) { return index < stored.size() && stored[index]; };
  const gsize real = std::min<gsize>(type.bits, 32);
  const bool negative = real > 0 && real < 32 && type.sign == 's' && bit(type.shift + real - 1);
  guint32 value = 0;
  for (gsize index = 0; index < 32; index++) {
    const bool set = index < real ? bit(gsize{type.shift} + index) : negative;
    value |= static_cast<guint32>(set) << index;
  }
  return value;
}

TEST(DecodeSample, AgreesWithASlowReference) {
  std::mt19937 random(20240229);
  const auto pick = [&](guint below) { return static_cast<guint>(random() % below); };
  for (const char endianness : {'b', 'l', 'x'}) {
    for (const char sign : {'u', 's'}) {
      for (guint size = 8; size <= 32; size += 8) {
        for (guint bits = 0; bits <= 40; bits++) {
          for (guint shift = 0; shift <= 40; shift++) {
            const IioScanType type{
                .endianness = endianness, .sign = sign, .bits = bits, .size = size, .shift = shift};
            for (const guint fill : {0x00U, 0xFFU, 0x100U}) {
              std::vector<guint8> sample(size / 8);
              for (auto& byte : sample) {
                byte = static_cast<guint8>(fill < 0x100U ? fill : pick(0x100U));
              }
              ASSERT_EQ(iio_decode_sample(type, sample), slow_decode(type, sample))
                  << endianness << 'e' << sign << bits << '/' << size << ">>" << shift;
            }
          }
        }
      }
    }
  }
}

TEST(DecodeSample, DecodesWhatConvertersSend) {
  const auto decode = [](const char* type, const std::vector<guint8>& sample) {
    return iio_decode_sample(*iio_parse_scan_type(type), sample);
  };
  EXPECT_EQ(decode("be:u12/16>>4", {0xAB, 0xC0}), 0xABCU);
  EXPECT_EQ(decode("le:u10/16>>6", {0xC0, 0xFF}), 0x3FFU);
  EXPECT_EQ(decode("le:u24/24>>0", {0x01, 0x02, 0x03}), 0x030201U);
  EXPECT_EQ(decode("be:u24/24>>0", {0x01, 0x02, 0x03}), 0x010203U);
  EXPECT_EQ(decode("le:s12/16>>0", {0xFF, 0x0F}), 0xFFFFFFFFU);
  EXPECT_EQ(decode("le:u32/32>>0", {0xFF, 0xFF, 0xFF, 0xFF}), 0xFFFFFFFFU);
}

TEST(DecodeSample, HasNoValueForAnyOtherSize) {
  const IioScanType type{.bits = 32};
  EXPECT_EQ(iio_decode_sample(type, {}), 0U);
  EXPECT_EQ(iio_decode_sample(type, std::vector<guint8>(5, 0xFF)), 0U);
  EXPECT_EQ(iio_decode_sample(type, std::vector<guint8>(8, 0xFF)), 0U);
}

TEST(ScanType, ReadsBackWhatTheKernelWrites) {
  for (const char endianness : {'b', 'l'}) {
    for (const char sign : {'u', 's'}) {
      for (guint size = 8; size <= 64; size += 8) {
        for (guint bits = 1; bits <= size; bits++) {
          const guint shift = size - bits;
          g_autofree char* text =
              g_strdup_printf("%ce:%c%u/%u>>%u", endianness, sign, bits, size, shift);
          const auto type = iio_parse_scan_type(text);
          ASSERT_TRUE(type) << text;
          ASSERT_EQ(type->endianness, endianness) << text;
          ASSERT_EQ(type->sign, sign) << text;
          ASSERT_EQ(type->bits, bits) << text;
          ASSERT_EQ(type->size, size) << text;
          ASSERT_EQ(type->shift, shift) << text;
        }
      }
    }
  }
}

TEST(ScanType, LeavesMissingFieldsAt0) {
  EXPECT_FALSE(iio_parse_scan_type(""));
  const auto first = iio_parse_scan_type("x");
  ASSERT_TRUE(first);
  EXPECT_EQ(first->endianness, 'x');
  EXPECT_EQ(first->sign, '\0');
  const auto half = iio_parse_scan_type("le:u12");
  ASSERT_TRUE(half);
  EXPECT_EQ(half->sign, 'u');
  EXPECT_EQ(half->bits, 12U);
  EXPECT_EQ(half->size, 0U);
  EXPECT_EQ(half->shift, 0U);
}

TEST(ShiftRight, IsDefinedForEveryShift) {
  for (guint shift = 0; shift < 32; shift++) {
    EXPECT_EQ(iio_shift_right(G_MAXUINT32, shift), G_MAXUINT32 >> shift);
  }
  for (const guint shift : {32U, 33U, 64U, G_MAXUINT32}) {
    EXPECT_EQ(iio_shift_right(G_MAXUINT32, shift), 0U);
  }
}

struct ASysfsText : testing::Test {
  ScratchFolder scratch;
  std::string path = scratch.path("attribute");
};

TEST_F(ASysfsText, IsCutAtItsLastLineBreak) {
  for (const auto& [text, read] :
       {std::pair{"adc\n", "adc"}, std::pair{"adc", "adc"}, std::pair{"a\nb\n", "a\nb"},
        std::pair{"\n", ""}, std::pair{"a\nb", "a"}}) {
    scratch.write("attribute", text);
    g_autofree char* contents = nullptr;
    iio_read_sysfs(path.c_str(), &contents);
    EXPECT_STREQ(contents, read);
  }
}

TEST_F(ASysfsText, ReplacesALongerOne) {
  scratch.write("attribute", "100000\n");
  iio_write_sysfs(path, "50");
  g_autofree char* contents = nullptr;
  iio_read_sysfs(path.c_str(), &contents);
  EXPECT_STREQ(contents, "50");
}

} // namespace
