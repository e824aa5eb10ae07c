#include "support/child.h"
#include "support/port-fixture.h"
#include "support/scratch.h"
#include "support/streams.h"

#include "param/param.h"

#include <pwd.h>
#include <sys/stat.h>

using testing::HasSubstr;
using testing::StartsWith;

namespace {

struct TheKeyFile : PortTest {
  void TearDown() override {
    param_close_file();
    // What a test could not save is not to be saved in the next one's file.
    param_save_unsaved(scratch.path("unsaved").c_str());
    PortTest::TearDown();
  }

  template <typename Call>
  bool errors_of(Call call) {
    const StreamCapture errors(2);
    const bool result = call();
    err = errors.text();
    return result;
  }

  static ino_t inode_of(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(stat(path.c_str(), &status), 0);
    return status.st_ino;
  }

  ScratchFolder scratch;
  std::string err;
};

using TheKeyFileDeathTest = TheKeyFile;

} // namespace

TEST_F(TheKeyFile, is_empty_when_it_is_missing) {
  EXPECT_TRUE(param_read_configuration(scratch.path("none").c_str()));
  const auto port = make({.name = "a"});
  EXPECT_FALSE(param_get_conf_vals(port.get()));
  EXPECT_TRUE(param_store_key_file(scratch.path("new").c_str()));
  EXPECT_EQ(read_file(scratch.path("new")), "");
}

TEST_F(TheKeyFile, tells_why_it_cannot_be_read) {
  const auto file = scratch.write("broken", "no group\n");
  EXPECT_FALSE(errors_of([&] { return param_read_configuration(file.c_str()); }));
  EXPECT_THAT(err, StartsWith("Could not read key file: "));

  EXPECT_FALSE(errors_of([&] { return param_read_configuration(scratch.path().c_str()); }));
  EXPECT_THAT(err, StartsWith("Could not read key file: "));
}

TEST_F(TheKeyFile, is_not_loaded_after_a_failed_read) {
  param_read_configuration(scratch.path("none").c_str());
  const auto file = scratch.write("broken", "no group\n");
  errors_of([&] { return param_read_configuration(file.c_str()); });
  const auto port = make({.name = "a"});
  EXPECT_FALSE(param_set_conf_vals(port.get()));
  EXPECT_TRUE(
      logged(G_LOG_LEVEL_CRITICAL, "param_set_conf_vals: assertion 'key_file != NULL' failed"));
}

TEST_F(TheKeyFile, must_be_loaded_to_be_used) {
  const auto port = make({.name = "a"});
  EXPECT_FALSE(param_get_conf_vals(port.get()));
  EXPECT_TRUE(
      logged(G_LOG_LEVEL_CRITICAL, "param_get_conf_vals: assertion 'key_file != NULL' failed"));
  EXPECT_FALSE(param_set_conf_vals(port.get()));
  EXPECT_TRUE(
      logged(G_LOG_LEVEL_CRITICAL, "param_set_conf_vals: assertion 'key_file != NULL' failed"));
  EXPECT_FALSE(param_store_key_file(scratch.path("new").c_str()));
  EXPECT_TRUE(
      logged(G_LOG_LEVEL_CRITICAL, "param_store_key_file: assertion 'key_file != NULL' failed"));
}

TEST_F(TheKeyFile, is_read_from_a_regular_file_only) {
  const auto target = scratch.write("target", "[a]\nusage=x\n");
  const auto link = scratch.path("link");
  std::filesystem::create_symlink(target, link);
  EXPECT_FALSE(errors_of([&] { return param_read_configuration(link.c_str()); }));
  EXPECT_EQ(err,
            "Could not read key file: '" + link + "' is a symbolic link, which is not followed\n");

  std::filesystem::remove(target);
  EXPECT_FALSE(errors_of([&] { return param_read_configuration(link.c_str()); }))
      << "a link to nothing is no missing file";

  const auto pipe = scratch.path("pipe");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  EXPECT_FALSE(errors_of([&] { return param_read_configuration(pipe.c_str()); }));
  EXPECT_EQ(err, "Could not read key file: '" + pipe + "' is not a regular file\n");
}

TEST_F(TheKeyFile, loses_the_line_ends_that_a_broken_rewriting_in_place_left) {
  const auto file = scratch.write("conf", "# top\n\n[a]\nusage=x\n" + std::string(1000, '\n'));
  ASSERT_TRUE(param_read_configuration(file.c_str()));
  ASSERT_TRUE(param_store_key_file(file.c_str()));
  EXPECT_EQ(read_file(file), "# top\n\n[a]\nusage=x\n");
}

