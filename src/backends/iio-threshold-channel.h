// One channel of an IIO converter that raises an event when its level crosses a threshold.
//
// It stands apart from the ports that are served by it, because it knows the kernel's side alone:
// which files a converter has, what is written to them, and how a level becomes a count of the
// device. When to arm, what a level means and who is told is the backend's business.
#pragma once

#include "platform/handles.h"
#include "port/ioport.h"

#include <atomic>
#include <optional>
#include <string>

struct IioThresholdChannel {
  // What the description tells.
  OptionalText driver;
  guint64 channel = 0;
  OptionalText channel_name;
  OptionalText chan_extend_name;
  /// In counts, around the range that is armed.
  guint hysteresis = 0;
  /// Bits of a raw value that do not count.
  gint bitshift = 0;
  bool one_threshold = false;
  OptionalText shared_samplefreq;
  OptionalText shared_thresh_either_period;
  gint64 integration_time_us = 0;

  // What set-up finds and opens.
  int device_number = -1;
  std::string device_path;
  /// Write-only, kept open: a threshold is moved on every change of the level's range.
  UniqueFd rising_value;
  UniqueFd falling_value;
  UniqueFd rising_enable;
  UniqueFd falling_enable;
  UniqueFd either_enable;
  /// The outermost thresholds that the converter takes, once it has refused one beyond them.
  std::optional<gint> rising_end;
  std::optional<gint> falling_end;
  /// What was read last, in the device's own counts. Also read by action-sequence threads.
  std::atomic<guint32> last_raw{0};
};

/// Takes an attribute of the "device" element; those that are not the channel's are ignored.
void iio_threshold_parse(IioThresholdChannel& channel, const char* key, const char* value);

/// Finds the converter by its driver's name; false, with a warning, when it is not there.
[[nodiscard]] bool iio_threshold_find(IioThresholdChannel& channel);

/// Opens the channel's event files; false, with a warning, on failure.
[[nodiscard]] bool iio_threshold_open(IioThresholdChannel& channel);

/// Writes the settings of the whole device and leaves the channel disarmed; failures are logged
/// only.
void iio_threshold_prepare(const IioThresholdChannel& channel);

/// Whether a failed reading is logged, with its reason, or was before.
enum class Failure { Reported, Known };

/// The level now; nothing, with `error`, on failure.
[[nodiscard]] std::optional<guint32> iio_threshold_read(IioThresholdChannel& channel,
                                                        Failure failure, GError** error);

/// Has an event raised when the level, which was read last, leaves the range. A threshold that the
/// converter refuses becomes the nearest one that it takes, which is logged when it is found. 0, or
/// the reason of a failure, which is not logged, as it may come up again and again; no event is
/// raised then. ERANGE: no threshold that the converter takes is beyond the level.
int iio_threshold_arm(IioThresholdChannel& channel, const SupervisedRange& range);

/// Has none raised for the moment. Failures are not logged: they show when the events are armed
/// next.
void iio_threshold_hold(const IioThresholdChannel& channel);

/// Has none raised any more; does nothing on a channel that is not open. Failures are logged only.
void iio_threshold_disarm(const IioThresholdChannel& channel);

void iio_threshold_close(IioThresholdChannel& channel);
