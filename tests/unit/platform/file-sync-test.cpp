#include "platform/file-sync.h"

#include "support/child.h"
#include "support/log-capture.h"
#include "support/scratch.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <set>

using testing::HasSubstr;

namespace {

/// "ok", or the error's text.
std::string store(const std::string& path, const std::string& text) {
  g_autoptr(GError) error = nullptr;
  return file_set_contents_synced(path.c_str(), text, &error) ? "ok" : error->message;
}

std::string joined(const std::string& first, const std::string& second) {
  return first + " | " + second;
}

struct stat inspect(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(stat(path.c_str(), &status), 0) << path;
  return status;
}

auto entries(const std::string& folder) {
  const std::filesystem::directory_iterator first(folder);
  return std::distance(begin(first), end(first));
}

std::set<std::string> names(const std::string& folder) {
  std::set<std::string> found;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    found.insert(entry.path().filename());
  }
  return found;
}

// Whether the disk takes no folder.
bool folders_fail = false;

struct ASyncedFile : testing::Test {
  ScratchFolder scratch;
  std::string path = scratch.path("file");
};

} // namespace

// The C library's, for the whole executable.
int fsync(int fd) {
  struct stat status {};
  if (folders_fail && fstat(fd, &status) == 0 && S_ISDIR(status.st_mode)) {
    errno = EIO;
    return -1;
  }
  return static_cast<int>(syscall(SYS_fsync, fd));
}

TEST_F(ASyncedFile, is_created_with_the_whole_text) {
  EXPECT_EQ(store(path, "text\n"), "ok");
  EXPECT_EQ(read_file(path), "text\n");
  EXPECT_EQ(inspect(path).st_mode & 07777U, 0644U);
}

