// What a channel writes to its event files, on files of other kinds than the kernel's.
#include "backends/iio-threshold-channel.h"

#include "support/log-capture.h"
#include "support/scratch.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>

using testing::ElementsAre;

namespace {

constexpr SupervisedRange low{.state = SUPERVISED_OPEN, .upper = 99, .lower = 0};
constexpr SupervisedRange middle{.state = SUPERVISED_CLOSED, .upper = 199, .lower = 100};
constexpr SupervisedRange high{.state = SUPERVISED_SHORT, .upper = 1299, .lower = 1200};

struct AThresholdChannel : testing::Test {
  AThresholdChannel() { channel.hysteresis = 5; }

  IioThresholdChannel channel;
};

struct AThresholdChannelOnPlainFiles : AThresholdChannel {
  AThresholdChannelOnPlainFiles() {
    channel.rising_value = file("rising");
    channel.falling_value = file("falling");
    channel.either_enable = file("enable");
  }
  [[nodiscard]] UniqueFd file(const char* name) const {
    return UniqueFd(open(scratch.write(name, "").c_str(), O_WRONLY | O_CLOEXEC));
  }
  [[nodiscard]] std::vector<std::string> files() const {
    return {read_file(scratch.path("rising")), read_file(scratch.path("falling")),
            read_file(scratch.path("enable"))};
  }

  ScratchFolder scratch;
};

TEST_F(AThresholdChannelOnPlainFiles, replaces_a_longer_number) {
  iio_threshold_arm(channel, high);
  EXPECT_THAT(files(), ElementsAre("1304", "1195", "1"));
  iio_threshold_arm(channel, middle);
  EXPECT_THAT(files(), ElementsAre("204", "95", "1"));
  iio_threshold_arm(channel, low);
  EXPECT_THAT(files(), ElementsAre("104", "-5", "1"));
  iio_threshold_disarm(channel);
  EXPECT_THAT(files(), ElementsAre("104", "-5", "0"));
}

TEST_F(AThresholdChannel, writes_to_a_pipe_as_well) {
  std::array<int, 2> pipe{-1, -1};
  ASSERT_EQ(pipe2(pipe.data(), O_CLOEXEC | O_NONBLOCK), 0);
  const UniqueFd reader(pipe[0]);
  channel.either_enable.reset(pipe[1]);
  iio_threshold_disarm(channel);
  std::array<char, 8> text{};
  EXPECT_EQ(read(reader.get(), text.data(), text.size() - 1), 1);
  EXPECT_STREQ(text.data(), "0");
}

} // namespace
