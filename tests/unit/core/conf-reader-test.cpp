#include "support/description-fixture.h"

#include "core/drop-folder.h"

#include <sys/stat.h>

#include <dirent.h>

#include <filesystem>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using TheDescription = DescriptionTest;

constexpr const char* no_hardware_id = "Could not get the hardware id";

} // namespace

TEST_F(TheDescription, that_cannot_be_read_is_said_to_be_so) {
  const auto path = scratch.path("none.xml");
  EXPECT_FALSE(conf_read_configuration(reader, path.c_str()));
  EXPECT_TRUE(logged(G_LOG_LEVEL_CRITICAL, "Couldn't load XML (" + path + ")\n"));
  EXPECT_EQ(io_port_list_length(), 0);
}

TEST_F(TheDescription, with_a_syntax_error_counts_up_to_it) {
  EXPECT_FALSE(read_raw("<config><port name=\"a\"/><port name=\"b\"></oops><port name=\"c\"/>"));
  EXPECT_TRUE(logged(G_LOG_LEVEL_CRITICAL, "Couldn't parse markup file (" + file + ")\n"));
  EXPECT_TRUE(logged_part(G_LOG_LEVEL_WARNING, file + ": "));
  EXPECT_THAT(names(), ElementsAre("b", "a"));
}

TEST_F(TheDescription, that_is_cut_short_counts_as_far_as_it_goes) {
  EXPECT_TRUE(read_raw("<config><port name=\"a\"/><port name=\"b\"><port_no nbr=\"3\"/>"));
  EXPECT_THAT(names(), ElementsAre("b", "a"));
  EXPECT_EQ(newest()->number, 3);
  EXPECT_TRUE(read_raw("<config><port name=\"c\"/><port name=\"d"));
  EXPECT_THAT(names(), ElementsAre("c", "b", "a"));
}

TEST_F(TheDescription, without_elements_is_a_description_of_nothing) {
  EXPECT_TRUE(read_raw("<config/>"));
  EXPECT_EQ(io_port_list_length(), 0);
}

TEST_F(TheDescription, replaces_a_port_of_the_same_name) {
  ASSERT_TRUE(read("<port name=\"a\"><port_no nbr=\"1\"/></port><port name=\"b\"/>"));
  ASSERT_TRUE(read("<port name=\"a\"><port_no nbr=\"2\"/></port>"));
  EXPECT_THAT(names(), ElementsAre("a", "b"));
  EXPECT_EQ(newest()->number, 2);
}

TEST_F(TheDescription, replaces_only_by_a_name_that_comes_first) {
  ASSERT_TRUE(read("<port name=\"a\"/><port optional=\"true\" name=\"a\"/>"));
  EXPECT_THAT(names(), ElementsAre("a", "a"));
}

TEST_F(TheDescription, does_not_mind_where_an_element_stands) {
  ASSERT_TRUE(read("<port name=\"a\"/><port_no nbr=\"4\"/><event declaration=\"IOPort\"/>"
                   "<box><properties ioport=\"true\"/></box>"));
  EXPECT_EQ(newest()->number, 4);
  EXPECT_EQ(newest()->events.size(), 1U);
  EXPECT_TRUE(io_port_get_property(newest(), "ioport"));
  // Even in a later file.
  ASSERT_TRUE(read("<port_type type=\"output\"/>"));
  EXPECT_EQ(newest()->type, PORT_OUTPUT);
}

TEST_F(TheDescription, before_its_first_port_is_ignored) {
  ASSERT_TRUE(read("<port_no nbr=\"4\"/><event/><keyvalue key=\"x\"/><backend name=\"gpio\"/>"
                   "<port name=\"a\"/>"));
  EXPECT_EQ(newest()->number, -1);
  EXPECT_TRUE(newest()->events.empty());
}

TEST_F(TheDescription, keeps_one_reference_of_a_port_for_the_list) {
  ASSERT_TRUE(read("<port><port_no nbr=\"1\"/></port>"));
  EXPECT_EQ(newest()->refcount, 1U);
}

TEST_F(TheDescription, is_for_the_hardware_that_the_device_has) {
  struct Row {
    const char* label;
    OptionalText device;
    const char* filter;
    bool accepted;
    bool warned;
  };
  const std::vector<Row> rows{
      {"prefix", "ABC123", "AB", true, false},
      {"whole id", "ABC123", "ABC123", true, false},
      {"longer than the id", "ABC", "ABCD", false, false},
      {"other", "ABC123", "X", false, false},
      {"not at the start", "ABC123", "BC", false, false},
      {"letter case counts", "ABC123", "ab", false, false},
      {"second of a list", "ABC123", "X:AB", true, false},
      {"none of a list", "ABC123", "X:Y:Z", false, false},
      {"an empty piece fits every device", "ABC123", "X:", true, false},
      {"empty filter", "ABC123", "", true, true},
      {"unknown device", std::nullopt, "AB", true, true},
      {"unknown device, empty filter", std::nullopt, "", true, true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.label);
    fake_bootblock::hwid = row.device;
    ASSERT_TRUE(read(std::string("<port hwid=\"") + row.filter
                     + "\" name=\"a\"><port_no nbr=\"1\"/></port>"));
    EXPECT_THAT(names(), row.accepted ? Texts{"a"} : Texts{});
    if (row.warned) {
      EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING, no_hardware_id));
    }
    io_port_list_free();
  }
}

