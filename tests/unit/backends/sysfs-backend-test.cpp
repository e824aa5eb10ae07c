#include "support/backend-fixture.h"
#include "support/child.h"

#include <fcntl.h>
#include <sys/resource.h>

#include <csignal>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

struct ASysfsPort : BackendTest {
  struct Options {
    const char* timeout = "1";
    const char* clear_flag = nullptr;
    const char* inverted = nullptr;
  };

  IoPortRef describe(const Options& options) {
    auto port = make("sysfs", PORT_INPUT);
    const auto tell = [&](const char* key, const char* value) {
      if (value != nullptr) {
        io_port_parse_backend_data(port.get(), "device", key, value);
      }
    };
    tell("path", path.c_str());
    tell("timeout", options.timeout);
    tell("clear_flag", options.clear_flag);
    tell("inverted", options.inverted);
    return port;
  }

  /// A watched port on a file with that text.
  IoPortRef watch(const std::string& text, const Options& options) {
    overwrite_file(path, text);
    auto port = describe(options);
    EXPECT_TRUE(io_port_setup(port.get()));
    EXPECT_TRUE(io_port_set_watch(port.get()));
    return port;
  }
  IoPortRef watch(const std::string& text) { return watch(text, Options{}); }

  /// Lets the port poll at least once more.
  static void poll(const IoPort* /*port*/) {
    // Sources of one context are served in the order of their deadlines: when a later timeout of a
    // longer interval has fired, the poll has too.
    bool fired = false;
    g_timeout_add(
        5,
        [](gpointer flag) -> gboolean {
          *static_cast<bool*>(flag) = true;
          return G_SOURCE_REMOVE;
        },
        &fired);
    EXPECT_TRUE(run_until([&] { return fired; }));
  }

  static bool warned(const std::string& text) {
    const bool found = logged(G_LOG_LEVEL_WARNING, text);
    claim_lines(text); // every poll says it again
    return found;
  }

  ScratchFolder scratch;
  std::string path = scratch.path("value");
};

using ASysfsPortDeathTest = ASysfsPort;

} // namespace

TEST_F(ASysfsPort, reports_what_the_file_says_when_it_changes) {
  const auto port = watch("0\n");
  poll(port.get());
  EXPECT_THAT(take_states(), IsEmpty());
  EXPECT_FALSE(io_port_get_state(port.get()));

  overwrite_file(path, "1\n");
  EXPECT_TRUE(run_until([] { return states() > 0; }));
  poll(port.get());
  EXPECT_THAT(take_states(), ElementsAre(true));
  EXPECT_TRUE(io_port_get_state(port.get()));

  overwrite_file(path, "0\n");
  EXPECT_TRUE(run_until([] { return states() > 0; }));
  EXPECT_THAT(take_states(), ElementsAre(false));
}

TEST_F(ASysfsPort, reports_a_first_reading_of_1_as_a_change) {
  const auto port = watch("1");
  EXPECT_TRUE(io_port_get_state(port.get())) << "as its events are declared";
  EXPECT_THAT(take_states(), IsEmpty());
  EXPECT_TRUE(run_until([] { return states() > 0; }));
  EXPECT_THAT(take_states(), ElementsAre(true));
}

TEST_F(ASysfsPort, polls_on_every_turn_without_a_timeout) {
  const auto port = watch("0", {.timeout = nullptr});
  EXPECT_EQ(next_timer_ms(), 0);
}

TEST_F(ASysfsPort, reads_63_bytes_at_most) {
  const auto port = watch(std::string(63, '0') + '1');
  poll(port.get());
  EXPECT_FALSE(io_port_get_state(port.get()));
}

