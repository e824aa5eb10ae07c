// Services that let a call time out. Such a call holds its caller for 25 seconds, so the service is
// left alone for a while, or until its name is taken anew: a call that would be made meanwhile has
// failed already.
//
// Any thread.
#pragma once

#include <gio/gio.h>

#include <optional>

/// For how long a service is left alone, in seconds.
inline constexpr int hung_service_rest_s = 30;

/// Has the connection's messages looked at for names that are taken. Once for each connection.
void hung_services_listen(GDBusConnection* connection);

/// Has the bus tell this connection when the service's name is taken; again and again does no harm.
void hung_service_follow(GDBusConnection* connection, const char* name);

/// To be called before a service is called. None when it is to be left alone; else what
/// hung_service_call_failed() wants to know.
[[nodiscard]] std::optional<guint64> hung_service_begin_call(const char* name);

/// Whether anyone has a service's name, or the bus had to start the service.
enum class ServiceName { Unowned, Owned };

/// Leaves the service alone from now on, if it let the call time out and its name was not taken
/// anew since the call began.
void hung_service_call_failed(const char* name, guint64 begun, ServiceName state,
                              const GError* error);

/// Whether the service is left alone at the moment.
[[nodiscard]] bool hung_service_is_left_alone(const char* name);

/// The error of a call that was not made.
void hung_service_set_error(GError** error);
