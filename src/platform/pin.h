// A pin as libugpio's functions handle it, whichever of the kernel's interfaces it is taken
// through, and the choice among those.
#pragma once

#include <glib.h>
#include <ugpio/ugpio.h>

#include <memory>

/// What a wire carries, or what that means.
enum class PinLevel { Low, High };
/// Which of them means 1.
enum class PinPolarity { ActiveHigh, ActiveLow };

/// A pin that was taken; given back when it goes. Functions that can fail return -1, with errno
/// set.
struct ugpio {
  ugpio() = default;
  virtual ~ugpio() = default;
  ugpio(const ugpio&) = delete;
  ugpio& operator=(const ugpio&) = delete;

  /// Opens the pin to be read, written and polled; its descriptor.
  virtual int open_value() = 0;
  virtual void close_value() = 0;
  /// -1 when it is not open.
  [[nodiscard]] virtual int fd() const = 0;

  virtual int value() = 0;
  virtual int set_value(PinLevel value) = 0;
  /// 1: output, 0: input.
  virtual int direction() = 0;
  virtual int make_output(PinLevel raw_level) = 0;
  virtual int set_polarity(PinPolarity polarity) = 0;

  /// See platform/ugpio-extras.h.
  [[nodiscard]] virtual GIOCondition edge_condition(GIOCondition of_value_file) const = 0;
  virtual int take_edges() = 0;
};
using PinPtr = std::unique_ptr<ugpio>;

/// Which pin is meant: the one whose line has that name or, where that is NULL, that number.
struct WhichPin {
  const char* name = nullptr;
  unsigned int number = 0;
};

/// Takes the pin. The flags are a request's of libugpio; with UGPIOF_DIR_UNKNOWN it is taken as it
/// stands. Nothing, with errno set, on failure.
[[nodiscard]] PinPtr pin_request(const WhichPin& which, unsigned int flags);

/// Whether that goes through the sysfs files.
[[nodiscard]] bool pin_goes_by_sysfs(const WhichPin& which);
