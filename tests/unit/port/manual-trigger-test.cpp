#include "support/port-fixture.h"

#include "port/action-sequence.h"

using testing::ElementsAre;

namespace {

struct AManualTrigger : PortTest {
  void SetUp() override {
    PortTest::SetUp();
    virtual_input_set_first_port_no(5);
  }
};

} // namespace

TEST_F(AManualTrigger, is_a_disabled_virtual_output_named_after_its_channel) {
  virtual_input_set_first_port_no(8);
  const IoPortRef port = io_port_create_manual_trigger(3);
  EXPECT_EQ(port->type, PORT_OUTPUT);
  EXPECT_EQ(port->number, 10);
  EXPECT_EQ(port->name, "manualtrigger3");
  EXPECT_TRUE(port->is_setup);
  EXPECT_FALSE(port->enabled);
  EXPECT_EQ(port->backend, BACKEND_VIRTUAL);
  EXPECT_NE(port->functions, nullptr);
  EXPECT_TRUE(io_port_get_property(port.get(), "virtual"));
  EXPECT_FALSE(io_port_get_property(port.get(), "ioport"));
  EXPECT_EQ(port->refcount, 1U);
  EXPECT_THAT(fake_backend::take_calls(), ElementsAre("10: setup 0"));
}

TEST_F(AManualTrigger, does_not_mind_a_failed_set_up) {
  fake_backend::failing = {5};
  const IoPortRef port = io_port_create_manual_trigger(1);
  ASSERT_NE(port, nullptr);
  EXPECT_TRUE(port->is_setup);
}

TEST_F(AManualTrigger, carries_the_event_of_its_channel) {
  const IoPortRef port = io_port_create_manual_trigger(2);
  ASSERT_EQ(port->events.size(), 1U);
  const auto& event = port->events.front();
  EXPECT_EQ(event->declaration, "com.norv.Event.Wxd.ManualTrigger");
  EXPECT_TRUE(event->output);
  EXPECT_TRUE(event->input);
  EXPECT_FALSE(event->supervised_input);
  EXPECT_FALSE(event->declare_only);
  ASSERT_EQ(event->key_values.size(), 2U);
  const auto& state = event->key_values.front();
  EXPECT_EQ(state.key, "state");
  EXPECT_EQ(state.value, "PORT_STATUS");
  EXPECT_EQ(state.type, "bool");
  EXPECT_TRUE(state.property);
  const auto& channel = event->key_values.back();
  EXPECT_EQ(channel.key, "port");
  EXPECT_EQ(channel.value, "2");
  EXPECT_EQ(channel.type, "int");
  EXPECT_FALSE(channel.property);
}

TEST_F(AManualTrigger, sends_its_event_when_it_is_triggered) {
  fake_events::add_property_type("com.norv.Event.Wxd.ManualTrigger", "state");
  const IoPortRef port = io_port_create_manual_trigger(2);
  io_port_set_enabled(port.get(), true);
  EXPECT_THAT(fake_events::take_log(),
              ElementsAre("declare com.norv.Event.Wxd.ManualTrigger",
                          "send com.norv.Event.Wxd.ManualTrigger port=2 state=0"));
  EXPECT_TRUE(io_port_set_virtual(port.get(), true));
  EXPECT_THAT(fake_events::take_log(),
              ElementsAre("send com.norv.Event.Wxd.ManualTrigger port=2 state=1"));
  EXPECT_THAT(take_changes(), ElementsAre("6: state=1 virtual virtual_trig"));
}

TEST(TheFirstVirtualPortDeathTest, is_5_and_not_in_use_until_the_description_says_otherwise) {
  // In a process of its own, where nothing has been said yet.
  EXPECT_EXIT(
      {
        const bool untouched = !virtual_input_in_use() && virtual_input_get_first_port_no() == 5;
        virtual_input_set_first_port_no(9);
        _exit(untouched && virtual_input_in_use() && virtual_input_get_first_port_no() == 9 ? 0
                                                                                            : 1);
      },
      testing::ExitedWithCode(0), "");
}
