// The operations that are made from a class.
#include "backends/hardware.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

namespace {

using testing::ElementsAre;

std::vector<std::string> calls;
int instances = 0;

struct NothingAtAll {};

/// Has every operation: some of any port, some of the instance.
class Everything {
public:
  explicit Everything(IoPort& port) : port_(port) { instances++; }
  ~Everything() {
    EXPECT_EQ(port_.backend_private, nullptr) << "nobody can reach an instance that is going";
    instances--;
  }
  Everything(const Everything&) = delete;
  Everything& operator=(const Everything&) = delete;

  bool setup(Level start) { return note("setup", start == Level::High); }
  static bool is_supervisable(IoPort* port) { return port->number == 7; }
  bool set_supervised() { return note("set_supervised"); }
  static const SupervisedRanges& get_supervised_ranges(IoPort* port) { return port->ranges; }
  bool set_supervised_ranges(SupervisedRanges ranges, GError** /*error*/) {
    return note("set_supervised_ranges", ranges.size() == 1);
  }
  std::optional<SupervisedReadout> get_supervised_readout(GError** /*error*/) {
    note("get_supervised_readout");
    return SupervisedReadout{.level = 5};
  }
  [[nodiscard]] Level get_state() const { return Level::High; }
  void set_state(Level level) { note("set_state", level == Level::High); }
  bool set_watch() { return note("set_watch"); }
  void set_direction(Direction direction) { note("set_direction", direction == Direction::Input); }
  void parse_data(const char* element, const char* key, const char* value) {
    note(std::string(element) + ' ' + key + ' ' + value);
  }
  void close() { note("close"); }

private:
  bool note(const std::string& call, bool answer = true) {
    calls.push_back(std::to_string(port_.number) + ' ' + call);
    return answer;
  }

  IoPort& port_;
};

constexpr PortFunctions idle = table_of<NothingAtAll>();
constexpr PortFunctions full = table_of<Everything>();

class ATableOfAClass : public testing::Test {
protected:
  void SetUp() override {
    calls.clear();
    port->number = 7;
  }

  const IoPortRef port = io_port_new();
};
using ATableOfAClassDeathTest = ATableOfAClass;

TEST_F(ATableOfAClass, does_nothing_where_there_is_no_member_and_something_must_be) {
  EXPECT_TRUE(port_functions_valid(idle));
  EXPECT_TRUE(idle.setup(port.get(), Level::High));
  EXPECT_EQ(idle.get_state(port.get()), Level::Low);
  idle.set_state(port.get(), Level::High);
  EXPECT_TRUE(idle.set_watch(port.get()));
  idle.set_direction(port.get(), Direction::Input);
  idle.parse_data(port.get(), "element", "key", "value");
  idle.free(port.get());
  EXPECT_EQ(port->backend_private, nullptr);
}

TEST_F(ATableOfAClass, stays_empty_where_there_is_no_member_and_nothing_need_be) {
  EXPECT_EQ(idle.is_supervisable, nullptr);
  EXPECT_EQ(idle.set_supervised, nullptr);
  EXPECT_EQ(idle.get_supervised_ranges, nullptr);
  EXPECT_EQ(idle.set_supervised_ranges, nullptr);
  EXPECT_EQ(idle.get_supervised_readout, nullptr);
  EXPECT_EQ(idle.close, nullptr);
}

TEST_F(ATableOfAClass, calls_the_members_of_the_ports_instance) {
  EXPECT_EQ(hardware_attach<Everything>(port.get())->setup, hardware_table<Everything>.setup);
  EXPECT_FALSE(full.setup(port.get(), Level::Low));
  EXPECT_TRUE(full.is_supervisable(port.get()));
  EXPECT_TRUE(full.set_supervised(port.get()));
  EXPECT_EQ(&full.get_supervised_ranges(port.get()), &port->ranges);
  EXPECT_TRUE(full.set_supervised_ranges(port.get(), SupervisedRanges(1), nullptr));
  EXPECT_EQ(full.get_supervised_readout(port.get(), nullptr)->level, 5U);
  EXPECT_EQ(full.get_state(port.get()), Level::High);
  full.set_state(port.get(), Level::High);
  EXPECT_TRUE(full.set_watch(port.get()));
  full.set_direction(port.get(), Direction::Output);
  full.parse_data(port.get(), "element", "key", "value");
  full.close(port.get());
  EXPECT_THAT(calls, ElementsAre("7 setup", "7 set_supervised", "7 set_supervised_ranges",
                                 "7 get_supervised_readout", "7 set_state", "7 set_watch",
                                 "7 set_direction", "7 element key value", "7 close"));
  full.free(port.get());
}

TEST_F(ATableOfAClass, has_no_answer_without_an_instance) {
  EXPECT_TRUE(full.is_supervisable(port.get())) << "a matter of any port";
  EXPECT_FALSE(full.set_supervised(port.get()));
  EXPECT_FALSE(full.set_supervised_ranges(port.get(), SupervisedRanges(1), nullptr));
  EXPECT_EQ(full.get_supervised_readout(port.get(), nullptr), std::nullopt);
  EXPECT_EQ(full.get_state(port.get()), Level::Low);
  full.set_state(port.get(), Level::High);
  EXPECT_FALSE(full.set_watch(port.get()));
  full.set_direction(port.get(), Direction::Output);
  full.parse_data(port.get(), "element", "key", "value");
  full.close(port.get());
  EXPECT_THAT(calls, testing::IsEmpty());
  EXPECT_EQ(instances, 0);
}

TEST_F(ATableOfAClass, has_one_instance_from_the_attachment_until_it_is_freed) {
  for (int round = 0; round < 2; round++) {
    const auto* const table = hardware_attach<Everything>(port.get());
    const gpointer instance = port->backend_private;
    EXPECT_EQ(hardware_attach<Everything>(port.get()), table);
    EXPECT_EQ(port->backend_private, instance);
    EXPECT_EQ(instances, 1);
    table->free(port.get());
    table->free(port.get());
    EXPECT_EQ(instances, 0);
  }
}

TEST_F(ATableOfAClassDeathTest, ends_the_process_when_nothing_is_to_be_set_up) {
  EXPECT_DEATH(full.setup(port.get(), Level::Low), "assertion failed: \\(data != NULL\\)");
}

} // namespace
