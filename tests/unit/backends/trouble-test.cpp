#include "backends/trouble.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>

using testing::ElementsAre;

TEST(ARest, grows_to_a_second_and_starts_anew) {
  Rest rest;
  std::array<guint, 6> rests{};
  for (int round = 0; round < 2; round++) {
    for (auto& ms : rests) {
      ms = rest.next();
    }
    EXPECT_THAT(rests, ElementsAre(100, 200, 400, 800, 1000, 1000));
    rest.reset();
  }
}

TEST(ATrouble, is_told_when_it_begins_and_ends_only_if_it_was_there) {
  Trouble trouble;
  EXPECT_FALSE(trouble.end());
  for (int round = 0; round < 2; round++) {
    EXPECT_TRUE(trouble.due());
    EXPECT_TRUE(trouble.tell());
    EXPECT_FALSE(trouble.due());
    EXPECT_FALSE(trouble.tell());
    EXPECT_TRUE(trouble.end());
    EXPECT_FALSE(trouble.end());
  }
}
