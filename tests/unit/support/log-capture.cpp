#include "support/log-capture.h"

#include "platform/log.h"

#include <algorithm>
#include <mutex>
#include <string_view>
#include <utility>

namespace {

std::mutex mutex;
std::vector<LogMessage> messages;

GLogWriterOutput keep(GLogLevelFlags level, const GLogField* fields, gsize n_fields,
                      gpointer /*user_data*/) {
  for (gsize i = 0; i < n_fields; i++) {
    if (g_str_equal(fields[i].key, "MESSAGE")) {
      const auto* text = static_cast<const char*>(fields[i].value);
      const std::lock_guard guard(mutex);
      messages.push_back({static_cast<GLogLevelFlags>(level & ~G_LOG_FLAG_RECURSION), text});
    }
  }
  return G_LOG_WRITER_HANDLED;
}

template <typename Matches>
testing::AssertionResult claim(Matches matches, const std::string& what) {
  const std::lock_guard guard(mutex);
  const auto found = std::ranges::find_if(messages, matches);
  if (found != messages.end()) {
    messages.erase(found);
    return testing::AssertionSuccess();
  }
  auto failure = testing::AssertionFailure() << "nobody logged '" << what << "'; there is:";
  for (const auto& message : messages) {
    failure << "\n  " << message.level << ": " << message.text;
  }
  return failure;
}

} // namespace

void log_capture_install() {
  g_log_set_writer_func(keep, nullptr, nullptr);
}

testing::AssertionResult logged(GLogLevelFlags level, const std::string& text) {
  return claim(
      [&](const LogMessage& message) { return message.level == level && message.text == text; },
      text);
}

testing::AssertionResult logged_part(GLogLevelFlags level, const std::string& part) {
  return claim(
      [&](const LogMessage& message) {
        return message.level == level && message.text.find(part) != std::string::npos;
      },
      part);
}

std::vector<std::string> claim_lines(const std::string& prefix) {
  const std::lock_guard guard(mutex);
  std::vector<std::string> lines;
  std::erase_if(messages, [&](const LogMessage& message) {
    if (!message.text.starts_with(prefix)) {
      return false;
    }
    lines.push_back(message.text);
    return true;
  });
  return lines;
}

std::vector<LogMessage> claim_log() {
  const std::lock_guard guard(mutex);
  return std::exchange(messages, {});
}
