// The record of a device with events, on a pipe in the place of its event descriptor.
#include "backends/iio-event-device.h"

#include "backends/trouble.h"
#include "port/ioport.h"
#include "support/fake-ioctl.h"
#include "support/log-capture.h"
#include "support/main-loop.h"
#include "support/scratch.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/iio/events.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <utility>
#include <vector>

using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace {

using Served = std::vector<std::pair<IoPort*, gint>>;

Served served;

// Whether events bring anything new.
bool news = true;

bool serve(IoPort* port, gint channel) {
  served.emplace_back(port, channel);
  return news;
}

struct AnEventDevice : testing::Test {
  void SetUp() override {
    served.clear();
    news = true;
    ASSERT_EQ(pipe2(pipe.data(), O_CLOEXEC), 0);
    fake_ioctl = [this](int, unsigned long request, void* argument) {
      EXPECT_EQ(request, static_cast<unsigned long>(IIO_GET_EVENT_FD_IOCTL));
      requests++;
      *static_cast<int*>(argument) = pipe[0];
      return 0;
    };
  }
  void TearDown() override {
    leave(first.get());
    leave(second.get());
    fake_ioctl = nullptr;
    close(pipe[1]);
    EXPECT_TRUE(requests == 0 || event_fd_closed());
  }

  bool join(const IoPortRef& port) { return iio_event_device_join(port.get(), path); }
  void watch(const IoPortRef& port) { iio_event_device_watch(port.get(), path, serve); }
  bool unwatch(const IoPortRef& port) { return iio_event_device_unwatch(port.get(), path); }
  void leave(IoPort* port) {
    iio_event_device_unwatch(port, path);
    iio_event_device_leave(port, path);
  }

  void send(guint64 id) const {
    const iio_event_data event{.id = id, .timestamp = 1};
    ASSERT_EQ(write(pipe[1], &event, sizeof event), static_cast<ssize_t>(sizeof event));
  }
  static Served take_served() { return std::exchange(served, {}); }
  [[nodiscard]] bool event_fd_closed() const { return fcntl(pipe[0], F_GETFD) == -1; }

  ScratchFolder folder;
  std::string path = folder.write("device", "");
  std::array<int, 2> pipe{-1, -1};
  int requests = 0;
  IoPortRef first{io_port_new()};
  IoPortRef second{io_port_new()};
};

TEST_F(AnEventDevice, is_opened_once_for_all_its_ports_and_closed_with_the_last) {
  EXPECT_TRUE(join(first));
  EXPECT_TRUE(join(second));
  EXPECT_TRUE(join(second));
  EXPECT_EQ(requests, 1);
  leave(first.get());
  EXPECT_FALSE(event_fd_closed());
  leave(second.get());
  EXPECT_TRUE(event_fd_closed());
}

TEST_F(AnEventDevice, serves_the_port_that_came_first_until_it_leaves) {
  join(first);
  join(second);
  watch(second);
  watch(first);
  send(7);
  run_pending();
  EXPECT_THAT(take_served(), ElementsAre(Pair(second.get(), 7)));
  EXPECT_TRUE(unwatch(second));
  send(8);
  run_pending();
  EXPECT_THAT(take_served(), ElementsAre(Pair(first.get(), 8)));
}

TEST_F(AnEventDevice, names_the_channel_in_the_low_16_bits) {
  join(first);
  watch(first);
  send(0xABCD'0102'0003'0002U);
  run_pending();
  EXPECT_THAT(take_served(), ElementsAre(Pair(first.get(), 2)));
}

TEST_F(AnEventDevice, counts_a_port_that_is_watched_twice_once) {
  join(first);
  watch(first);
  watch(first);
  EXPECT_TRUE(unwatch(first));
  EXPECT_FALSE(unwatch(first));
  send(1);
  run_pending();
  EXPECT_THAT(take_served(), IsEmpty());
}

TEST_F(AnEventDevice, is_watched_again_with_what_came_meanwhile) {
  join(first);
  watch(first);
  unwatch(first);
  send(5);
  watch(first);
  run_pending();
  EXPECT_THAT(take_served(), ElementsAre(Pair(first.get(), 5)));
}

TEST_F(AnEventDevice, serves_nobody_with_an_event_cut_short) {
  join(first);
  watch(first);
  ASSERT_EQ(write(pipe[1], "short", 5), 5);
  run_pending();
  EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING, "read Error: event cut short"));
  EXPECT_THAT(take_served(), IsEmpty());
  // It rests, and is served afterwards.
  send(3);
  run_pending();
  EXPECT_THAT(take_served(), IsEmpty());
  EXPECT_TRUE(run_until([] { return !served.empty(); }));
  EXPECT_THAT(take_served(), ElementsAre(Pair(first.get(), 3)));
}

TEST_F(AnEventDevice, rests_when_it_hangs_up_and_is_served_again) {
  join(first);
  watch(first);
  for (const gint channel : {5, 6}) {
    close(std::exchange(pipe[1], -1));
    // It rests: nothing is ready, however often one looks.
    run_pending();
    EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING, path + " hung up, looking at it again every 100 ms"));
    EXPECT_THAT(take_served(), IsEmpty());

    const std::string end = "/proc/self/fd/" + std::to_string(pipe[0]);
    pipe[1] = open(end.c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_NE(pipe[1], -1);
    send(static_cast<guint64>(channel));
    EXPECT_TRUE(run_until([] { return !served.empty(); }));
    EXPECT_THAT(take_served(), ElementsAre(Pair(first.get(), channel)));
  }
}

