// What the daemon relies on in the device's event library, and what the one that is shipped logs.
#include "platform/event-library.h"

#include "platform/event-types.h"
#include "support/log-capture.h"
#include "support/main-loop.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

template <auto Free>
struct FreeWith {
  template <typename T>
  void operator()(T* handle) const {
    Free(handle);
  }
};
using Producer = std::unique_ptr<NvEventProducer, FreeWith<nv_event_producer_free>>;
using Declaration = std::unique_ptr<NvEventDeclaration, FreeWith<nv_event_declaration_free>>;
using Event = std::unique_ptr<NvEvent, FreeWith<nv_event_free>>;

struct TheEventLibrary : testing::Test {
  Producer producer{nv_event_producer_new("tester")};

  /// A declaration with a fixed key "port" and an open key "state".
  static Declaration make_declaration() {
    Declaration declaration(nv_event_declaration_new("Thing"));
    EXPECT_TRUE(nv_event_declaration_add_key_value(declaration.get(), "port", "3", NV_EVENT_INT));
    EXPECT_TRUE(nv_event_declaration_add_key(declaration.get(), "state", NV_EVENT_BOOL));
    return declaration;
  }

  guint declare(const Declaration& declaration) {
    return nv_event_producer_declare(producer.get(), declaration.get(), nullptr);
  }

  Event prepare(guint id) { return Event(nv_event_producer_prepare(producer.get(), id, nullptr)); }

  static std::vector<std::string> lines() { return claim_lines("event "); }

  static std::vector<guint> filled;
  static void fill(NvEvent* event, gpointer user_data) {
    filled.push_back(GPOINTER_TO_UINT(user_data));
    nv_event_set_bool(event, "state", true);
  }

  void SetUp() override { filled.clear(); }
};

std::vector<guint> TheEventLibrary::filled;

} // namespace

TEST_F(TheEventLibrary, gives_every_declaration_an_id_of_its_own) {
  const auto declaration = make_declaration();
  const guint first = declare(declaration);
  const guint second = declare(declaration);
  EXPECT_GT(first, 0U);
  EXPECT_GT(second, first);
  EXPECT_THAT(lines(), ElementsAre("event declare producer=tester type=Thing id=1 port=3 state=",
                                   "event declare producer=tester type=Thing id=2 port=3 state="));
}

