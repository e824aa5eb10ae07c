#include "platform/handles.h"

#include "platform/object-handles.h"
#include "support/main-loop.h"

#include <fcntl.h>
#include <gtest/gtest.h>

namespace {

bool is_open(int fd) {
  return fcntl(fd, F_GETFD) >= 0;
}

int open_something() {
  return open("/dev/null", O_RDONLY | O_CLOEXEC);
}

gboolean count(gpointer counter) {
  ++*static_cast<int*>(counter);
  return G_SOURCE_CONTINUE;
}

bool exists(guint source) {
  return g_main_context_find_source_by_id(nullptr, source) != nullptr;
}

} // namespace

TEST(AUniqueFd, closes_what_it_holds) {
  int fd = -1;
  {
    const UniqueFd held(open_something());
    fd = held.get();
    EXPECT_TRUE(held);
    EXPECT_TRUE(is_open(fd));
  }
  EXPECT_FALSE(is_open(fd));
  EXPECT_FALSE(UniqueFd());
  EXPECT_EQ(UniqueFd().get(), -1);
}

TEST(AUniqueFd, hands_over_what_it_holds) {
  UniqueFd first(open_something());
  const int fd = first.get();
  UniqueFd second(std::move(first));
  EXPECT_EQ(second.get(), fd);
  UniqueFd third(open_something());
  const int replaced = third.get();
  third = std::move(second);
  EXPECT_EQ(third.get(), fd);
  EXPECT_FALSE(is_open(replaced));
  third.reset();
  EXPECT_FALSE(is_open(fd));
}

TEST(ASourceId, removes_what_it_holds) {
  int calls = 0;
  guint id = 0;
  {
    const SourceId held(g_idle_add(count, &calls));
    id = held.get();
    EXPECT_TRUE(held);
    EXPECT_TRUE(exists(id));
  }
  EXPECT_FALSE(exists(id));
  run_pending();
  EXPECT_EQ(calls, 0);
  EXPECT_FALSE(SourceId());
}

TEST(ASourceId, hands_over_what_it_holds) {
  int calls = 0;
  SourceId first(g_idle_add(count, &calls));
  const guint id = first.get();
  SourceId second(std::move(first));
  EXPECT_EQ(second.get(), id);
  SourceId third(g_idle_add(count, &calls));
  const guint replaced = third.get();
  third = std::move(second);
  EXPECT_FALSE(exists(replaced));
  EXPECT_TRUE(exists(id));
  third.reset();
  EXPECT_FALSE(exists(id));
}

TEST(ASourceId, lets_go_of_a_source_that_removes_itself) {
  SourceId held;
  held.reset(g_idle_add([](gpointer) -> gboolean { return G_SOURCE_REMOVE; }, nullptr));
  const guint id = held.get();
  held.forget();
  EXPECT_FALSE(held);
  EXPECT_TRUE(run_until([id] { return !exists(id); }));
}

TEST(ASignalHandler, hears_no_more_of_an_object_that_outlives_it) {
  const ObjectRef<GDBusProxy> proxy(G_DBUS_PROXY(g_object_new(G_TYPE_DBUS_PROXY, nullptr)));
  int calls = 0;
  SignalHandler handler(proxy.get(), g_signal_connect_swapped(proxy.get(), "notify::g-name-owner",
                                                              G_CALLBACK(count), &calls));
  g_object_notify(G_OBJECT(proxy.get()), "g-name-owner");
  EXPECT_EQ(calls, 1);
  handler.reset();
  EXPECT_FALSE(handler);
  g_object_notify(G_OBJECT(proxy.get()), "g-name-owner");
  EXPECT_EQ(calls, 1);
}

TEST(SomethingUnderWay, leaves_nothing_to_cancel_once_it_is_given_up) {
  UnderWay question;
  EXPECT_EQ(question.cancellable(), nullptr);
  const ObjectRef<GCancellable> begun(G_CANCELLABLE(g_object_ref(question.begin())));
  EXPECT_EQ(question.cancellable(), begun.get());
  question.give_up();
  EXPECT_TRUE(g_cancellable_is_cancelled(begun.get()));
  EXPECT_EQ(question.cancellable(), nullptr);
}
