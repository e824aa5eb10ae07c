/* Makes one call of the bus library fail, to be loaded before it: BROKEN_CALL names the function,
   BROKEN_TEXT what its object path or method must contain. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <gio/gio.h>

static gboolean breaks(const char* call, const char* text) {
  const char* broken = g_getenv("BROKEN_CALL");
  const char* part = g_getenv("BROKEN_TEXT");

  return g_strcmp0(broken, call) == 0 && text != NULL && g_strrstr(text, part ? part : "") != NULL;
}

static void set_error(GError** error) {
  g_set_error_literal(error, G_IO_ERROR, G_IO_ERROR_FAILED, "broken on purpose");
}

gboolean g_dbus_interface_skeleton_export(GDBusInterfaceSkeleton* skeleton,
                                          GDBusConnection* connection, const gchar* path,
                                          GError** error) {
  gboolean (*real)(GDBusInterfaceSkeleton*, GDBusConnection*, const gchar*, GError**) =
      dlsym(RTLD_NEXT, __func__);

  if (breaks("export", path)) {
    set_error(error);
    return FALSE;
  }
  return real(skeleton, connection, path, error);
}

guint g_dbus_connection_register_object(GDBusConnection* connection, const gchar* path,
                                        GDBusInterfaceInfo* info,
                                        const GDBusInterfaceVTable* vtable, gpointer data,
                                        GDestroyNotify free_data, GError** error) {
  guint (*real)(GDBusConnection*, const gchar*, GDBusInterfaceInfo*, const GDBusInterfaceVTable*,
                gpointer, GDestroyNotify, GError**) = dlsym(RTLD_NEXT, __func__);

  if (breaks("register", path)) {
    set_error(error);
    return 0;
  }
  return real(connection, path, info, vtable, data, free_data, error);
}

gboolean g_dbus_connection_unregister_object(GDBusConnection* connection, guint id) {
  gboolean (*real)(GDBusConnection*, guint) = dlsym(RTLD_NEXT, __func__);
  gboolean done = real(connection, id);

  return done && !breaks("unregister", "");
}

GVariant* g_dbus_connection_call_sync(GDBusConnection* connection, const gchar* name,
                                      const gchar* path, const gchar* interface,
                                      const gchar* method, GVariant* arguments,
                                      const GVariantType* type, GDBusCallFlags flags, gint timeout,
                                      GCancellable* cancellable, GError** error) {
  GVariant* (*real)(GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
                    GVariant*, const GVariantType*, GDBusCallFlags, gint, GCancellable*, GError**) =
      dlsym(RTLD_NEXT, __func__);

  if (breaks("call", method)) {
    g_variant_unref(g_variant_ref_sink(arguments));
    set_error(error);
    return NULL;
  }
  return real(connection, name, path, interface, method, arguments, type, flags, timeout,
              cancellable, error);
}

static void* failing_proxy(const gchar* name, GError** error) {
  if (!breaks("proxy", name))
    return NULL;
  set_error(error);
  return (void*)name;
}

GDBusProxy* g_dbus_proxy_new_sync(GDBusConnection* connection, GDBusProxyFlags flags,
                                  GDBusInterfaceInfo* info, const gchar* name, const gchar* path,
                                  const gchar* interface, GCancellable* cancellable,
                                  GError** error) {
  GDBusProxy* (*real)(GDBusConnection*, GDBusProxyFlags, GDBusInterfaceInfo*, const gchar*,
                      const gchar*, const gchar*, GCancellable*, GError**) =
      dlsym(RTLD_NEXT, __func__);

  if (failing_proxy(name, error))
    return NULL;
  if ((flags & G_DBUS_PROXY_FLAGS_DO_NOT_AUTO_START_AT_CONSTRUCTION) && breaks("renew", name)) {
    set_error(error);
    return NULL;
  }
  return real(connection, flags, info, name, path, interface, cancellable, error);
}

GDBusProxy* g_dbus_proxy_new_for_bus_sync(GBusType bus, GDBusProxyFlags flags,
                                          GDBusInterfaceInfo* info, const gchar* name,
                                          const gchar* path, const gchar* interface,
                                          GCancellable* cancellable, GError** error) {
  GDBusProxy* (*real)(GBusType, GDBusProxyFlags, GDBusInterfaceInfo*, const gchar*, const gchar*,
                      const gchar*, GCancellable*, GError**) = dlsym(RTLD_NEXT, __func__);

  if (failing_proxy(name, error))
    return NULL;
  return real(bus, flags, info, name, path, interface, cancellable, error);
}

/* The proxies that nobody waits for: made all the same, and then taken for failures. */
GDBusProxy* g_dbus_proxy_new_finish(GAsyncResult* result, GError** error) {
  GDBusProxy* (*real)(GAsyncResult*, GError**) = dlsym(RTLD_NEXT, __func__);
  GDBusProxy* proxy = real(result, error);

  if (proxy == NULL || !failing_proxy(g_dbus_proxy_get_name(proxy), error))
    return proxy;
  g_object_unref(proxy);
  return NULL;
}
