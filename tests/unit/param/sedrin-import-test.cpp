#include "support/child.h"
#include "support/log-capture.h"
#include "support/port-fixture.h"
#include "support/scratch.h"
#include "support/streams.h"

#include "param/sedrin-import.h"
#include "platform/log.h"
#include "port/errors.h"

#include <sys/resource.h>

#include <csignal>

using testing::HasSubstr;

namespace {

struct TheImport : PortTest {
  void SetUp() override {
    PortTest::SetUp();
    input = add({.type = PORT_INPUT, .number = 1});
    output = add({.type = PORT_OUTPUT, .number = 2});
    both = add({.type = PORT_IO_CTRL, .number = 3});
  }

  /// Imports a file with that text; "ok", "failed", or the error's text.
  std::string import(const std::string& text) {
    const auto file = scratch.write("import.conf", text);
    g_autoptr(GError) error = nullptr;
    const StreamCapture errors(2);
    const bool taken = read_sedrin_parameters(file.c_str(), &error);
    err = errors.text();
    if (error != nullptr) {
      EXPECT_FALSE(taken);
      EXPECT_TRUE(g_error_matches(error, io_control_error_quark(), IO_CONTROL_ERROR_GENERIC));
      return error->message;
    }
    return taken ? "ok" : "failed";
  }

  ScratchFolder scratch;
  std::string err;
  IoPort* input = nullptr;
  IoPort* output = nullptr;
  IoPort* both = nullptr;
};

using TheMerge = TheImport;

} // namespace

TEST_F(TheImport, is_done_with_a_warning_when_there_is_no_file) {
  EXPECT_TRUE(read_sedrin_parameters(scratch.path("none").c_str(), nullptr));
  EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING, "Unable to read from sedrin file"));
}

TEST_F(TheImport, is_not_done_with_before_a_file_was_taken) {
  EXPECT_FALSE(sedrin_take_file(scratch.path("none").c_str()));
  EXPECT_FALSE(sedrin_take_file(scratch.write("broken", "no group\n").c_str()));
  const auto partly = scratch.write("partly", "[IOPort.I1.Input]\nName=Door\nTrig=Open\n");
  EXPECT_TRUE(sedrin_take_file(partly.c_str()));
  EXPECT_EQ(input->input_name, "Door");
}

TEST_F(TheImport, refuses_names_that_are_too_long) {
  const std::string longest(io_port_text_limit, 'x');
  EXPECT_EQ(import("[IOPort.I1.Input]\nName=" + longest + "\n"), "ok");
  EXPECT_EQ(input->input_name, longest);
  EXPECT_EQ(import("[IOPort.I1.Input]\nName=\"" + longest + "\"\n"), "ok");
  EXPECT_EQ(import("[IOPort.I1.Input]\nName=y" + longest
                   + "\nTrig=open\n"
                     "[IOPort.I2.Output]\nName=lamp\n"),
            "Failed to read Name parameter");
  EXPECT_EQ(input->input_name, longest);
  EXPECT_FALSE(input->activelow_input);
  EXPECT_EQ(output->output_name, "lamp");
  EXPECT_EQ(import("[IOPort.I2.Output]\nName=y" + longest + "\n"),
            "Failed to read Output parameter");
  EXPECT_EQ(output->output_name, "lamp");
}

TEST_F(TheImport, needs_a_key_file) {
  EXPECT_EQ(import("no group\n"), "Failed to load sedrin file");
}

TEST_F(TheImport, takes_both_sides_of_a_port) {
  EXPECT_EQ(import("[IOPort.I3.Input]\nName=\"Door\"\nTrig=open\n"
                   "[IOPort.I3.Output]\nName=Lamp\nActive=open\nButton=actinact\nPulseTime=500\n"
                   "DelayTime=20\nMode=monostable\n"
                   "[IOPort.I3]\nDirection=output\nOther=1\n"),
            "ok");
  EXPECT_EQ(both->input_name, "Door");
  EXPECT_TRUE(both->activelow_input);
  EXPECT_EQ(both->output_name, "Lamp");
  EXPECT_TRUE(both->activelow_output);
  EXPECT_EQ(both->button_type, BUTTON_ACTINACT);
  EXPECT_EQ(both->pulse_time, 500U);
  EXPECT_EQ(both->delay_time, 20);
  EXPECT_EQ(both->mode, PORT_MODE_MONOSTABLE);
  EXPECT_EQ(both->direction, Direction::Output);
}

