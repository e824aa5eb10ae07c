// Entry point of the unit tests: one log writer for the process, no message left unexplained.
#include "platform/log.h"
#include "support/log-capture.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

namespace {

constexpr guint noteworthy =
    static_cast<guint>(G_LOG_LEVEL_ERROR) | static_cast<guint>(G_LOG_LEVEL_CRITICAL)
    | static_cast<guint>(G_LOG_LEVEL_WARNING) | static_cast<guint>(log_level_user);

class UnclaimedMessages : public testing::EmptyTestEventListener {
  void OnTestStart(const testing::TestInfo& /*info*/) override { claim_log(); }

  void OnTestEnd(const testing::TestInfo& /*info*/) override {
    for (const auto& message : claim_log()) {
      if ((static_cast<guint>(message.level) & noteworthy) != 0) {
        ADD_FAILURE() << "logged without being expected: " << message.text;
      }
    }
  }
};

} // namespace

int main(int argc, char* argv[]) {
  // Children of death tests start anew: the modules under test keep state, and may have threads. An
  // emulated test cannot start itself, and is told so in its environment.
  if (g_getenv("GTEST_DEATH_TEST_STYLE") == nullptr) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
  }
  // Files that others may write are not read from everywhere.
  umask(S_IWGRP | S_IWOTH);
  testing::InitGoogleTest(&argc, argv);
  log_capture_install();
  testing::UnitTest::GetInstance()->listeners().Append(new UnclaimedMessages);
  return RUN_ALL_TESTS();
}
