#include "backends/description-keys.h"

#include "port/ioport.h"

#include <gtest/gtest.h>

namespace {

struct Record {
  OptionalText text;
  gint number = -1;
  guint32 narrow = 7;
  guint64 wide = 7;
  gint any_base = -1;
  bool on = false;
};

constexpr std::array keys{
    DescriptionKey<Record>{"text", take_text<&Record::text>},
    DescriptionKey<Record>{"number", take_number<&Record::number>},
    DescriptionKey<Record>{"narrow", take_number<&Record::narrow>},
    DescriptionKey<Record>{"wide", take_unsigned<&Record::wide>},
    DescriptionKey<Record>{"any", take_number<&Record::any_base, 0>},
    DescriptionKey<Record>{"on", take_switch<&Record::on>},
};

class ADescription : public testing::Test {
protected:
  void tell(const char* key, const char* value) { take_described(keys, record, key, value); }

  Record record;
};

} // namespace

TEST_F(ADescription, fills_the_field_of_each_key_with_the_last_value) {
  tell("text", "first");
  tell("text", "last");
  tell("number", "-12");
  tell("wide", "18446744073709551615");
  EXPECT_EQ(record.text, "last");
  EXPECT_EQ(record.number, -12);
  EXPECT_EQ(record.wide, G_MAXUINT64);
}

TEST_F(ADescription, leaves_all_fields_alone_for_a_key_of_nobody) {
  tell("texts", "x");
  tell("", "x");
  EXPECT_FALSE(record.text.has_value());
  EXPECT_EQ(record.number, -1);
}

TEST_F(ADescription, takes_what_there_is_of_a_number) {
  tell("number", "12 counts");
  EXPECT_EQ(record.number, 12);
  tell("number", "none");
  EXPECT_EQ(record.number, 0);
}

TEST_F(ADescription, knows_other_bases_only_where_asked) {
  for (const auto& [value, ten, any] : {std::tuple{"0x10", 0, 16}, {"010", 10, 8}, {"9", 9, 9}}) {
    tell("number", value);
    tell("any", value);
    EXPECT_EQ(record.number, ten) << value;
    EXPECT_EQ(record.any_base, any) << value;
  }
}

TEST_F(ADescription, wraps_a_number_beyond_its_field) {
  tell("narrow", "-1");
  EXPECT_EQ(record.narrow, G_MAXUINT32);
  tell("narrow", "4294967298");
  EXPECT_EQ(record.narrow, 2U);
}

TEST_F(ADescription, turns_a_switch_on_for_one_word_only) {
  for (const auto& [value, on] : {std::pair{"true", true}, {"True", false}, {"1", false}}) {
    tell("on", value);
    EXPECT_EQ(record.on, on) << value;
  }
}
