// What of a bus's messages ends the rest of a service that let a call time out.
#include "platform/hung-services.h"
#include "support/log-capture.h"

#include <gtest/gtest.h>

#include <string>

namespace {

constexpr const char* bus_name = "org.freedesktop.DBus";
constexpr const char* bus_path = "/org/freedesktop/DBus";

// A service of the test's own, on a private bus where one connection listens for its name.
struct AService : testing::Test {
  void SetUp() override {
    g_test_dbus_up(bus);
    listener = connect();
    peer = connect();
    ASSERT_NE(listener, nullptr);
    ASSERT_NE(peer, nullptr);
    hung_services_listen(listener);
    hung_service_follow(listener, name.c_str());
    catch_up();
  }

  void TearDown() override {
    g_clear_object(&peer);
    g_clear_object(&listener);
    g_test_dbus_down(bus);
    g_object_unref(bus);
  }

  [[nodiscard]] GDBusConnection* connect() const {
    return g_dbus_connection_new_for_address_sync(
        g_test_dbus_get_bus_address(bus),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT
                                          | G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, nullptr);
  }

  static void ask_bus(GDBusConnection* connection, const char* method, GVariant* arguments) {
    g_autoptr(GVariant) answer =
        g_dbus_connection_call_sync(connection, bus_name, bus_path, bus_name, method, arguments,
                                    nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
    ASSERT_NE(answer, nullptr) << method;
  }

  // The bus has all that the listener had sent before, and the listener has all of the bus's.
  void catch_up() const { ask_bus(listener, "GetId", nullptr); }

  void take_name() const {
    ask_bus(peer, "RequestName", g_variant_new("(su)", name.c_str(), 0));
    catch_up();
  }

  void time_out(guint64 begun) const {
    g_autoptr(GError) error = nullptr;
    hung_service_set_error(&error);
    hung_service_call_failed(name.c_str(), begun, ServiceName::Owned, error);
  }

  [[nodiscard]] bool is_left_alone() const { return hung_service_is_left_alone(name.c_str()); }

  GTestDBus* bus = g_test_dbus_new(G_TEST_DBUS_NONE);
  GDBusConnection* listener = nullptr;
  GDBusConnection* peer = nullptr;
  std::string name =
      std::string("com.example.") + testing::UnitTest::GetInstance()->current_test_info()->name();
};

// One that has just let a call time out.
struct AHungService : AService {
  void SetUp() override {
    AService::SetUp();
    const auto begun = hung_service_begin_call(name.c_str());
    ASSERT_TRUE(begun);
    time_out(*begun);
    ASSERT_TRUE(logged_part(G_LOG_LEVEL_WARNING, name + " does not answer"));
    ASSERT_TRUE(is_left_alone());
  }
};

} // namespace

TEST_F(AHungService, is_called_again_once_its_name_is_taken) {
  take_name();
  EXPECT_FALSE(is_left_alone());
  EXPECT_TRUE(logged_part(G_LOG_LEVEL_MESSAGE, "Calling " + name + " again"));
}

TEST_F(AHungService, is_left_alone_whatever_a_peer_says_of_its_name) {
  for (const char* member : {"NameOwnerChanged", "Changed"}) {
    g_dbus_connection_emit_signal(
        peer, g_dbus_connection_get_unique_name(listener), bus_path, bus_name, member,
        g_variant_new("(sss)", name.c_str(), "", g_dbus_connection_get_unique_name(peer)), nullptr);
  }
  ask_bus(peer, "GetId", nullptr);
  catch_up();
  EXPECT_TRUE(is_left_alone());
}

TEST_F(AService, is_not_left_alone_for_a_call_from_before_its_name_was_taken) {
  const auto begun = hung_service_begin_call(name.c_str());
  ASSERT_TRUE(begun);
  take_name();
  time_out(*begun);
  EXPECT_FALSE(is_left_alone());
}
