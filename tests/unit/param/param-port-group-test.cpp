#include "support/port-fixture.h"
#include "support/streams.h"

#include "param/param-port-group.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

struct APortsGroup : PortTest {
  void SetUp() override {
    PortTest::SetUp();
    file.reset(g_key_file_new());
  }

  IoPortRef make_port(PortType type, BackendKind backend = BACKEND_GPIO) {
    return make({.type = type, .number = 2, .backend = backend, .name = "a"});
  }

  void load(const std::string& text) {
    g_autoptr(GError) error = nullptr;
    const std::string group = "[a]\n" + text;
    ASSERT_TRUE(g_key_file_load_from_data(file.get(), group.c_str(), group.size(),
                                          G_KEY_FILE_KEEP_COMMENTS, &error))
        << error->message;
  }

  /// Reads the group; what that prints goes to `out` and `err`.
  bool read(IoPort* port) {
    const StreamCapture output(1);
    const StreamCapture errors(2);
    const bool result = param_group_read(file.get(), port);
    out = output.text();
    err = errors.text();
    return result;
  }

  /// The lines of the file.
  [[nodiscard]] Texts lines() const {
    g_autofree gchar* text = g_key_file_to_data(file.get(), nullptr, nullptr);
    g_auto(GStrv) split = g_strsplit(text, "\n", -1);
    Texts all;
    for (gchar** line = split; *line != nullptr; line++) {
      if (**line != '\0') {
        all.emplace_back(*line);
      }
    }
    return all;
  }

  struct Free {
    void operator()(GKeyFile* key_file) const { g_key_file_free(key_file); }
  };
  std::unique_ptr<GKeyFile, Free> file;
  std::string out;
  std::string err;
};

constexpr const char* all_keys = "input=false\n"
                                 "input_name=door\n"
                                 "input_activelow=true\n"
                                 "output_name=lamp\n"
                                 "output_activelow=true\n"
                                 "button_type=actinact\n"
                                 "pulse_time=1500\n"
                                 "port_mode=monostable\n"
                                 "delay_time=250\n"
                                 "supervised_input_ranges=[('open', uint32 0, uint32 99)]\n"
                                 "supervised_input=true\n"
                                 "usage=hall\n";

/// `all_keys` without the line of one key.
std::string without(const std::string& key) {
  std::string text = all_keys;
  const auto start = text.find('\n' + key + '=');
  g_assert(start != std::string::npos);
  return text.erase(start + 1, text.find('\n', start + 1) - start);
}

/// `all_keys` with another value for one key.
std::string with(const std::string& key, const std::string& value) {
  std::string text = '\n' + std::string(all_keys);
  const auto start = text.find('\n' + key + '=');
  g_assert(start != std::string::npos);
  const auto from = start + key.size() + 2;
  return text.replace(from, text.find('\n', from) - from, value);
}

} // namespace

TEST_F(APortsGroup, holds_the_keys_of_an_input) {
  const auto port = make_port(PORT_INPUT);
  port->input_name = "door";
  port->activelow_input = true;
  port->usage = "hall";
  EXPECT_TRUE(param_group_write(file.get(), port.get()));
  EXPECT_THAT(lines(), ElementsAre("[a]", "input_name=door", "input_activelow=true", "usage=hall"));
}

TEST_F(APortsGroup, holds_the_keys_of_an_output) {
  const auto port = make_port(PORT_OUTPUT);
  port->output_name = "lamp";
  port->button_type = BUTTON_PULSE;
  port->pulse_time = G_MAXUINT32;
  port->delay_time = 250;
  EXPECT_TRUE(param_group_write(file.get(), port.get()));
  EXPECT_THAT(lines(), ElementsAre("[a]", "output_name=lamp", "output_activelow=false",
                                   "button_type=pulse", "pulse_time=4294967295",
                                   "port_mode=bistable", "delay_time=250", "usage="));
}

