#include "fuzz-bus.h"

#include <sys/prctl.h>

#include <array>
#include <csignal>

namespace {

constexpr std::array argument_types{
    "()",        "(s)",   "(u)",     "(ub)",          "(us)",       "(ubs)", "(usuu)",
    "(uba(bi))", "(as)",  "(i)",     "(ii)",          "(ss)",       "(ssv)", "(a(bi))",
    "(ay)",      "(v)",   "(a{sv})", "(aas)",         "(b)",        "(ib)",  "(is)",
    "(ad)",      "(o)",   "(g)",     "(a(sssa{ss}))", "(sa{sv}as)", "(sss)", "(t)",
    "((((v))))", "(iis)", "(x)",
};

} // namespace

// It goes with this process, however that ends. What it prints first is its address.
void fuzz_start_bus() {
  const char* const command[] = {"dbus-daemon", "--session", "--nofork", "--print-address",
                                 nullptr};
  const ObjectRef<GSubprocessLauncher> launcher(
      g_subprocess_launcher_new(G_SUBPROCESS_FLAGS_STDOUT_PIPE));
  g_subprocess_launcher_set_child_setup(
      launcher.get(), [](gpointer) { prctl(PR_SET_PDEATHSIG, SIGKILL); }, nullptr, nullptr);
  const ObjectRef<GSubprocess> bus(g_subprocess_launcher_spawnv(launcher.get(), command, nullptr));
  fuzz_require(bus != nullptr);
  const ObjectRef<GDataInputStream> said(
      g_data_input_stream_new(g_subprocess_get_stdout_pipe(bus.get())));
  g_autofree gchar* address = g_data_input_stream_read_line(said.get(), nullptr, nullptr, nullptr);
  fuzz_require(address != nullptr);
  g_setenv("DBUS_SYSTEM_BUS_ADDRESS", address, TRUE);
}

ObjectRef<GDBusConnection> fuzz_connect() {
  GDBusConnection* const connection = g_dbus_connection_new_for_address_sync(
      g_getenv("DBUS_SYSTEM_BUS_ADDRESS"),
      static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT
                                        | G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
      nullptr, nullptr, nullptr);
  fuzz_require(connection != nullptr);
  return ObjectRef<GDBusConnection>(connection);
}

VariantRef fuzz_take_arguments(FuzzInput& input, const GVariantType* type) {
  const gsize size = std::min<gsize>(fuzz_take<guint8>(input), input.size());
  g_autoptr(GBytes) bytes = g_bytes_new(input.data(), size);
  input = input.subspan(size);
  // Whatever the bytes are not, this makes the nearest that the type allows.
  g_autoptr(GVariant) raw = g_variant_ref_sink(g_variant_new_from_bytes(type, bytes, FALSE));
  return VariantRef(g_variant_get_normal_form(raw));
}

const GVariantType* fuzz_take_type(FuzzInput& input) {
  return G_VARIANT_TYPE(argument_types.at(fuzz_take<guint8>(input) % argument_types.size()));
}

void fuzz_settle(GDBusConnection* client) {
  g_autoptr(GVariant) answer = g_dbus_connection_call_sync(
      client, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetId",
      nullptr, nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
  fuzz_require(answer != nullptr);
  while (g_main_context_iteration(nullptr, FALSE)) {
  }
}

bool fuzz_can_be_sent(GDBusMessage* message) {
  gsize size = 0;
  g_dbus_message_set_serial(message, 1);
  g_autofree guchar* blob =
      g_dbus_message_to_blob(message, &size, G_DBUS_CAPABILITY_FLAGS_NONE, nullptr);
  g_dbus_message_set_serial(message, 0);
  return blob != nullptr;
}
