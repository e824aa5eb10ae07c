// Everything that the code under test logs, kept for the test to look at. GLib takes one log writer
// per process, so all tests of an executable share this one; main.cpp installs it.
//
// A test claims the messages it expects. What is left unclaimed at its end, from the daemon's
// module messages (level 256) and warnings upwards, fails the test.
#pragma once

#include <glib.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

struct LogMessage {
  GLogLevelFlags level;
  std::string text;
};

/// Becomes the process's log writer.
void log_capture_install();

/// Claims the oldest message of that level and exactly that text; fails when there is none.
testing::AssertionResult logged(GLogLevelFlags level, const std::string& text);

/// The same for a message that contains `part`.
testing::AssertionResult logged_part(GLogLevelFlags level, const std::string& part);

/// Claims every message that starts with `prefix`, oldest first.
std::vector<std::string> claim_lines(const std::string& prefix);

/// Claims everything.
std::vector<LogMessage> claim_log();