TEST_F(TheKeyFile, gives_a_port_its_settings) {
  const auto file = scratch.write("conf", "[a]\noutput_name=lamp\noutput_activelow=true\n"
                                          "pulse_time=1\nport_mode=bistable\ndelay_time=2\n");
  ASSERT_TRUE(param_read_configuration(file.c_str()));
  const auto port = make({.name = "a"});
  EXPECT_TRUE(param_get_conf_vals(port.get()));
  EXPECT_EQ(port->output_name, "lamp");
  EXPECT_TRUE(port->activelow_output);
  EXPECT_EQ(port->delay_time, 2);
}

TEST_F(TheKeyFile, keeps_comments_and_foreign_groups_when_stored) {
  const auto file = scratch.write("conf", "# top\n\n[other]\n# inside\nkey=1\n");
  ASSERT_TRUE(param_read_configuration(file.c_str()));
  ASSERT_TRUE(param_store_key_file(file.c_str()));
  EXPECT_EQ(read_file(file), "# top\n\n[other]\n# inside\nkey=1\n");
}

TEST_F(TheKeyFile, is_forgotten_when_closed) {
  const auto file = scratch.write("conf", "[a]\nusage=x\n");
  ASSERT_TRUE(param_read_configuration(file.c_str()));
  param_close_file();
  param_close_file();
  EXPECT_FALSE(param_store_key_file(file.c_str()));
  EXPECT_TRUE(logged_part(G_LOG_LEVEL_CRITICAL, "param_store_key_file"));
}

TEST_F(TheKeyFile, tells_why_it_cannot_be_stored) {
  ASSERT_TRUE(param_read_configuration(scratch.path("none").c_str()));
  const auto path = scratch.path("no folder/conf");
  EXPECT_FALSE(errors_of([&] { return param_store_key_file(path.c_str()); }));
  EXPECT_THAT(err, StartsWith("Failed to store key file " + path + ": "));
  EXPECT_THAT(err, HasSubstr("No such file or directory"));
}

TEST_F(TheKeyFile, saves_one_port_beside_what_others_changed_meanwhile) {
  const auto file = scratch.path("conf");
  const auto first = make({.name = "a"});
  const auto second = make({.type = PORT_INPUT, .name = "b"});
  param_save_for_port(first.get(), file.c_str());
  overwrite_file(file, read_file(file) + "\n[foreign]\nkey=1\n");
  param_save_for_port(second.get(), file.c_str());
  EXPECT_EQ(read_file(file), "[a]\noutput_name=\noutput_activelow=false\nbutton_type=none\n"
                             "pulse_time=0\nport_mode=bistable\ndelay_time=0\nusage=\n\n"
                             "[foreign]\nkey=1\n\n"
                             "[b]\ninput_name=\ninput_activelow=false\nusage=\n");
  // Nothing stays loaded between two saves.
  EXPECT_FALSE(param_store_key_file(file.c_str()));
  EXPECT_TRUE(logged_part(G_LOG_LEVEL_CRITICAL, "param_store_key_file"));
}

TEST_F(TheKeyFile, is_not_written_when_nothing_has_changed) {
  const auto file = scratch.path("conf");
  const auto port = make({.name = "a"});
  param_save_for_port(port.get(), file.c_str());
  const auto first = inode_of(file);
  param_save_for_port(port.get(), file.c_str());
  EXPECT_EQ(inode_of(file), first);
  port->usage = "new";
  param_save_for_port(port.get(), file.c_str());
  EXPECT_NE(inode_of(file), first);
  EXPECT_THAT(read_file(file), HasSubstr("usage=new\n"));
}

TEST_F(TheKeyFile, is_written_where_it_was_not_read) {
  const auto file = scratch.write("conf", "[a]\nusage=x\n");
  ASSERT_TRUE(param_read_configuration(file.c_str()));
  ASSERT_TRUE(param_store_key_file(scratch.path("copy").c_str()));
  EXPECT_EQ(read_file(scratch.path("copy")), "[a]\nusage=x\n");
}

TEST_F(TheKeyFile, is_compared_with_what_was_stored_last) {
  const auto file = scratch.path("conf");
  const auto port = make({.name = "a"});
  param_save_for_port(port.get(), file.c_str());
  ASSERT_TRUE(param_read_configuration(file.c_str()));
  for (const char* usage : {"new", ""}) {
    port->usage = usage;
    ASSERT_TRUE(param_set_conf_vals(port.get()));
    ASSERT_TRUE(param_store_key_file(file.c_str()));
    EXPECT_THAT(read_file(file), testing::EndsWith("usage=" + port->usage + "\n"));
  }
}

TEST_F(TheKeyFile, saves_into_the_loaded_file_and_leaves_it_loaded) {
  const auto file = scratch.path("conf");
  ASSERT_TRUE(param_read_configuration(file.c_str()));
  const auto port = make({.name = "a"});
  param_save_for_port(port.get(), file.c_str());
  EXPECT_THAT(read_file(file), StartsWith("[a]\n"));
  EXPECT_TRUE(param_store_key_file(file.c_str()));
}