TEST_F(TheDescription, asks_for_the_hardware_id_once_for_a_file) {
  fake_bootblock::hwid = "AB";
  ASSERT_TRUE(read("<port hwid=\"A\"/><port hwid=\"B\"/><port hwid=\"A\"/>"));
  EXPECT_THAT(fake_bootblock::take_questions(), ElementsAre("HWID"));
  ASSERT_TRUE(read("<port hwid=\"A\"/>"));
  EXPECT_THAT(fake_bootblock::take_questions(), ElementsAre("HWID"));
  ASSERT_TRUE(read("<port/>"));
  EXPECT_THAT(fake_bootblock::take_questions(), IsEmpty());
}

TEST_F(TheDescription, skips_all_that_belongs_to_absent_hardware) {
  fake_bootblock::hwid = "B";
  ASSERT_TRUE(read("<port name=\"kept\"><port_no nbr=\"1\"/></port>"
                   "<port hwid=\"A\" name=\"kept\"><port_no nbr=\"2\"/><event/></port>"
                   "<properties ioport=\"true\"/>"));
  EXPECT_THAT(names(), ElementsAre("kept"));
  EXPECT_EQ(newest()->number, 1);
  EXPECT_TRUE(newest()->events.empty());
  EXPECT_TRUE(io_port_get_property(newest(), "ioport"));
}

TEST_F(TheDescription, filters_by_the_first_attribute_only) {
  fake_bootblock::hwid = "B";
  ASSERT_TRUE(read("<port name=\"a\" hwid=\"A\"/>"));
  EXPECT_THAT(names(), ElementsAre("a"));
  EXPECT_THAT(fake_bootblock::take_questions(), IsEmpty());
}

TEST_F(TheDescription, replaces_by_the_name_behind_a_filter) {
  fake_bootblock::hwid = "A";
  ASSERT_TRUE(read("<port name=\"a\"/><port hwid=\"A\" name=\"a\"/>"));
  EXPECT_THAT(names(), ElementsAre("a"));
}

TEST_F(TheDescription, goes_on_in_the_next_file_where_the_last_was_cut) {
  fake_bootblock::hwid = "B";
  ASSERT_TRUE(read_raw("<config><port hwid=\"A\">"));
  ASSERT_TRUE(read("<port name=\"skipped\"/><port name=\"b\"/>"));
  EXPECT_THAT(names(), ElementsAre("b"));

  ASSERT_TRUE(read_raw("<config><port name=\"c\"><backend name=\"gpio\">"));
  ASSERT_TRUE(read("<pin nbr=\"1\"/>"));
  EXPECT_THAT(fake_backend::record(newest())->attributes, ElementsAre("pin/nbr=1"));
}

TEST_F(TheDescription, refuses_a_key_without_an_event) {
  ASSERT_TRUE(read("<port name=\"a\">\n<keyvalue key=\"x\"/>\n</port>"));
  EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING,
                     file + ":3: element 'keyvalue' belongs to no event; it is ignored"));
  EXPECT_TRUE(newest()->events.empty());

  ASSERT_TRUE(read("<port name=\"a\">\n\n<keyvalue\n  key=\"x\">\n</keyvalue>\n</port>"));
  EXPECT_TRUE(logged_part(G_LOG_LEVEL_WARNING, file + ":5: element 'keyvalue'"))
      << "the line on which the tag ends";
}

TEST_F(TheDescription, leaves_out_names_and_usages_that_are_too_long) {
  const std::string longest(io_port_text_limit, 'x');
  ASSERT_TRUE(read("<port name=\"" + longest + "\"><param_defaults usage=\"" + longest
                   + "\"/><param_default_name input=\"" + longest + "\" output=\"" + longest
                   + "\"/></port>"));
  EXPECT_EQ(newest()->name, longest);
  EXPECT_EQ(newest()->usage, longest);
  EXPECT_EQ(newest()->input_name, longest);
  EXPECT_EQ(newest()->output_name, longest);

  const std::string longer = longest + 'x';
  ASSERT_TRUE(read("<port optional=\"true\" name=\"" + longer + "\">\n<param_defaults usage=\""
                   + longer + "\" dir=\"input\"/>\n<param_default_name input=\"" + longer
                   + "\" output=\"" + longer
                   + "\"/>\n<param_default_name output=\"later\"/></port>"));
  const std::string reason =
      "has a name or usage of more bytes than a port takes; the attribute is ignored";
  EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING, file + ":2: element 'port' " + reason));
  EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING, file + ":3: element 'param_defaults' " + reason));
  EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING, file + ":4: element 'param_default_name' " + reason));
  EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING, file + ":4: element 'param_default_name' " + reason));
  EXPECT_FALSE(newest()->name);
  EXPECT_TRUE(newest()->optional);
  EXPECT_EQ(newest()->usage, "");
  EXPECT_EQ(newest()->direction, Direction::Input);
  EXPECT_FALSE(newest()->input_name);
  EXPECT_EQ(newest()->output_name, "later");
}