TEST_F(TheImport, unquotes_names_that_start_with_a_quote) {
  struct Row {
    const char* value;
    const char* name;
  };
  for (const auto& row : {Row{"\"Door\"", "Door"}, Row{"Door\"", "Door\""}, Row{"\"Door", "Doo"},
                          Row{"\"", ""}, Row{"\"\"", ""}, Row{"", ""}, Row{"a \"b\"", "a \"b\""}}) {
    SCOPED_TRACE(row.value);
    input->input_name = "before";
    EXPECT_EQ(import(std::string("[IOPort.I1.Input]\nName=") + row.value + "\n"), "ok");
    EXPECT_EQ(input->input_name, row.name);
  }
}

TEST_F(TheImport, takes_values_by_their_rules) {
  struct Row {
    const char* label;
    const char* line;
    std::string (*get)(const IoPort* port);
    const char* expected;
  };
  const std::vector<Row> rows{
      {"closed", "Active=closed",
       [](const IoPort* port) { return std::to_string(port->activelow_output); }, "0"},
      {"button", "Button=pulse",
       [](const IoPort* port) { return std::to_string(port->button_type); }, "1"},
      {"unknown button", "Button=lever",
       [](const IoPort* port) { return std::to_string(port->button_type); }, "2"},
      {"pulse time", "PulseTime=12ms",
       [](const IoPort* port) { return std::to_string(port->pulse_time); }, "12"},
      {"pulse time without a digit", "PulseTime=soon",
       [](const IoPort* port) { return std::to_string(port->pulse_time); }, "7"},
      {"delay time", "DelayTime=99",
       [](const IoPort* port) { return std::to_string(port->delay_time); }, "99"},
      {"delay time below zero", "DelayTime=-1",
       [](const IoPort* port) { return std::to_string(port->delay_time); }, "8"},
      {"mode", "Mode=bistable", [](const IoPort* port) { return std::to_string(port->mode); }, "2"},
      {"any other mode", "Mode=Bistable",
       [](const IoPort* port) { return std::to_string(port->mode); }, "1"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    output->activelow_output = true;
    output->button_type = BUTTON_ACTINACT;
    output->pulse_time = 7;
    output->delay_time = 8;
    EXPECT_EQ(import(std::string("[IOPort.I2.Output]\n") + row.line + "\n"), "ok");
    EXPECT_EQ(row.get(output), row.expected);
  }
}

TEST_F(TheImport, stops_a_group_at_a_bad_value_and_goes_on_with_the_next) {
  struct Row {
    const char* label;
    const char* group;
    const char* message;
  };
  for (const auto& row :
       {Row{"trigger", "[IOPort.I3.Input]\nTrig=Open\nName=after\n",
            "Failed to read Trig parameter"},
        Row{"active", "[IOPort.I3.Output]\nActive=1\nName=after\n",
            "Failed to read Active parameter"},
        Row{"direction", "[IOPort.I3]\nDirection=sideways\n", "Failed to read Direction parameter"},
        Row{"unknown input key", "[IOPort.I3.Input]\nColour=red\nName=after\n",
            "Failed to read Colour parameter"},
        Row{"unknown output key", "[IOPort.I3.Output]\nColour=red\nName=after\n",
            "Failed to read Output parameter"},
        Row{"no number", "[IOPort.IX.Input]\nName=after\n", "Failed to parse port number"},
        Row{"no number of an output", "[IOPort.IX.Output]\nName=after\n",
            "Failed to parse port number"},
        Row{"a number of no port", "[IOPort.I4294967299.Input]\nName=after\n",
            "Failed to parse port number"},
        Row{"a short name", "[Input.Input]\nName=after\n", "Failed to parse port number"}}) {
    SCOPED_TRACE(row.label);
    both->input_name.reset();
    both->output_name.reset();
    input->input_name.reset();
    EXPECT_EQ(import(std::string(row.group) + "[IOPort.I1.Input]\nName=next\n"), row.message);
    EXPECT_FALSE(both->input_name || both->output_name);
    EXPECT_EQ(input->input_name, "next");
  }
}

TEST_F(TheImport, reports_the_first_error) {
  EXPECT_EQ(import("[IOPort.I3.Input]\nTrig=x\n[IOPort.I3.Output]\nActive=x\n"),
            "Failed to read Trig parameter");
}

TEST_F(TheImport, ends_at_an_input_that_does_not_exist) {
  EXPECT_EQ(import("[IOPort.I9.Input]\nName=x\n[IOPort.I1.Input]\nName=after\n"), "failed");
  EXPECT_EQ(err, "No port 9 to write sedrin data to.\n");
  EXPECT_FALSE(input->input_name);
}

TEST_F(TheImport, skips_an_output_that_does_not_exist) {
  EXPECT_EQ(import("[IOPort.I9.Output]\nName=x\n[IOPort.I1.Input]\nName=after\n"), "ok");
  EXPECT_EQ(input->input_name, "after");
}

TEST_F(TheImport, ignores_what_is_not_its_business) {
  EXPECT_EQ(import("[Input]\nName=x\n[Output]\nName=x\n[Other]\nDirection=output\n"
                   "[IOPort.I2]\nDirection=sideways\n[IOPort.I1]\nDirection=output\n"
                   "[IOPort.I9]\nDirection=output\n"),
            "ok");
  EXPECT_EQ(both->direction, Direction::Input);
  EXPECT_EQ(input->direction, Direction::Input);
}

TEST_F(TheImport, respects_ports_that_may_not_be_changed) {
  io_port_add_property(input, "readonly", "true");
  EXPECT_EQ(import("[IOPort.I1.Input]\nName=x\nTrig=open\n"), "ok");
  EXPECT_FALSE(input->input_name);
  EXPECT_FALSE(input->activelow_input);
}

TEST_F(TheImport, renews_the_events_of_a_port_that_it_names) {
  IoEvent* const event = give_event(input, "IOPort");
  EXPECT_EQ(import("[IOPort.I1.Input]\nName=Door\n"), "ok");
  EXPECT_EQ(fake_events::declaration(event->id).key("port").value_nice_name, "Door");
}

TEST_F(TheMerge, copies_every_value_over_the_target) {
  const auto source = scratch.write("source", "[a]\nk=1\nl=raw\\tvalue\n[b]\nm=2\n");
  const auto target = scratch.write("target", "# kept\n\n[a]\nk=0\nown=3\n");
  param_upgrade(source.c_str(), target.c_str(), nullptr);
  EXPECT_EQ(read_file(target), "# kept\n\n[a]\nk=1\nown=3\nl=raw\\tvalue\n\n[b]\nm=2\n");
}

TEST_F(TheMerge, needs_both_files) {
  const auto there = scratch.write("there", "[a]\n");
  const auto none = scratch.path("none");
  g_autoptr(GError) no_source = nullptr;
  param_upgrade(none.c_str(), there.c_str(), &no_source);
  ASSERT_NE(no_source, nullptr);
  EXPECT_EQ(no_source->message, "Unable to open input file: " + none);
  g_autoptr(GError) no_target = nullptr;
  param_upgrade(there.c_str(), none.c_str(), &no_target);
  ASSERT_NE(no_target, nullptr);
  EXPECT_EQ(no_target->message, "Unable to open output file: " + there);
}

TEST_F(TheMerge, tells_twice_when_the_target_cannot_be_written) {
  const auto source = scratch.write("source", "[a]\nk=1\n");
  const auto target = scratch.write("target", "[a]\nk=0\n");
  const std::string outcome = in_child([&] {
    signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{.rlim_cur = 4, .rlim_max = 4};
    setrlimit(RLIMIT_FSIZE, &limit);
    g_autoptr(GError) error = nullptr;
    param_upgrade(source.c_str(), target.c_str(), &error);
    std::string told = error != nullptr ? "an error\n" : "";
    for (const auto& message : claim_log()) {
      told += message.level == log_level_user ? message.text : "another level";
    }
    return told;
  });
  EXPECT_EQ(outcome.find("param_upgrade@755: failed to save key file: " + target + ", error: "), 0U)
      << outcome;
  EXPECT_THAT(outcome, HasSubstr("\nparam_upgrade@762: save operation failed! [" + target + "]\n"));
  EXPECT_EQ(read_file(target), "[a]\nk=0\n");
}

TEST_F(TheMerge, leaves_the_target_alone_when_a_file_does_not_parse) {
  const auto broken = scratch.write("broken", "no group\n");
  const auto whole = scratch.write("whole", "[a]\nk=0\n");
  g_autoptr(GError) bad_source = nullptr;
  param_upgrade(broken.c_str(), whole.c_str(), &bad_source);
  ASSERT_NE(bad_source, nullptr);
  EXPECT_EQ(bad_source->message, "Unable to open input file: " + broken);
  EXPECT_EQ(read_file(whole), "[a]\nk=0\n");
  g_autoptr(GError) bad_target = nullptr;
  param_upgrade(whole.c_str(), broken.c_str(), &bad_target);
  ASSERT_NE(bad_target, nullptr);
  EXPECT_EQ(bad_target->message, "Unable to open output file: " + whole);
  EXPECT_EQ(read_file(broken), "no group\n");
}
