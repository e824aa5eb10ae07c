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

  /// Forgets what is held, which is another's to close.
  void leave() { fd_ = -1; }

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

/// Owns what a library knows by a number other than 0, and has `Remove` take it back. Main thread
/// only.
template <auto Remove>
class UniqueId {
public:
  UniqueId() = default;
  explicit UniqueId(guint id) : id_(id) {}
  ~UniqueId() { reset(); }
  UniqueId(UniqueId&& other) noexcept : id_(std::exchange(other.id_, 0)) {}
  UniqueId& operator=(UniqueId&& other) noexcept {
    reset(std::exchange(other.id_, 0));
    return *this;
  }
  UniqueId(const UniqueId&) = delete;
  UniqueId& operator=(const UniqueId&) = delete;

  [[nodiscard]] guint get() const { return id_; }
  explicit operator bool() const { return id_ != 0; }

  /// Takes back what is held and holds `id` instead (0: nothing).
  void reset(guint id = 0) {
    if (const guint previous = std::exchange(id_, id); previous != 0) {
      Remove(previous);
    }
  }

  /// Lets go of what removes itself.
  void forget() { id_ = 0; }

private:
  guint id_ = 0;
};

/// A source of the default main context. A callback that ends its source by returning false must
/// call `forget` first.
using SourceId = UniqueId<g_source_remove>;

/// Frees what a library handed out by the function that the library has for that.
template <auto Free>
struct FreeWith {
  template <typename Handle>
  void operator()(Handle* handle) const {
    Free(handle);
  }
};