TEST_F(ASyncedFile, may_hold_any_text) {
  const std::string zeros("a\0b\0", 4);
  const std::string large(300'000, 'x');
  for (const auto& text : {std::string(), zeros, large, std::string("short")}) {
    EXPECT_EQ(store(path, text), "ok");
    EXPECT_EQ(read_file(path), text);
  }
}

TEST_F(ASyncedFile, is_replaced_not_rewritten) {
  overwrite_file(path, "old");
  const auto before = inspect(path).st_ino;
  const std::string other_name = scratch.path("link");
  std::filesystem::create_hard_link(path, other_name);
  EXPECT_EQ(store(path, "new"), "ok");
  EXPECT_NE(inspect(path).st_ino, before);
  EXPECT_EQ(read_file(other_name), "old") << "whoever has the old file open sees it whole";
  EXPECT_EQ(entries(scratch.path()), 2) << "nothing is left beside it";
}

TEST_F(ASyncedFile, keeps_its_mode) {
  for (const mode_t mode : {0600U, 0640U, 0644U, 0664U, 0666U}) {
    SCOPED_TRACE(testing::Message() << std::oct << mode);
    overwrite_file(path, "old");
    ASSERT_EQ(chmod(path.c_str(), mode), 0);
    EXPECT_EQ(store(path, "new"), "ok");
    EXPECT_EQ(inspect(path).st_mode & 07777U, mode);
  }
}

TEST_F(ASyncedFile, keeps_its_owner) {
  overwrite_file(path, "old");
  // Only root can give files away; others keep what is theirs.
  const uid_t owner = geteuid() == 0 ? 12345 : geteuid();
  const gid_t group = geteuid() == 0 ? 23456 : getegid();
  ASSERT_EQ(chown(path.c_str(), owner, group), 0);
  EXPECT_EQ(store(path, "new"), "ok");
  EXPECT_EQ(inspect(path).st_uid, owner);
  EXPECT_EQ(inspect(path).st_gid, group);
}

TEST_F(ASyncedFile, tells_why_it_was_not_written) {
  EXPECT_THAT(store(scratch.path("none/file"), "text"), HasSubstr("No such file or directory"));
  EXPECT_THAT(store(scratch.path("none/file"), "text"), HasSubstr("none/file"));
  EXPECT_NE(store(scratch.path(), "text"), "ok") << "a folder is no file";
}

TEST_F(ASyncedFile, tells_that_its_name_may_not_have_reached_the_disk) {
  folders_fail = true;
  EXPECT_EQ(store(path, "text"), "Failed to sync the folder of '" + path + "': Input/output error");
  folders_fail = false;
}

TEST_F(ASyncedFile, is_rewritten_in_place_where_its_folder_is_closed) {
  std::filesystem::permissions(scratch.path(), std::filesystem::perms(0555));
  struct Row {
    const char* label;
    std::string old_text;
    std::string new_text;
  };
  for (const auto& row :
       {Row{"longer", "old", std::string(100'000, 'n')}, Row{"shorter", "longer old", "n"},
        Row{"empty", "old", ""}, Row{"from empty", "", "new"}}) {
    SCOPED_TRACE(row.label);
    std::filesystem::permissions(scratch.path(), std::filesystem::perms(0755));
    overwrite_file(path, row.old_text);
    ASSERT_EQ(chmod(path.c_str(), 0666), 0);
    std::filesystem::permissions(scratch.path(), std::filesystem::perms(0555));
    const auto before = inspect(path).st_ino;
    EXPECT_EQ(as_ordinary_user([&] { return store(path, row.new_text); }), "ok");
    EXPECT_EQ(read_file(path), row.new_text);
    EXPECT_EQ(inspect(path).st_ino, before);
  }
}

TEST_F(ASyncedFile, stays_as_it_is_where_nothing_may_be_written) {
  overwrite_file(path, "old");
  ASSERT_EQ(chmod(path.c_str(), 0444), 0);
  std::filesystem::permissions(scratch.path(), std::filesystem::perms(0555));
  EXPECT_THAT(as_ordinary_user([&] { return store(path, "new"); }), HasSubstr("Permission denied"));
  EXPECT_EQ(read_file(path), "old");
}

TEST_F(ASyncedFile, is_not_created_where_the_folder_is_closed) {
  std::filesystem::permissions(scratch.path(), std::filesystem::perms(0555));
  EXPECT_THAT(as_ordinary_user([&] { return store(path, "new"); }), HasSubstr("Permission denied"));
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(ASyncedFile, stays_whole_on_a_full_disk) {
  const std::string old_text(10'000, 'o');
  const std::string outcome = with_small_disk(scratch.path(), 64, [&] {
    overwrite_file(path, old_text);
    const auto result = store(path, std::string(200'000, 'n'));
    const auto after = read_file(path);
    return joined(result, after == old_text ? "unchanged" : "changed") + " | "
           + std::to_string(entries(scratch.path()));
  });
  EXPECT_THAT(outcome, HasSubstr("No space left on device"));
  EXPECT_THAT(outcome, HasSubstr(" | unchanged | 1"));
}

TEST_F(ASyncedFile, stays_whole_on_a_full_disk_when_rewritten_in_place) {
  const std::string old_text(10'000, 'o');
  const std::string outcome = with_small_disk(scratch.path(), 64, [&]() -> std::string {
    overwrite_file(path, old_text);
    chmod(path.c_str(), 0666);
    chmod(scratch.path().c_str(), 0555);
    // Inside a user namespace of its own the caller owns the folder, so it is closed to it as well
    // only without its privileges over files.
    const auto body = [&] {
      const auto result = store(path, std::string(200'000, 'n'));
      return joined(result, read_file(path) == old_text ? "unchanged" : "changed");
    };
    return as_ordinary_user(body);
  });
  EXPECT_THAT(outcome, HasSubstr("No space left on device"));
  EXPECT_THAT(outcome, HasSubstr(" | unchanged"));
}

TEST_F(ASyncedFile, is_rewritten_in_place_where_it_is_a_mount_of_its_own) {
  for (const bool folder_is_read_only : {false, true}) {
    const std::string outcome = with_small_disk(scratch.path(), 64, [&]() -> std::string {
      overwrite_file(path, "the old text");
      const auto before = inspect(path).st_ino;
      if (mount(path.c_str(), path.c_str(), nullptr, MS_BIND, nullptr) != 0
          || (folder_is_read_only
              && mount(nullptr, scratch.path().c_str(), nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY,
                       nullptr)
                     != 0)) {
        return std::string("(could not mount: ") + g_strerror(errno) + ")";
      }
      const auto result = store(path, "new");
      return joined(result, read_file(path))
             + (inspect(path).st_ino == before ? " | same | " : " | other | ")
             + std::to_string(entries(scratch.path()));
    });
    EXPECT_EQ(outcome, "ok | new | same | 1") << "read-only folder: " << folder_is_read_only;
  }
}

TEST_F(ASyncedFile, is_restored_when_rewriting_in_place_breaks_off) {
  const std::string old_text(3'000, 'o');
  overwrite_file(path, old_text);
  ASSERT_EQ(chmod(path.c_str(), 0666), 0);
  std::filesystem::permissions(scratch.path(), std::filesystem::perms(0555));
  const std::string outcome = as_ordinary_user([&] {
    signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{.rlim_cur = 5'000, .rlim_max = 5'000};
    setrlimit(RLIMIT_FSIZE, &limit);
    return store(path, std::string(8'000, 'n'));
  });
  EXPECT_THAT(outcome, HasSubstr("File too large"));
  EXPECT_EQ(read_file(path), old_text);
}

TEST_F(ASyncedFile, is_written_by_way_of_one_name_whatever_holds_it) {
  overwrite_file(path, "old");
  const auto temporary = scratch.path(".file.new");
  const auto bystander = scratch.write("bystander", "untouched");
  std::filesystem::create_symlink(bystander, temporary);
  EXPECT_EQ(store(path, "new"), "ok");
  EXPECT_EQ(read_file(path), "new");
  overwrite_file(temporary, "of a write that broke off");
  EXPECT_EQ(store(path, "newer"), "ok");
  EXPECT_EQ(read_file(path), "newer");
  EXPECT_EQ(read_file(bystander), "untouched");
  EXPECT_EQ(names(scratch.path()), (std::set<std::string>{"file", "bystander"}));

  std::filesystem::create_directory(temporary);
  EXPECT_THAT(store(path, "newest"), HasSubstr("Is a directory"));
  EXPECT_EQ(read_file(path), "newer");
}

TEST_F(ASyncedFile, does_not_follow_a_link) {
  const auto target = scratch.write("target", "untouched");
  std::filesystem::create_symlink(target, path);
  EXPECT_THAT(store(path, "new"), HasSubstr("is not a regular file"));
  EXPECT_EQ(read_file(target), "untouched");
  EXPECT_TRUE(std::filesystem::is_symlink(path));
}

TEST_F(ASyncedFile, does_not_wait_for_a_pipe) {
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  EXPECT_THAT(store(path, "new"), HasSubstr("is not a regular file"));
}

TEST_F(ASyncedFile, with_a_second_name_is_not_rewritten_in_place) {
  overwrite_file(path, "old");
  ASSERT_EQ(chmod(path.c_str(), 0666), 0);
  std::filesystem::create_hard_link(path, scratch.path("second"));
  std::filesystem::permissions(scratch.path(), std::filesystem::perms(0555));
  EXPECT_THAT(as_ordinary_user([&] { return store(path, "new"); }), HasSubstr("with one name"));
  EXPECT_EQ(read_file(path), "old");
}

TEST_F(ASyncedFile, is_not_rewritten_in_place_where_its_folder_is_not_to_blame) {
  overwrite_file(path, std::string(3'000, 'o'));
  const std::filesystem::file_time_type long_ago;
  std::filesystem::last_write_time(path, long_ago);
  const std::string outcome = in_child([&] {
    signal(SIGXFSZ, SIG_IGN);
    const rlimit limit{.rlim_cur = 5'000, .rlim_max = 5'000};
    setrlimit(RLIMIT_FSIZE, &limit);
    return store(path, std::string(8'000, 'n'));
  });
  EXPECT_THAT(outcome, HasSubstr("File too large"));
  EXPECT_EQ(std::filesystem::last_write_time(path), long_ago);
  EXPECT_EQ(entries(scratch.path()), 1);
}

TEST_F(ASyncedFile, loses_what_broken_writes_have_left_but_nobody_s_copies) {
  for (const char* left :
       {".file.new", "file.AbC123", "file.XXXXXX", "file.aaaaa0", "file.q1W2e3"}) {
    scratch.write(left, "left");
  }
  const std::set<std::string> kept{"file",         "file.backup", "file.Backup",  "file.240131",
                                   "file.old",     "file.AbC12",  "file.AbC1234", "file.Ab-123",
                                   "file2.AbC123", ".file.AbC123"};
  for (const auto& name : kept) {
    scratch.write(name, "kept");
  }
  file_remove_leftovers(path.c_str());
  EXPECT_EQ(names(scratch.path()), kept);
  file_remove_leftovers(scratch.path("no folder/file").c_str());
}
