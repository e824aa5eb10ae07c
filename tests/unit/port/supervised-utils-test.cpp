#include "support/port-fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

struct Supervision : PortTest {
  /// "closed 0-100" for each range of a list.
  static Texts describe(const SupervisedRanges& ranges) {
    Texts texts;
    for (const auto& range : ranges) {
      texts.push_back(std::string(supervised_range_state2string(range.state)) + ' '
                      + std::to_string(range.lower) + '-' + std::to_string(range.upper));
    }
    return texts;
  }

  static Texts convert(const char* variant) {
    g_autoptr(GVariant) value =
        g_variant_parse(G_VARIANT_TYPE("a(suu)"), variant, nullptr, nullptr, nullptr);
    EXPECT_NE(value, nullptr);
    return describe(supervised_gvariant2ranges(value));
  }

  IoPortRef make_input(BackendKind backend = BACKEND_IIO) {
    return make({.type = PORT_INPUT, .backend = backend, .name = "loop"});
  }
};

using SupervisionDeathTest = Supervision;

struct StateName {
  SupervisedState state;
  guint32 number;
  const char* name;
};

constexpr std::array state_names{
    StateName{SUPERVISED_OPEN, 0, "open"},           StateName{SUPERVISED_CLOSED, 1, "closed"},
    StateName{SUPERVISED_SHORT, 2, "short"},         StateName{SUPERVISED_CUT, 3, "cut"},
    StateName{SUPERVISED_UNDEFINED, 4, "undefined"},
};

} // namespace

TEST_F(Supervision, names_its_states) {
  for (const auto& row : state_names) {
    SCOPED_TRACE(row.name);
    EXPECT_EQ(row.state, row.number);
    EXPECT_STREQ(supervised_range_state2string(row.state), row.name);
    EXPECT_EQ(supervised_range_string2state(row.name), row.state);
  }
}

TEST_F(Supervision, takes_every_other_word_as_undefined) {
  for (const char* word : {"", "Open", "CLOSED", "Cut", "shorts", " open", "open "}) {
    SCOPED_TRACE(word);
    EXPECT_EQ(supervised_range_string2state(word), SUPERVISED_UNDEFINED);
  }
  EXPECT_EQ(supervised_range_string2state(nullptr), SUPERVISED_UNDEFINED);
}

TEST_F(SupervisionDeathTest, ends_the_process_for_a_state_outside_the_enumeration) {
  EXPECT_DEATH(supervised_range_state2string(static_cast<SupervisedState>(5)),
               "supervised_range_state2string.*should not be reached");
  const SupervisedRanges wrong{{.state = static_cast<SupervisedState>(5), .upper = 1, .lower = 0}};
  EXPECT_DEATH(supervised_ranges2gvariant(wrong), "should not be reached");
}

TEST_F(Supervision, prints_ranges_in_list_order_with_the_lower_limit_first) {
  const auto port = make_input();
  ASSERT_TRUE(io_port_add_supervised_range(port.get(), "short", 100, 200, nullptr));
  ASSERT_TRUE(io_port_add_supervised_range(port.get(), "closed", 0, 100, nullptr));
  g_autoptr(GVariant) value = g_variant_ref_sink(supervised_ranges2gvariant(port->ranges));
  g_autofree gchar* text = g_variant_print(value, TRUE);
  EXPECT_STREQ(text, "[('short', uint32 100, uint32 200), ('closed', 0, 100)]");
}

TEST_F(Supervision, prints_no_ranges_as_an_empty_array) {
  g_autoptr(GVariant) value = g_variant_ref_sink(supervised_ranges2gvariant({}));
  EXPECT_STREQ(g_variant_get_type_string(value), "a(suu)");
  EXPECT_EQ(g_variant_n_children(value), 0U);
}

TEST_F(Supervision, sorts_read_ranges_by_their_lower_limit) {
  EXPECT_THAT(convert("[]"), IsEmpty());
  EXPECT_THAT(convert("[('cut',300,400),('open',0,99),('closed',100,299)]"),
              ElementsAre("open 0-99", "closed 100-299", "cut 300-400"));
}

TEST_F(Supervision, puts_a_read_range_before_those_with_the_same_lower_limit) {
  EXPECT_THAT(convert("[('open',5,6),('closed',5,7),('short',5,8)]"),
              ElementsAre("short 5-8", "closed 5-7", "open 5-6"));
}

TEST_F(Supervision, compares_lower_limits_as_a_signed_difference) {
  EXPECT_THAT(convert("[('open',0,1),('closed',4294967295,4294967295)]"),
              ElementsAre("closed 4294967295-4294967295", "open 0-1"));
}

TEST_F(Supervision, does_not_judge_ranges_that_it_reads) {
  EXPECT_THAT(convert("[('undefined',9,1),('no such state',70000,80000)]"),
              ElementsAre("undefined 9-1", "undefined 70000-80000"));
}

