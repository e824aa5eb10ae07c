#include "param/key-file.h"

#include <gmock/gmock.h>

namespace {

// Every text of up to three of these.
std::vector<std::string> texts_of(std::string_view characters) {
  std::vector<std::string> texts{""};
  for (gsize begin = 0, length = 0; length < 3; length++) {
    const gsize end = texts.size();
    for (; begin < end; begin++) {
      for (const char c : characters) {
        texts.push_back(texts[begin] + c);
      }
    }
  }
  return texts;
}

std::string raw_by_the_library(const std::string& text) {
  const auto file = key_file_make();
  g_key_file_set_string(file.get(), "a", "b", text.c_str());
  g_autofree gchar* raw = g_key_file_get_value(file.get(), "a", "b", nullptr);
  return raw;
}

std::string read_back(const std::string& raw) {
  const auto file = key_file_parse("[a]\nb=" + raw + "\n", nullptr);
  std::string text;
  EXPECT_TRUE(key_file_get_text(file.get(), "a", "b", &text, nullptr)) << raw;
  return text;
}

} // namespace

TEST(ATextInAKeyFile, is_written_as_the_library_does_it) {
  for (const auto& text : texts_of(" \t\n\r\v\\x=[#;\xc3")) {
    EXPECT_EQ(key_file_raw_text(text), raw_by_the_library(text));
  }
}

TEST(ATextInAKeyFile, is_read_as_it_was_written) {
  for (const auto& text : texts_of(" \t\n\r\f\v\\x=[#;")) {
    EXPECT_EQ(read_back(key_file_raw_text(text)), text);
  }
}

TEST(AKeyFile, of_line_ends_alone_loses_all_but_one) {
  const auto kept = [](const char* text) {
    return key_file_to_text(key_file_parse(text, nullptr).get());
  };
  EXPECT_EQ(kept("\n\n"), kept("\n"));
}
