// What a channel writes to its event files, on files of other kinds than the kernel's.
#include "backends/iio-threshold-channel.h"

#include "support/log-capture.h"
#include "support/scratch.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <utility>

using testing::ElementsAre;
using testing::IsEmpty;

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

TEST_F(AThresholdChannelOnPlainFiles, tells_the_first_event_that_cannot_be_switched) {
  channel.either_enable.reset();
  channel.rising_enable.reset(open(scratch.write("refused", "").c_str(), O_RDONLY | O_CLOEXEC));
  channel.falling_enable = file("enable");
  EXPECT_EQ(iio_threshold_arm(channel, middle), EBADF);
  EXPECT_THAT(files(), ElementsAre("204", "95", "0"));
}

TEST_F(AThresholdChannelOnPlainFiles, switches_the_event_of_its_one_threshold) {
  channel.one_threshold = true;
  channel.rising_enable = std::move(channel.either_enable);
  EXPECT_EQ(iio_threshold_arm(channel, low), 0);
  EXPECT_THAT(files(), ElementsAre("104", "", "1"));
}

TEST_F(AThresholdChannelOnPlainFiles, has_no_counts_whose_low_32_bits_do_not_count) {
  channel.bitshift = 32;
  channel.rising_end = 50;
  EXPECT_EQ(iio_threshold_arm(channel, high), 0);
  EXPECT_THAT(files(), ElementsAre("0", "0", "1"));
}

TEST_F(AThresholdChannel, is_told_an_integration_time_where_one_is_described) {
  iio_threshold_prepare(channel);
  EXPECT_THAT(claim_log(), IsEmpty());
  channel.integration_time_us = 1;
  iio_threshold_prepare(channel);
  EXPECT_TRUE(logged_part(G_LOG_LEVEL_WARNING, "/in_proximity_integration_time'"));
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