TEST_F(Supervision, compares_ranges_by_state_alone) {
  const SupervisedRange open{.state = SUPERVISED_OPEN, .upper = 1, .lower = 0};
  const SupervisedRange other{.state = SUPERVISED_OPEN, .upper = 9, .lower = 8};
  const SupervisedRange cut{.state = SUPERVISED_CUT, .upper = 1, .lower = 0};
  EXPECT_EQ(range_equal(&open, &other), 0);
  EXPECT_EQ(range_equal(&cut, &open), 3);
  EXPECT_EQ(range_equal(&open, &cut), -3);
}

TEST_F(Supervision, finds_the_last_range_that_holds_a_level) {
  struct Row {
    guint32 level;
    SupervisedState state;
  };
  const auto port = make_input();
  ASSERT_TRUE(io_port_add_supervised_range(port.get(), "closed", 0, 100, nullptr));
  ASSERT_TRUE(io_port_add_supervised_range(port.get(), "short", 100, 200, nullptr));
  ASSERT_TRUE(io_port_add_supervised_range(port.get(), "open", 190, 65535, nullptr));
  for (const auto& row :
       {Row{0, SUPERVISED_CLOSED}, Row{99, SUPERVISED_CLOSED}, Row{100, SUPERVISED_SHORT},
        Row{189, SUPERVISED_SHORT}, Row{190, SUPERVISED_OPEN}, Row{65535, SUPERVISED_OPEN},
        Row{65536, SUPERVISED_UNDEFINED}, Row{G_MAXUINT32, SUPERVISED_UNDEFINED}}) {
    SCOPED_TRACE(row.level);
    EXPECT_EQ(supervised_lookup_state(port.get(), row.level, nullptr), row.state);
  }
}

TEST_F(Supervision, cannot_look_a_level_up_without_ranges_to_lend) {
  const auto port = make_input(BACKEND_GPIO);
  g_autoptr(GError) error = nullptr;
  EXPECT_EQ(supervised_lookup_state(port.get(), 1, &error), std::nullopt);
  ASSERT_TRUE(
      g_error_matches(error, io_supervised_error_quark(), IO_SUPERVISED_ERROR_NOT_SUPERVISED));
  EXPECT_STREQ(error->message, "Failed to get ranges from port loop");

  port->name = std::nullopt;
  g_clear_error(&error);
  EXPECT_EQ(supervised_lookup_state(port.get(), 1, &error), std::nullopt);
  EXPECT_STREQ(error->message, "Failed to get ranges from port (null)");
}

TEST_F(Supervision, shows_and_replaces_the_ranges_of_a_port) {
  const auto port = make_input();
  const SupervisedRanges* const shown = io_port_get_supervised_ranges(port.get());
  ASSERT_NE(shown, nullptr);
  EXPECT_THAT(*shown, IsEmpty());
  for (const guint32 upper : {1U, 2U}) {
    EXPECT_TRUE(io_port_set_supervised_ranges(
        port.get(), {{.state = SUPERVISED_OPEN, .upper = upper, .lower = 0}}, nullptr));
    EXPECT_THAT(describe(*io_port_get_supervised_ranges(port.get())),
                ElementsAre("open 0-" + std::to_string(upper)));
  }
}

TEST_F(Supervision, refuses_an_empty_list) {
  const auto port = make_input();
  ASSERT_TRUE(io_port_add_supervised_range(port.get(), "open", 0, 1, nullptr));
  g_autoptr(GError) error = nullptr;
  EXPECT_FALSE(io_port_set_supervised_ranges(port.get(), {}, &error));
  ASSERT_TRUE(g_error_matches(error, io_supervised_error_quark(),
                              IO_SUPERVISED_ERROR_BAD_SUPERVISED_RANGE));
  EXPECT_STREQ(error->message, "Ranges is null.");
  EXPECT_THAT(describe(port->ranges), ElementsAre("open 0-1"));
}

TEST_F(Supervision, needs_a_backend_that_can) {
  const auto port = make_input(BACKEND_GPIO);
  EXPECT_EQ(io_port_get_supervised_ranges(port.get()), nullptr);
  g_autoptr(GError) error = nullptr;
  EXPECT_FALSE(io_port_set_supervised_ranges(port.get(), SupervisedRanges(1), &error));
  EXPECT_EQ(error, nullptr);
}

TEST_F(Supervision, is_for_inputs_and_configurable_ports) {
  struct Row {
    PortType type;
    bool supervisable;
  };
  for (const auto& row : {Row{PORT_INPUT, true}, Row{PORT_OUTPUT, false}, Row{PORT_IO_CTRL, true},
                          Row{unknown_type, false}}) {
    SCOPED_TRACE(row.type);
    const auto port = make({.type = row.type, .backend = BACKEND_IIO});
    EXPECT_EQ(supervised_is_supervisable(port.get()) != FALSE, row.supervisable);
    EXPECT_EQ(io_port_is_supervisable(port.get()), row.supervisable);
    EXPECT_FALSE(io_port_is_supervisable(make({.type = row.type}).get()));
  }
}