TEST_F(TheEventLibrary, withdraws_a_declaration_once) {
  const guint id = declare(make_declaration());
  lines();
  EXPECT_TRUE(nv_event_producer_undeclare(producer.get(), id, nullptr));
  EXPECT_THAT(lines(), ElementsAre("event undeclare producer=tester type=Thing id=1"));
  g_autoptr(GError) error = nullptr;
  EXPECT_FALSE(nv_event_producer_undeclare(producer.get(), id, &error));
  EXPECT_TRUE(g_error_matches(error, nv_event_error_quark(), NV_EVENT_ERROR_UNKNOWN_ID));
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(TheEventLibrary, sends_what_was_declared_and_set) {
  const guint id = declare(make_declaration());
  lines();
  const auto event = prepare(id);
  ASSERT_NE(event, nullptr);
  EXPECT_TRUE(nv_event_set_bool(event.get(), "state", true));
  EXPECT_TRUE(nv_event_producer_send(producer.get(), event.get(), nullptr));
  EXPECT_TRUE(nv_event_set_bool(event.get(), "state", false));
  EXPECT_TRUE(nv_event_producer_send(producer.get(), event.get(), nullptr));
  EXPECT_THAT(lines(), ElementsAre("event send producer=tester type=Thing id=1 port=3 state=1",
                                   "event send producer=tester type=Thing id=1 port=3 state=0"));
}

TEST_F(TheEventLibrary, prepares_nothing_for_an_unknown_id) {
  g_autoptr(GError) error = nullptr;
  EXPECT_EQ(nv_event_producer_prepare(producer.get(), 99, &error), nullptr);
  EXPECT_TRUE(g_error_matches(error, nv_event_error_quark(), NV_EVENT_ERROR_UNKNOWN_ID));
}

TEST_F(TheEventLibrary, does_not_send_after_the_declaration_was_withdrawn) {
  const guint id = declare(make_declaration());
  const auto event = prepare(id);
  nv_event_set_bool(event.get(), "state", true);
  nv_event_producer_undeclare(producer.get(), id, nullptr);
  g_autoptr(GError) error = nullptr;
  EXPECT_FALSE(nv_event_producer_send(producer.get(), event.get(), &error));
  EXPECT_TRUE(g_error_matches(error, nv_event_error_quark(), NV_EVENT_ERROR_UNKNOWN_ID));
}

TEST_F(TheEventLibrary, does_not_send_before_every_key_has_a_value) {
  const auto event = prepare(declare(make_declaration()));
  g_autoptr(GError) error = nullptr;
  EXPECT_FALSE(nv_event_producer_send(producer.get(), event.get(), &error));
  EXPECT_TRUE(g_error_matches(error, nv_event_error_quark(), NV_EVENT_ERROR_NOT_COMPLETE));
  EXPECT_STREQ(error->message, "no value for key state");
}

TEST_F(TheEventLibrary, refuses_unknown_keys_and_wrong_types) {
  const auto event = prepare(declare(make_declaration()));
  EXPECT_FALSE(nv_event_set_bool(event.get(), "other", true));
  EXPECT_FALSE(nv_event_set_int(event.get(), "state", 1));
  EXPECT_FALSE(nv_event_set_string(event.get(), "state", "1"));
  EXPECT_FALSE(nv_event_set_bool(event.get(), "port", true));
  EXPECT_TRUE(nv_event_set_int(event.get(), "port", -4));

  const auto declaration = make_declaration();
  EXPECT_FALSE(nv_event_declaration_add_key(declaration.get(), "port", NV_EVENT_INT));
  EXPECT_FALSE(nv_event_declaration_add_key_value(declaration.get(), "state", "1", NV_EVENT_BOOL));
  EXPECT_FALSE(nv_event_declaration_set_nice_names(declaration.get(), "other", "a", "b"));
  EXPECT_FALSE(nv_event_declaration_set_name_space(declaration.get(), "other", "a"));
  EXPECT_FALSE(nv_event_declaration_tag_key(declaration.get(), "other", "a"));
  EXPECT_FALSE(nv_event_declaration_set_property(declaration.get(), "other", nullptr, nullptr));
  EXPECT_FALSE(nv_event_declaration_is_property(declaration.get()));
}

TEST_F(TheEventLibrary, refuses_texts_that_are_not_of_their_type) {
  struct Row {
    NvEventType type;
    const char* text;
    bool fits;
  };
  const std::array rows{
      Row{NV_EVENT_INT, "0", true},
      Row{NV_EVENT_INT, "-12", true},
      Row{NV_EVENT_INT, "2147483647", true},
      Row{NV_EVENT_INT, "2147483648", false},
      Row{NV_EVENT_INT, "", false},
      Row{NV_EVENT_INT, "12x", false},
      Row{NV_EVENT_BOOL, "0", true},
      Row{NV_EVENT_BOOL, "1", true},
      Row{NV_EVENT_BOOL, "true", false},
      Row{NV_EVENT_BOOL, "", false},
      Row{NV_EVENT_DOUBLE, "0.5", true},
      Row{NV_EVENT_DOUBLE, "-1e3", true},
      Row{NV_EVENT_DOUBLE, "", false},
      Row{NV_EVENT_DOUBLE, "half", false},
      Row{NV_EVENT_STRING, "", true},
      Row{NV_EVENT_STRING, "any text", true},
      Row{static_cast<NvEventType>(0), "1", false},
      Row{static_cast<NvEventType>(5), "1", false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::Message() << row.type << ' ' << row.text);
    const Declaration declaration(nv_event_declaration_new("Thing"));
    EXPECT_EQ(nv_event_declaration_add_key_value(declaration.get(), "fixed", row.text, row.type),
              row.fits);
    if (!row.fits && row.type >= NV_EVENT_INT && row.type <= NV_EVENT_STRING) {
      nv_event_declaration_add_key(declaration.get(), "open", row.type);
      EXPECT_FALSE(nv_event_inspectable_set_value(
          nv_event_declaration_get_inspectable(declaration.get()), "open", row.text, row.type));
    }
  }
}

TEST_F(TheEventLibrary, logs_how_a_declaration_is_decorated) {
  const auto declaration = make_declaration();
  EXPECT_TRUE(nv_event_declaration_set_nice_names(declaration.get(), "port", "Port", "A door"));
  EXPECT_TRUE(nv_event_declaration_set_name_space(declaration.get(), "port", "tns1"));
  EXPECT_TRUE(nv_event_declaration_tag_key(declaration.get(), "state", "first"));
  EXPECT_TRUE(nv_event_declaration_tag_key(declaration.get(), "state", "second"));
  EXPECT_TRUE(nv_event_declaration_set_property(declaration.get(), "state", nullptr, nullptr));
  EXPECT_TRUE(nv_event_declaration_is_property(declaration.get()));
  declare(declaration);
  EXPECT_THAT(lines(), ElementsAre("event declare producer=tester type=Thing id=1 property=state "
                                   "port=3 state= namespace.port=tns1 nice-key.port=Port "
                                   "nice-value.port=\"A door\" tag.state=first tag.state=second"));
}

TEST_F(TheEventLibrary, quotes_what_would_break_a_line) {
  const Declaration declaration(nv_event_declaration_new("Thing"));
  nv_event_declaration_add_key_value(declaration.get(), "text", "a=b \"c\"\n\\d", NV_EVENT_STRING);
  declare(declaration);
  EXPECT_THAT(lines(), ElementsAre("event declare producer=tester type=Thing id=1 "
                                   "text=\"a=b \\\"c\\\"\\n\\\\d\""));
}

TEST_F(TheEventLibrary, knows_types_by_name) {
  EXPECT_EQ(nv_event_declaration_new_from_type("Nonsense"), nullptr);
  EXPECT_EQ(nv_event_declaration_new_from_type(nullptr), nullptr);
  for (const char* name : {"com.norv.Event.Wxd.ManualTrigger", "Port"}) {
    SCOPED_TRACE(name);
    EXPECT_NE(Declaration(nv_event_declaration_new_from_type(name)), nullptr);
    EXPECT_NE(event_types_find(name), nullptr);
  }
  EXPECT_EQ(event_types_find("port"), nullptr);
  EXPECT_EQ(event_types_find("Ports"), nullptr);
  EXPECT_EQ(event_types_find("com.norv.Event.Wxd.Anything"), nullptr);
}

TEST_F(TheEventLibrary, holds_a_known_type_to_its_keys) {
  const Declaration declaration(
      nv_event_declaration_new_from_type("com.norv.Event.Wxd.ManualTrigger"));
  auto* const contents = nv_event_declaration_get_inspectable(declaration.get());
  EXPECT_TRUE(nv_event_inspectable_set_value(contents, "port", "2", NV_EVENT_INT));
  EXPECT_FALSE(nv_event_inspectable_set_value(contents, "port", "2", NV_EVENT_STRING));
  EXPECT_FALSE(nv_event_inspectable_set_value(contents, "other", "2", NV_EVENT_INT));
  EXPECT_FALSE(nv_event_inspectable_set_nice_names(contents, "other", "a", "b"));
  EXPECT_TRUE(nv_event_inspectable_set_nice_names(contents, "state", "a", nullptr));
  declare(declaration);
  EXPECT_THAT(lines(),
              ElementsAre("event declare producer=tester type=com.norv.Event.Wxd.ManualTrigger "
                          "id=1 port=2 state= nice-key.state=a"));
}

TEST_F(TheEventLibrary, lets_a_type_without_keys_take_any) {
  const Declaration declaration(nv_event_declaration_new_from_type("Port"));
  auto* const contents = nv_event_declaration_get_inspectable(declaration.get());
  EXPECT_TRUE(nv_event_inspectable_set_nice_names(contents, "state", "Active", nullptr));
  EXPECT_TRUE(nv_event_inspectable_set_value(contents, "state", "1", NV_EVENT_BOOL));
  EXPECT_TRUE(nv_event_inspectable_set_value(contents, "state", "open", NV_EVENT_STRING));
  EXPECT_FALSE(nv_event_inspectable_set_value(contents, "state", "open", NV_EVENT_BOOL));
  EXPECT_TRUE(nv_event_declaration_set_property(declaration.get(), "new", nullptr, nullptr));
  declare(declaration);
  EXPECT_THAT(lines(), ElementsAre("event declare producer=tester type=Port id=1 property=new "
                                   "state=open new= nice-key.state=Active"));
}

TEST_F(TheEventLibrary, asks_for_the_present_state_from_the_main_loop_only) {
  const auto declaration = make_declaration();
  nv_event_declaration_set_property(declaration.get(), "state", fill, GUINT_TO_POINTER(7));
  const guint id = declare(declaration);
  const auto event = prepare(id);
  nv_event_set_bool(event.get(), "state", false);
  nv_event_producer_send(producer.get(), event.get(), nullptr);
  EXPECT_THAT(filled, IsEmpty());
  lines();

  EXPECT_TRUE(run_until([] { return !filled.empty(); }));
  EXPECT_THAT(filled, ElementsAre(7U));
  EXPECT_THAT(lines(), ElementsAre("event send producer=tester type=Thing id=1 port=3 state=1"));
  run_pending();
  EXPECT_EQ(filled.size(), 1U);
}

TEST_F(TheEventLibrary, does_not_ask_for_what_was_withdrawn) {
  const auto declaration = make_declaration();
  nv_event_declaration_set_property(declaration.get(), "state", fill, GUINT_TO_POINTER(1));
  const guint withdrawn = declare(declaration);
  nv_event_declaration_set_property(declaration.get(), "state", fill, GUINT_TO_POINTER(2));
  declare(declaration);
  nv_event_producer_undeclare(producer.get(), withdrawn, nullptr);
  EXPECT_TRUE(run_until([] { return !filled.empty(); }));
  run_pending();
  EXPECT_THAT(filled, ElementsAre(2U));
}

TEST_F(TheEventLibrary, does_not_ask_after_its_producer_is_gone) {
  const auto declaration = make_declaration();
  nv_event_declaration_set_property(declaration.get(), "state", fill, nullptr);
  declare(declaration);
  producer.reset();
  run_pending();
  EXPECT_THAT(filled, IsEmpty());
}

TEST_F(TheEventLibrary, tells_of_a_present_state_that_is_not_complete) {
  const auto declaration = make_declaration();
  nv_event_declaration_set_property(
      declaration.get(), "state", [](NvEvent*, gpointer) { filled.push_back(0); }, nullptr);
  declare(declaration);
  EXPECT_TRUE(run_until([] { return !filled.empty(); }));
  EXPECT_TRUE(
      logged(G_LOG_LEVEL_WARNING, "No initial state of event Thing: no value for key state"));
}

TEST_F(TheEventLibrary, lets_a_fill_declare_and_withdraw) {
  struct Both {
    NvEventProducer* producer;
    guint own;
    guint other;
  };
  Both both{.producer = producer.get(), .own = 0, .other = 0};
  const auto declaration = make_declaration();
  nv_event_declaration_set_property(
      declaration.get(), "state",
      [](NvEvent* event, gpointer user_data) {
        auto* ids = static_cast<Both*>(user_data);
        nv_event_set_bool(event, "state", true);
        ids->other = nv_event_producer_declare(ids->producer, make_declaration().get(), nullptr);
        nv_event_producer_undeclare(ids->producer, ids->own, nullptr);
      },
      &both);
  both.own = declare(declaration);
  EXPECT_TRUE(run_until([&] { return both.other != 0; }));
  EXPECT_TRUE(logged_part(G_LOG_LEVEL_WARNING, "No initial state of event Thing: unknown"));
}

TEST_F(TheEventLibrary, has_a_full_constructor) {
  const Producer full(nv_event_producer_new_full("full", 0, nullptr));
  nv_event_producer_declare(full.get(), make_declaration().get(), nullptr);
  EXPECT_THAT(lines(), ElementsAre(HasSubstr("producer=full type=Thing id=1")));
}

TEST_F(TheEventLibrary, frees_nothing_without_complaint) {
  nv_event_producer_free(nullptr);
  nv_event_declaration_free(nullptr);
  nv_event_free(nullptr);
}
