// Settings announced from threads of their own, on a bus of the test's own.
#include "support/port-fixture.h"

#include "dbus/iocontrol-conf-legacy-dbus.h"
#include "dbus/legacy-names.h"
#include "port/action-sequence.h"
#include "port/port-observer.h"

#include <gio/gio.h>

#include <map>
#include <thread>

namespace {

struct Announcement {
  std::string path;
  std::string interface_name;
  std::string property;
  std::string value;

  auto operator<=>(const Announcement&) const = default;
};

// The legacy interface of port 0 to 2 on a private bus, and a client that listens.
struct TheLegacyInterface : PortTest {
  void SetUp() override {
    PortTest::SetUp();
    g_test_dbus_up(bus);
    g_setenv("DBUS_SYSTEM_BUS_ADDRESS", g_test_dbus_get_bus_address(bus), TRUE);
    client = g_dbus_connection_new_for_address_sync(
        g_test_dbus_get_bus_address(bus),
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT
                                          | G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, nullptr);
    ASSERT_NE(client, nullptr);
    subscription = g_dbus_connection_signal_subscribe(
        client, nullptr, "org.freedesktop.DBus.Properties", "PropertiesChanged", nullptr, nullptr,
        G_DBUS_SIGNAL_FLAGS_NONE, on_changed, this, nullptr);
    // Answered only after the bus has the subscription.
    g_variant_unref(g_dbus_connection_call_sync(
        client, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetId",
        nullptr, nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr));
    virtual_input_set_first_port_no(ports);
    for (gint number = 0; number < ports; number++) {
      add({.type = PORT_IO_CTRL, .number = number});
    }
  }

  void TearDown() override {
    g_dbus_connection_signal_unsubscribe(client, subscription);
    g_clear_object(&client);
    run_pending();
    g_test_dbus_down(bus);
    g_object_unref(bus);
    PortTest::TearDown();
  }

  static void on_changed(GDBusConnection* /*connection*/, const gchar* /*sender*/,
                         const gchar* path, const gchar* /*interface_name*/,
                         const gchar* /*signal*/, GVariant* arguments, gpointer user_data) {
    ASSERT_STREQ(g_variant_get_type_string(arguments), "(sa{sv}as)");
    const gchar* interface_name = nullptr;
    g_autoptr(GVariantIter) changed = nullptr;
    g_autoptr(GVariantIter) invalidated = nullptr;
    g_variant_get(arguments, "(&sa{sv}as)", &interface_name, &changed, &invalidated);
    EXPECT_EQ(g_variant_iter_n_children(invalidated), 0U);
    ASSERT_EQ(g_variant_iter_n_children(changed), 1U);
    const gchar* property = nullptr;
    g_autoptr(GVariant) value = nullptr;
    g_variant_iter_next(changed, "{&sv}", &property, &value);
    ASSERT_STREQ(g_variant_get_type_string(value), "ay");
    auto& heard = static_cast<TheLegacyInterface*>(user_data)->heard;
    heard[{path, interface_name, property, g_variant_get_bytestring(value)}]++;
  }

  static void announce_text(gint number, const std::string& text, Setting setting) {
    IoPort port;
    port.number = number;
    port.input_name = text;
    port.output_name = text;
    port.usage = text;
    port_observer.setting_changed(port, setting);
  }

  static constexpr std::array settings{Setting::InputName, Setting::OutputName, Setting::Usage};

  // Every thread announces `rounds` settings, each of them once.
  static std::vector<std::jthread> announcers() {
    std::vector<std::jthread> threads;
    for (gint thread = 0; thread < thread_count; thread++) {
      threads.emplace_back([thread] {
        for (int round = 0; round < rounds; round++) {
          announce_text(thread % ports, std::to_string(thread) + '.' + std::to_string(round),
                        settings.at(static_cast<gsize>(round) % settings.size()));
        }
      });
    }
    return threads;
  }

  static constexpr gint ports = 3;
  static constexpr gint thread_count = 4;
  static constexpr int rounds = 100;

  GTestDBus* bus = g_test_dbus_new(G_TEST_DBUS_NONE);
  GDBusConnection* client = nullptr;
  guint subscription = 0;
  std::map<Announcement, int> heard;
};

} // namespace

TEST_F(TheLegacyInterface, announces_from_any_thread_each_setting_once) {
  const auto legacy = iocontrol_conf_legacy_dbus_create();
  announcers().clear();
  ASSERT_TRUE(run_until([this] { return heard.size() == gsize{thread_count} * rounds; }));
  run_pending();
  for (const auto& [announcement, count] : heard) {
    EXPECT_EQ(count, 1) << announcement.value;
  }
  EXPECT_TRUE(heard.contains({"/com/norv/Configuration/Legacy/IOControl/IOPort/1",
                              legacy_input_interface, "Name", "1.0"}));
  EXPECT_TRUE(heard.contains({"/com/norv/Configuration/Legacy/IOControl/IOPort/0",
                              legacy_output_interface, "Name", "3.1"}));
  EXPECT_TRUE(heard.contains({"/com/norv/Configuration/Legacy/IOControl/IOPort/2",
                              legacy_ioport_interface, "Usage", "2.2"}));
}

TEST_F(TheLegacyInterface, may_come_and_go_while_other_threads_announce) {
  auto threads = announcers();
  for (int i = 0; i < 10; i++) {
    const auto legacy = iocontrol_conf_legacy_dbus_create();
    run_pending();
  }
  threads.clear();
  run_pending();
  heard.clear();
  // Nobody is told anything while it is away.
  announce_text(0, "late", Setting::InputName);
  const auto legacy = iocontrol_conf_legacy_dbus_create();
  announce_text(0, "last", Setting::InputName);
  const auto told = [this](const char* value) {
    return std::ranges::any_of(heard,
                               [&](const auto& entry) { return entry.first.value == value; });
  };
  ASSERT_TRUE(run_until([&] { return told("last"); }));
  EXPECT_FALSE(told("late"));
}

TEST_F(TheLegacyInterface, tells_of_changes_as_the_daemon) {
  const auto legacy = iocontrol_conf_legacy_dbus_create();
  EXPECT_THAT(fake_events::producers(), testing::ElementsAre("wexd"));
}
