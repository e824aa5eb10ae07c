// What the daemon relies on in the device's configuration-event library, and what the one that is
// shipped logs.
#include "platform/config-event-library.h"

#include "support/log-capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

struct HandleFree {
  void operator()(NvConfigEvent* handle) const { nv_config_event_free(handle); }
};

struct TheConfigEventLibrary : testing::Test {
  std::unique_ptr<NvConfigEvent, HandleFree> handle{nv_config_event_new("tester", nullptr)};

  bool declare(const char* path, GError** error = nullptr) {
    return nv_config_event_declare(handle.get(), "an.Interface", path, "group", error);
  }

  bool send(const char* path, const std::string& text, GError** error = nullptr) {
    g_autoptr(GString) change = g_string_new(text.c_str());
    return nv_config_event_send(handle.get(), "an.Interface", path, "group", "object", 3, change,
                                error);
  }

  static std::vector<std::string> lines() { return claim_lines("config-event "); }
};

} // namespace

TEST_F(TheConfigEventLibrary, follows_an_object_from_declaration_to_withdrawal) {
  EXPECT_TRUE(declare("/a"));
  EXPECT_TRUE(send("/a", "Name=door"));
  EXPECT_TRUE(nv_config_event_undeclare(handle.get(), "an.Interface", "/a", "group"));
  EXPECT_THAT(
      lines(),
      ElementsAre("config-event declare producer=tester interface=an.Interface path=/a",
                  "config-event change producer=tester interface=an.Interface path=/a kind=3 "
                  "Name=door",
                  "config-event undeclare producer=tester interface=an.Interface path=/a"));
}

TEST_F(TheConfigEventLibrary, declares_an_object_once) {
  EXPECT_TRUE(declare("/a"));
  g_autoptr(GError) error = nullptr;
  EXPECT_FALSE(declare("/a", &error));
  EXPECT_TRUE(
      g_error_matches(error, nv_config_event_error_quark(), NV_CONFIG_EVENT_ERROR_DECLARED));
  EXPECT_TRUE(declare("/b"));
  EXPECT_EQ(lines().size(), 2U);
}

TEST_F(TheConfigEventLibrary, knows_only_what_was_declared) {
  g_autoptr(GError) error = nullptr;
  EXPECT_FALSE(send("/a", "Name=door", &error));
  EXPECT_TRUE(
      g_error_matches(error, nv_config_event_error_quark(), NV_CONFIG_EVENT_ERROR_NOT_DECLARED));
  EXPECT_FALSE(nv_config_event_undeclare(handle.get(), "an.Interface", "/a", "group"));
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(TheConfigEventLibrary, keeps_the_pairs_of_a_change_apart) {
  struct Row {
    const char* value;
    const char* text;
  };
  for (const auto& row :
       {Row{"door", "Name=door"}, Row{"", "Name="}, Row{"a&b=c", "Name=a%26b%3Dc"},
        Row{"two words", "Name=two words"}, Row{"/a:b", "Name=/a:b"}, Row{"100 %", "Name=100 %25"},
        Row{"\xc3\xa5", "Name=\xc3\xa5"}}) {
    SCOPED_TRACE(row.value);
    g_autoptr(GString) change = nv_config_event_change_new();
    EXPECT_STREQ(change->str, "");
    nv_config_event_change_append(change, "Name", row.value);
    EXPECT_STREQ(change->str, row.text);
    nv_config_event_change_append(change, "Next", "1");
    EXPECT_EQ(change->str, std::string(row.text) + "&Next=1");
  }
}

TEST_F(TheConfigEventLibrary, frees_nothing_without_complaint) {
  nv_config_event_free(nullptr);
}
