// What a converter's files and buffers hold: scan types, and samples of any form and size.
#include "fuzz-support.h"

#include "backends/iio-utils.h"

extern "C" int LLVMFuzzerTestOneInput(const guint8* data, size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const gsize type_size = std::min(input.find('\n'), size);
  const std::string text(input.substr(0, type_size));
  const auto type = iio_parse_scan_type(text.c_str());
  if (!type) {
    return 0;
  }
  // On the heap and of this very size, so that a read beyond it is seen.
  const std::vector<guint8> sample(data + type_size, data + size);
  const guint32 value = iio_decode_sample(*type, sample);
  fuzz_require(!sample.empty() || value == 0);
  fuzz_require(sample.size() <= 4 || value == 0);
  return 0;
}
