// An executable of its own: the log goes to the module under test, not to the tests' capture.
#include "platform/log.h"
#include "support/streams.h"

#include <glib.h>
#include <gtest/gtest.h>

#include <array>
#include <string>
#include <thread>
#include <vector>

namespace {

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::string::size_type start = 0;
  for (auto end = text.find('\n'); end != std::string::npos; end = text.find('\n', start)) {
    lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  EXPECT_EQ(start, text.size()) << "the last line is not complete";
  return lines;
}

} // namespace

TEST(TheLog, writes_every_level_as_one_line) {
  struct Row {
    GLogLevelFlags level;
    const char* line;
  };
  const std::array rows{
      Row{G_LOG_LEVEL_CRITICAL, "CRITICAL: text 1\n"},
      Row{G_LOG_LEVEL_WARNING, "WARNING: text 1\n"},
      Row{G_LOG_LEVEL_MESSAGE, "MESSAGE: text 1\n"},
      Row{G_LOG_LEVEL_INFO, "INFO: text 1\n"},
      Row{G_LOG_LEVEL_DEBUG, "DEBUG: text 1\n"},
      Row{log_level_user, "USER: text 1\n"},
  };
  EXPECT_EQ(static_cast<guint>(log_level_user), 256U);
  for (const auto& row : rows) {
    SCOPED_TRACE(row.line);
    const StreamCapture output(1);
    g_log(nullptr, row.level, "%stext %d", log_prefix, 1);
    EXPECT_EQ(output.text(), row.line);
  }
}

TEST(TheLog, names_the_domain_of_others) {
  const StreamCapture output(1);
  g_log("GLib-GIO", G_LOG_LEVEL_WARNING, "text");
  EXPECT_EQ(output.text(), "GLib-GIO-WARNING: text\n");
}

TEST(TheLog, makes_one_line_of_a_text_with_line_breaks) {
  const StreamCapture output(1);
  g_message("first\nsecond\n\n");
  EXPECT_EQ(output.text(), "MESSAGE: first second\n");
}

TEST(TheLog, is_there_at_once) {
  const StreamCapture output(1);
  g_message("now");
  EXPECT_EQ(output.text(false), "MESSAGE: now\n");
  printf("direct\n");
  EXPECT_EQ(output.text(false), "MESSAGE: now\ndirect\n");
}

TEST(TheLog, keeps_the_lines_of_several_threads_whole) {
  constexpr int threads = 4;
  constexpr int messages = 500;
  const std::string text(200, 'x');
  const StreamCapture output(1);
  std::vector<std::thread> writers;
  for (int i = 0; i < threads; i++) {
    writers.emplace_back([&] {
      for (int n = 0; n < messages; n++) {
        g_message("%s", text.c_str());
      }
    });
  }
  for (auto& writer : writers) {
    writer.join();
  }
  const auto lines = lines_of(output.text());
  ASSERT_EQ(lines.size(), static_cast<std::size_t>(threads * messages));
  for (const auto& line : lines) {
    ASSERT_EQ(line, "MESSAGE: " + text);
  }
}

int main(int argc, char* argv[]) {
  testing::InitGoogleTest(&argc, argv);
  nv_log_stdout();
  return RUN_ALL_TESTS();
}
