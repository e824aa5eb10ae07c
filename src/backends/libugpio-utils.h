// GPIO pins as the backends use them: description, request, level, and the watch on an input.
#pragma once

#include <glib.h>
#include <ugpio/ugpio.h>

#include "backends/trouble.h"
#include "platform/handles.h"
#include "port/ioport.h"

#include <array>
#include <memory>

enum class PinActiveLow : guint32 {
  /// Not described: the kernel's setting is left alone.
  Unset = 0,
  High = 1,
  Low = 2,
};

/// One pin. Owns its handle; closes and releases it when it goes.
struct GpioPin {
  PinActiveLow activelow = PinActiveLow::Unset;
  /// Line name; a pin that has one is requested by it, not by number.
  OptionalText name;
  gint32 number = 0;
  ugpio_t* handle = nullptr;

  GpioPin() = default;
  ~GpioPin();
  GpioPin(const GpioPin&) = delete;
  GpioPin& operator=(const GpioPin&) = delete;
};
using GpioPinPtr = std::unique_ptr<GpioPin>;

/// Takes one attribute of a pin's element ("pin", "alias", "inverted"); others are ignored.
void libugpio_parse_data_pin(GpioPin* pin, const char* key, const char* value);

/// As above for the pin in `pin`, which is made when there is none.
void libugpio_parse_data_pin(GpioPinPtr& pin, const char* key, const char* value);

/// Which element of a description tells of which pin of a record.
template <typename Record>
struct PinElement {
  const char* element;
  GpioPinPtr Record::*pin;
};

/// Takes an attribute of a pin's element; false when the element is none of the table's.
template <typename Record, gsize Count>
[[nodiscard]] bool libugpio_parse_pin_element(const std::array<PinElement<Record>, Count>& elements,
                                              Record& record, const char* element, const char* key,
                                              const char* value) {
  for (const auto& entry : elements) {
    if (g_str_equal(entry.element, element)) {
      libugpio_parse_data_pin(record.*entry.pin, key, value);
      return true;
    }
  }
  return false;
}

/// What a pin is opened as: an input with both edges, or an output and the level it starts at.
enum class PinUse { Input, LowOutput, HighOutput };

[[nodiscard]] constexpr PinUse output_at(Level start) {
  return start == Level::High ? PinUse::HighOutput : PinUse::LowOutput;
}

/// Requests and opens the pin; an output starts at its level without a glitch. A pin in use is
/// given back first. False, with a warning, on failure.
[[nodiscard]] bool libugpio_open_gpio_pin(GpioPin* pin, PinUse use);

/// As above, and writes an output's level once more; failing to is told, but no failure.
[[nodiscard]] bool libugpio_port_init_gpio_pin(GpioPin* pin, PinUse use);

/// Applies a described active-low setting to an open pin; false, with a warning, on failure.
[[nodiscard]] bool libugpio_apply_activelow(GpioPin* pin);

/// Sets an output's level; false, with a warning, on failure.
[[nodiscard]] bool libugpio_set_gpio_pin(GpioPin* pin, Level level);

/// The pin's level; unknown when it cannot be read.
[[nodiscard]] Level libugpio_get_gpio_pin(const GpioPin* pin);

/// Releases the pin, keeping its description. NULL is allowed.
void libugpio_close_gpio_pin(GpioPin* pin);

/// Reports the state of a port whose line has changed, until it holds still; false, with errno set,
/// once it cannot be read. The pin is the one whose edges are watched; nullptr where none is.
[[nodiscard]] bool libugpio_handle_trig(IoPort* port, ugpio_t* pin);

/// The watch on a pin. Main thread only.
///
/// A reading that fails says nothing about the line: nothing is reported then, and the pin is left
/// alone for 100 ms and read again. Only a pin that is gone ends the watch; its port is marked, so
/// that a refresh sets it up anew.
class LogicWatch {
public:
  LogicWatch() = default;
  ~LogicWatch() { stop(); }
  LogicWatch(const LogicWatch&) = delete;
  LogicWatch& operator=(const LogicWatch&) = delete;

  /// Watches the pin, which must outlive the watch, for `port`; a running watch stays as it is. An
  /// edge on a value file shows as an exceptional condition, nothing else; where the pin is none,
  /// it tells the condition itself. False when the pin is not open.
  [[nodiscard]] bool start(IoPort* port, const GpioPin* pin, GIOCondition of_value_file = G_IO_ERR);
  void stop();
  explicit operator bool() const { return source_ || rest_; }

private:
  gboolean on_edge();
  gboolean on_rested();
  void look();
  [[nodiscard]] bool serve();
  void give_up(int reason);
  void rest(int reason);

  GIOChannel* channel_ = nullptr;
  GIOCondition condition_ = G_IO_ERR;
  SourceId source_;
  SourceId rest_;
  Trouble trouble_;
  IoPort* port_ = nullptr;
  const GpioPin* pin_ = nullptr;
};