TEST_F(AnEventDevice, is_left_alone_when_it_keeps_telling_of_nothing_new) {
  join(first);
  watch(first);
  news = false;
  for (int i = 0; i < 40; i++) {
    send(5);
  }
  run_pending();
  EXPECT_EQ(take_served().size(), 32U);
  EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING, path
                                              + " keeps reporting changes that are none, looking "
                                                "at it less often"));
  // One look for whatever got lost, then the rest of the queue.
  EXPECT_TRUE(run_until([] { return served.size() == 8; }));
  EXPECT_EQ(served.front().second, iio_every_channel);
  EXPECT_EQ(served.back().second, 5);
  take_served();

  // It is told once.
  for (int i = 0; i < 60; i++) {
    send(5);
  }
  EXPECT_TRUE(run_until([] { return served.size() == 60; }));
  take_served();
  news = true;
  send(5);
  EXPECT_TRUE(run_until([] { return served.size() == 1; }));
  news = false;
  take_served();
  for (int i = 0; i < 32; i++) {
    send(5);
  }
  EXPECT_TRUE(run_until([] { return served.size() == 32; }));
  EXPECT_TRUE(logged_part(G_LOG_LEVEL_WARNING, " keeps reporting changes that are none"));
}

TEST_F(AnEventDevice, counts_what_is_nothing_new_from_the_last_change) {
  join(first);
  watch(first);
  for (int change = 0; change < 2; change++) {
    news = false;
    for (int i = 0; i < 31; i++) {
      send(5);
    }
    run_pending();
    news = true;
    send(5);
    run_pending();
  }
  EXPECT_EQ(take_served().size(), 64U);
}

TEST_F(AnEventDevice, is_not_calm_because_nobody_came_to_read_it) {
  join(first);
  watch(first);
  news = false;
  for (int i = 0; i < 33; i++) {
    send(5);
  }
  run_pending();
  EXPECT_TRUE(logged_part(G_LOG_LEVEL_WARNING, " keeps reporting changes that are none"));
  g_usleep(2 * longest_rest_ms * 1000 + 100'000); // longer than calms it
  EXPECT_TRUE(run_until([] { return served.size() == 33; }));
  for (int i = 0; i < 32; i++) {
    send(5);
  }
  EXPECT_TRUE(run_until([] { return served.size() == 65; }));
}

TEST_F(AnEventDevice, is_calm_when_it_was_silent_for_long) {
  join(first);
  watch(first);
  news = false;
  for (int i = 0; i < 32; i++) {
    send(5);
  }
  run_pending();
  EXPECT_TRUE(logged_part(G_LOG_LEVEL_WARNING, " keeps reporting changes that are none"));
  EXPECT_TRUE(run_until(nothing_timed));
  send(5);
  EXPECT_TRUE(run_until([] { return served.size() == 33; }));
  EXPECT_TRUE(logged(G_LOG_LEVEL_MESSAGE, path + " reports true changes again"));
}

TEST_F(AnEventDevice, is_left_while_it_rests) {
  join(first);
  watch(first);
  close(std::exchange(pipe[1], -1));
  run_pending();
  EXPECT_TRUE(logged_part(G_LOG_LEVEL_WARNING, " hung up, "));
  leave(first.get());
  EXPECT_FALSE(g_main_context_pending(nullptr));
  EXPECT_TRUE(event_fd_closed());
}

TEST_F(AnEventDevice, cannot_be_joined_without_its_node) {
  EXPECT_FALSE(iio_event_device_join(first.get(), folder.path("none")));
  EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING, "Failed to open device: No such file or directory"));
  EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING, "Failed to open backend->device"));
  close(pipe[0]);
}

TEST_F(AnEventDevice, cannot_be_joined_while_somebody_else_has_its_events) {
  fake_ioctl = [](int, unsigned long, void*) {
    errno = EBUSY;
    return -1;
  };
  EXPECT_FALSE(join(first));
  EXPECT_TRUE(
      logged(G_LOG_LEVEL_WARNING, "Failed to open device " + path + ": Device or resource busy"));
  EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING, "Failed to open backend->device"));
  close(pipe[0]);
}

TEST_F(AnEventDevice, tells_a_node_that_cannot_be_closed_and_goes_on) {
  fake_ioctl = [this](int fd, unsigned long, void* argument) {
    requests++;
    *static_cast<int*>(argument) = pipe[0];
    return close(fd); // The backend's own close comes too late.
  };
  EXPECT_TRUE(join(first));
  EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING, "Couldn't close char device"));
}

TEST_F(AnEventDevice, is_not_watched_by_a_port_that_did_not_join) {
  watch(first);
  send(1);
  run_pending();
  EXPECT_THAT(take_served(), IsEmpty());
  EXPECT_FALSE(unwatch(first));
  close(pipe[0]);
}

} // namespace