TEST_F(TheKeyFile, is_left_alone_when_it_cannot_be_read_for_a_save) {
  const auto file = scratch.write("conf", "no group\n");
  const auto port = make({.name = "a"});
  EXPECT_TRUE(errors_of([&] {
    param_save_for_port(port.get(), file.c_str());
    return true;
  }));
  EXPECT_THAT(err, StartsWith("Could not read key file: "));
  EXPECT_TRUE(logged(G_LOG_LEVEL_CRITICAL,
                     "param_save_for_port: assertion 'param_read_configuration(file)' failed"));
  EXPECT_EQ(read_file(file), "no group\n");
}

TEST_F(TheKeyFile, saves_the_io_ports_of_the_list) {
  const auto file = scratch.path("conf");
  add({.number = 0, .name = "first"});
  add({.number = 1, .name = "hidden", .properties = {"ioport", "hidden"}});
  add({.number = 2, .name = "virtual", .properties = {"virtual"}});
  add({.number = -1, .name = "unnumbered"});
  param_save_all(file.c_str());
  const auto text = read_file(file);
  EXPECT_THAT(text, StartsWith("[hidden]\n"));
  EXPECT_THAT(text, HasSubstr("\n[first]\n"));
  EXPECT_THAT(text, testing::Not(HasSubstr("[virtual]")));
  EXPECT_THAT(text, testing::Not(HasSubstr("[unnumbered]")));
}

TEST_F(TheKeyFile, saves_the_other_ports_when_one_has_no_name) {
  const auto file = scratch.path("conf");
  add({.number = 0, .name = "named"});
  add({.number = 1});
  errors_of([&] {
    param_save_all(file.c_str());
    return true;
  });
  EXPECT_EQ(err, "Port does not have a name!\n");
  EXPECT_THAT(read_file(file), StartsWith("[named]\n"));
}

TEST_F(TheKeyFile, takes_what_could_not_be_saved_with_the_next_save_of_any_port) {
  const auto file = scratch.write("conf", "no group\n");
  add({.type = PORT_INPUT, .number = 1, .name = "other"})->usage = "not asked for";
  auto gone = make({.type = PORT_INPUT, .name = "gone"});
  const auto later = make({.type = PORT_INPUT, .name = "later"});
  errors_of([&] {
    gone->usage = "older";
    param_save_for_port(gone.get(), file.c_str());
    gone->usage = "newer";
    param_save_for_port(gone.get(), file.c_str());
    return true;
  });
  EXPECT_TRUE(logged_part(G_LOG_LEVEL_CRITICAL, "param_read_configuration"));
  EXPECT_TRUE(logged_part(G_LOG_LEVEL_CRITICAL, "param_read_configuration"));
  gone.reset();
  overwrite_file(file, "[foreign]\nkey=1\n");
  param_save_for_port(later.get(), file.c_str());
  EXPECT_EQ(read_file(file), "[foreign]\nkey=1\n\n"
                             "[gone]\ninput_name=\ninput_activelow=false\nusage=newer\n\n"
                             "[later]\ninput_name=\ninput_activelow=false\nusage=\n");

  overwrite_file(file, "");
  param_save_unsaved(file.c_str());
  EXPECT_EQ(read_file(file), "") << "what is saved is not saved again";
}

TEST_F(TheKeyFile, tells_whether_all_ports_could_be_saved) {
  add({.number = 1, .name = "a"});
  add({.number = 2, .name = "b"});
  const auto file = scratch.path("conf");
  EXPECT_TRUE(param_save_all(file.c_str()));
  EXPECT_FALSE(errors_of([&] { return param_save_all(scratch.path("no folder/conf").c_str()); }));
  EXPECT_TRUE(param_save_all(file.c_str()));
}

TEST_F(TheKeyFile, is_handed_to_the_daemons_user) {
  const auto file = scratch.write("conf", "");
  param_set_owner_group(file.c_str());
  struct stat now {};
  ASSERT_EQ(stat(file.c_str(), &now), 0);
  if (const auto* user = getpwnam("wxd"); user == nullptr) {
    EXPECT_TRUE(logged(G_LOG_LEVEL_WARNING, "Failed to get uid"));
    EXPECT_EQ(now.st_uid, geteuid());
  } else if (geteuid() == 0) {
    EXPECT_EQ(now.st_uid, user->pw_uid);
  } else {
    EXPECT_TRUE(logged_part(G_LOG_LEVEL_WARNING, "chown failed on file '" + file + "': (1) "));
  }
}

TEST_F(TheKeyFileDeathTest, ends_the_process_when_no_port_is_given_to_save) {
  EXPECT_DEATH(param_save_for_port(nullptr, "/nowhere"), "port != NULL");
}
