// The kernel hands out the event descriptor through an ioctl of the test's own: a pipe's end.
#include "backends/iio-event-device.h"
#include "platform/handles.h"
#include "support/backend-fixture.h"

#include <linux/iio/events.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <optional>
#include <span>

namespace {

int event_fd = -1;

} // namespace

// Stands before the C library's for this executable.
extern "C" int ioctl(int /*fd*/, unsigned long request, ...) noexcept {
  std::va_list arguments;
  va_start(arguments, request);
  auto* const answer = va_arg(arguments, int*);
  va_end(arguments);
  if (request != IIO_GET_EVENT_FD_IOCTL || event_fd < 0) {
    errno = ENODEV;
    return -1;
  }
  *answer = event_fd;
  return 0;
}

namespace {

/// Bytes of the kernel's event on this processor: a code of eight bytes, whose lowest two are the
/// channel, and a time stamp.
std::array<guint8, 16> event_bytes(guint channel) {
  std::array<guint8, 16> bytes{};
  constexpr std::array<guint8, 8> code_lowest_first{0, 0, 0, 0, 0x01, 0x02, 0x04, 0x00};
  for (std::size_t i = 0; i < code_lowest_first.size(); i++) {
    const guint byte = i == 0   ? channel & 0xFFU
                       : i == 1 ? channel >> 8U & 0xFFU
                                : code_lowest_first[i];
    bytes[G_BYTE_ORDER == G_LITTLE_ENDIAN ? i : 7 - i] = static_cast<guint8>(byte);
  }
  return bytes;
}

struct AnIioEventDevice : BackendTest {
  void SetUp() override {
    BackendTest::SetUp();
    seen.reset();
    std::array<int, 2> ends{};
    ASSERT_EQ(pipe(ends.data()), 0);
    event_fd = ends[0];
    writer.reset(ends[1]);
    port.reset(io_port_new());
    ASSERT_TRUE(iio_event_device_join(port.get(), path));
    iio_event_device_watch(port.get(), path, [](IoPort*, gint channel) { seen = channel; });
  }
  void TearDown() override {
    iio_event_device_unwatch(port.get(), path);
    iio_event_device_leave(port.get(), path);
    event_fd = -1;
    BackendTest::TearDown();
  }

  void raise(std::span<const guint8> bytes) const {
    ASSERT_EQ(write(writer.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }

  static constexpr const char* path = "/dev/null";
  static inline std::optional<gint> seen;
  IoPortRef port;
  UniqueFd writer;
};

TEST_F(AnIioEventDevice, TellsTheChannelOfAnEventWhateverTheByteOrder) {
  for (const gint channel : {0, 1, 0x0102, 0x7FFF}) {
    seen.reset();
    raise(event_bytes(static_cast<guint>(channel)));
    ASSERT_TRUE(run_until([] { return seen.has_value(); }));
    EXPECT_EQ(seen, channel);
  }
}

TEST_F(AnIioEventDevice, PassesOverAnEventCutShort) {
  const auto event = event_bytes(3);
  raise(std::span(event).first(5));
  EXPECT_TRUE(run_until([] { return !claim_lines("read Error: event cut short").empty(); }));
  EXPECT_FALSE(seen.has_value());
  raise(event_bytes(4));
  EXPECT_TRUE(run_until([] { return seen.has_value(); }));
  EXPECT_EQ(seen, 4);
}

} // namespace