TEST_F(APortsGroup, holds_every_key_of_a_configurable_supervisable_port_in_order) {
  const auto port = make_port(PORT_IO_CTRL, BACKEND_IIO);
  port->direction = Direction::Output;
  port->input_name = "door";
  port->output_name = "lamp";
  port->activelow_output = true;
  port->supervised = true;
  port->mode = PORT_MODE_MONOSTABLE;
  ASSERT_TRUE(io_port_add_supervised_range(port.get(), "open", 0, 99, nullptr));
  ASSERT_TRUE(io_port_add_supervised_range(port.get(), "cut", 100, 200, nullptr));
  EXPECT_TRUE(param_group_write(file.get(), port.get()));
  EXPECT_THAT(
      lines(),
      ElementsAre("[a]", "input=false", "input_name=door", "input_activelow=false",
                  "output_name=lamp", "output_activelow=true", "button_type=none", "pulse_time=0",
                  "port_mode=monostable", "delay_time=0",
                  "supervised_input_ranges=[('open', uint32 0, uint32 99), ('cut', 100, 200)]",
                  "supervised_input=true", "usage="));
}

TEST_F(APortsGroup, holds_only_the_usage_of_a_port_of_unknown_type) {
  const auto port = make_port(unknown_type);
  EXPECT_TRUE(param_group_write(file.get(), port.get()));
  EXPECT_THAT(lines(), ElementsAre("[a]", "usage="));
}

TEST_F(APortsGroup, holds_odd_values_as_they_are) {
  const auto port = make_port(PORT_OUTPUT);
  port->mode = PORT_MODE_NONE;
  port->delay_time = -1;
  EXPECT_TRUE(param_group_write(file.get(), port.get()));
  EXPECT_THAT(lines(), ElementsAre("[a]", "output_name=", "output_activelow=false",
                                   "button_type=none", "pulse_time=0",
                                   "port_mode=", "delay_time=18446744073709551615", "usage="));
}

TEST_F(APortsGroup, holds_an_empty_list_of_ranges) {
  const auto port = make_port(PORT_INPUT, BACKEND_IIO);
  EXPECT_TRUE(param_group_write(file.get(), port.get()));
  EXPECT_THAT(lines(), testing::Contains("supervised_input_ranges=@a(suu) []"));
}

TEST_F(APortsGroup, keeps_what_others_wrote) {
  load("# mine\nusage=old\nforeign=1\n");
  const auto port = make_port(PORT_INPUT);
  EXPECT_TRUE(param_group_write(file.get(), port.get()));
  EXPECT_THAT(lines(), ElementsAre("[a]", "# mine", "usage=", "foreign=1",
                                   "input_name=", "input_activelow=false"));
}

