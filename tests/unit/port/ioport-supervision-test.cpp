#include "support/port-fixture.h"

#include "port/errors.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

struct ASupervisedPort : PortTest {
  IoPortRef make_port(PortType type = PORT_INPUT, bool direction_input = true) {
    return make({.type = type, .backend = BACKEND_IIO, .direction_input = direction_input});
  }
};

using ASupervisedPortDeathTest = ASupervisedPort;

} // namespace

TEST_F(ASupervisedPort, acts_as_a_supervised_input_only_while_it_is_an_input) {
  struct Row {
    PortType type;
    bool direction_input;
    bool supervised;
    bool acts;
  };
  for (const auto& row :
       {Row{PORT_INPUT, true, true, true}, Row{PORT_INPUT, true, false, false},
        Row{PORT_OUTPUT, true, true, false}, Row{PORT_IO_CTRL, true, true, true},
        Row{PORT_IO_CTRL, false, true, false}, Row{PORT_IO_CTRL, true, false, false}}) {
    SCOPED_TRACE(testing::Message() << "type " << row.type << ", direction " << row.direction_input
                                    << ", supervised " << row.supervised);
    const auto port = make_port(row.type, row.direction_input);
    port->supervised = row.supervised;
    EXPECT_EQ(io_port_supervised_input(port.get()), row.acts);
  }
}

TEST_F(ASupervisedPort, switches_supervision_through_the_backend) {
  const auto port = make_port();
  EXPECT_TRUE(io_port_set_supervised(port.get(), true));
  EXPECT_TRUE(port->supervised);
  EXPECT_TRUE(io_port_set_supervised(port.get(), false));
  EXPECT_FALSE(port->supervised);
  EXPECT_THAT(fake_backend::take_calls(),
              ElementsAre("0: set_supervised 1", "0: set_supervised 0"));
  EXPECT_THAT(take_changes(), IsEmpty());
}

TEST_F(ASupervisedPort, applies_its_direction_again_when_it_is_a_configurable_input) {
  const auto port = make_port(PORT_IO_CTRL);
  EXPECT_TRUE(io_port_set_supervised(port.get(), true));
  EXPECT_THAT(fake_backend::take_calls(),
              ElementsAre("0: set_supervised 1", "0: set_direction 1", "0: set_watch"));
  EXPECT_THAT(take_changes(), ElementsAre("0: state=0 input"));
  EXPECT_THAT(take_settings(), ElementsAre("0: direction=input"));
}

TEST_F(ASupervisedPort, keeps_its_direction_when_it_is_a_configurable_output) {
  const auto port = make_port(PORT_IO_CTRL, false);
  EXPECT_TRUE(io_port_set_supervised(port.get(), true));
  EXPECT_EQ(port->direction, Direction::Output);
  EXPECT_THAT(fake_backend::take_calls(), ElementsAre("0: set_supervised 1"));
}

TEST_F(ASupervisedPort, refuses_supervision_where_there_is_none) {
  const auto plain = make({.type = PORT_INPUT});
  EXPECT_FALSE(io_port_set_supervised(plain.get(), true));
  EXPECT_FALSE(plain->supervised);
  const auto output = make_port(PORT_OUTPUT);
  EXPECT_FALSE(io_port_set_supervised(output.get(), true));
  EXPECT_THAT(fake_backend::take_calls(), IsEmpty());
}

TEST_F(ASupervisedPort, judges_new_ranges) {
  struct Row {
    const char* label;
    const char* state;
    gint lower;
    gint upper;
    const char* problem;
  };
  constexpr std::array rows{
      Row{"smallest", "open", 0, 1, nullptr},
      Row{"largest", "open", 0, 65535, nullptr},
      Row{"upper limit too high", "open", 0, 65536, "Invalid range."},
      Row{"lower limit too high", "open", 65536, 65537, "Invalid range."},
      Row{"empty band", "open", 10, 10, "Invalid range."},
      Row{"wrong way round", "open", 11, 10, "Invalid range."},
      Row{"negative lower limit passes", "open", -5, 10, nullptr},
      Row{"both limits negative pass", "open", -5, -1, nullptr},
      Row{"undefined state", "undefined", 0, 10, "State is undefined."},
      Row{"unknown state", "ajar", 0, 10, "State is undefined."},
      Row{"the band comes before the state", "undefined", 10, 10, "Invalid range."},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    const auto port = make_port();
    g_autoptr(GError) error = nullptr;
    EXPECT_EQ(io_port_add_supervised_range(port.get(), row.state, row.lower, row.upper, &error),
              row.problem == nullptr);
    EXPECT_EQ(port->ranges.size(), row.problem == nullptr ? 1U : 0U);
    if (row.problem != nullptr) {
      ASSERT_TRUE(g_error_matches(error, io_supervised_error_quark(),
                                  IO_SUPERVISED_ERROR_BAD_SUPERVISED_RANGE));
      EXPECT_STREQ(error->message, row.problem);
    }
  }
}

TEST_F(ASupervisedPort, appends_a_new_range_even_for_a_state_that_has_one) {
  const auto port = make_port();
  ASSERT_TRUE(io_port_add_supervised_range(port.get(), "open", 50, 60, nullptr));
  ASSERT_TRUE(io_port_add_supervised_range(port.get(), "open", 10, 20, nullptr));
  ASSERT_EQ(port->ranges.size(), 2U);
  EXPECT_EQ(port->ranges.back().lower, 10U);
  EXPECT_EQ(port->ranges.back().upper, 20U);
}

