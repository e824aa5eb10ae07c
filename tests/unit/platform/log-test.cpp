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

namespace {

std::string door(const void* subject) {
  return std::string("here: ") + static_cast<const char*>(subject);
}

} // namespace

TEST(TheLog, says_once_where_complaints_come_from) {
  const StreamCapture output(1);
  {
    const LogPlace place(door, "door");
    g_info("fine");
    g_warning("first");
    g_warning("second");
  }
  g_warning("elsewhere");
  EXPECT_EQ(output.text(), "INFO: fine\nWARNING: first\nMESSAGE: here: door\nWARNING: second\n"
                           "WARNING: elsewhere\n");
}

TEST(TheLog, says_where_a_module_s_own_message_and_a_critical_one_come_from) {
  for (const auto level : {log_level_user, G_LOG_LEVEL_CRITICAL}) {
    const StreamCapture output(1);
    const LogPlace place(door, "door");
    g_log(nullptr, level, "text");
    EXPECT_TRUE(output.text().ends_with(": text\nMESSAGE: here: door\n")) << output.text();
  }
}

TEST(TheLog, says_nothing_more_of_a_message_that_has_its_place) {
  const StreamCapture output(1);
  const LogPlace place(door, "door");
  g_warning("here: door does not close");
  EXPECT_EQ(output.text(), "WARNING: here: door does not close\n");
}

TEST(TheLog, says_where_the_innermost_comes_from) {
  const StreamCapture output(1);
  const LogPlace place(door, "door");
  {
    const LogPlace inner(door, "lock");
    g_warning("inside");
  }
  g_warning("outside");
  EXPECT_EQ(output.text(), "WARNING: inside\nMESSAGE: here: lock\n"
                           "WARNING: outside\nMESSAGE: here: door\n");
}

TEST(TheLog, has_a_remark_follow_the_next_message_at_once) {
  const StreamCapture output(1);
  const LogPlace place(door, "door");
  log_remark("why");
  g_warning("first");
  g_warning("second");
  EXPECT_EQ(output.text(), "WARNING: first\nMESSAGE: why\nMESSAGE: here: door\nWARNING: second\n");
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