TEST_F(ASysfsPort, reads_texts_as_bits) {
  struct Row {
    const char* label;
    const char* text;
    const char* inverted;
    bool state;
    const char* unexpected;
  };
  for (const auto& row :
       {Row{"low", "0\n", nullptr, false, nullptr}, Row{"high", "1\n", nullptr, true, nullptr},
        Row{"inverted low", "0\n", "true", true, nullptr},
        Row{"inverted high", "1\n", "true", false, nullptr},
        Row{"not inverted by another word", "1\n", "TRUE", true, nullptr},
        Row{"two", "2\n", nullptr, false, "2"}, Row{"inverted two", "2\n", "true", true, "2"},
        Row{"negative", "-1\n", nullptr, false, "-1"},
        Row{"inverted negative", "-1\n", "true", true, "-1"},
        Row{"no number", "high\n", nullptr, false, nullptr},
        Row{"empty", "", nullptr, false, nullptr},
        Row{"spaces before", "  1", nullptr, true, nullptr},
        Row{"text behind", "1 (set)", nullptr, true, nullptr},
        Row{"hexadecimal is not read", "0x1", nullptr, false, nullptr}}) {
    SCOPED_TRACE(row.label);
    const auto port = watch(row.text, {.inverted = row.inverted});
    poll(port.get());
    EXPECT_EQ(io_port_get_state(port.get()), row.state);
    if (row.unexpected != nullptr) {
      EXPECT_TRUE(
          warned(std::string("Unexpected value: ") + row.unexpected + " when reading: " + path));
    }
  }
}

TEST_F(ASysfsPort, tells_of_numbers_that_are_too_large) {
  const auto port = watch("99999999999999999999\n");
  poll(port.get());
  EXPECT_TRUE(warned("Unexpected format when parsing input when reading: " + path
                     + "! : " + g_strerror(ERANGE)));
  // The greatest number, of which a processor with longer ones keeps the lower half.
  const auto kept = std::to_string(static_cast<gint>(G_MAXLONG));
  EXPECT_TRUE(warned("Unexpected value: " + kept + " when reading: " + path));
}

TEST_F(ASysfsPort, is_low_when_it_cannot_be_read_whatever_the_inversion) {
  path = scratch.path();
  for (const char* inverted : {"false", "true"}) {
    SCOPED_TRACE(inverted);
    const auto port = describe({.inverted = inverted});
    ASSERT_TRUE(io_port_setup(port.get()));
    ASSERT_TRUE(io_port_set_watch(port.get()));
    poll(port.get());
    EXPECT_FALSE(io_port_get_state(port.get()));
    EXPECT_TRUE(warned("Error failed to read " + path + "! : " + g_strerror(EISDIR)));
  }
}

TEST_F(ASysfsPort, clears_a_latched_flag_and_reports_it_back) {
  const auto port = watch("1\n", {.clear_flag = "true"});
  EXPECT_TRUE(run_until([] { return states() == 2; }));
  EXPECT_THAT(take_states(), ElementsAre(true, false));
  EXPECT_EQ(read_file(path), "0\n");
}

TEST_F(ASysfsPort, sees_a_flag_that_is_set_again_right_after_it_was_cleared) {
  const auto port = watch("1\n", {.clear_flag = "true"});
  ASSERT_TRUE(run_until([] { return states() == 1; }));
  overwrite_file(path, "1\n");
  ASSERT_TRUE(run_until([&] { return read_file(path) == "0\n"; }));
  EXPECT_TRUE(io_port_get_state(port.get()));
  EXPECT_THAT(take_states(), ElementsAre(true));
}

TEST_F(ASysfsPort, clears_nothing_unless_told_to) {
  for (const char* word : {"false", "TRUE", "1"}) {
    SCOPED_TRACE(word);
    const auto port = watch("1\n", {.clear_flag = word});
    poll(port.get());
    EXPECT_EQ(read_file(path), "1\n");
  }
}

TEST_F(ASysfsPort, tells_when_a_flag_cannot_be_cleared) {
  overwrite_file(path, "1\n");
  const auto outcome = in_child([&] {
    signal(SIGXFSZ, SIG_IGN);
    const auto port = describe({.clear_flag = "true"});
    io_port_setup(port.get());
    io_port_set_watch(port.get());
    const rlimit limit{.rlim_cur = 0, .rlim_max = 0};
    setrlimit(RLIMIT_FSIZE, &limit);
    poll(port.get());
    std::string said;
    for (const auto& message : claim_log()) {
      said = message.text;
    }
    return said;
  });
  EXPECT_EQ(outcome, std::string("Sysfs write failed: ") + g_strerror(EFBIG));
  EXPECT_EQ(read_file(path), "1\n");
}

TEST_F(ASysfsPort, is_not_set_up_without_its_file) {
  const auto port = describe({});
  EXPECT_FALSE(io_port_setup(port.get()));
  EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING, "Failed to open " + path + ": " + g_strerror(ENOENT)));
  port->optional = true;
  EXPECT_FALSE(io_port_setup(port.get()));

  const auto unsaid = make("sysfs", PORT_INPUT);
  EXPECT_FALSE(io_port_setup(unsaid.get()));
  EXPECT_TRUE(logged_part(G_LOG_LEVEL_WARNING, "Failed to open "));
}