TEST_F(ASupervisedPort, keeps_its_ranges_when_the_backend_refuses_a_new_one) {
  const auto port = make_port();
  ASSERT_TRUE(io_port_add_supervised_range(port.get(), "open", 50, 60, nullptr));
  fake_backend::refuse_ranges = true;
  EXPECT_FALSE(io_port_add_supervised_range(port.get(), "open", 10, 20, nullptr));
  ASSERT_EQ(port->ranges.size(), 1U);
  EXPECT_EQ(port->ranges.front().lower, 50U);

  const auto empty = make_port();
  EXPECT_FALSE(io_port_add_supervised_range(empty.get(), "open", 10, 20, nullptr));
  EXPECT_TRUE(empty->ranges.empty());
}

TEST_F(ASupervisedPort, has_no_ranges_without_a_backend_that_keeps_them) {
  const auto port = make({.type = PORT_INPUT});
  g_autoptr(GError) error = nullptr;
  EXPECT_FALSE(io_port_add_supervised_range(port.get(), "open", 0, 10, &error));
  ASSERT_TRUE(g_error_matches(error, io_supervised_error_quark(), IO_SUPERVISED_ERROR_GENERIC));
  EXPECT_STREQ(error->message, "Failed to get ranges from port.");
}

TEST_F(ASupervisedPort, hands_on_the_readout_of_its_backend) {
  const auto port = make_port();
  fake_backend::record(port.get())->readout = {.state = SUPERVISED_CUT, .level = 77};
  const auto readout = io_port_get_supervised_readout(port.get(), nullptr);
  ASSERT_TRUE(readout);
  EXPECT_EQ(readout->state, SUPERVISED_CUT);
  EXPECT_EQ(readout->level, 77U);
  EXPECT_EQ(io_port_get_supervised_state(port.get()), SUPERVISED_CUT);
}

TEST_F(ASupervisedPort, has_no_readout_without_a_backend_that_measures) {
  const auto port = make({.type = PORT_INPUT});
  g_autoptr(GError) error = nullptr;
  EXPECT_FALSE(io_port_get_supervised_readout(port.get(), &error));
  ASSERT_TRUE(g_error_matches(error, io_control_error_quark(), IO_CONTROL_ERROR_GENERIC));
  EXPECT_STREQ(error->message, "Not applicable for port.");
}

TEST_F(ASupervisedPort, has_no_readout_when_it_is_not_supervisable) {
  const auto port = make_port(PORT_OUTPUT);
  g_autoptr(GError) error = nullptr;
  EXPECT_FALSE(io_port_get_supervised_readout(port.get(), &error));
  ASSERT_TRUE(
      g_error_matches(error, io_supervised_error_quark(), IO_SUPERVISED_ERROR_NOT_SUPERVISED));
  EXPECT_STREQ(error->message, "Port is non-supervised");
}

TEST_F(ASupervisedPort, is_open_without_supervision) {
  const auto not_set_up = make({.type = PORT_INPUT, .backend = BACKEND_IIO, .set_up = false});
  fake_backend::record(not_set_up.get())->readout.state = SUPERVISED_CUT;
  EXPECT_EQ(io_port_get_supervised_state(not_set_up.get()), SUPERVISED_OPEN);

  const auto output = make_port(PORT_OUTPUT);
  fake_backend::record(output.get())->readout.state = SUPERVISED_CUT;
  EXPECT_EQ(io_port_get_supervised_state(output.get()), SUPERVISED_OPEN);

  EXPECT_EQ(io_port_get_supervised_state(make({.type = PORT_INPUT}).get()), SUPERVISED_OPEN);
}

TEST_F(ASupervisedPort, is_undefined_when_it_cannot_be_read) {
  const auto port = make_port();
  fake_backend::record(port.get())->readout_error = "the converter is gone";
  EXPECT_EQ(io_port_get_supervised_state(port.get()), SUPERVISED_UNDEFINED);
  EXPECT_TRUE(
      logged(G_LOG_LEVEL_WARNING, "Failed to read supervised state: the converter is gone."));
}

TEST_F(ASupervisedPort, lists_the_states_that_it_can_report) {
  EXPECT_THAT(io_port_get_supported_states(nullptr),
              ElementsAre(testing::StrEq("closed"), testing::StrEq("open"), testing::StrEq("short"),
                          testing::StrEq("cut")));
}

TEST_F(ASupervisedPort, has_an_error_domain_of_its_own) {
  EXPECT_STREQ(g_quark_to_string(io_supervised_error_quark()), "io-supervised-error-quark");
  EXPECT_STREQ(g_quark_to_string(io_control_error_quark()), "io-control-error-quark");
  EXPECT_EQ(IO_SUPERVISED_ERROR_NO_PORT, 1);
  EXPECT_EQ(IO_SUPERVISED_ERROR_NOT_SUPERVISABLE, 2);
}

TEST_F(ASupervisedPortDeathTest, ends_the_process_when_misused) {
  EXPECT_DEATH(io_port_is_supervisable(nullptr), "'port' should not be NULL");
  EXPECT_DEATH(io_port_supervised_input(nullptr), "'port' should not be NULL");
  EXPECT_DEATH(io_port_get_supervised_ranges(nullptr), "'port' should not be NULL");
  EXPECT_DEATH(io_port_get_supervised_readout(nullptr, nullptr), "'port' should not be NULL");
  EXPECT_DEATH(io_port_get_supervised_state(nullptr), "'ioport' should not be NULL");
}
