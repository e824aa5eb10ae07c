// Small owners for what the kernel and the main loop hand out.
#pragma once

#include <glib.h>
#include <unistd.h>

#include <utility>

/// Owns a file descriptor; closes it when it goes. Movable, not copyable.
class UniqueFd {
public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : fd_(fd) {}
  ~UniqueFd() { reset(); }
  UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    reset(std::exchange(other.fd_, -1));
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;

  [[nodiscard]] int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }

  /// Closes what is held and takes `fd` instead (-1: nothing).
  void reset(int fd = -1) {
    if (fd_ >= 0) {
      close(fd_);
    }
    fd_ = fd;
  }

private:
  int fd_ = -1;
};

/// Owns a source of the default main context by its id; removes it when it goes. A callback that
/// ends its source by returning false must call `forget` first. Main thread only.
class SourceId {
public:
  SourceId() = default;
  explicit SourceId(guint id) : id_(id) {}
  ~SourceId() { reset(); }
  SourceId(SourceId&& other) noexcept : id_(std::exchange(other.id_, 0)) {}
  SourceId& operator=(SourceId&& other) noexcept {
    reset(std::exchange(other.id_, 0));
    return *this;
  }
  SourceId(const SourceId&) = delete;
  SourceId& operator=(const SourceId&) = delete;

  [[nodiscard]] guint get() const { return id_; }
  explicit operator bool() const { return id_ != 0; }

  /// Removes the held source and takes `id` instead (0: nothing).
  void reset(guint id = 0) {
    if (id_ != 0) {
      g_source_remove(id_);
    }
    id_ = id;
  }

  /// Lets go of a source that removes itself.
  void forget() { id_ = 0; }

private:
  guint id_ = 0;
};