TEST_F(ASysfsPort, needs_a_writable_file_only_to_clear_its_flag) {
  overwrite_file(path, "1");
  ASSERT_EQ(chmod(path.c_str(), 0444), 0);
  ASSERT_EQ(chmod(scratch.path().c_str(), 0755), 0);
  const auto outcome = as_ordinary_user([&] {
    const auto reading = describe({});
    const auto clearing = describe({.clear_flag = "true"});
    return std::string(io_port_setup(reading.get()) ? "yes" : "no")
           + (io_port_setup(clearing.get()) ? " yes" : " no");
  });
  EXPECT_EQ(outcome, "yes no");
}

TEST_F(ASysfsPort, polls_an_unopened_file_as_low) {
  struct Row {
    const char* inverted;
    bool state;
  };
  for (const auto& row : {Row{"false", false}, Row{"true", true}}) {
    SCOPED_TRACE(row.inverted);
    const auto port = describe({.inverted = row.inverted});
    port->is_setup = true;
    EXPECT_TRUE(io_port_set_watch(port.get()));
    poll(port.get());
    EXPECT_EQ(io_port_get_state(port.get()), row.state);
  }
}

TEST_F(ASysfsPort, polls_on_every_turn_of_the_loop_without_a_timeout) {
  const auto port = watch("0", {.timeout = nullptr});
  overwrite_file(path, "1");
  EXPECT_TRUE(run_until([] { return states() == 1; }));
}

TEST_F(ASysfsPort, has_one_poll_however_often_it_is_watched) {
  const auto port = watch("1\n");
  EXPECT_TRUE(io_port_set_watch(port.get()));
  EXPECT_TRUE(io_port_set_watch(port.get()));
  // A poll that outlived the close would find no record and end the process.
  io_port_close(port.get());
  poll(port.get());
  EXPECT_THAT(take_states(), IsEmpty());
}

TEST_F(ASysfsPort, comes_back_after_a_close) {
  const auto port = watch("0\n");
  for (int round = 0; round < 3; round++) {
    io_port_close(port.get());
    overwrite_file(path, "1\n");
    ASSERT_TRUE(io_port_setup(port.get()));
    EXPECT_FALSE(io_port_get_state(port.get()));
    ASSERT_TRUE(io_port_set_watch(port.get()));
    EXPECT_TRUE(run_until([] { return states() > 0; }));
    EXPECT_THAT(take_states(), ElementsAre(true));
  }
}

TEST_F(ASysfsPort, ignores_what_is_none_of_its_business) {
  const auto port = make("sysfs", PORT_INPUT);
  io_port_parse_backend_data(port.get(), "pin", "path", "/x");
  EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING, "Could not parse backend data!\n"));
  io_port_parse_backend_data(port.get(), "device", "colour", "red");
  port->functions->set_state(port.get(), Level::High);
  port->functions->set_direction(port.get(), Direction::Input);
  EXPECT_EQ(port->functions->get_state(port.get()), Level::Low);
  EXPECT_FALSE(io_port_is_supervisable(port.get()));
}

TEST_F(ASysfsPort, takes_the_last_path) {
  overwrite_file(path, "1");
  const auto port = make("sysfs", PORT_INPUT);
  io_port_parse_backend_data(port.get(), "device", "path", "/nowhere");
  io_port_parse_backend_data(port.get(), "device", "path", path.c_str());
  EXPECT_TRUE(io_port_setup(port.get()));
}

TEST_F(ASysfsPortDeathTest, ends_the_process_as_anything_but_an_input) {
  for (const PortType type : {PORT_OUTPUT, PORT_IO_CTRL}) {
    const auto port = make("sysfs", type);
    EXPECT_DEATH(io_port_setup(port.get()), "port->type == PORT_INPUT");
  }
}

TEST_F(ASysfsPortDeathTest, ends_the_process_without_its_record) {
  const auto port = make("sysfs", PORT_INPUT);
  port->functions->free(port.get());
  EXPECT_DEATH(port->functions->setup(port.get(), Level::Low), "data != NULL");
}
