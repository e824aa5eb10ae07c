// The operator's screen as lines: they fill the terminal exactly, and the chosen port is among
// them.
#include "wexctl/live/view.h"

#include "wexctl/output.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>

namespace wexctl {
namespace {

std::string text(const Line& line) {
  std::string all;
  for (const auto& span : line) {
    all += span.text;
  }
  return all;
}

Json range(const char* state, guint lower, guint upper) {
  return {{"state", state}, {"lower", lower}, {"upper", upper}};
}

SeenPort port(int number) {
  SeenPort seen{};
  seen.info.name = fmt::format("port_{}{}", number, number % 3 == 0 ? "门铃门铃门铃" : "");
  seen.info.number = number;
  seen.info.input = number % 2 == 0;
  seen.info.configurable = number % 4 == 0;
  seen.more.usage = "a usage that is longer than any terminal should have to show\x1b[1m";
  seen.missing = number % 5 == 4;
  seen.runs = number % 7 == 1;
  return seen;
}

/// Many ports with difficult names, every third of which is measured.
Scene scene(int ports) {
  Scene made;
  for (int number = 0; number < ports; number++) {
    made.look.ports.push_back(port(number));
    if (number % 3 == 0) {
      made.look.lines.push_back({{"number", number},
                                 {"name", "line"},
                                 {"supervised", true},
                                 {"state", "closed"},
                                 {"level", 30},
                                 {"ranges", {range("short", 0, 9), range("closed", 20, 49)}}});
    }
  }
  made.look.status = {{"ports", ports},
                      {"ports_in_service", ports},
                      {"missing", Json::array()},
                      {"services", {{{"name", "x"}, {"there", true}, {"left_alone", false}}}}};
  for (int i = 0; i < 100; i++) {
    made.happenings.push_back(happening("note", "something that takes some room to tell, surely"));
  }
  made.hints = {20, {.key = "space", .text = "toggle"}};
  return made;
}

class TheScreen : public testing::TestWithParam<Size> {};

TEST_P(TheScreen, IsExactlyAsLargeAsTheTerminal) {
  for (const int ports : {0, 1, 9, 40}) {
    for (const bool helped : {false, true}) {
      auto shown = scene(ports);
      shown.help = helped ? shown.hints : std::vector<Hint>();
      const auto lines = draw(shown, GetParam());
      EXPECT_EQ(lines.size(), GetParam().rows);
      for (const auto& line : lines) {
        EXPECT_EQ(places(text(line)), GetParam().columns) << text(line);
      }
    }
  }
}

TEST_P(TheScreen, IsTheSameSizeBeforeTheFirstLook) {
  Scene empty;
  EXPECT_EQ(draw(empty, GetParam()).size(), GetParam().rows);
}

INSTANTIATE_TEST_SUITE_P(Sizes, TheScreen,
                         testing::Values(Size{80, 24}, Size{81, 25}, Size{100, 34}, Size{250, 90},
                                         Size{72, 16}, Size{71, 15}, Size{36, 8}, Size{35, 8},
                                         Size{36, 7}, Size{9, 2}, Size{1, 1}));

TEST(TheList, HasTheChosenPortInSight) {
  auto shown = scene(40);
  const auto expect_chosen = [&](size_t chosen) {
    shown.chosen = chosen;
    const auto lines = draw(shown, {80, 24});
    const auto marks = std::ranges::count_if(lines, [&](const Line& line) {
      return text(line).starts_with(fmt::format("▶ {} ", chosen));
    });
    EXPECT_EQ(marks, 1) << chosen;
  };
  for (size_t i = 0; i < 40; i++) {
    expect_chosen(i);
  }
  for (size_t i = 40; i > 0; i--) {
    expect_chosen(i - 1);
  }
  expect_chosen(39);
  expect_chosen(0);
}

// What is drawn of a supervised line called "line".
std::string drawn_of(const Json& line) {
  auto shown = scene(1);
  shown.look.lines = {line};
  for (const auto& one : draw(shown, {88, 24})) {
    if (const auto drawn = text(one); drawn.starts_with("   0  line")) {
      return drawn;
    }
  }
  return "";
}

std::string bar_at(guint level) {
  const auto drawn = drawn_of(
      {{"number", 0},
       {"name", "line"},
       {"supervised", true},
       {"state", "closed"},
       {"level", level},
       {"ranges", {range("short", 0, 9), range("closed", 20, 49), range("open", 50, 99)}}});
  return drawn.substr(drawn.find(fmt::format("{:>5} ", level)) + 6);
}

TEST(TheBar, HasItsMarkAtTheLevel) {
  EXPECT_EQ(bar_at(0), "◆hort    ├closed────────├open────────────────────┤ ");
  EXPECT_EQ(bar_at(15), "short  ◆ ├closed────────├open────────────────────┤ ");
  EXPECT_EQ(bar_at(30), "short    ├clos◆d────────├open────────────────────┤ ");
  EXPECT_EQ(bar_at(99), "short    ├closed────────├open────────────────────◆ ");
  EXPECT_EQ(bar_at(500), "short    ├closed────────├open────────────────────◆ ");
}

TEST(ALineThatCannotBeRead, IsShownWithTheReason) {
  const auto drawn = drawn_of({{"number", 0},
                               {"name", "line"},
                               {"supervised", true},
                               {"error", "Input/output\nerror"},
                               {"ranges", {range("closed", 20, 49)}}});
  EXPECT_NE(drawn.find("Input/output\\x0aerror"), std::string::npos) << drawn;
}

} // namespace
} // namespace wexctl
