// What the fuzz targets share: input as a file or as numbers, what must hold of ports, and
// silence.
#pragma once

#include "port/ioport-list.h"
#include "port/ioport.h"

#include <algorithm>
#include <span>
#include <string>
#include <string_view>
#include <tuple>

using FuzzInput = std::span<const guint8>;

/// Ends the process when an invariant is broken, which the fuzzer then reports with its input.
inline void fuzz_require(bool holds) {
  if (!holds) {
    __builtin_trap();
  }
}

/// A file in memory for code that wants a path. It is a file by a name of its own, because links
/// are not followed everywhere.
class FuzzFile {
public:
  explicit FuzzFile(FuzzInput contents);
  ~FuzzFile();
  FuzzFile(const FuzzFile&) = delete;
  FuzzFile& operator=(const FuzzFile&) = delete;

  [[nodiscard]] const char* path() const { return path_.c_str(); }

private:
  std::string path_;
};

/// Takes numbers from the front of the input; zeros when it is used up.
template <typename Number>
Number fuzz_take(FuzzInput& input) {
  Number number{};
  const gsize size = std::min(input.size(), sizeof number);
  std::ranges::copy(input.first(size), reinterpret_cast<guint8*>(&number));
  input = input.subspan(size);
  return number;
}

/// Whether a complaint of GLib's ends the process, as it does unless told otherwise.
void fuzz_judge_glib(bool judge);

/// What must be true of every port, whatever was read into it: its texts can go over the bus.
void fuzz_check_ports();