TEST_F(APortsGroup, needs_a_name_to_be_headed_by) {
  const auto port = make({.type = PORT_INPUT, .number = 2});
  {
    const StreamCapture errors(2);
    EXPECT_FALSE(param_group_write(file.get(), port.get()));
    EXPECT_EQ(errors.text(), "Port does not have a name!\n");
  }
  EXPECT_FALSE(read(port.get()));
  EXPECT_EQ(err, "Port does not have a name!\n");
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(APortsGroup, cannot_be_headed_by_every_name) {
  for (const char* name : {"", "a]b", "[a", "a\nb", "a\tb"}) {
    SCOPED_TRACE(name);
    const auto port = make({.type = PORT_INPUT, .number = 2, .name = name});
    EXPECT_FALSE(param_group_write(file.get(), port.get()));
    EXPECT_TRUE(logged_part(G_LOG_LEVEL_WARNING, "Settings of port 2 are not saved"));
    EXPECT_FALSE(read(port.get()));
    EXPECT_EQ(err, "");
  }
  EXPECT_THAT(lines(), IsEmpty());
  const auto odd = make({.type = PORT_INPUT, .name = "a b/c=d#\xc3\xa5"});
  EXPECT_TRUE(param_group_write(file.get(), odd.get()));
}

TEST_F(APortsGroup, is_silently_absent) {
  const auto port = make_port(PORT_INPUT);
  port->usage = "kept";
  EXPECT_FALSE(read(port.get()));
  EXPECT_EQ(port->usage, "kept");
  EXPECT_EQ(out + err, "");
}

TEST_F(APortsGroup, sets_everything_that_the_port_has) {
  load(all_keys);
  const auto port = make_port(PORT_IO_CTRL, BACKEND_IIO);
  EXPECT_TRUE(read(port.get())) << err;
  EXPECT_EQ(port->direction, Direction::Output);
  EXPECT_EQ(port->input_name, "door");
  EXPECT_TRUE(port->activelow_input);
  EXPECT_EQ(port->output_name, "lamp");
  EXPECT_TRUE(port->activelow_output);
  EXPECT_EQ(port->button_type, BUTTON_ACTINACT);
  EXPECT_EQ(port->pulse_time, 1500U);
  EXPECT_EQ(port->mode, PORT_MODE_MONOSTABLE);
  EXPECT_EQ(port->delay_time, 250);
  EXPECT_TRUE(port->supervised);
  ASSERT_EQ(port->ranges.size(), 1U);
  EXPECT_EQ(port->ranges.front().upper, 99U);
  EXPECT_EQ(port->usage, "hall");
  EXPECT_EQ(out + err, "");
}

TEST_F(APortsGroup, leaves_the_sides_alone_that_the_port_does_not_have) {
  load(all_keys);
  const auto input = make_port(PORT_INPUT);
  EXPECT_TRUE(read(input.get()));
  EXPECT_EQ(input->direction, Direction::Input);
  EXPECT_EQ(input->input_name, "door");
  EXPECT_FALSE(input->output_name);
  EXPECT_FALSE(input->activelow_output);
  EXPECT_FALSE(input->supervised);

  const auto output = make_port(PORT_OUTPUT);
  EXPECT_TRUE(read(output.get()));
  EXPECT_FALSE(output->input_name);
  EXPECT_EQ(output->output_name, "lamp");

  const auto odd = make_port(unknown_type);
  EXPECT_TRUE(read(odd.get()));
  EXPECT_EQ(odd->usage, "hall");
  EXPECT_FALSE(odd->input_name || odd->output_name);
}

TEST_F(APortsGroup, comes_back_as_it_was_written) {
  const auto saved = make_port(PORT_IO_CTRL, BACKEND_IIO);
  saved->direction = Direction::Output;
  saved->input_name = "line\nbreak; \\ \t and \xc3\xa5";
  saved->output_name = " leading and trailing ";
  saved->delay_time = -1;
  saved->pulse_time = G_MAXUINT32;
  saved->mode = PORT_MODE_MONOSTABLE;
  ASSERT_TRUE(io_port_add_supervised_range(saved.get(), "short", 5, 6, nullptr));
  ASSERT_TRUE(param_group_write(file.get(), saved.get()));

  const auto loaded = make_port(PORT_IO_CTRL, BACKEND_IIO);
  EXPECT_TRUE(read(loaded.get())) << err;
  EXPECT_EQ(loaded->direction, saved->direction);
  EXPECT_EQ(loaded->input_name, saved->input_name);
  EXPECT_EQ(loaded->output_name, saved->output_name);
  EXPECT_EQ(loaded->delay_time, -1);
  EXPECT_EQ(loaded->pulse_time, G_MAXUINT32);
  EXPECT_EQ(loaded->mode, PORT_MODE_MONOSTABLE);
  EXPECT_EQ(loaded->ranges.size(), 1U);
}

TEST_F(APortsGroup, comes_back_for_a_port_without_names) {
  const auto saved = make_port(PORT_IO_CTRL);
  saved->usage = "after the names";
  ASSERT_TRUE(param_group_write(file.get(), saved.get()));
  const auto loaded = make_port(PORT_IO_CTRL);
  EXPECT_TRUE(read(loaded.get())) << err;
  EXPECT_EQ(loaded->usage, "after the names");
}

TEST_F(APortsGroup, stops_at_a_missing_name_and_says_which) {
  struct Row {
    const char* key;
    const char* message;
  };
  for (const auto& row : {Row{"input_name", "No input name for port a:2\n"},
                          Row{"output_name", "No output name for port a:2\n"}}) {
    SCOPED_TRACE(row.key);
    load(without(row.key));
    const auto port = make_port(PORT_IO_CTRL);
    EXPECT_FALSE(read(port.get()));
    EXPECT_EQ(out, row.message);
    EXPECT_THAT(err, testing::StartsWith("Error parsing param file: "));
    EXPECT_THAT(err, HasSubstr(row.key));
    EXPECT_EQ(port->usage, "");
  }
}

TEST_F(APortsGroup, stops_at_any_other_missing_key_keeping_what_it_read) {
  // "input" cannot be removed by `without`, being the first line.
  for (const char* key : {"input_activelow", "output_activelow", "pulse_time", "port_mode",
                          "delay_time", "supervised_input_ranges", "supervised_input"}) {
    SCOPED_TRACE(key);
    load(without(key));
    const auto port = make_port(PORT_IO_CTRL, BACKEND_IIO);
    EXPECT_FALSE(read(port.get()));
    EXPECT_EQ(out, "");
    EXPECT_THAT(err, testing::StartsWith("Error parsing param file: "));
    EXPECT_THAT(err, HasSubstr(key));
    EXPECT_EQ(port->direction, Direction::Output) << "read before the broken key";
    EXPECT_EQ(port->usage, "") << "stands after the broken key";
  }
}

TEST_F(APortsGroup, stops_at_a_malformed_value) {
  struct Row {
    const char* key;
    const char* value;
  };
  for (const auto& row :
       {Row{"input", "perhaps"}, Row{"input_activelow", "2"}, Row{"output_activelow", "x"},
        Row{"pulse_time", "soon"}, Row{"pulse_time", ""}, Row{"delay_time", "1.5"},
        Row{"supervised_input", "on"}, Row{"supervised_input_ranges", "[('open'"},
        Row{"supervised_input_ranges", "42"}, Row{"supervised_input_ranges", ""},
        Row{"supervised_input_ranges", "[('open', 0, 99)]"}, Row{"input_name", "\xff"},
        Row{"button_type", "\xff"}, Row{"usage", "\xff"}}) {
    SCOPED_TRACE(testing::Message() << row.key << '=' << row.value);
    load(with(row.key, row.value));
    const auto port = make_port(PORT_IO_CTRL, BACKEND_IIO);
    EXPECT_FALSE(read(port.get()));
    EXPECT_THAT(err, testing::StartsWith("Error parsing param file: "));
    EXPECT_EQ(port->usage, "");
  }
}

TEST_F(APortsGroup, leaves_a_text_untouched_whose_value_is_malformed) {
  struct Row {
    const char* key;
    std::string value;
  };
  const std::string long_text(io_port_text_limit + 1, 'x');
  for (const auto& row :
       {Row{"input_name", R"(x\q)"}, Row{"input_name", R"(x\)"}, Row{"output_name", R"(\x20)"},
        Row{"usage", R"(x\q)"}, Row{"usage", R"(x\)"}, Row{"usage", R"(x\f)"},
        Row{"usage", R"(\f\f)"}, Row{"button_type", R"(pulse\q)"}, Row{"port_mode", R"(bistable\)"},
        Row{"input_name", long_text}, Row{"output_name", long_text}, Row{"usage", long_text}}) {
    SCOPED_TRACE(testing::Message() << row.key << '=' << row.value.substr(0, 20));
    load(with(row.key, row.value));
    const auto port = make_port(PORT_IO_CTRL);
    port->input_name = port->output_name = port->usage = "untouched";
    port->button_type = BUTTON_NONE;
    port->mode = PORT_MODE_NONE;
    EXPECT_FALSE(read(port.get()));
    EXPECT_EQ(out, "");
    EXPECT_THAT(err, testing::StartsWith("Error parsing param file: Key"));
    EXPECT_THAT(err, HasSubstr(row.key));
    EXPECT_EQ(port->usage, "untouched");
    const bool in_name = g_str_has_suffix(row.key, "_name");
    EXPECT_EQ(port->output_name, in_name ? "untouched" : "lamp");
    EXPECT_EQ(port->button_type, g_str_equal(row.key, "usage")       ? BUTTON_ACTINACT
                                 : g_str_equal(row.key, "port_mode") ? BUTTON_ACTINACT
                                                                     : BUTTON_NONE);
  }
}

TEST_F(APortsGroup, takes_the_longest_texts) {
  const std::string text(io_port_text_limit, 'x');
  load(with("usage", text));
  const auto port = make_port(PORT_IO_CTRL);
  EXPECT_TRUE(read(port.get()));
  EXPECT_EQ(port->usage, text);
}

TEST_F(APortsGroup, keeps_every_text_as_it_is) {
  for (const std::string text :
       {"\f",    "\f\f", "\fx", "\f x", "\f\tx", "\f\\fx",   " \fx", "\t\f",
        "\n\fx", "\\fx", "\\",  "\vx",  "x\f",   "x ",       "",     " ",
        ";x;",   "#x",   "[x]", "a=b",  "\x01",  "\xc2\x85x"}) {
    SCOPED_TRACE(testing::PrintToString(text));
    const auto written = make_port(PORT_IO_CTRL);
    written->input_name = written->output_name = written->usage = text;
    file.reset(g_key_file_new());
    ASSERT_TRUE(param_group_write(file.get(), written.get()));
    g_autofree gchar* stored = g_key_file_to_data(file.get(), nullptr, nullptr);
    ASSERT_TRUE(
        g_key_file_load_from_data(file.get(), stored, strlen(stored), G_KEY_FILE_NONE, nullptr));
    const auto port = make_port(PORT_IO_CTRL);
    EXPECT_TRUE(read(port.get())) << err;
    EXPECT_EQ(port->input_name, text);
    EXPECT_EQ(port->output_name, text);
    EXPECT_EQ(port->usage, text);
    g_autofree gchar* again = g_key_file_to_data(file.get(), nullptr, nullptr);
    EXPECT_STREQ(again, stored) << "reading changes nothing";
  }
}

TEST_F(APortsGroup, may_lack_its_direction_only_with_an_error) {
  load(std::string(all_keys).substr(std::string("input=false\n").size()));
  const auto port = make_port(PORT_IO_CTRL);
  EXPECT_FALSE(read(port.get()));
  EXPECT_THAT(err, HasSubstr("input"));
  EXPECT_FALSE(port->input_name);
}

TEST_F(APortsGroup, reads_button_types) {
  struct Row {
    const char* label;
    std::string text;
    guint expected;
    bool rest_read;
  };
  const std::vector<Row> rows{
      {"none", with("button_type", "none"), BUTTON_NONE, true},
      {"pulse", with("button_type", "pulse"), BUTTON_PULSE, true},
      {"actinact", with("button_type", "actinact"), BUTTON_ACTINACT, true},
      {"missing keeps the old one", without("button_type"), BUTTON_PULSE, true},
      {"unknown ends the reading", with("button_type", "lever"), BUTTON_PULSE, false},
      {"exact comparison", with("button_type", "None"), BUTTON_PULSE, false},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    load(row.text);
    const auto port = make_port(PORT_IO_CTRL, BACKEND_IIO);
    port->button_type = BUTTON_PULSE;
    EXPECT_TRUE(read(port.get())) << err;
    EXPECT_EQ(port->button_type, row.expected);
    EXPECT_EQ(port->pulse_time, row.rest_read ? 1500U : 0U);
    EXPECT_EQ(port->mode, row.rest_read ? PORT_MODE_MONOSTABLE : PORT_MODE_BISTABLE);
    EXPECT_EQ(port->delay_time, row.rest_read ? 250 : 0);
    EXPECT_EQ(port->supervised, row.rest_read);
    EXPECT_EQ(port->usage, row.rest_read ? "hall" : "");
  }
}

TEST_F(APortsGroup, reads_every_mode_but_bistable_as_monostable) {
  struct Row {
    const char* word;
    guint mode;
  };
  for (const auto& row :
       {Row{"bistable", PORT_MODE_BISTABLE}, Row{"monostable", PORT_MODE_MONOSTABLE},
        Row{"Bistable", PORT_MODE_MONOSTABLE}, Row{"", PORT_MODE_MONOSTABLE},
        Row{"tristable", PORT_MODE_MONOSTABLE}}) {
    SCOPED_TRACE(row.word);
    load(with("port_mode", row.word));
    const auto port = make_port(PORT_OUTPUT);
    EXPECT_TRUE(read(port.get()));
    EXPECT_EQ(port->mode, row.mode);
  }
}

TEST_F(APortsGroup, cuts_numbers_to_32_bits) {
  struct Row {
    const char* text;
    gint32 delay_time;
    guint32 pulse_time;
  };
  for (const auto& row :
       {Row{"18446744073709551615", -1, G_MAXUINT32}, Row{"4294967297", 1, 1},
        Row{"4294967295", -1, G_MAXUINT32}, Row{"2147483648", G_MININT32, 2147483648U}}) {
    SCOPED_TRACE(row.text);
    load(with("delay_time", row.text));
    const auto port = make_port(PORT_OUTPUT);
    EXPECT_TRUE(read(port.get()));
    EXPECT_EQ(port->delay_time, row.delay_time);
    load(with("pulse_time", row.text));
    EXPECT_TRUE(read(port.get()));
    EXPECT_EQ(port->pulse_time, row.pulse_time);
  }
}

TEST_F(APortsGroup, sorts_the_ranges_that_it_reads_and_replaces_the_old_ones) {
  load(with("supervised_input_ranges",
            "[('cut', uint32 300, uint32 400), ('open', 0, 99), ('closed', 100, 299)]"));
  const auto port = make_port(PORT_INPUT, BACKEND_IIO);
  ASSERT_TRUE(io_port_add_supervised_range(port.get(), "short", 1, 2, nullptr));
  EXPECT_TRUE(read(port.get())) << err;
  std::vector<guint32> lower;
  for (const auto& range : port->ranges) {
    lower.push_back(range.lower);
  }
  EXPECT_THAT(lower, ElementsAre(0U, 100U, 300U));
}

TEST_F(APortsGroup, stops_when_the_port_refuses_the_ranges) {
  const auto port = make_port(PORT_INPUT, BACKEND_IIO);
  ASSERT_TRUE(io_port_add_supervised_range(port.get(), "short", 1, 2, nullptr));
  load(with("supervised_input_ranges", "@a(suu) []"));
  EXPECT_FALSE(read(port.get()));
  EXPECT_EQ(err, "Error parsing param file: Ranges is null.\n");

  load(all_keys);
  fake_backend::refuse_ranges = true;
  EXPECT_FALSE(read(port.get()));
  EXPECT_THAT(err, testing::StartsWith("Error parsing param file: "));
  EXPECT_EQ(port->ranges.size(), 1U);
  EXPECT_FALSE(port->supervised);
}

TEST_F(APortsGroup, means_no_usage_when_it_holds_none) {
  std::string text = all_keys;
  text.erase(text.find("usage="));
  load(text);
  const auto port = make_port(PORT_INPUT);
  port->usage = "from the description";
  EXPECT_TRUE(read(port.get()));
  EXPECT_EQ(port->usage, "");
}

TEST_F(APortsGroup, only_stores_the_supervision_flag) {
  load(all_keys);
  const auto port = make_port(PORT_IO_CTRL, BACKEND_IIO);
  EXPECT_TRUE(read(port.get()));
  EXPECT_THAT(fake_backend::take_calls(), IsEmpty());
  EXPECT_THAT(take_settings(), IsEmpty());
  EXPECT_THAT(take_changes(), IsEmpty());
}