TEST_F(TheDescription, refuses_data_for_a_backend_that_is_not_known_yet) {
  const std::string complaint =
      " has data for a backend that is not known yet; the attribute is ignored";
  ASSERT_TRUE(read("<port>\n<backend path=\"x\" name=\"gpio\"/>\n</port>"));
  EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING, file + ":3: element 'backend'" + complaint));
  EXPECT_NE(newest()->functions, nullptr);
  EXPECT_THAT(fake_backend::record(newest())->attributes, IsEmpty());

  ASSERT_TRUE(read("<port>\n<backend name=\"steam\">\n<pin nbr=\"1\"/></backend>\n</port>"));
  EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING, file + ":4: element 'pin'" + complaint));
}

TEST_F(TheDescription, drops_ports_without_a_known_backend_at_its_end) {
  ASSERT_TRUE(read("<port name=\"a\"><backend name=\"gpio\"/></port>\n"
                   "<port name=\"b\">\n<port_no nbr=\"4\"/><backend name=\"steam\"/></port>\n"
                   "<port/>"));
  conf_finish_reading();
  EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING,
                     file + ":3: port 'b' (number 4) names no known backend, dropping it"));
  EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING,
                     file + ":5: port '' (number -1) names no known backend, dropping it"));
  EXPECT_THAT(names(), ElementsAre("a"));
}

TEST_F(TheDescription, may_be_spread_over_a_folder) {
  const ScratchFolder folder;
  folder.write("one.xml", "<c><port name=\"one\"/></c>");
  folder.write("two", "<c><port name=\"two\"/></c>");
  folder.write(".three.bak", "<c><port name=\"three\"/></c>");
  EXPECT_TRUE(conf_read_drop_dir(reader, folder.path().c_str()));
  EXPECT_THAT(names(), testing::UnorderedElementsAre("one", "two", "three"));
}

TEST_F(TheDescription, is_read_from_a_folder_in_the_folders_own_order) {
  const ScratchFolder folder;
  for (const char* name : {"b", "a", "d", "c", "e"}) {
    folder.write(name, std::string("<c><port name=\"") + name + "\"/></c>");
  }
  // Newest first, so what the folder yields last stands in front.
  Texts expected;
  DIR* const dir = opendir(folder.path().c_str());
  while (const dirent* entry = readdir(dir)) {
    if (entry->d_name[0] != '.') {
      expected.insert(expected.begin(), entry->d_name);
    }
  }
  closedir(dir);
  EXPECT_TRUE(conf_read_drop_dir(reader, folder.path().c_str()));
  EXPECT_EQ(names(), expected);
}

TEST_F(TheDescription, ends_at_the_first_bad_file_of_a_folder) {
  const ScratchFolder folder;
  constexpr int files = 6;
  for (int i = 0; i < files; i++) {
    folder.write(std::to_string(i), "<c><port optional=\"true\"></oops>");
  }
  EXPECT_FALSE(conf_read_drop_dir(reader, folder.path().c_str()));
  EXPECT_EQ(io_port_list_length(), 1) << "only one file was read";
  EXPECT_TRUE(logged_part(G_LOG_LEVEL_CRITICAL, "Couldn't parse markup file ("));
  EXPECT_TRUE(logged_part(G_LOG_LEVEL_WARNING, folder.path()));
}

TEST_F(TheDescription, does_not_mind_what_goes_while_a_folder_is_read) {
  const ScratchFolder folder;
  for (const char* name : {"a", "b", "c"}) {
    folder.write(name, "");
  }
  static int read = 0;
  read = 0;
  EXPECT_TRUE(drop_folder_read(folder.path().c_str(), [](const char* path, const std::string&) {
    const auto parent = std::filesystem::path(path).parent_path();
    for (const auto& entry : std::filesystem::directory_iterator(parent)) {
      std::filesystem::remove(entry);
    }
    return ++read > 0;
  }));
  EXPECT_EQ(read, 1);
}

TEST_F(TheDescription, needs_no_folder) {
  EXPECT_FALSE(conf_read_drop_dir(reader, scratch.path("none").c_str()));
  const auto plain_file = scratch.write("file", "");
  EXPECT_FALSE(conf_read_drop_dir(reader, plain_file.c_str()));
}

TEST_F(TheDescription, is_no_folder_in_the_folder) {
  const ScratchFolder folder;
  mkdir(folder.path("inner").c_str(), 0755);
  EXPECT_TRUE(conf_read_drop_dir(reader, folder.path().c_str()));
  EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING,
                     "Skipping " + folder.path() + "/inner: it is not a regular file"));
}

TEST_F(TheDescription, is_no_link_of_the_folder_that_leads_to_nothing) {
  const ScratchFolder folder;
  std::filesystem::create_symlink("nothing", folder.path("link"));
  EXPECT_FALSE(conf_read_drop_dir(reader, folder.path().c_str()));
  EXPECT_TRUE(logged_part(G_LOG_LEVEL_CRITICAL, "Couldn't load XML ("));
}
