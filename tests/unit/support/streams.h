// What the code under test writes to a standard stream.
#pragma once

#include <string>

/// Catches one of the process's standard streams (file descriptor 1 or 2) while it lives.
class StreamCapture {
public:
  explicit StreamCapture(int fd);
  ~StreamCapture();
  StreamCapture(const StreamCapture&) = delete;
  StreamCapture& operator=(const StreamCapture&) = delete;

  /// Everything that reached the descriptor so far; flushes the stream unless told not to.
  [[nodiscard]] std::string text(bool flush = true) const;

private:
  int fd_;
  int saved_;
  int file_;
};
